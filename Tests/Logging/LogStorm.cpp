// SPDX-License-Identifier: MIT
#include "LogStorm.h"

#include <QDir>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QThread>

#include <algorithm>
#include <numeric>

LogStorm::LogStorm(UsbHalLog &log, qint64 linesEach)
{
    for (size_t thread = 0; thread < threadCount; ++thread)
        _threads.emplace_back([this, &log, thread, linesEach] { run(log, thread, linesEach); });
}

LogStorm::~LogStorm()
{
    stop();
}

void LogStorm::run(UsbHalLog &log, size_t thread, qint64 count)
{
    for (qint64 number = 1; number <= count && !_stopping; ++number) {
        // The end tells a whole number from one that was cut.
        log.log(QStringLiteral("storm"), 1, QStringLiteral("%1 %2 end").arg(thread).arg(number));
        _numbers[thread] = number;
    }
}

qint64 LogStorm::lines() const
{
    return std::accumulate(_numbers.begin(), _numbers.end(), qint64(0));
}

bool LogStorm::waitForLines(qint64 more, int msecs) const
{
    const qint64 awaited = lines() + more;
    QElapsedTimer timer;
    timer.start();
    while (lines() < awaited) {
        if (timer.elapsed() > msecs)
            return false;
        QThread::yieldCurrentThread();
    }
    return true;
}

void LogStorm::stop()
{
    _stopping = true;
    join();
}

void LogStorm::join()
{
    for (std::thread &thread : _threads)
        thread.join();
    _threads.clear();
}

QStringList stormFiles(const QString &folder)
{
    const auto numberOf = [](const QString &name) { return name.mid(6).chopped(4).toInt(); };
    QStringList names = QDir(folder).entryList({"UsbHal*.log"}, QDir::Files);
    std::sort(names.begin(), names.end(), [&](const QString &one, const QString &other) {
        return numberOf(one) < numberOf(other);
    });
    return names;
}

bool StormLines::take(const QStringList &lines)
{
    static const QString head =
        QStringLiteral("^(?:\\d\\d-\\d\\d-\\d{4} \\d\\d:\\d\\d:\\d\\d:\\d{3}"
                       " \\[THREAD -?\\d+\\] \\[storm:1\\]|USBHAL\\] storm -)");
    static const QRegularExpression whole(head + " ([0-7]) (\\d+) end$");
    static const QRegularExpression ofTheLogger(
        "^\\d\\d-\\d\\d-\\d{4} \\d\\d:\\d\\d:\\d\\d:\\d{3}(?:ERROR: couldn't open new log file, "
        "stop "
        "logging !| \\[THREAD -?\\d+\\] \\[log:\\d+\\] failed to remove log file: .*)$");
    for (const QString &line : lines) {
        const QRegularExpressionMatch match = whole.match(line);
        if (match.hasMatch()) {
            if (!takeNumber(match.captured(1).toInt(), match.captured(2).toLongLong()))
                return false;
        } else if (ofTheLogger.match(line).hasMatch()) {
            ++_others;
        } else if (line.contains("end") || line.size() > 80) {
            _fault = "more than the beginning of a line: " + line;
            return false;
        } else {
            ++_cut;
        }
    }
    return true;
}

bool StormLines::takeNumber(int thread, qint64 number)
{
    const qint64 last = _last.value(thread);
    if (number <= last) {
        _fault = QStringLiteral("thread %1: %2 behind %3").arg(thread).arg(number).arg(last);
        return false;
    }
    if (last != 0 && number != last + 1)
        _gapless = false;
    _last[thread] = number;
    ++_whole;
    return true;
}
