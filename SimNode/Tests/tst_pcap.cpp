// SPDX-License-Identifier: MIT
#include "HostSocket.h"
#include "SimNodeControl.h"
#include "SimnodeProcess.h"

#include <CaptureReader.h>

#include <QtTest>

using namespace simnode;
using capture::toldOf;

/// The captures of `simnode`, read while it runs.
class PcapTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { _folder.reset(new QTemporaryDir); }

    void bothDirectionsAreCaptured();
    void faultsShowInTheStatus();
    void transfersThatAreNotReadEndWithTheHost();
    void aThreadThatIsGoneTakesItsWriteBack();
    void commandsBeginAndEndACapture();
    void aCaptureIsKeptInTwoFiles();
    void aScriptIsCapturedFromItsFirstLine();
    void runCapturesToo();
    void aCaptureThatCannotBeIsSaidAndTheNodeGoesOn();
    void aFullDiskIsSaidAndTheNodeGoesOn();

private:
    QString _path(const char *name = "bus.pcap") const { return _folder->filePath(name); }
    QString _node() const { return _folder->filePath("node"); }
    std::string _command(const QString &text)
    {
        return SimNodeControl(_node().toStdString()).command(text.toStdString());
    }

    QScopedPointer<QTemporaryDir> _folder;
};

void PcapTest::bothDirectionsAreCaptured()
{
    Daemon daemon(_node(), {"--pcap", _path()});
    HostSocket host(_node().toStdString());
    QVERIFY(host.send("hello"));
    QCOMPARE(Probe(_node(), {"open", "read", "write"}).output(),
             QByteArray("open 0 -\nread 5 -\nwrite 1 -\n"));
    QCOMPARE(host.receive(), std::string("x"));
    QCOMPARE(toldOf(_path()),
             (QStringList{"S out -115 5 hello", "C out 0 5", "S in -115 65536", "C in 0 1 x"}));
}

void PcapTest::faultsShowInTheStatus()
{
    const QString script = writeFile(*_folder, "script",
                                     "on write 1 write fail EIO 1\non write 2 write zero 1\n"
                                     "on read 1 read fail EIO 1\ninject 41\n");
    Daemon daemon(_node(), {"--pcap", _path(), "--script", script});
    QCOMPARE(Probe(_node(), {"open", "write", "write", "write", "read", "read"}).output(),
             QByteArray("open 0 -\nwrite -1 EIO\nwrite 0 -\nwrite -1 ETIMEDOUT\n"
                        "read -1 EIO\nread 1 -\n"));
    QCOMPARE(toldOf(_path()),
             (QStringList{"S out -115 1 A", "S in -115 65536", "C in -5 0", "S in -115 65536",
                          "C in 0 0", "S in -115 65536", "C in -110 0", "C out 0 1"}));
}

void PcapTest::transfersThatAreNotReadEndWithTheHost()
{
    Daemon daemon(_node(), {"--pcap", _path()});
    {
        HostSocket host(_node().toStdString());
        QVERIFY(host.send("a"));
        QVERIFY(host.send("b"));
        QVERIFY(waitForStatus(_node(), "pending", "2"));
    }
    QVERIFY(waitForStatus(_node(), "host", "0"));
    QCOMPARE(toldOf(_path()),
             (QStringList{"S out -115 1 a", "S out -115 1 b", "C out -108 0", "C out -108 0"}));
}

void PcapTest::aThreadThatIsGoneTakesItsWriteBack()
{
    Daemon daemon(_node(), {"--pcap", _path()});
    QCOMPARE(_command("write stuck"), std::string("ok"));
    {
        Probe probe(_node(), {"open", "write"});
        QVERIFY(waitForStatus(_node(), "writes", "1"));
        probe.process.kill();
        probe.process.waitForFinished(waitTime);
    }
    QVERIFY(waitForStatus(_node(), "descriptors", "0"));
    QTRY_COMPARE_WITH_TIMEOUT(toldOf(_path()), (QStringList{"S in -115 65536", "C in -2 0"}),
                              waitTime);
}

void PcapTest::commandsBeginAndEndACapture()
{
    Daemon daemon(_node());
    QCOMPARE(_command("inject 41"), std::string("ok"));
    QCOMPARE(_command("pcap " + _path()), std::string("ok"));
    QCOMPARE(_command("inject 42"), std::string("ok"));
    QCOMPARE(_command("pcap off"), std::string("ok"));
    QCOMPARE(_command("inject 43"), std::string("ok"));
    QCOMPARE(toldOf(_path()), QStringList("S out -115 1 B"));
    QCOMPARE(_command("pcap " + _path("other.pcap")), std::string("ok"));
    QCOMPARE(_command("reset"), std::string("ok"));
    QCOMPARE(toldOf(_path("other.pcap")),
             (QStringList{"C out -108 0", "C out -108 0", "C out -108 0"}));
}

void PcapTest::aCaptureIsKeptInTwoFiles()
{
    Daemon daemon(_node(), {"--pcap", _path(), "--pcap-size", "200"});
    for (const char *byte : {"41", "42", "43"})
        QCOMPARE(_command(QString("inject ") + byte), std::string("ok"));
    QCOMPARE(toldOf(_path("bus.pcap.1")), (QStringList{"S out -115 1 A", "S out -115 1 B"}));
    QCOMPARE(toldOf(_path()), QStringList("S out -115 1 C"));
}

void PcapTest::aScriptIsCapturedFromItsFirstLine()
{
    const QString script = writeFile(*_folder, "script", "inject 41\npcap off\ninject 42\n");
    Daemon daemon(_node(), {"--pcap", _path(), "--script", script});
    QVERIFY(daemon.isReady());
    QCOMPARE(toldOf(_path()), QStringList("S out -115 1 A"));
}

void PcapTest::runCapturesToo()
{
    const QString script = writeFile(*_folder, "script", "inject 41\n");
    const QStringList words{"run", "--script", script, "--pcap", _path(), "--"};
    const Result result =
        runSimnode(words + wordsToRun(SIMNODE_PROBE) + QStringList{"open", "read"});
    QCOMPARE(result.output, QByteArray("open 0 -\nread 1 -\n"));
    QCOMPARE(toldOf(_path()), (QStringList{"S out -115 1 A", "C out 0 1"}));
}

void PcapTest::aCaptureThatCannotBeIsSaidAndTheNodeGoesOn()
{
    const QString path = _path("none/bus.pcap");
    const QString why = "cannot write the capture " + path + ": No such file or directory";
    Daemon daemon(_node(), {"--pcap", path});
    QVERIFY(daemon.isReady());
    QCOMPARE(QString::fromStdString(_command("pcap " + path)).section(';', 0, 0), "error: " + why);
    QCOMPARE(_command("inject 41"), std::string("ok"));
    daemon.process.terminate();
    const Result result = finish(daemon.process);
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(QString::fromUtf8(result.errors), ("simnode: " + why + "\n").repeated(2));
}

void PcapTest::aFullDiskIsSaidAndTheNodeGoesOn()
{
    Daemon daemon(_node());
    QVERIFY(
        _command("pcap /dev/full").find("error: cannot write the capture /dev/full: No space") ==
        0);
    QVERIFY(_command("pcap off").find("error: cannot write the capture /dev/full: No space") == 0);
    QCOMPARE(_command("pcap off"), std::string("ok"));
    QCOMPARE(_command("pcap " + _path()), std::string("ok"));
}

QTEST_GUILESS_MAIN(PcapTest)
#include "tst_pcap.moc"
