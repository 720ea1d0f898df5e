// SPDX-License-Identifier: MIT
#include "ContractTest.h"

using namespace simnode;

namespace {

std::string hex(const std::string &data)
{
    return QByteArray::fromStdString(data).toHex().toStdString();
}

} // namespace

/// The host that comes and goes, and the faults that are set by commands.
class ContractControlTest : public ContractTest
{
    Q_OBJECT

private slots:
    void theHostIsSeenPluggedWhileConnected();
    void aSecondHostIsTold();
    void aHostMayComeBackAtOnce();
    void unreadTransfersAreDroppedWhenTheHostGoes();
    void thePulledCableClosesAndRefusesTheHost();
    void readCanBeStuckSilentOrFailing();
    void stuckReadsNeverAnswer();
    void stuckWritesNeverAnswer();
    void writeCanFailOrBeShortOrZero();
    void anOpenCanBlock();
    void ioctlAndCloseCanFail();
    void transfersTakeTheirLatencyBothWays();
    void transfersCanBeMerged();
    void transfersCanBeSplit();
    void transfersCanBeInjectedWithoutAHost();
    void commandsRunOnTheKthCall();
    void faultyCommandsAreAnsweredWithAnError();
    void onlyLaterCallsAreCountedByStatus();
};

void ContractControlTest::theHostIsSeenPluggedWhileConnected()
{
    QCOMPARE(_control->statusValue("host"), std::string("0"));
    {
        HostSocket host(_directory);
        QVERIFY(host.isConnected());
        QVERIFY(waitForStatus("host", "1"));
    }
    QVERIFY(waitForStatus("host", "0"));
}

void ContractControlTest::aSecondHostIsTold()
{
    DeviceNode node;
    HostSocket first(_directory);
    QVERIFY(waitForStatus("host", "1"));
    HostSocket second(_directory);
    second.trySend("not lost on the way to the text");
    QCOMPARE(second.receive(), std::string("another host is connected"));
    QCOMPARE(second.receive(), std::string("(closed)"));
    QCOMPARE(node.write("x"), Outcome(1, 0));
    QCOMPARE(first.receive(), std::string("x"));
}

void ContractControlTest::aHostMayComeBackAtOnce()
{
    DeviceNode node;
    node.setReadTimeout(waitTime);
    for (int i = 0; i < 50; ++i) {
        HostSocket host(_directory);
        QVERIFY(host.send("round " + std::to_string(i)));
        QCOMPARE(node.read(), "round " + std::to_string(i));
    }
}

void ContractControlTest::unreadTransfersAreDroppedWhenTheHostGoes()
{
    DeviceNode node;
    {
        HostSocket host(_directory);
        QVERIFY(host.send("begun") && host.send("lost"));
        QVERIFY(waitForStatus("pending", "2"));
        QCOMPARE(node.read(2), std::string("be"));
    }
    QVERIFY(waitForStatus("host", "0"));
    node.setReadTimeout(20);
    QCOMPARE(node.read(), std::string("(nothing)"));
    HostSocket host(_directory);
    QVERIFY(host.send("new"));
    node.setReadTimeout(waitTime);
    QCOMPARE(node.read(), std::string("new"));
}

void ContractControlTest::thePulledCableClosesAndRefusesTheHost()
{
    DeviceNode node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(control("cable out"), std::string("ok"));
    QCOMPARE(host.receive(), std::string("(closed)"));
    QVERIFY(!HostSocket(_directory).isConnected());
    node.setWriteTimeout(20);
    QCOMPARE(node.write("x"), Outcome(-1, ETIMEDOUT));
    QCOMPARE(control("cable in"), std::string("ok"));
    HostSocket again(_directory);
    QVERIFY(again.isConnected());
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(node.write("x"), Outcome(1, 0));
    QCOMPARE(again.receive(), std::string("x"));
}

void ContractControlTest::readCanBeStuckSilentOrFailing()
{
    DeviceNode node;
    node.setReadTimeout(20);
    QCOMPARE(control("inject 78"), std::string("ok"));
    QCOMPARE(control("read silent"), std::string("ok"));
    QCOMPARE(node.read(), std::string("(nothing)"));
    QCOMPARE(control("read fail EIO 2"), std::string("ok"));
    QCOMPARE(node.readOutcome(), Outcome(-1, EIO));
    QCOMPARE(node.readOutcome(), Outcome(-1, EIO));
    QCOMPARE(node.read(), std::string("x"));
    QCOMPARE(control("read fail ECONNRESET"), std::string("ok"));
    for (int i = 0; i < 5; ++i)
        QCOMPARE(node.readOutcome(), Outcome(-1, ECONNRESET));
    QCOMPARE(control("read ok"), std::string("ok"));
    QCOMPARE(node.readOutcome(), Outcome(0, 0));
}

void ContractControlTest::stuckReadsNeverAnswer()
{
    DeviceNode node;
    node.setReadTimeout(20);
    QCOMPARE(control("read stuck 1"), std::string("ok"));
    Child stuck([&] { return node.readOutcome() == Outcome(0, 0) ? 0 : 1; });
    QVERIFY(waitForStatus("reads", "1"));
    QCOMPARE(node.readOutcome(), Outcome(0, 0)); // the next read outlives the stuck one's time-out
    QCOMPARE(control("inject 78"), std::string("ok"));
    QCOMPARE(node.read(), std::string("x"));
    QVERIFY(stuck.isRunning());
}

void ContractControlTest::stuckWritesNeverAnswer()
{
    DeviceNode node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    node.setReadTimeout(100);
    node.setWriteTimeout(20);
    QCOMPARE(control("write stuck 1"), std::string("ok"));
    Child stuck([&] { return node.write("stuck") == Outcome(5, 0) ? 0 : 1; });
    QVERIFY(waitForStatus("writes", "1"));
    QCOMPARE(node.readOutcome(), Outcome(0, 0)); // outlives the stuck write's time-out
    QCOMPARE(node.write("x"), Outcome(1, 0));
    QCOMPARE(host.receive(), std::string("x"));
    QVERIFY(stuck.isRunning());
}

void ContractControlTest::writeCanFailOrBeShortOrZero()
{
    DeviceNode node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(control("write fail EIO 1"), std::string("ok"));
    QCOMPARE(node.write("lost"), Outcome(-1, EIO));
    QCOMPARE(control("write short 3 1"), std::string("ok"));
    QCOMPARE(node.write("abcdef"), Outcome(3, 0));
    QCOMPARE(host.receive(), std::string("abc"));
    QCOMPARE(control("write zero"), std::string("ok"));
    QCOMPARE(node.write("lost"), Outcome(0, 0));
    QCOMPARE(node.write("lost"), Outcome(0, 0));
    QCOMPARE(control("write ok"), std::string("ok"));
    QCOMPARE(node.write("kept"), Outcome(4, 0));
    QCOMPARE(host.receive(), std::string("kept"));
}

void ContractControlTest::anOpenCanBlock()
{
    QCOMPARE(control("open stuck 1"), std::string("ok"));
    Child stuck([] { return DeviceNode().fd(); });
    QVERIFY(waitForStatus("opens", "1"));
    DeviceNode node;
    QVERIFY(node.fd() >= 0);
    node.setReadTimeout(20);
    QCOMPARE(node.readOutcome(), Outcome(0, 0));
    QVERIFY(stuck.isRunning());
    QCOMPARE(_control->statusValue("descriptors"), std::string("1"));
}

void ContractControlTest::ioctlAndCloseCanFail()
{
    DeviceNode node;
    QCOMPARE(control("ioctl fail EIO 1"), std::string("ok"));
    QCOMPARE(node.setReadTimeout(20), Outcome(-1, EIO));
    QCOMPARE(node.setReadTimeout(20), Outcome(0, 0));
    QCOMPARE(control("close fail EINTR 1"), std::string("ok"));
    const int other = open(nodePath, O_RDWR);
    QCOMPARE(outcomeOf([&] { return close(other); }), Outcome(-1, EINTR));
    QVERIFY(waitForStatus("descriptors", "1"));
    QCOMPARE(outcomeOf([&] { return close(other); }), Outcome(-1, EBADF));
}

void ContractControlTest::transfersTakeTheirLatencyBothWays()
{
    constexpr qint64 latency = 60;
    DeviceNode node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(control("latency " + std::to_string(latency)), std::string("ok"));
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(node.write("up"), Outcome(2, 0));
    QCOMPARE(host.receive(), std::string("up"));
    const qint64 up = timer.restart();
    QVERIFY(host.send("down"));
    QCOMPARE(node.read(), std::string("down"));
    const qint64 down = timer.elapsed();
    QVERIFY2(up >= latency - 1, qPrintable(QString::number(up)));
    QVERIFY2(down >= latency - 1, qPrintable(QString::number(down)));
}

void ContractControlTest::transfersCanBeMerged()
{
    DeviceNode node;
    HostSocket host(_directory);
    QCOMPARE(control("merge 2"), std::string("ok"));
    QVERIFY(host.send("one") && host.send("two") && host.send("three"));
    QCOMPARE(node.read(), std::string("onetwo"));
    QCOMPARE(node.read(), std::string("three"));
}

void ContractControlTest::transfersCanBeSplit()
{
    DeviceNode node;
    HostSocket host(_directory);
    QCOMPARE(control("split 4"), std::string("ok"));
    QVERIFY(host.send("abcdefghij"));
    for (const char *piece : {"abcd", "efgh", "ij"})
        QCOMPARE(node.read(), std::string(piece));
    QCOMPARE(control("split 0"), std::string("ok"));
    QVERIFY(host.send("abcdefghij"));
    QCOMPARE(node.read(), std::string("abcdefghij"));
}

void ContractControlTest::transfersCanBeInjectedWithoutAHost()
{
    DeviceNode node;
    QCOMPARE(control("inject " + hex("FADA")), std::string("ok"));
    const std::string largest(maxTransferSize, 'z');
    QCOMPARE(control("inject " + hex(largest)), std::string("ok"));
    QCOMPARE(node.read(), std::string("FADA"));
    QVERIFY(node.read() == largest);
}

void ContractControlTest::commandsRunOnTheKthCall()
{
    DeviceNode node;
    node.setReadTimeout(20);
    QCOMPARE(control("on read 2 read fail EIO 1"), std::string("ok"));
    QCOMPARE(node.readOutcome(), Outcome(0, 0));
    QCOMPARE(node.readOutcome(), Outcome(-1, EIO));
    QCOMPARE(node.readOutcome(), Outcome(0, 0));

    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    node.setWriteTimeout(20);
    QCOMPARE(control("on write 2 cable out"), std::string("ok"));
    QCOMPARE(node.write("one"), Outcome(3, 0));
    QCOMPARE(node.write("two"), Outcome(-1, ETIMEDOUT));
    QCOMPARE(host.receive(), std::string("one"));
    QCOMPARE(host.receive(), std::string("(closed)"));

    QCOMPARE(control("on open 1 node missing"), std::string("ok"));
    QCOMPARE(outcomeOf([] { return open(nodePath, O_RDWR); }), Outcome(-1, ENOENT));
}

void ContractControlTest::faultyCommandsAreAnsweredWithAnError()
{
    const std::string answer = control("read fail EFOO");
    QVERIFY2(answer.find("error: 'EFOO' is no errno name") == 0, answer.c_str());
    QVERIFY2(answer.find("it should be: read fail ERRNO [N]") != std::string::npos, answer.c_str());
    QVERIFY(control("").find("error: ") == 0);
    QVERIFY(control("wait 1").find("error: ") == 0);
}

void ContractControlTest::onlyLaterCallsAreCountedByStatus()
{
    DeviceNode node;
    node.setReadTimeout(0);
    node.readOutcome();
    QCOMPARE(control("status"),
             std::string("ok node=present cable=in host=0 opens=1 reads=1 writes=0 pending=0 "
                         "read_timeout=0 write_timeout=2000 descriptors=1"));
}

QTEST_GUILESS_MAIN(ContractControlTest)
#include "tst_contract_control.moc"
