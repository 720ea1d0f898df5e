// SPDX-License-Identifier: MIT
#include "Node.h"
#include "ScriptRunner.h"

#include <QtTest>

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <set>

using namespace simnode;
using namespace std::chrono_literals;

namespace {

constexpr std::uint32_t readWrite = O_RDWR;

// What the program sees: the call's result, and errno where that is -1.
using Outcome = std::pair<int, int>;

Outcome outcome(const Node::Reply &reply)
{
    return {reply.header.result, reply.header.error};
}

/// A node with the one descriptor that most tests need, and the time in their hands.
class Bench
{
public:
    explicit Bench(bool timeoutIsError = false) : node(100, timeoutIsError)
    {
        handle = open().header.handle;
    }

    Node::Reply open(std::uint32_t flags = readWrite)
    {
        return replyTo(submit({protocolVersion, Call::Open, 0, flags, 0}));
    }

    Node::CallId submit(const DeviceRequest &request, const std::string &data = {})
    {
        node.submit(++_lastCall, request, data, now);
        return _lastCall;
    }

    Node::CallId read(std::uint32_t size = 100)
    {
        return submit({protocolVersion, Call::Read, handle, size, 0});
    }

    Node::CallId write(const std::string &data)
    {
        return submit({protocolVersion, Call::Write, handle, 0, 0}, data);
    }

    Node::CallId ioctl(std::uint32_t request, std::uint32_t value)
    {
        return submit({protocolVersion, Call::Ioctl, handle, request, value});
    }

    void pass(std::chrono::milliseconds time)
    {
        now += time;
        node.advance(now);
    }

    bool hasReplyTo(Node::CallId call)
    {
        collect();
        return _replies.count(call) != 0;
    }

    // The reply's call is 0 if there is none.
    Node::Reply replyTo(Node::CallId call)
    {
        return hasReplyTo(call) ? _replies.at(call) : Node::Reply{0, {-2, 0, 0}, {}};
    }

    std::string command(const char *line) { return node.execute(*parseCommand(line).command); }

    std::string takeTransfer()
    {
        const std::string *transfer = node.transferForHost();
        if (transfer == nullptr)
            return "(none)";
        const std::string taken = *transfer;
        node.hostTookTransfer();
        return taken;
    }

    Node node;
    Node::Time now{};
    std::uint32_t handle = 0;

private:
    void collect()
    {
        for (const Node::Reply &reply : node.takeReplies())
            _replies[reply.call] = reply;
    }

    Node::CallId _lastCall = 0;
    std::map<Node::CallId, Node::Reply> _replies;
};

} // namespace

class TestNode : public QObject
{
    Q_OBJECT

private slots:
    void requestsOfAnotherProtocolVersionAreRefused();
    void unknownCallsAreRefused();
    void unknownHandlesMeanThatTheDeviceIsGone();
    void handlesAreNeverZeroAndNeverInUseTwice();
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
    void faultsEndAfterTheirNumberOfCalls();
    void laterFaultsReplaceEarlierOnes();
    void aFewUnreadTransfersStopTheHost();
    void mergedTransfersArriveAsOne();
    void anUnfinishedMergeIsDeliveredByTheNextMergeCommand();
    void splitTransfersArriveInPieces();
    void transfersOfAHostThatLeftAreDropped();
    void injectionsAreBounded();
    void triggersRunBeforeTheirCallIsServed();
    void triggersCountEachCallOnItsOwn();
    void triggersMaySetTriggers();
    void deadlinesAreThoseOfTheEarliestWaitingCall();
    void resetRestoresTheStart();
    void statusTellsCountersAndTimeouts();
    void waitIsForScriptsOnly();
    void scriptsPauseAtWait();
};

void TestNode::requestsOfAnotherProtocolVersionAreRefused()
{
    Bench bench;
    QCOMPARE(outcome(bench.replyTo(bench.submit({99, Call::Open, 0, readWrite, 0}))),
             Outcome(-1, EPROTO));
}

void TestNode::unknownCallsAreRefused()
{
    Bench bench;
    const auto unknown = static_cast<Call>(77);
    QCOMPARE(outcome(bench.replyTo(bench.submit({protocolVersion, unknown, bench.handle, 0, 0}))),
             Outcome(-1, EPROTO));
}

void TestNode::unknownHandlesMeanThatTheDeviceIsGone()
{
    Bench bench;
    for (const Call call : {Call::Read, Call::Write, Call::Ioctl}) {
        const DeviceRequest request = {protocolVersion, call, bench.handle + 1, 0, 0};
        QCOMPARE(outcome(bench.replyTo(bench.submit(request))), Outcome(-1, ENODEV));
    }
}

void TestNode::handlesAreNeverZeroAndNeverInUseTwice()
{
    Node node(0xffffffff);
    std::set<std::uint32_t> handles;
    for (Node::CallId call = 1; call <= 3; ++call)
        node.submit(call, {protocolVersion, Call::Open, 0, readWrite, 0}, {}, {});
    for (const Node::Reply &reply : node.takeReplies())
        handles.insert(reply.header.handle);
    QCOMPARE(handles, (std::set<std::uint32_t>{0xffffffff, 1, 2}));
}

void TestNode::descriptorsOpenedForOneDirectionRefuseTheOther()
{
    Bench bench;
    bench.handle = bench.open(O_RDONLY).header.handle;
    QCOMPARE(outcome(bench.replyTo(bench.write("x"))), Outcome(-1, EBADF));
    bench.handle = bench.open(O_WRONLY).header.handle;
    QCOMPARE(outcome(bench.replyTo(bench.read())), Outcome(-1, EBADF));
}

void TestNode::readsWaitForTheirTimeoutToTheMillisecond()
{
    Bench bench;
    bench.ioctl(setReadTimeoutRequest, 500);
    const Node::CallId call = bench.read();
    bench.pass(499ms);
    QVERIFY(!bench.hasReplyTo(call));
    bench.pass(1ms);
    QVERIFY(bench.hasReplyTo(call));
}

void TestNode::readTimeoutsEndAsChosen()
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

void TestNode::readsTimedOutLeaveLaterTransfersAlone()
{
    Bench bench;
    bench.read();
    bench.pass(2000ms);
    bench.node.transferFromHost("late");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("late"));
}

void TestNode::transfersAreReadInPiecesThatNeverSpanTwo()
{
    Bench bench;
    bench.node.transferFromHost("abcde");
    bench.node.transferFromHost("fg");
    QCOMPARE(bench.replyTo(bench.read(3)).data, std::string("abc"));
    QCOMPARE(bench.replyTo(bench.read(3)).data, std::string("de"));
    const Node::Reply last = bench.replyTo(bench.read(3));
    QCOMPARE(last.data, std::string("fg"));
    QCOMPARE(outcome(last), Outcome(2, 0));
}

void TestNode::waitingReadsAreServedInTheirOrder()
{
    Bench bench;
    const Node::CallId first = bench.read();
    const Node::CallId second = bench.read();
    bench.node.transferFromHost("1");
    QCOMPARE(bench.replyTo(first).data, std::string("1"));
    QVERIFY(!bench.hasReplyTo(second));
    bench.node.transferFromHost("2");
    QCOMPARE(bench.replyTo(second).data, std::string("2"));
}

void TestNode::silentReadsLetLaterReadsPass()
{
    Bench bench;
    bench.command("read silent 1");
    const Node::CallId silent = bench.read();
    bench.node.transferFromHost("x");
    QVERIFY(!bench.hasReplyTo(silent));
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("x"));
    bench.pass(2000ms);
    QCOMPARE(outcome(bench.replyTo(silent)), Outcome(0, 0));
}

void TestNode::abandonedReadsTakeNothing()
{
    Bench bench;
    const Node::CallId call = bench.read();
    bench.node.abandon(call);
    bench.node.transferFromHost("x");
    bench.pass(5000ms);
    QVERIFY(!bench.hasReplyTo(call));
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("x"));
}

void TestNode::abandonedWritesSendNothing()
{
    Bench bench;
    bench.node.abandon(bench.write("gone"));
    bench.write("kept");
    bench.node.hostArrived();
    QCOMPARE(bench.takeTransfer(), std::string("kept"));
}

void TestNode::waitingCallsSurviveTheCloseOfTheirDescriptor()
{
    Bench bench;
    const Node::CallId call = bench.read();
    bench.node.release(bench.handle);
    bench.node.transferFromHost("x");
    QCOMPARE(bench.replyTo(call).data, std::string("x"));
    QCOMPARE(outcome(bench.replyTo(bench.read())), Outcome(-1, ENODEV));
}

void TestNode::changedTimeoutsCountFromTheNextCall()
{
    Bench bench;
    const Node::CallId before = bench.read();
    bench.ioctl(setReadTimeoutRequest, 10);
    const Node::CallId after = bench.read();
    bench.pass(10ms);
    QVERIFY(!bench.hasReplyTo(before));
    QVERIFY(bench.hasReplyTo(after));
}

void TestNode::writesWaitForTheHostInTheirOrder()
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

void TestNode::writesTimeOutWithAnErrorAlways()
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

void TestNode::emptyWritesAndZeroFaultsReturnZero()
{
    Bench bench;
    bench.node.hostArrived();
    QCOMPARE(outcome(bench.replyTo(bench.write(""))), Outcome(0, 0));
    bench.command("write zero");
    QCOMPARE(outcome(bench.replyTo(bench.write("x"))), Outcome(0, 0));
    QCOMPARE(bench.takeTransfer(), std::string("(none)"));
}

void TestNode::faultsEndAfterTheirNumberOfCalls()
{
    Bench bench;
    bench.node.hostArrived();
    bench.command("write short 2 2");
    for (const char *expected : {"ab", "ab", "abc"}) {
        bench.write("abc");
        QCOMPARE(bench.takeTransfer(), std::string(expected));
    }
    bench.command("read fail EIO 1");
    QCOMPARE(outcome(bench.replyTo(bench.read())), Outcome(-1, EIO));
    QVERIFY(!bench.hasReplyTo(bench.read()));
}

void TestNode::laterFaultsReplaceEarlierOnes()
{
    Bench bench;
    bench.command("read fail EIO");
    bench.command("read fail EPIPE 1");
    QCOMPARE(outcome(bench.replyTo(bench.read())), Outcome(-1, EPIPE));
    QVERIFY(!bench.hasReplyTo(bench.read()));
}

void TestNode::aFewUnreadTransfersStopTheHost()
{
    Bench bench;
    int taken = 0;
    for (; bench.node.takesTransfers() && taken < 100; ++taken)
        bench.node.transferFromHost("x");
    QVERIFY(taken >= 1 && taken < 10);
    bench.read();
    QVERIFY(bench.node.takesTransfers());
}

void TestNode::mergedTransfersArriveAsOne()
{
    Bench bench;
    bench.command("merge 3");
    const Node::CallId call = bench.read();
    bench.node.transferFromHost("a");
    bench.node.transferFromHost("b");
    QVERIFY(!bench.hasReplyTo(call));
    bench.node.transferFromHost("c");
    QCOMPARE(bench.replyTo(call).data, std::string("abc"));
    bench.node.transferFromHost("d");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("d"));
}

void TestNode::anUnfinishedMergeIsDeliveredByTheNextMergeCommand()
{
    Bench bench;
    bench.command("merge 3");
    bench.node.transferFromHost("a");
    bench.command("merge 0");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("a"));
    bench.node.transferFromHost("b");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("b"));
}

void TestNode::splitTransfersArriveInPieces()
{
    Bench bench;
    bench.command("split 2");
    bench.node.transferFromHost("abcde");
    for (const char *expected : {"ab", "cd"})
        QCOMPARE(bench.replyTo(bench.read()).data, std::string(expected));
    bench.command("split 0");
    bench.node.transferFromHost("fghij");
    for (const char *expected : {"e", "fghij"})
        QCOMPARE(bench.replyTo(bench.read()).data, std::string(expected));
}

void TestNode::transfersOfAHostThatLeftAreDropped()
{
    Bench bench;
    bench.node.hostArrived();
    bench.node.transferFromHost("abc");
    bench.node.transferFromHost("def");
    QCOMPARE(bench.replyTo(bench.read(1)).data, std::string("a"));
    bench.command("merge 2");
    bench.node.transferFromHost("ghi");
    bench.node.hostLeft();
    bench.command("merge 0");
    const Node::CallId call = bench.read();
    QVERIFY(!bench.hasReplyTo(call));
    bench.node.hostArrived();
    bench.node.transferFromHost("new");
    QCOMPARE(bench.replyTo(call).data, std::string("new"));
}

void TestNode::injectionsAreBounded()
{
    Bench bench;
    for (int i = 0; i < 1000; ++i)
        QCOMPARE(bench.command("inject 41"), std::string("ok"));
    QVERIFY(bench.command("inject 41").find("error: 1000 transfers wait") == 0);
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("A"));
    QCOMPARE(bench.command("inject 41"), std::string("ok"));
}

void TestNode::triggersRunBeforeTheirCallIsServed()
{
    Bench bench;
    bench.command("on read 2 read fail EIO 1");
    bench.command("on open 1 node missing");
    bench.command("on write 1 write zero");
    bench.node.transferFromHost("x");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("x"));
    QCOMPARE(outcome(bench.replyTo(bench.read())), Outcome(-1, EIO));
    QVERIFY(!bench.hasReplyTo(bench.read()));
    QCOMPARE(outcome(bench.open()), Outcome(-1, ENOENT));
    QCOMPARE(outcome(bench.replyTo(bench.write("x"))), Outcome(0, 0));
}

void TestNode::triggersCountEachCallOnItsOwn()
{
    Bench bench;
    bench.command("on read 3 inject 42");
    bench.command("on read 1 inject 41");
    bench.command("on write 1 inject 43");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("A"));
    QVERIFY(!bench.hasReplyTo(bench.read()));
    bench.pass(2000ms);
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("B"));
}

void TestNode::triggersMaySetTriggers()
{
    Bench bench;
    bench.command("on read 1 on read 1 read fail EIO");
    QVERIFY(!bench.hasReplyTo(bench.read()));
    QCOMPARE(outcome(bench.replyTo(bench.read())), Outcome(-1, EIO));
}

void TestNode::deadlinesAreThoseOfTheEarliestWaitingCall()
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

void TestNode::resetRestoresTheStart()
{
    Bench bench(true);
    for (const char *line :
         {"node missing", "open fail EIO", "read fail EIO", "write zero", "timeout zero",
          "inject 41", "merge 2", "split 1", "cable out", "on read 1 read fail EIO"})
        QCOMPARE(bench.command(line), std::string("ok"));
    QCOMPARE(bench.command("reset"), std::string("ok"));
    QCOMPARE(bench.open().header.result, 0);
    QVERIFY(bench.node.acceptsHost());
    const Node::CallId call = bench.read();
    bench.pass(2000ms);
    QCOMPARE(outcome(bench.replyTo(call)), Outcome(-1, ETIMEDOUT));
    bench.node.transferFromHost("whole");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("whole"));
    QVERIFY(!bench.hasReplyTo(bench.write("x")));
}

void TestNode::statusTellsCountersAndTimeouts()
{
    Bench bench;
    QCOMPARE(bench.command("status"),
             std::string("ok node=present cable=in host=0 opens=1 reads=0 writes=0 pending=0 "
                         "read_timeout=2000 write_timeout=2000 descriptors=1"));
    bench.command("node missing");
    bench.open();
    bench.ioctl(setReadTimeoutRequest, 11);
    bench.ioctl(setWriteTimeoutRequest, 12);
    bench.node.hostArrived();
    bench.write("x");
    bench.read();
    bench.read();
    bench.pass(11ms);
    bench.node.transferFromHost("x");
    QCOMPARE(bench.command("status"),
             std::string("ok node=missing cable=in host=1 opens=2 reads=2 writes=1 pending=1 "
                         "read_timeout=11 write_timeout=12 descriptors=1"));
    bench.command("cable out");
    QCOMPARE(bench.command("status"),
             std::string("ok node=missing cable=out host=0 opens=2 reads=2 writes=1 pending=0 "
                         "read_timeout=11 write_timeout=12 descriptors=1"));
}

void TestNode::waitIsForScriptsOnly()
{
    Bench bench;
    QVERIFY(bench.command("wait 5").find("error: ") == 0);
}

void TestNode::scriptsPauseAtWait()
{
    Bench bench;
    ScriptRunner script(parseScript("inject 41\nwait 100\ninject 42\nwait 50").commands);
    script.run(bench.node, bench.now);
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("A"));
    QVERIFY(script.nextDeadline() == bench.now + 100ms);
    script.run(bench.node, bench.now + 99ms);
    const Node::CallId call = bench.read();
    QVERIFY(!bench.hasReplyTo(call));
    script.run(bench.node, bench.now + 100ms);
    QCOMPARE(bench.replyTo(call).data, std::string("B"));
    QVERIFY(!script.nextDeadline());
}

QTEST_APPLESS_MAIN(TestNode)
#include "tst_node.moc"
