// SPDX-License-Identifier: MIT
#include "LogCapture.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>

namespace {

int fileNumber(const QString &name)
{
    return name.mid(QStringLiteral("UsbHal").size()).section('.', 0, 0).toInt();
}

} // namespace

LogCapture::LogCapture() = default;

QList<LogEntry> LogCapture::entries() const
{
    static const QRegularExpression format(
        "^(\\d\\d-\\d\\d-\\d{4} \\d\\d:\\d\\d:\\d\\d:\\d{3}) \\[THREAD (-?\\d+)\\] "
        "\\[([^:]*):(\\d+)\\] (.*)$",
        QRegularExpression::DotMatchesEverythingOption);
    QStringList names = QDir(folder()).entryList({QStringLiteral("UsbHal*.log")}, QDir::Files);
    std::sort(names.begin(), names.end(),
              [](const QString &a, const QString &b) { return fileNumber(a) < fileNumber(b); });
    QList<LogEntry> entries;
    for (const QString &name : names) {
        QFile file(folder() + '/' + name);
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QStringList lines = QString::fromUtf8(file.readAll()).split('\n');
        for (const QString &line : lines) {
            const QRegularExpressionMatch match = format.match(line);
            if (match.hasMatch())
                entries.append({match.captured(1), match.captured(2).toInt(), match.captured(3),
                                match.captured(4).toInt(), match.captured(5)});
        }
    }
    return entries;
}

QStringList LogCapture::lines() const
{
    QStringList lines;
    const QList<LogEntry> all = entries();
    for (const LogEntry &entry : all)
        lines.append(entry.function + ": " + entry.message);
    return lines;
}

int LogCapture::count(const QString &line) const
{
    return lines().count(line);
}

bool LogCapture::waitFor(const QString &line, int times, int msecs) const
{
    return QTest::qWaitFor([&] { return count(line) >= times; }, msecs);
}
