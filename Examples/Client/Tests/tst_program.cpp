// SPDX-License-Identifier: MIT
#include "HostSession.h"
#include "SeqPacketTransport.h"

#include <BuiltProgram.h>

#include <QTemporaryDir>
#include <QtTest>

using namespace usbhalhost;

namespace {

constexpr int patience = 40000; // ms, for anything that has to happen

bool isLogIn(const QTemporaryDir &folder)
{
    return !QDir(folder.filePath("log")).entryList({"UsbHal*.log"}).isEmpty();
}

} // namespace

// The client of the README over a simulated node.
class ProgramTest : public QObject
{
    Q_OBJECT

private slots:
    void withoutAHostItSaysWhatFailed();
    void withoutItsNodeItSaysWhatFailed();
    void bytesGoBothWays();

private:
    static void start(ForkedProcess &client, const QTemporaryDir &folder,
                      const QStringList &nodeOptions = {})
    {
        client.setWorkingDirectory(folder.path());
        startBuilt(client, SIMNODE,
                   QStringList{"run", "--dir", folder.filePath("node")} + nodeOptions +
                       QStringList{"--"} + wordsToRun(CLIENT));
    }

    static void checkFailure(const QStringList &nodeOptions, const QTemporaryDir &folder,
                             const QByteArray &reason)
    {
        ForkedProcess client;
        start(client, folder, nodeOptions);
        QVERIFY(client.waitForFinished(patience));
        QCOMPARE(client.exitCode(), 1);
        QCOMPARE(client.readAllStandardError(),
                 reason + " within ten seconds, the log in log/ says more\n");
        QVERIFY(isLogIn(folder));
    }
};

void ProgramTest::withoutAHostItSaysWhatFailed()
{
    const QTemporaryDir folder;
    checkFailure({}, folder, "no USB host came");
}

void ProgramTest::withoutItsNodeItSaysWhatFailed()
{
    const QTemporaryDir folder;
    QFile script(folder.filePath("script"));
    QVERIFY(script.open(QIODevice::WriteOnly) && script.write("node missing\n") > 0);
    script.close();
    checkFailure({"--script", script.fileName()}, folder, "the device node did not open");
}

void ProgramTest::bytesGoBothWays()
{
    const QTemporaryDir folder;
    ForkedProcess client;
    start(client, folder);
    SeqPacketTransport transport(folder.filePath("node/host").toStdString());
    HostSession host(transport);
    QTRY_VERIFY_WITH_TIMEOUT(transport.connect().status == TransferResult::Status::Done, patience);
    host.send(1, "hello, device");
    std::string received;
    QElapsedTimer timer;
    timer.start();
    while (received.size() < 12 && !timer.hasExpired(patience)) {
        host.step();
        received += host.received(1);
    }
    QCOMPARE(received, std::string("hello, host\n"));
    while (client.state() != QProcess::NotRunning && !timer.hasExpired(patience)) {
        host.step();
        client.waitForFinished(1);
    }
    QCOMPARE(client.exitCode(), 0);
    QCOMPARE(client.readAllStandardOutput(), QByteArray("the host sent 13 bytes: hello, device\n"));
    QVERIFY(isLogIn(folder));
}

QTEST_GUILESS_MAIN(ProgramTest)
#include "tst_program.moc"
