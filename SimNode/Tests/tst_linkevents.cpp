// SPDX-License-Identifier: MIT
#include "NodeBench.h"

#include <QStringList>
#include <QtTest>

#include <cerrno>

using namespace simnode;
using namespace std::chrono_literals;

namespace {

/// Keeps what it is told in words.
class Witness : public LinkObserver
{
public:
    std::string capture(const std::string &path) override
    {
        note("capture", path);
        return failure;
    }
    void hostSent(const std::string &transfer) override { note("sent", transfer); }
    void deviceRead(std::size_t transfers) override { note("read", std::to_string(transfers)); }
    void unreadDropped() override { note("dropped", {}); }
    void writeBegan(CallId call) override
    {
        _write = call;
        note("write", {});
    }
    void writeEnded(CallId call, int error, const std::string &transfer) override
    {
        if (call == _write)
            note("written", std::to_string(error) + ' ' + transfer);
    }

    QStringList events;
    std::string failure;

private:
    void note(const char *event, const std::string &what)
    {
        events.append(QString("%1 %2").arg(event, QString::fromStdString(what)).trimmed());
    }

    CallId _write = 0;
};

} // namespace

/// What a node tells of its cable.
class LinkEventsTest : public QObject
{
    Q_OBJECT

private slots:
    void transfersOfTheHostAreToldWhenSentAndWhenRead();
    void aSplitTransferIsReadWithItsLastPiece();
    void mergedTransfersAreReadTogether();
    void anUnfinishedMergeIsReadToo();
    void injectedTransfersAreTransfersOfTheHost();
    void whatIsNotReadIsDropped_data();
    void whatIsNotReadIsDropped();
    void writesEndWithWhatTheHostGets_data();
    void writesEndWithWhatTheHostGets();
    void aWriteWithoutAHostTimesOut();
    void aStuckWriteEndsWithItsThread();
    void readsThatTimeOutAreNotOnTheCable();
    void aCaptureIsAskedFor();
};

void LinkEventsTest::transfersOfTheHostAreToldWhenSentAndWhenRead()
{
    Witness witness;
    Bench bench(false, &witness);
    bench.transferFromHost("ab");
    QCOMPARE(witness.events, QStringList("sent ab"));
    bench.read();
    QCOMPARE(witness.events, (QStringList{"sent ab", "read 1"}));
}

void LinkEventsTest::aSplitTransferIsReadWithItsLastPiece()
{
    Witness witness;
    Bench bench(false, &witness);
    bench.command("split 1");
    bench.transferFromHost("ab");
    bench.read();
    QCOMPARE(witness.events, QStringList("sent ab"));
    bench.read();
    QCOMPARE(witness.events, (QStringList{"sent ab", "read 1"}));
}

void LinkEventsTest::mergedTransfersAreReadTogether()
{
    Witness witness;
    Bench bench(false, &witness);
    bench.command("merge 2");
    for (const char *transfer : {"a", "b", "c"})
        bench.transferFromHost(transfer);
    bench.read();
    bench.read();
    QCOMPARE(witness.events, (QStringList{"sent a", "sent b", "sent c", "read 2", "read 1"}));
}

void LinkEventsTest::anUnfinishedMergeIsReadToo()
{
    Witness witness;
    Bench bench(false, &witness);
    bench.command("merge 9");
    bench.transferFromHost("a");
    bench.transferFromHost("b");
    bench.command("merge 0");
    bench.read();
    QCOMPARE(witness.events, (QStringList{"sent a", "sent b", "read 2"}));
}

void LinkEventsTest::injectedTransfersAreTransfersOfTheHost()
{
    Witness witness;
    Bench bench(false, &witness);
    bench.command("inject 4142");
    bench.read();
    QCOMPARE(witness.events, (QStringList{"sent AB", "read 1"}));
}

void LinkEventsTest::whatIsNotReadIsDropped_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("cable") << "cable out";
    QTest::newRow("reset") << "reset";
    QTest::newRow("host") << QString();
}

void LinkEventsTest::whatIsNotReadIsDropped()
{
    QFETCH(QString, command);
    Witness witness;
    Bench bench(false, &witness);
    bench.command("merge 2");
    bench.transferFromHost("a");
    if (command.isEmpty())
        bench.node.hostLeft();
    else
        bench.command(qPrintable(command));
    bench.command("merge 0");
    bench.transferFromHost("b");
    bench.read();
    QCOMPARE(witness.events, (QStringList{"sent a", "dropped", "sent b", "read 1"}));
}

void LinkEventsTest::writesEndWithWhatTheHostGets_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("written");
    QTest::newRow("whole") << "write ok"
                           << "written 0 abc";
    QTest::newRow("short") << "write short 2"
                           << "written 0 ab";
    QTest::newRow("nothing") << "write zero"
                             << "written 0";
    QTest::newRow("failed") << "write fail EIO"
                            << "written 5";
}

void LinkEventsTest::writesEndWithWhatTheHostGets()
{
    QFETCH(QString, command);
    QFETCH(QString, written);
    Witness witness;
    Bench bench(false, &witness);
    bench.node.hostArrived();
    bench.command(qPrintable(command));
    bench.write("abc");
    bench.takeTransfer();
    QCOMPARE(witness.events, (QStringList{"write", written}));
}

void LinkEventsTest::aWriteWithoutAHostTimesOut()
{
    Witness witness;
    Bench bench(false, &witness);
    bench.write("abc");
    bench.pass(1999ms);
    QCOMPARE(witness.events, QStringList("write"));
    bench.pass(1ms);
    QCOMPARE(witness.events, (QStringList{"write", QString("written %1").arg(ETIMEDOUT)}));
}

void LinkEventsTest::aStuckWriteEndsWithItsThread()
{
    Witness witness;
    Bench bench(false, &witness);
    bench.command("write stuck");
    const CallId call = bench.write("abc");
    bench.pass(2000ms);
    QCOMPARE(witness.events, QStringList("write"));
    bench.node.abandon(call);
    QCOMPARE(witness.events, (QStringList{"write", QString("written %1").arg(ENOENT)}));
}

void LinkEventsTest::readsThatTimeOutAreNotOnTheCable()
{
    Witness witness;
    Bench bench(false, &witness);
    bench.read();
    bench.pass(2000ms);
    QCOMPARE(witness.events, QStringList());
}

void LinkEventsTest::aCaptureIsAskedFor()
{
    Witness witness;
    Bench bench(false, &witness);
    QCOMPARE(bench.command("pcap bus.pcap"), std::string("ok"));
    QCOMPARE(bench.command("pcap off"), std::string("ok"));
    QCOMPARE(witness.events, (QStringList{"capture bus.pcap", "capture"}));
    witness.failure = "no room";
    QCOMPARE(bench.command("on read 1 pcap x"), std::string("ok"));
    QVERIFY(bench.command("pcap x").find("error: no room; it should be: ") == 0);
    QVERIFY(Bench().command("pcap x").find("error: ") == 0);
}

QTEST_APPLESS_MAIN(LinkEventsTest)
#include "tst_linkevents.moc"
