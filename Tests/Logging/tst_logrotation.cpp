// SPDX-License-Identifier: MIT
#include "LogFixture.h"

#include <Background.h>
#include <ConsoleCapture.h>

#include <QRegularExpression>
#include <QtTest>

namespace {

QStringList numbers(int first, int last)
{
    QStringList texts;
    for (int i = first; i <= last; ++i)
        texts.append(QString::number(i));
    return texts;
}

const QRegularExpression
    stopLine("^\\d\\d-\\d\\d-\\d{4} \\d\\d:\\d\\d:\\d\\d:\\d{3}ERROR: couldn't open new log file, "
             "stop logging !$");

} // namespace

/** How one log file follows another. */
class LogRotationTest : public LogFixture
{
    Q_OBJECT

private slots:
    void aFileHoldsTheConfiguredNumberOfLines_data();
    void aFileHoldsTheConfiguredNumberOfLines();
    void aFileHolds10000LinesUnlessConfigured();
    void theLineAfterTheLastBeginsTheNextFile();
    void atMostTwoFilesStand();
    void aNegativeLimitBeginsAFileWithEveryLine();
    void aLoweredLimitCountsForTheCurrentFile();
    void aFileInTheWayOfTheNextIsTruncated();

    void aNextFileThatCannotBeOpenedStopsTheLog();
    void theOldFileIsRemovedEvenWhenTheLogStops();
    void aStoppedLogTellsNothingWithoutThePreviousFile();
    void aStoppedLogMayBeOpenedAgain();
    void aLineThatWaitedWhileTheLogStoppedGoesToTheConsole();

    void anOldFileThatCannotBeRemovedIsReported();
    void theReportNamesTheDefaultBaseName();
    void noReportIsMadeWhenTheLogStopped();
    void theReportOfARemovalHasAnEndWithOneLineAFile();
};

void LogRotationTest::aFileHoldsTheConfiguredNumberOfLines_data()
{
    QTest::addColumn<int>("configured");
    QTest::addColumn<int>("lines");
    QTest::newRow("0") << 0 << 500;
    QTest::newRow("1") << 1 << 1;
    QTest::newRow("499") << 499 << 499;
    QTest::newRow("19999") << 19999 << 19999;
    QTest::newRow("20000") << 20000 << 20000;
    QTest::newRow("20001") << 20001 << 20000;
    QTest::newRow("30000") << 30000 << 20000;
}

void LogRotationTest::aFileHoldsTheConfiguredNumberOfLines()
{
    QFETCH(int, configured);
    QFETCH(int, lines);
    QVERIFY(openLog(configured));
    logNumbers(*log, 1, lines);
    QCOMPARE(folder->names(), QStringList("UsbHal1.log"));
    logNumbers(*log, lines + 1, lines + 1);
    QCOMPARE(folder->messages(1), numbers(1, lines));
    QCOMPARE(folder->messages(2), numbers(lines + 1, lines + 1));
}

void LogRotationTest::aFileHolds10000LinesUnlessConfigured()
{
    QVERIFY(openLog());
    logNumbers(*log, 1, 10001);
    QCOMPARE(folder->messages(1), numbers(1, 10000));
    QCOMPARE(folder->messages(2), numbers(10001, 10001));
}

void LogRotationTest::theLineAfterTheLastBeginsTheNextFile()
{
    QVERIFY(openLog(500));
    logNumbers(*log, 1, 1500);
    QCOMPARE(folder->names(), QStringList({"UsbHal2.log", "UsbHal3.log"}));
    logNumbers(*log, 1501, 1501);
    QCOMPARE(folder->names(), QStringList({"UsbHal3.log", "UsbHal4.log"}));
    QCOMPARE(folder->messages(3), numbers(1001, 1500));
    QCOMPARE(folder->messages(4), numbers(1501, 1501));
    logNumbers(*log, 1502, 2000);
    QCOMPARE(folder->messages(4), numbers(1501, 2000));
}

void LogRotationTest::atMostTwoFilesStand()
{
    QVERIFY(openLog(3));
    for (int line = 1; line <= 60; ++line) {
        logNumbers(*log, line, line);
        const int current = (line + 2) / 3;
        QStringList expected(LogFolder::name(current));
        if (current > 1)
            expected.append(LogFolder::name(current - 1));
        expected.sort();
        QCOMPARE(folder->names(), expected);
        QCOMPARE(folder->openDescriptors(), 1);
    }
}

void LogRotationTest::aNegativeLimitBeginsAFileWithEveryLine()
{
    QVERIFY(openLog(-5));
    QCOMPARE(folder->names(), QStringList("UsbHal1.log"));
    logNumbers(*log, 1, 1);
    QCOMPARE(folder->names(), QStringList({"UsbHal1.log", "UsbHal2.log"}));
    QCOMPARE(folder->content("UsbHal1.log"), QByteArray());
    logNumbers(*log, 2, 3);
    QCOMPARE(folder->names(), QStringList({"UsbHal3.log", "UsbHal4.log"}));
    QCOMPARE(folder->messages(3), QStringList("2"));
    QCOMPARE(folder->messages(4), QStringList("3"));
}

void LogRotationTest::aLoweredLimitCountsForTheCurrentFile()
{
    QVERIFY(openLog());
    logNumbers(*log, 1, 10);
    limitLines(5);
    logNumbers(*log, 11, 11);
    QCOMPARE(folder->messages(1), numbers(1, 10));
    QCOMPARE(folder->messages(2), numbers(11, 11));
}

void LogRotationTest::aFileInTheWayOfTheNextIsTruncated()
{
    QVERIFY(openLog(1));
    QVERIFY(folder->write("UsbHal2.log", "in the way\n"));
    logNumbers(*log, 1, 2);
    QCOMPARE(folder->messages(2), QStringList("2"));
}

void LogRotationTest::aNextFileThatCannotBeOpenedStopsTheLog()
{
    QVERIFY(openLog(5));
    logNumbers(*log, 1, 15);
    QVERIFY(folder->obstruct("UsbHal4.log"));
    ConsoleCapture console;
    logNumbers(*log, 16, 18);
    // Line 16 began the rotation and is lost.
    QCOMPARE(console.finish(), QByteArray("USBHAL] count - 17\nUSBHAL] count - 18\n"));
    QVERIFY(!log->isLogCreated());
    const QStringList lines = folder->lines(3);
    QCOMPARE(lines.size(), 6);
    QVERIFY2(stopLine.match(lines.last()).hasMatch(), qPrintable(lines.last()));
    QCOMPARE(folder->messages(3).mid(0, 5), numbers(11, 15));
    QCOMPARE(folder->openDescriptors(), 0);
}

void LogRotationTest::theOldFileIsRemovedEvenWhenTheLogStops()
{
    QVERIFY(openLog(1));
    logNumbers(*log, 1, 3);
    QVERIFY(folder->obstruct("UsbHal4.log"));
    logNumbers(*log, 4, 4);
    QCOMPARE(folder->names(), QStringList({"UsbHal3.log", "UsbHal4.log"}));
}

void LogRotationTest::aStoppedLogTellsNothingWithoutThePreviousFile()
{
    QVERIFY(openLog(1));
    logNumbers(*log, 1, 1);
    QVERIFY(folder->replaceByObstruction("UsbHal1.log"));
    QVERIFY(folder->obstruct("UsbHal2.log"));
    ConsoleCapture console;
    logNumbers(*log, 2, 3);
    QCOMPARE(console.finish(), QByteArray("USBHAL] count - 3\n"));
    QVERIFY(!log->isLogCreated());
}

void LogRotationTest::aStoppedLogMayBeOpenedAgain()
{
    const LogFolder other;
    QVERIFY(openLog(2));
    logNumbers(*log, 1, 2);
    QVERIFY(folder->obstruct("UsbHal2.log"));
    logNumbers(*log, 3, 3);
    QVERIFY(!log->isLogCreated());
    QVERIFY(log->open(other.path(), logName));
    QVERIFY(log->isLogCreated());
    QCOMPARE(other.names(), QStringList("UsbHal2.log"));
    // The count of the full file goes on, and the number of a file that never stood here.
    logNumbers(*log, 4, 4);
    QCOMPARE(other.messages(3), QStringList({"4", "failed to remove log file: " + other.file(1)}));
}

void LogRotationTest::aLineThatWaitedWhileTheLogStoppedGoesToTheConsole()
{
    QVERIFY(openLog(1));
    logNumbers(*log, 1, 1);
    QVERIFY(folder->obstruct("UsbHal2.log"));
    ConsoleCapture console;
    log->getLogMutex()->lock();
    const auto line = inBackground([&] { logNumbers(*log, 2, 2); });
    const bool endedEarly = endsWithin(line, 100);
    logNumbers(*log, 3, 3);
    log->getLogMutex()->unlock();
    QVERIFY(endsWithin(line, 5000));
    QCOMPARE(console.finish(), QByteArray("USBHAL] count - 2\n"));
    QVERIFY(!endedEarly);
    const QStringList lines = folder->lines(1);
    QCOMPARE(lines.size(), 2);
    QVERIFY2(stopLine.match(lines.last()).hasMatch(), qPrintable(lines.last()));
}

void LogRotationTest::anOldFileThatCannotBeRemovedIsReported()
{
    QVERIFY(openLog(5));
    logNumbers(*log, 1, 15);
    QVERIFY(folder->replaceByObstruction(LogFolder::name(2)));
    ConsoleCapture console;
    logNumbers(*log, 16, 17);
    QCOMPARE(console.finish(), QByteArray());
    QCOMPARE(folder->messages(4),
             QStringList({"16", "failed to remove log file: " + folder->file(2), "17"}));
    QVERIFY(folder->lines(4).at(1).contains("] [log:"));
}

void LogRotationTest::theReportNamesTheDefaultBaseName()
{
    limitLines(5);
    QVERIFY(log->open(folder->path(), QStringLiteral("Trace")));
    logNumbers(*log, 1, 10);
    QVERIFY(folder->replaceByObstruction("Trace1.log"));
    logNumbers(*log, 11, 11);
    QCOMPARE(folder->messages("Trace3.log"),
             QStringList({"11", "failed to remove log file: " + folder->file("UsbHal1.log")}));
}

void LogRotationTest::noReportIsMadeWhenTheLogStopped()
{
    QVERIFY(openLog(1));
    logNumbers(*log, 1, 2);
    QVERIFY(folder->replaceByObstruction(LogFolder::name(1)));
    QVERIFY(folder->obstruct(LogFolder::name(3)));
    ConsoleCapture console;
    logNumbers(*log, 3, 3);
    QCOMPARE(console.finish(), QByteArray());
    QVERIFY(!log->isLogCreated());
    QCOMPARE(folder->lines(2).size(), 2);
    QVERIFY(stopLine.match(folder->lines(2).last()).hasMatch());
}

void LogRotationTest::theReportOfARemovalHasAnEndWithOneLineAFile()
{
    QVERIFY(openLog(1));
    logNumbers(*log, 1, 2);
    QVERIFY(folder->replaceByObstruction(LogFolder::name(1)));
    QVERIFY(folder->replaceByObstruction(LogFolder::name(2)));
    // The report of file 1 begins file 4, and there the removal of file 2 fails in its turn.
    logNumbers(*log, 3, 3);
    QCOMPARE(folder->messages(4), QStringList("failed to remove log file: " + folder->file(1)));
    logNumbers(*log, 4, 4);
    QStringList messages;
    for (int number = 5; number <= 6; ++number)
        messages += folder->messages(number);
    QVERIFY2(messages.contains("4"), qPrintable(messages.join(", ")));
}

QTEST_GUILESS_MAIN(LogRotationTest)
#include "tst_logrotation.moc"
