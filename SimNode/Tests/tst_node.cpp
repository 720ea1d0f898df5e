// SPDX-License-Identifier: MIT
#include "NodeBench.h"

#include <QtTest>

#include <cerrno>

using namespace simnode;
using namespace std::chrono_literals;

/// What the node answers to the calls of programs.
class NodeTest : public QObject
{
    Q_OBJECT

private slots:
    void requestsOfAnotherProtocolVersionAreRefused();
    void unknownCallsAreRefused();
    void unknownHandlesMeanThatTheDeviceIsGone();
    void handlesAreNeverZeroAndNeverInUseTwice();
    void aDescriptorIsReadableWhileAReadWouldGetATransfer();
    void descriptorsOpenedForOneDirectionRefuseTheOther();
    void readsWaitForTheirTimeoutToTheMillisecond();
    void readTimeoutsEndAsChosen();
    void readsTimedOutLeaveLaterTransfersAlone();
    void transfersAreReadInPiecesThatNeverSpanTwo();
    void waitingReadsAreServedInTheirOrder();
    void silentReadsLetLaterReadsPass();
    void abandonedReadsTakeNothing();
    void abandonedWritesSendNothing();
    void waitingCallsSurviveTheCloseOfTheirDescriptor();
    void changedTimeoutsCountFromTheNextCall();
    void writesWaitForTheHostInTheirOrder();
    void writesTimeOutWithAnErrorAlways();
    void emptyWritesAndZeroFaultsReturnZero();
    void aFewUnreadTransfersStopTheHost();
    void deadlinesAreThoseOfTheEarliestWaitingCall();
};

void NodeTest::requestsOfAnotherProtocolVersionAreRefused()
{
    Bench bench;
    QCOMPARE(outcome(bench.replyTo(bench.submit({99, Call::Open, 0, readWrite, 0}))),
             Outcome(-1, EPROTO));
}

void NodeTest::unknownCallsAreRefused()
{
    Bench bench;
    const auto unknown = static_cast<Call>(77);
    QCOMPARE(outcome(bench.replyTo(bench.submit({protocolVersion, unknown, bench.handle, 0, 0}))),
             Outcome(-1, EPROTO));
}

void NodeTest::unknownHandlesMeanThatTheDeviceIsGone()
{
    Bench bench;
    for (const Call call : {Call::Read, Call::Write, Call::Ioctl, Call::Close}) {
        const DeviceRequest request = {protocolVersion, call, bench.handle + 1, 0, 0};
        QCOMPARE(outcome(bench.replyTo(bench.submit(request))), Outcome(-1, ENODEV));
    }
}

void NodeTest::handlesAreNeverZeroAndNeverInUseTwice()
{
    Bench bench;
    for (const std::uint32_t handle : {std::uint32_t(0), bench.handle}) {
        const DeviceRequest request = {protocolVersion, Call::Open, handle, readWrite, 0};
        QCOMPARE(outcome(bench.replyTo(bench.submit(request))), Outcome(-1, EPROTO));
    }
    bench.node.release(bench.handle);
    const DeviceRequest again = {protocolVersion, Call::Open, bench.handle, readWrite, 0};
    QCOMPARE(bench.replyTo(bench.submit(again)).header.handle, bench.handle);
}

void NodeTest::aDescriptorIsReadableWhileAReadWouldGetATransfer()
{
    Bench bench;
    const std::uint32_t writer = bench.open(O_WRONLY).header.handle;
    QVERIFY(!bench.node.isReadable(bench.handle));
    bench.transferFromHost("abc");
    QVERIFY(bench.node.isReadable(bench.handle));
    QVERIFY(!bench.node.isReadable(writer));
    QVERIFY(!bench.node.isReadable(writer + 1));
    bench.command("read silent");
    QVERIFY(!bench.node.isReadable(bench.handle));
    bench.command("read fail EIO");
    QVERIFY(bench.node.isReadable(bench.handle));
    bench.command("read ok");
    bench.read(2);
    QVERIFY(bench.node.isReadable(bench.handle));
    bench.read(2);
    QVERIFY(!bench.node.isReadable(bench.handle));
}

void NodeTest::descriptorsOpenedForOneDirectionRefuseTheOther()
{
    Bench bench;
    bench.handle = bench.open(O_RDONLY).header.handle;
    QCOMPARE(outcome(bench.replyTo(bench.write("x"))), Outcome(-1, EBADF));
    bench.handle = bench.open(O_WRONLY).header.handle;
    QCOMPARE(outcome(bench.replyTo(bench.read())), Outcome(-1, EBADF));
}

void NodeTest::readsWaitForTheirTimeoutToTheMillisecond()
{
    Bench bench;
    bench.ioctl(setReadTimeoutRequest, 500);
    const Node::CallId call = bench.read();
    bench.pass(499ms);
    QVERIFY(!bench.hasReplyTo(call));
    bench.pass(1ms);
    QVERIFY(bench.hasReplyTo(call));
}

void NodeTest::readTimeoutsEndAsChosen()
{
    Bench bench;
    Node::CallId call = bench.read();
    bench.pass(2000ms);
    QCOMPARE(outcome(bench.replyTo(call)), Outcome(0, 0));

    QCOMPARE(bench.command("timeout error"), std::string("ok"));
    call = bench.read();
    bench.pass(2000ms);
    QCOMPARE(outcome(bench.replyTo(call)), Outcome(-1, ETIMEDOUT));

    Bench other(true);
    call = other.read();
    other.pass(2000ms);
    QCOMPARE(outcome(other.replyTo(call)), Outcome(-1, ETIMEDOUT));
    other.command("timeout zero");
    call = other.read();
    other.pass(2000ms);
    QCOMPARE(outcome(other.replyTo(call)), Outcome(0, 0));
}

void NodeTest::readsTimedOutLeaveLaterTransfersAlone()
{
    Bench bench;
    bench.read();
    bench.pass(2000ms);
    bench.transferFromHost("late");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("late"));
}

void NodeTest::transfersAreReadInPiecesThatNeverSpanTwo()
{
    Bench bench;
    bench.transferFromHost("abcde");
    bench.transferFromHost("fg");
    QCOMPARE(bench.replyTo(bench.read(3)).data, std::string("abc"));
    QCOMPARE(bench.replyTo(bench.read(3)).data, std::string("de"));
    const Node::Reply last = bench.replyTo(bench.read(3));
    QCOMPARE(last.data, std::string("fg"));
    QCOMPARE(outcome(last), Outcome(2, 0));
}

void NodeTest::waitingReadsAreServedInTheirOrder()
{
    Bench bench;
    const Node::CallId first = bench.read();
    const Node::CallId second = bench.read();
    bench.transferFromHost("1");
    QCOMPARE(bench.replyTo(first).data, std::string("1"));
    QVERIFY(!bench.hasReplyTo(second));
    bench.transferFromHost("2");
    QCOMPARE(bench.replyTo(second).data, std::string("2"));
}

void NodeTest::silentReadsLetLaterReadsPass()
{
    Bench bench;
    bench.command("read silent 1");
    const Node::CallId silent = bench.read();
    bench.transferFromHost("x");
    QVERIFY(!bench.hasReplyTo(silent));
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("x"));
    bench.pass(2000ms);
    QCOMPARE(outcome(bench.replyTo(silent)), Outcome(0, 0));
}

void NodeTest::abandonedReadsTakeNothing()
{
    Bench bench;
    const Node::CallId call = bench.read();
    bench.node.abandon(call);
    bench.transferFromHost("x");
    bench.pass(5000ms);
    QVERIFY(!bench.hasReplyTo(call));
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("x"));
}

void NodeTest::abandonedWritesSendNothing()
{
    Bench bench;
    bench.node.abandon(bench.write("gone"));
    bench.write("kept");
    bench.node.hostArrived();
    QCOMPARE(bench.takeTransfer(), std::string("kept"));
}

void NodeTest::waitingCallsSurviveTheCloseOfTheirDescriptor()
{
    Bench bench;
    const Node::CallId call = bench.read();
    bench.node.release(bench.handle);
    bench.transferFromHost("x");
    QCOMPARE(bench.replyTo(call).data, std::string("x"));
    QCOMPARE(outcome(bench.replyTo(bench.read())), Outcome(-1, ENODEV));
}

void NodeTest::changedTimeoutsCountFromTheNextCall()
{
    Bench bench;
    const Node::CallId before = bench.read();
    bench.ioctl(setReadTimeoutRequest, 10);
    const Node::CallId after = bench.read();
    bench.pass(10ms);
    QVERIFY(!bench.hasReplyTo(before));
    QVERIFY(bench.hasReplyTo(after));
}

void NodeTest::writesWaitForTheHostInTheirOrder()
{
    Bench bench;
    const Node::CallId first = bench.write("one");
    const Node::CallId second = bench.write("three");
    QCOMPARE(bench.takeTransfer(), std::string("(none)"));
    bench.node.hostArrived();
    QCOMPARE(bench.takeTransfer(), std::string("one"));
    QCOMPARE(outcome(bench.replyTo(first)), Outcome(3, 0));
    QVERIFY(!bench.hasReplyTo(second));
    QCOMPARE(bench.takeTransfer(), std::string("three"));
    QCOMPARE(outcome(bench.replyTo(second)), Outcome(5, 0));
}

void NodeTest::writesTimeOutWithAnErrorAlways()
{
    Bench bench;
    bench.ioctl(setWriteTimeoutRequest, 300);
    const Node::CallId call = bench.write("x");
    bench.pass(299ms);
    QVERIFY(!bench.hasReplyTo(call));
    bench.pass(1ms);
    QCOMPARE(outcome(bench.replyTo(call)), Outcome(-1, ETIMEDOUT));
    bench.node.hostArrived();
    QCOMPARE(bench.takeTransfer(), std::string("(none)"));
}

void NodeTest::emptyWritesAndZeroFaultsReturnZero()
{
    Bench bench;
    bench.node.hostArrived();
    QCOMPARE(outcome(bench.replyTo(bench.write(""))), Outcome(0, 0));
    bench.command("write zero");
    QCOMPARE(outcome(bench.replyTo(bench.write("x"))), Outcome(0, 0));
    QCOMPARE(bench.takeTransfer(), std::string("(none)"));
}

void NodeTest::aFewUnreadTransfersStopTheHost()
{
    Bench bench;
    int taken = 0;
    for (; bench.node.takesTransfers() && taken < 100; ++taken)
        bench.transferFromHost("x");
    QVERIFY(taken >= 1 && taken < 10);
    bench.read();
    QVERIFY(bench.node.takesTransfers());
}

void NodeTest::deadlinesAreThoseOfTheEarliestWaitingCall()
{
    Bench bench;
    QVERIFY(!bench.node.nextDeadline());
    const Node::CallId read = bench.read();
    bench.ioctl(setWriteTimeoutRequest, 700);
    const Node::CallId write = bench.write("x");
    QVERIFY(bench.node.nextDeadline() == bench.now + 700ms);
    bench.node.abandon(write);
    QVERIFY(bench.node.nextDeadline() == bench.now + 2000ms);
    bench.node.abandon(read);
    QVERIFY(!bench.node.nextDeadline());
}

QTEST_APPLESS_MAIN(NodeTest)
#include "tst_node.moc"
