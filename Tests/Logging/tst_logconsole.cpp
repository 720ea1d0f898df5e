// SPDX-License-Identifier: MIT
#include "LogFixture.h"

#include <Background.h>
#include <ConsoleCapture.h>

#include <QtTest>

/** Log lines that go to standard output. */
class LogConsoleTest : public LogFixture
{
    Q_OBJECT

private slots:
    void aLineBeforeOpenGoesToTheConsole();
    void aConsoleLineShowsNeitherDateNorThreadNorNumber();
    void aConsoleLineIsFlushed();
    void aConsoleLineIsInLatin1();
    void anEmptyLineKeepsItsFrame();
    void aConsoleLineDoesNotNeedTheMutex();
    void configuringTheLoggerOpensNoFile();
    void linesLeaveTheConsoleWithTheFirstOpen();
    void linesStayOnTheConsoleWhenOpenFails();
};

void LogConsoleTest::aLineBeforeOpenGoesToTheConsole()
{
    QVERIFY(!log->isLogCreated());
    ConsoleCapture console;
    log->log(QStringLiteral("write"), 12, QStringLiteral("Write error: ok"));
    QCOMPARE(console.finish(), QByteArray("USBHAL] write - Write error: ok\n"));
}

void LogConsoleTest::aConsoleLineShowsNeitherDateNorThreadNorNumber()
{
    ConsoleCapture console;
    log->log(QStringLiteral("first"), 11, QStringLiteral("one"));
    log->log(QStringLiteral("second"), 22, QStringLiteral(" two "));
    QCOMPARE(console.finish(), QByteArray("USBHAL] first - one\nUSBHAL] second -  two \n"));
}

void LogConsoleTest::aConsoleLineIsFlushed()
{
    ConsoleCapture console;
    log->log(QStringLiteral("stop"), 1, QStringLiteral("watchdog stopped"));
    const QByteArray atOnce = console.text();
    console.finish();
    QCOMPARE(atOnce, QByteArray("USBHAL] stop - watchdog stopped\n"));
}

void LogConsoleTest::aConsoleLineIsInLatin1()
{
    ConsoleCapture console;
    log->log(QString::fromUtf8("fünc"), 1, QString::fromUtf8("größe €"));
    QCOMPARE(console.finish(), QByteArray("USBHAL] f\xFCnc - gr\xF6\xDF"
                                          "e ?\n"));
}

void LogConsoleTest::anEmptyLineKeepsItsFrame()
{
    ConsoleCapture console;
    log->log(QString(), 0, QString());
    QCOMPARE(console.finish(), QByteArray("USBHAL]  - \n"));
}

void LogConsoleTest::aConsoleLineDoesNotNeedTheMutex()
{
    QMutexLocker holder(log->getLogMutex());
    ConsoleCapture console;
    const auto line =
        inBackground([&] { log->log(QStringLiteral("read"), 1, QStringLiteral("from a thread")); });
    const bool ended = endsWithin(line, 5000);
    holder.unlock();
    line.wait();
    QCOMPARE(console.finish(), QByteArray("USBHAL] read - from a thread\n"));
    QVERIFY(ended);
}

void LogConsoleTest::configuringTheLoggerOpensNoFile()
{
    ParamHal param;
    param.maxLogLines = 10;
    QCOMPARE(log->setupConfig(param), false);
    QVERIFY(!log->isLogCreated());
    ConsoleCapture console;
    log->log(QStringLiteral("write"), 1, QStringLiteral("text"));
    QCOMPARE(console.finish(), QByteArray("USBHAL] write - text\n"));
}

void LogConsoleTest::linesLeaveTheConsoleWithTheFirstOpen()
{
    ConsoleCapture console;
    log->log(QStringLiteral("a"), 1, QStringLiteral("before"));
    const bool opened = openLog();
    log->log(QStringLiteral("a"), 2, QStringLiteral("after"));
    QCOMPARE(console.finish(), QByteArray("USBHAL] a - before\n"));
    QVERIFY(opened);
    QVERIFY(log->isLogCreated());
    QCOMPARE(folder->messages(1), QStringList("after"));
}

void LogConsoleTest::linesStayOnTheConsoleWhenOpenFails()
{
    QVERIFY(folder->obstruct("UsbHal1.log"));
    QVERIFY(folder->obstruct("UsbHal1.log.keep"));
    ConsoleCapture console;
    const bool opened = openLog();
    log->log(QStringLiteral("a"), 1, QStringLiteral("after"));
    QCOMPARE(console.finish(), QByteArray("USBHAL] a - after\n"));
    QVERIFY(!opened);
    QVERIFY(!log->isLogCreated());
}

QTEST_GUILESS_MAIN(LogConsoleTest)
#include "tst_logconsole.moc"
