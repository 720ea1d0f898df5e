// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include <BuiltProgram.h>

#include <QTemporaryDir>
#include <QtTest>

class CommandLineTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void portsAndFilesAreRead();
    void wrongCommandLinesAreRefusedWithTheirReason_data();
    void wrongCommandLinesAreRefusedWithTheirReason();
    void helpIsATextWithStatusZero();
    void theProgramEndsWithStatusTwoOnAWrongCommandLine();

private:
    CommandLine parse(QStringList arguments) const
    {
        return parseCommandLine(QStringList{"/usr/bin/host"} +
                                arguments.replaceInStrings("%", _file));
    }

    QTemporaryDir _folder;
    QString _file;
};

void CommandLineTest::initTestCase()
{
    _file = _folder.filePath("file");
    QFile file(_file);
    QVERIFY(file.open(QIODevice::WriteOnly));
}

void CommandLineTest::portsAndFilesAreRead()
{
    const CommandLine result =
        parse({"--node", "/node", "--manager-output", "%", "--port", "7=%:%:/stored", "--port",
               "0=%:%:/other", "--device-max-write", "500"});
    QVERIFY2(result.run, qPrintable(result.text));
    QCOMPARE(result.options.socketPath, QString("/node/host"));
    QCOMPARE(result.options.managerOutput, _file);
    QCOMPARE(result.options.deviceMaxWrite, 500);
    QCOMPARE(result.options.ports.size(), 2);
    QCOMPARE(result.options.ports[0].port, 7);
    QCOMPARE(result.options.ports[0].toDevice, _file);
    QCOMPARE(result.options.ports[0].stored, QString("/stored"));
    QCOMPARE(result.options.ports[1].port, 0);
}

void CommandLineTest::wrongCommandLinesAreRefusedWithTheirReason_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("reason");
    const auto row = [](const char *name, const QStringList &arguments, const char *reason) {
        QTest::newRow(name) << arguments << reason;
    };
    const QStringList node{"--node", "n"};
    const QStringList both{"--node", "n", "--manager-output", "%"};
    const QStringList all = both + QStringList{"--port", "1=%:%:s"};
    row("nothing", {}, "--node is missing");
    row("unknown option", {"--nonsense"}, "there is no option \"--nonsense\"");
    row("argument", all + QStringList{"word"}, "unexpected argument \"word\"");
    row("no output", node, "--manager-output is missing");
    row("missing output", node + QStringList{"--manager-output", "/missing"}, "not \"/missing\"");
    row("folder as output", node + QStringList{"--manager-output", "/"},
        "--manager-output needs a file that can be read, not \"/\"");
    row("no port", both, "--port is missing");
    row("port without number", both + QStringList{"--port", "=%:%:s"}, "N from 0 to 9999");
    row("port without files", both + QStringList{"--port", "1"}, "not \"1\"");
    row("port too large", both + QStringList{"--port", "10000=%:%:s"}, "N from 0 to 9999");
    row("negative port", both + QStringList{"--port", "-1=%:%:s"}, "N from 0 to 9999");
    row("two files", both + QStringList{"--port", "1=%:%"}, "N=TO_DEVICE:TO_HOST:STORED");
    row("nowhere to store", both + QStringList{"--port", "1=%:%:"}, "N=TO_DEVICE:TO_HOST:STORED");
    row("missing file", both + QStringList{"--port", "1=%:/missing:s"},
        "--port needs files that are there, not \"/missing\"");
    row("port twice", all + QStringList{"--port", "1=%:%:t"}, "--port is given twice for port 1");
    row("size as word", all + QStringList{"--device-max-write", "ten"},
        "--device-max-write needs a whole number from 14 to 65536, not \"ten\"");
    row("size too small", all + QStringList{"--device-max-write", "13"}, "not \"13\"");
    row("size too large", all + QStringList{"--device-max-write", "65537"}, "not \"65537\"");
}

void CommandLineTest::wrongCommandLinesAreRefusedWithTheirReason()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, reason);
    const CommandLine result = parse(arguments);
    QVERIFY(!result.run);
    QCOMPARE(result.exitStatus, 2);
    QVERIFY2(result.text.contains(reason), qPrintable(result.text));
    QVERIFY(result.text.startsWith("host: "));
    QVERIFY(result.text.endsWith("Try \"host --help\".\n"));
    QCOMPARE(result.text.count('\n'), 2);
}

void CommandLineTest::helpIsATextWithStatusZero()
{
    const CommandLine result = parse({"--help"});
    QVERIFY(!result.run);
    QCOMPARE(result.exitStatus, 0);
    QVERIFY(result.text.contains("--manager-output"));
    QVERIFY(result.text.contains("by default 10000"));
    QVERIFY(parse({"--version"}).text.startsWith("host "));
}

void CommandLineTest::theProgramEndsWithStatusTwoOnAWrongCommandLine()
{
    const QStringList missing{"--node", "n", "--manager-output", "/missing"};
    const QStringList folder{"--node", "n", "--manager-output", _folder.path()};
    for (const QStringList &arguments : {missing, folder}) {
        ForkedProcess program;
        startBuilt(program, DEMO_HOST, arguments);
        QVERIFY(program.waitForFinished(20000));
        QCOMPARE(program.exitStatus(), QProcess::NormalExit);
        QCOMPARE(program.exitCode(), 2);
        QVERIFY(program.readAllStandardError().contains("--manager-output needs"));
        QCOMPARE(program.readAllStandardOutput(), QByteArray());
    }
}

QTEST_GUILESS_MAIN(CommandLineTest)
#include "tst_commandline.moc"
