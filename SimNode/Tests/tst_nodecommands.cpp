// SPDX-License-Identifier: MIT
#include "NodeBench.h"
#include "ScriptRunner.h"

#include <QtTest>

#include <cerrno>

using namespace simnode;
using namespace std::chrono_literals;

/// What commands and scripts do to the node.
class NodeCommandsTest : public QObject
{
    Q_OBJECT

private slots:
    void faultsEndAfterTheirNumberOfCalls();
    void laterFaultsReplaceEarlierOnes();
    void opensCanBeStuckOrFail();
    void ioctlsAndClosesCanFail();
    void latencyHoldsTransfersOfTheHostBack();
    void latencyHoldsTransfersToTheHostBack();
    void aLatencyBeyondTheTimeoutEndsTheWrite();
    void mergedTransfersArriveAsOne();
    void anUnfinishedMergeIsDeliveredByTheNextMergeCommand();
    void splitTransfersArriveInPieces();
    void transfersOfAHostThatLeftAreDropped();
    void injectionsAreBounded();
    void triggersRunBeforeTheirCallIsServed();
    void triggersCountEachCallOnItsOwn();
    void triggersMaySetTriggers();
    void resetRestoresTheStart();
    void statusTellsCountersAndTimeouts();
    void waitIsForScriptsOnly();
    void scriptsPauseAtWait();
};

void NodeCommandsTest::faultsEndAfterTheirNumberOfCalls()
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

void NodeCommandsTest::laterFaultsReplaceEarlierOnes()
{
    Bench bench;
    bench.command("read fail EIO");
    bench.command("read fail EPIPE 1");
    QCOMPARE(outcome(bench.replyTo(bench.read())), Outcome(-1, EPIPE));
    QVERIFY(!bench.hasReplyTo(bench.read()));
}

void NodeCommandsTest::opensCanBeStuckOrFail()
{
    Bench bench;
    bench.command("open stuck 1");
    QCOMPARE(bench.open().call, Node::CallId(0));
    QCOMPARE(outcome(bench.open()), Outcome(0, 0));
    bench.command("open fail EBUSY 2");
    QCOMPARE(outcome(bench.open()), Outcome(-1, EBUSY));
    bench.command("node missing");
    QCOMPARE(outcome(bench.open()), Outcome(-1, ENOENT));
    bench.command("node present");
    QCOMPARE(outcome(bench.open()), Outcome(-1, EBUSY));
    QCOMPARE(outcome(bench.open()), Outcome(0, 0));
}

void NodeCommandsTest::ioctlsAndClosesCanFail()
{
    Bench bench;
    bench.command("ioctl fail EIO 1");
    QCOMPARE(outcome(bench.replyTo(bench.ioctl(setReadTimeoutRequest, 7))), Outcome(-1, EIO));
    QVERIFY(bench.command("status").find("read_timeout=2000") != std::string::npos);
    QCOMPARE(outcome(bench.replyTo(bench.ioctl(setReadTimeoutRequest, 7))), Outcome(0, 0));
    bench.command("on close 2 close fail EINTR 1");
    QCOMPARE(outcome(bench.replyTo(bench.close())), Outcome(0, 0));
    QCOMPARE(outcome(bench.replyTo(bench.close())), Outcome(-1, EINTR));
    QCOMPARE(outcome(bench.replyTo(bench.close())), Outcome(0, 0));
}

void NodeCommandsTest::latencyHoldsTransfersOfTheHostBack()
{
    Bench bench;
    bench.command("latency 30");
    const Node::CallId call = bench.read();
    bench.transferFromHost("a");
    bench.pass(10ms);
    bench.transferFromHost("b");
    bench.pass(19ms);
    QVERIFY(!bench.hasReplyTo(call));
    QVERIFY(!bench.node.isReadable(bench.handle));
    QVERIFY(bench.node.nextDeadline() == bench.now + 1ms);
    bench.pass(1ms);
    QCOMPARE(bench.replyTo(call).data, std::string("a"));
    QVERIFY(bench.node.nextDeadline() == bench.now + 10ms);
    bench.pass(10ms);
    QVERIFY(bench.node.isReadable(bench.handle));
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("b"));
    QVERIFY(!bench.node.nextDeadline());
    bench.command("latency 0");
    bench.transferFromHost("c");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("c"));
}

void NodeCommandsTest::latencyHoldsTransfersToTheHostBack()
{
    Bench bench;
    bench.node.hostArrived();
    bench.command("latency 30");
    const Node::CallId call = bench.write("abc");
    bench.pass(29ms);
    QCOMPARE(bench.takeTransfer(), std::string("(none)"));
    QVERIFY(bench.node.nextDeadline() == bench.now + 1ms);
    bench.pass(1ms);
    QCOMPARE(bench.takeTransfer(), std::string("abc"));
    QCOMPARE(outcome(bench.replyTo(call)), Outcome(3, 0));
}

void NodeCommandsTest::aLatencyBeyondTheTimeoutEndsTheWrite()
{
    Bench bench;
    bench.node.hostArrived();
    bench.command("latency 3000");
    const Node::CallId call = bench.write("abc");
    bench.pass(2000ms);
    QCOMPARE(outcome(bench.replyTo(call)), Outcome(-1, ETIMEDOUT));
    bench.pass(1000ms);
    QCOMPARE(bench.takeTransfer(), std::string("(none)"));
}

void NodeCommandsTest::mergedTransfersArriveAsOne()
{
    Bench bench;
    bench.command("merge 3");
    const Node::CallId call = bench.read();
    bench.transferFromHost("a");
    bench.transferFromHost("b");
    QVERIFY(!bench.hasReplyTo(call));
    bench.transferFromHost("c");
    QCOMPARE(bench.replyTo(call).data, std::string("abc"));
    bench.transferFromHost("d");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("d"));
}

void NodeCommandsTest::anUnfinishedMergeIsDeliveredByTheNextMergeCommand()
{
    Bench bench;
    bench.command("merge 3");
    bench.transferFromHost("a");
    bench.command("merge 0");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("a"));
    bench.transferFromHost("b");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("b"));
}

void NodeCommandsTest::splitTransfersArriveInPieces()
{
    Bench bench;
    bench.command("split 2");
    bench.transferFromHost("abcde");
    for (const char *expected : {"ab", "cd"})
        QCOMPARE(bench.replyTo(bench.read()).data, std::string(expected));
    bench.command("split 0");
    bench.transferFromHost("fghij");
    for (const char *expected : {"e", "fghij"})
        QCOMPARE(bench.replyTo(bench.read()).data, std::string(expected));
}

void NodeCommandsTest::transfersOfAHostThatLeftAreDropped()
{
    Bench bench;
    bench.node.hostArrived();
    bench.transferFromHost("abc");
    bench.transferFromHost("def");
    QCOMPARE(bench.replyTo(bench.read(1)).data, std::string("a"));
    bench.command("merge 2");
    bench.transferFromHost("ghi");
    bench.node.hostLeft();
    bench.command("merge 0");
    const Node::CallId call = bench.read();
    QVERIFY(!bench.hasReplyTo(call));
    bench.node.hostArrived();
    bench.transferFromHost("new");
    QCOMPARE(bench.replyTo(call).data, std::string("new"));
}

void NodeCommandsTest::injectionsAreBounded()
{
    Bench bench;
    for (int i = 0; i < 1000; ++i)
        QCOMPARE(bench.command("inject 41"), std::string("ok"));
    QVERIFY(bench.command("inject 41").find("error: 1000 transfers wait") == 0);
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("A"));
    QCOMPARE(bench.command("inject 41"), std::string("ok"));
}

void NodeCommandsTest::triggersRunBeforeTheirCallIsServed()
{
    Bench bench;
    bench.command("on read 2 read fail EIO 1");
    bench.command("on open 1 node missing");
    bench.command("on write 1 write zero");
    bench.transferFromHost("x");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("x"));
    QCOMPARE(outcome(bench.replyTo(bench.read())), Outcome(-1, EIO));
    QVERIFY(!bench.hasReplyTo(bench.read()));
    QCOMPARE(outcome(bench.open()), Outcome(-1, ENOENT));
    QCOMPARE(outcome(bench.replyTo(bench.write("x"))), Outcome(0, 0));
}

void NodeCommandsTest::triggersCountEachCallOnItsOwn()
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

void NodeCommandsTest::triggersMaySetTriggers()
{
    Bench bench;
    bench.command("on read 1 on read 1 read fail EIO");
    QVERIFY(!bench.hasReplyTo(bench.read()));
    QCOMPARE(outcome(bench.replyTo(bench.read())), Outcome(-1, EIO));
}

void NodeCommandsTest::resetRestoresTheStart()
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
    bench.transferFromHost("whole");
    QCOMPARE(bench.replyTo(bench.read()).data, std::string("whole"));
    QVERIFY(!bench.hasReplyTo(bench.write("x")));
}

void NodeCommandsTest::statusTellsCountersAndTimeouts()
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
    bench.transferFromHost("x");
    QCOMPARE(bench.command("status"),
             std::string("ok node=missing cable=in host=1 opens=2 reads=2 writes=1 pending=1 "
                         "read_timeout=11 write_timeout=12 descriptors=1"));
    bench.command("cable out");
    QCOMPARE(bench.command("status"),
             std::string("ok node=missing cable=out host=0 opens=2 reads=2 writes=1 pending=0 "
                         "read_timeout=11 write_timeout=12 descriptors=1"));
}

void NodeCommandsTest::waitIsForScriptsOnly()
{
    Bench bench;
    QVERIFY(bench.command("wait 5").find("error: ") == 0);
}

void NodeCommandsTest::scriptsPauseAtWait()
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

QTEST_APPLESS_MAIN(NodeCommandsTest)
#include "tst_nodecommands.moc"
