// SPDX-License-Identifier: MIT
#include "LogFixture.h"

#include <ConsoleCapture.h>

#include <QRegularExpression>
#include <QtTest>

#include <thread>
#include <vector>

namespace {

constexpr int threadCount = 8;
/** Each of the threads logs "<thread> <number>", with the numbers from 1 to count. */
void logFromThreads(UsbHalLog &log, int count)
{
    std::vector<std::thread> threads;
    for (int id = 0; id < threadCount; ++id) {
        threads.emplace_back([&log, id, count] {
            for (int i = 1; i <= count; ++i)
                log.log(QStringLiteral("count"), 1, QStringLiteral("%1 %2").arg(id).arg(i));
        });
    }
    for (std::thread &thread : threads)
        thread.join();
}

/** Whether every line is whole, and each thread's numbers rise by one from line to line. */
bool areInOrder(const QStringList &lines)
{
    static const QRegularExpression form(
        "^\\d\\d-\\d\\d-\\d{4} \\d\\d:\\d\\d:\\d\\d:\\d{3} \\[THREAD -?\\d+\\] \\[count:1\\] "
        "([0-7]) (\\d+)$");
    int numbers[threadCount] = {};
    for (const QString &line : lines) {
        const QRegularExpressionMatch match = form.match(line);
        if (!match.hasMatch())
            return false;
        int &last = numbers[match.captured(1).toInt()];
        const int number = match.captured(2).toInt();
        if (last != 0 && number != last + 1)
            return false;
        last = number;
    }
    return true;
}

} // namespace

/** Several threads that log at once. */
class LogThreadsTest : public LogFixture
{
    Q_OBJECT

private slots:
    void linesAreWholeAndInOrder();
    void linesStayWholeAcrossRotations();
    void consoleLinesAreAllWritten();
    void theLogMayBeOpenedWhileOthersLog();
};

void LogThreadsTest::linesAreWholeAndInOrder()
{
    QVERIFY(openLog());
    logFromThreads(*log, 1000);
    const QStringList lines = folder->lines(1);
    QCOMPARE(lines.size(), threadCount * 1000);
    QVERIFY(areInOrder(lines));
}

void LogThreadsTest::linesStayWholeAcrossRotations()
{
    QVERIFY(openLog(30));
    logFromThreads(*log, 300);
    // 2400 lines fill 80 files.
    QCOMPARE(folder->names(), QStringList({"UsbHal79.log", "UsbHal80.log"}));
    const QStringList lines = folder->lines(79) + folder->lines(80);
    QCOMPARE(lines.size(), 60);
    QVERIFY(areInOrder(lines));
}

void LogThreadsTest::consoleLinesAreAllWritten()
{
    ConsoleCapture console;
    logFromThreads(*log, 50);
    QByteArray text = console.finish();
    // Console lines may be mingled, but nothing of them is lost.
    const int size = text.size();
    QCOMPARE(text.count('\n'), threadCount * 50);
    QByteArray expected;
    for (int id = 0; id < threadCount; ++id) {
        for (int i = 1; i <= 50; ++i)
            expected +=
                "USBHAL] count - " + QByteArray::number(id) + ' ' + QByteArray::number(i) + '\n';
    }
    QCOMPARE(size, expected.size());
}

void LogThreadsTest::theLogMayBeOpenedWhileOthersLog()
{
    const LogFolder second;
    QVERIFY(openLog());
    std::thread writers([this] { logFromThreads(*log, 200); });
    const bool moved = log->open(second.path(), logName);
    writers.join();
    QVERIFY(moved);
    const QStringList lines = folder->lines(1) + second.lines(1);
    QCOMPARE(lines.size(), threadCount * 200);
    QVERIFY(areInOrder(lines));
}

QTEST_GUILESS_MAIN(LogThreadsTest)
#include "tst_logthreads.moc"
