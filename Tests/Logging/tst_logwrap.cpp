// SPDX-License-Identifier: MIT
#include "LogFixture.h"

#include <ConsoleCapture.h>

#include <QtTest>

/** What follows the file with the highest number. */
class LogWrapTest : public LogFixture
{
    Q_OBJECT

private slots:
    void theNumberAfter30000Is1();
    void aStoppedLogTellsNothingWhenNumberOneFails();

private:
    void fill30000Files();
};

/** Leaves the logger in its file 30000, with one line in each file. */
void LogWrapTest::fill30000Files()
{
    QVERIFY(openLog(1));
    logNumbers(*log, 1, 30000);
    QCOMPARE(folder->names(), QStringList({"UsbHal29999.log", "UsbHal30000.log"}));
}

void LogWrapTest::theNumberAfter30000Is1()
{
    fill30000Files();
    logNumbers(*log, 30001, 30001);
    QCOMPARE(folder->names(), QStringList({"UsbHal1.log", "UsbHal30000.log"}));
    QCOMPARE(folder->messages(1), QStringList("30001"));
    logNumbers(*log, 30002, 30002);
    QCOMPARE(folder->names(), QStringList({"UsbHal1.log", "UsbHal2.log", "UsbHal30000.log"}));
    logNumbers(*log, 30003, 30003);
    QCOMPARE(folder->names(), QStringList({"UsbHal2.log", "UsbHal3.log", "UsbHal30000.log"}));
    QCOMPARE(folder->messages(30000), QStringList("30000"));
}

void LogWrapTest::aStoppedLogTellsNothingWhenNumberOneFails()
{
    fill30000Files();
    QVERIFY(folder->obstruct("UsbHal1.log"));
    ConsoleCapture console;
    logNumbers(*log, 30001, 30002);
    QCOMPARE(console.finish(), QByteArray("USBHAL] count - 30002\n"));
    QVERIFY(!log->isLogCreated());
    QCOMPARE(folder->messages(30000), QStringList("30000"));
    QCOMPARE(folder->names(), QStringList({"UsbHal1.log", "UsbHal30000.log"}));
}

QTEST_GUILESS_MAIN(LogWrapTest)
#include "tst_logwrap.moc"
