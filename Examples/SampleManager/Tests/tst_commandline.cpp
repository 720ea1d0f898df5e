// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include <QtTest>

namespace {

CommandLine parse(const QStringList &arguments)
{
    return parseCommandLine(QStringList{"/usr/bin/manager"} + arguments);
}

ParamHal paramOf(const QStringList &arguments)
{
    ParamHal param;
    param.maxReadSize = 10000;
    param.rdTimeout = 2000;
    parse(arguments).options.applyTo(param);
    return param;
}

} // namespace

class CommandLineTest : public QObject
{
    Q_OBJECT

private slots:
    void withoutOptionsFivePortsHaveTheirDefaultServices();
    void aPortOptionReplacesTheServiceOfThatPortOnly();
    void theLastServiceOfAPortCounts();
    void numbersReachTheirFieldsAndTheRestKeepsItsDefault();
    void wrongCommandLinesAreRefusedWithTheirReason_data();
    void wrongCommandLinesAreRefusedWithTheirReason();
    void helpIsATextWithStatusZeroAndAllDefaults();
    void versionIsATextWithStatusZero();
    void theDefaultsAreTheLibrarysButForTheStop();
};

void CommandLineTest::withoutOptionsFivePortsHaveTheirDefaultServices()
{
    const CommandLine result = parse({});
    QVERIFY(result.run);
    const QMap<int, ServiceOptions> &services = result.options.services;
    QCOMPARE(services.keys(), (QList<int>{1, 2, 3, 4, 5}));
    QVERIFY(services[1].kind == ServiceKind::Echo);
    QVERIFY(services[2].kind == ServiceKind::Sink);
    QVERIFY(services[3].kind == ServiceKind::Source);
    QVERIFY(services[4].kind == ServiceKind::File);
    QVERIFY(services[5].kind == ServiceKind::Echo);
}

void CommandLineTest::aPortOptionReplacesTheServiceOfThatPortOnly()
{
    const CommandLine result = parse({"--port", "1=file:/a/b:c", "--port=5=sink"});
    QVERIFY(result.run);
    const QMap<int, ServiceOptions> &services = result.options.services;
    QVERIFY(services[1].kind == ServiceKind::File);
    QCOMPARE(services[1].sendPath, QString("/a/b"));
    QCOMPARE(services[1].receivePath, QString("c"));
    QVERIFY(services[5].kind == ServiceKind::Sink);
    QVERIFY(services[2].kind == ServiceKind::Sink);
    QCOMPARE(services.size(), 5);
}

void CommandLineTest::theLastServiceOfAPortCounts()
{
    const CommandLine result = parse({"--port", "1=file:a:b", "--port", "1=source"});
    QVERIFY(result.run);
    QVERIFY(result.options.services[1].kind == ServiceKind::Source);
    QCOMPARE(result.options.services[1].sendPath, QString());
}

void CommandLineTest::numbersReachTheirFieldsAndTheRestKeepsItsDefault()
{
    const QStringList arguments{"--log-dir",
                                "/log",
                                "--max-write-size",
                                "500",
                                "--read-timeout",
                                "7",
                                "--write-timeout",
                                "8",
                                "--retries",
                                "0",
                                "--main-loop-period",
                                "9",
                                "--watchdog-errors",
                                "10",
                                "--stop-timeout",
                                "11",
                                "--wait",
                                "0",
                                "--silence",
                                "12",
                                "--max-file-size",
                                "010",
                                "--verbose"};
    const CommandLine result = parse(arguments);
    QVERIFY(result.run);
    const ParamHal param = paramOf(arguments);
    QCOMPARE(param.logDir, QString("/log"));
    QCOMPARE(param.maxReadSize, 10000u);
    QCOMPARE(param.maxWriteSize, 500u);
    QCOMPARE(param.rdTimeout, 7u);
    QCOMPARE(param.wrTimeout, 8u);
    QCOMPARE(param.nbRetry, 0u);
    QCOMPARE(param.mainLoopPeriod, 9u);
    QCOMPARE(param.maxWatchdogErrors, 10u);
    QCOMPARE(param.threadStopTimeout, 11u);
    QCOMPARE(result.options.firstWait, 0);
    QCOMPARE(result.options.silenceLimit, 12);
    QCOMPARE(result.options.largestFile, qint64(10));
    QVERIFY(result.options.verbose);
    QCOMPARE(paramOf({"--max-read-size", "14"}).maxReadSize, 14u);
    QCOMPARE(paramOf({}).rdTimeout, 2000u);
}

void CommandLineTest::wrongCommandLinesAreRefusedWithTheirReason_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("reason");
    const auto row = [](const QStringList &arguments, const char *reason) {
        QTest::newRow(qPrintable(arguments.join(' '))) << arguments << reason;
    };
    row({"--nonsense"}, "there is no option \"--nonsense\"");
    row({""}, "unexpected argument \"\"");
    row({"--verbose=x"}, "--verbose takes no value");
    row({"word"}, "unexpected argument \"word\"");
    row({"--port"}, "--port needs a value");
    row({"--port", "echo"}, "not \"echo\"");
    row({"--port", "0=echo"}, "N from 1 to 5, not \"0=echo\"");
    row({"--port", "6=echo"}, "N from 1 to 5, not \"6=echo\"");
    row({"--port", "12=echo"}, "N from 1 to 5, not \"12=echo\"");
    row({"--port", "1=shout"}, "not \"1=shout\"");
    row({"--port", "1=echo:x"}, "not \"1=echo:x\"");
    row({"--port", "1=file"}, "N=file:SEND_PATH:RECEIVE_PATH");
    row({"--port", "1=file:a"}, "not \"1=file:a\"");
    row({"--port", "1=file::b"}, "not \"1=file::b\"");
    row({"--port", "1=file:a:"}, "not \"1=file:a:\"");
    row({"--port", "1=file:a:b:c"}, "not \"1=file:a:b:c\"");
    row({"--max-read-size", "ten"}, "--max-read-size needs a whole number from 14 to 65536");
    row({"--max-read-size", "13"}, "not \"13\"");
    row({"--max-write-size", "65537"}, "not \"65537\"");
    row({"--max-write-size", "99999999999999999999"}, "not \"99999999999999999999\"");
    row({"--read-timeout", "-1"}, "not \"-1\"");
    row({"--read-timeout", "+1"}, "not \"+1\"");
    row({"--read-timeout", " 1"}, "not \" 1\"");
    row({"--read-timeout", ""}, "not \"\"");
    row({"--wait", "1.5"}, "--wait needs a whole number from 0");
}

void CommandLineTest::wrongCommandLinesAreRefusedWithTheirReason()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, reason);
    const CommandLine result = parse(arguments);
    QVERIFY(!result.run);
    QCOMPARE(result.exitStatus, 2);
    QVERIFY2(result.text.contains(reason), qPrintable(result.text));
    QVERIFY(result.text.startsWith("manager: "));
    QVERIFY(result.text.endsWith("Try \"manager --help\".\n"));
    QCOMPARE(result.text.count('\n'), 2);
}

void CommandLineTest::helpIsATextWithStatusZeroAndAllDefaults()
{
    const CommandLine result = parse({"--help"});
    QVERIFY(!result.run);
    QCOMPARE(result.exitStatus, 0);
    for (const char *word : {"--port", "--log-dir", "--read-timeout", "echo", "GIVE", "STORED"})
        QVERIFY2(result.text.contains(word), word);
    QCOMPARE(result.text.simplified().count("by default"), result.text.count("\n  --") - 2);
}

void CommandLineTest::versionIsATextWithStatusZero()
{
    const CommandLine result = parse({"--version"});
    QVERIFY(!result.run);
    QCOMPARE(result.exitStatus, 0);
    QCOMPARE(result.text, QString("manager " PROJECT_VERSION "\n"));
}

void CommandLineTest::theDefaultsAreTheLibrarysButForTheStop()
{
    ParamHal library;
    UsbHALIntf::getInstance()->getDefaultSetup(library);
    const ParamHal param = paramOf({});
    QCOMPARE(param.maxReadSize, library.maxReadSize);
    QCOMPARE(param.maxWriteSize, library.maxWriteSize);
    QCOMPARE(param.rdTimeout, library.rdTimeout);
    QCOMPARE(param.wrTimeout, library.wrTimeout);
    QCOMPARE(param.nbRetry, library.nbRetry);
    QCOMPARE(param.maxWatchdogErrors, library.maxWatchdogErrors);
    QVERIFY(param.threadStopTimeout >= library.rdTimeout + 1500);
}

QTEST_GUILESS_MAIN(CommandLineTest)
#include "tst_commandline.moc"
