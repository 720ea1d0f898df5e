// SPDX-License-Identifier: MIT
#include <BuiltProgram.h>
#include <SimNodeControl.h>
#include <WireMessages.h>

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <stdexcept>

namespace {

constexpr int timeout = 60000; // ms
const char statusLine[] =
    "after \\d+ s: cycles (\\d+), bytes (\\d+), reconnects (\\d+), kills \\d+, "
    "resident memory \\d+ kB, descriptors \\d+\\n";

QRegularExpressionMatch lastStatus(const QByteArray &output)
{
    QRegularExpressionMatch last;
    auto matches = QRegularExpression(statusLine).globalMatch(QString::fromUtf8(output));
    while (matches.hasNext())
        last = matches.next();
    return last;
}

/** The soak program, over a node of its own or without any. */
class SoakProcess
{
public:
    void startOverNode(const QStringList &options)
    {
        QStringList words = QStringList{"run", "--dir", _nodeFolder.path(), "--"} +
                            wordsToRun(SOAK_PROGRAM) + QStringList("--virtual");
#ifdef SOAK_WITHOUT_KILLS
        words += "--without-kills";
#endif
        startBuilt(_process, SIMNODE_PROGRAM, words + options);
    }
    void startAlone(const QStringList &options)
    {
        startBuilt(_process, SOAK_PROGRAM, options);
    }
    void terminate()
    {
        _process.terminate();
    }

    int waitForEnd()
    {
        if (!_process.waitForFinished(timeout) || _process.exitStatus() != QProcess::NormalExit)
            return -1;
        return _process.exitCode();
    }
    bool hasEnded()
    {
        return _process.waitForFinished(10);
    }
    bool waitForStatus()
    {
        return QTest::qWaitFor([this] { return lastStatus(output()).hasMatch(); }, timeout);
    }
    QByteArray output()
    {
        _output += _process.readAllStandardOutput();
        return _output;
    }
    QByteArray errors()
    {
        return _process.readAllStandardError();
    }
    int exitCode() const
    {
        return _process.exitCode();
    }
    std::string nodeFolder() const
    {
        return _nodeFolder.path().toStdString();
    }

private:
    const QTemporaryDir _nodeFolder;
    ForkedProcess _process;
    QByteArray _output;
};

// A message for port 1 with a byte that only port 2 may get; false when there is no node any more.
bool injectForeignByte(const std::string &nodeFolder)
{
    try {
        SimNodeControl node(nodeFolder);
        return node.command("inject " + dataMessage(1, "\x0a").toHex().toStdString()) == "ok";
    } catch (const std::runtime_error &) {
        return false;
    }
}

} // namespace

class SoakTest : public QObject
{
    Q_OBJECT

private slots:
    void aRunOfSomeSecondsReportsItsWork();
    void aSignalEndsTheRunInOrder();
    void aByteOnTheWrongPortEndsTheRunWithItsSeed();
    void aWrongCommandLineSaysWhatIsWrong_data();
    void aWrongCommandLineSaysWhatIsWrong();
    void helpTellsTheDefaultsAndVersionTheVersion();
};

void SoakTest::aRunOfSomeSecondsReportsItsWork()
{
    SoakProcess soak;
    soak.startOverNode({"--seconds", "3", "--status-period", "1", "--seed", "7"});
    QCOMPARE(soak.waitForEnd(), 0);
    QVERIFY(soak.output().startsWith("usbhal-soak: seed 7\n"));
    const QRegularExpressionMatch status = lastStatus(soak.output());
    QVERIFY(status.hasMatch());
    QVERIFY(status.captured(1).toInt() > 0);
    QVERIFY(status.captured(2).toInt() > 0);
    QCOMPARE(soak.errors(), QByteArray());
}

void SoakTest::aSignalEndsTheRunInOrder()
{
    SoakProcess soak;
    soak.startOverNode({"--status-period", "0.5"});
    QVERIFY(soak.waitForStatus());
    soak.terminate();
    QCOMPARE(soak.waitForEnd(), 0);
    QCOMPARE(soak.errors(), QByteArray());
}

void SoakTest::aByteOnTheWrongPortEndsTheRunWithItsSeed()
{
    SoakProcess soak;
    soak.startOverNode({"--seed", "7"});
    QVERIFY(QTest::qWaitFor(
        [&] {
            injectForeignByte(soak.nodeFolder());
            return soak.hasEnded();
        },
        timeout));
    QCOMPARE(soak.exitCode(), 1);
    const QByteArray errors = soak.errors();
    QVERIFY2(errors.startsWith("usbhal-soak: seed 7, cycle "), errors);
    QVERIFY2(errors.contains("port 1, to the device: got a byte of port 2"), errors);
}

void SoakTest::aWrongCommandLineSaysWhatIsWrong_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("text");
    const auto row = [](const char *name, const QStringList &options, const QByteArray &text) {
        QTest::newRow(name) << options << text;
    };
    row("no node", {}, "simnode run -- usbhal-soak");
    row("unknown option", {"--fast"}, "there is no option \"--fast\"");
    row("no number", {"--seconds", "many"}, "--seconds needs seconds");
    row("too many seconds", {"--seconds", "1e9"}, "--seconds needs seconds");
    row("no period", {"--status-period", "-1"}, "--status-period needs seconds");
    row("no seed", {"--seed", "-1"}, "--seed needs a whole number");
}

void SoakTest::aWrongCommandLineSaysWhatIsWrong()
{
    QFETCH(QStringList, options);
    QFETCH(QByteArray, text);
    SoakProcess soak;
    soak.startAlone(options);
    QCOMPARE(soak.waitForEnd(), 2);
    const QByteArray errors = soak.errors();
    QVERIFY2(errors.contains(text), errors);
    QVERIFY2(errors.endsWith("\nTry \"usbhal-soak --help\".\n"), errors);
    QCOMPARE(errors.count('\n'), 2);
}

void SoakTest::helpTellsTheDefaultsAndVersionTheVersion()
{
    SoakProcess help;
    help.startAlone({"--help"});
    QCOMPARE(help.waitForEnd(), 0);
    const QByteArray text = help.output();
    QVERIFY2(text.contains("Seconds between two status lines; by default 60\n"), text);
    QVERIFY2(text.contains(" --without-kills  "), text);
    SoakProcess version;
    version.startAlone({"--version"});
    QCOMPARE(version.waitForEnd(), 0);
    QCOMPARE(version.output(), QByteArray("usbhal-soak " PROJECT_VERSION "\n"));
}

QTEST_GUILESS_MAIN(SoakTest)
#include "tst_soak.moc"
