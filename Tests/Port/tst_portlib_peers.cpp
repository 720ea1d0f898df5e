// SPDX-License-Identifier: MIT
#include "Candidates.h"

#include <functional>

/**
 * The same operations on a port, on a TCP socket and on a local socket: what they return, what is
 * signalled, and in which order.
 */
class PortLibPeersTest : public QObject
{
    Q_OBJECT

private slots:
    void aPortBehavesLikeASocket();
};

namespace {

using Script = std::function<void(Candidate &candidate, QIODevice &device, QStringList &told)>;

struct Row
{
    const char *what;
    Script script;
    QStringList port;
    // Where the sockets differ.
    QStringList tcp = {};
    QStringList local = {};
};

QString text(bool value)
{
    return value ? "true" : "false";
}

QString text(qint64 value)
{
    return QString::number(value);
}

QString text(const QByteArray &value)
{
    return '"' + value + '"';
}

const QList<Row> rows = {
    {"bytes are written",
     [](Candidate &candidate, QIODevice &device, QStringList &told) {
         told << text(device.write("hello")) << text(device.write(QByteArray()));
         while (device.bytesToWrite() > 0)
             device.waitForBytesWritten(20000);
         told += candidate.take();
         told << text(candidate.waitForReceived("hello")) << text(device.waitForBytesWritten(10));
     },
     {"5", "0", "bytesWritten 5", "true", "false"}},
    {"bytes are read piece by piece",
     [](Candidate &candidate, QIODevice &device, QStringList &told) {
         candidate.send("hello world");
         told << text(device.waitForReadyRead(20000)) << text(device.bytesAvailable());
         told << text(device.peek(5)) << text(device.read(5)) << text(device.bytesAvailable());
         told << text(device.atEnd()) << text(device.readAll()) << text(device.readAll());
         told << text(device.atEnd()) << candidate.take();
     },
     {"true", "11", "\"hello\"", "\"hello\"", "6", "false", "\" world\"", "\"\"", "true",
      "readyRead"}},
    {"lines are read",
     [](Candidate &candidate, QIODevice &device, QStringList &told) {
         candidate.send("one\ntwo\nthr");
         told << text(device.waitForReadyRead(20000));
         while (device.canReadLine())
             told << text(device.readLine());
         told << text(device.readLine(3)) << text(device.readLine()) << candidate.take();
     },
     {"true", "\"one\n\"", "\"two\n\"", "\"th\"", "\"r\"", "readyRead"}},
    {"a transaction is taken back",
     [](Candidate &candidate, QIODevice &device, QStringList &told) {
         candidate.send("hello");
         told << text(device.waitForReadyRead(20000));
         device.startTransaction();
         told << text(device.read(3)) << text(device.bytesAvailable());
         device.rollbackTransaction();
         told << text(device.bytesAvailable());
         device.startTransaction();
         told << text(device.readAll()) << text(device.isTransactionStarted());
         device.commitTransaction();
         told << text(device.bytesAvailable()) << candidate.take();
     },
     {"true", "\"hel\"", "2", "5", "\"hello\"", "true", "0", "readyRead"}},
    {"a wait is in vain",
     [](Candidate &candidate, QIODevice &device, QStringList &told) {
         told << text(device.waitForReadyRead(1)) << text(device.errorString().isEmpty());
         told << candidate.take();
     },
     {"false", "false", "errorOccurred"}},
    {"single bytes and none are read and put back",
     [](Candidate &candidate, QIODevice &device, QStringList &told) {
         candidate.send("hello");
         told << text(device.waitForReadyRead(20000));
         char byte = 0;
         told << text(device.read(&byte, 0)) << text(device.getChar(&byte)) << QString(byte);
         device.ungetChar('j');
         told << text(device.skip(1)) << text(device.readAll()) << text(device.getChar(&byte));
         told << text(device.pos()) << text(device.isSequential()) << text(device.seek(0));
     },
     {"true", "0", "true", "h", "1", "\"ello\"", "false", "0", "true", "false"}},
    {"the read buffer is small",
     [](Candidate &candidate, QIODevice &device, QStringList &told) {
         candidate.setReadBufferSize(4);
         candidate.send("helloworld");
         for (QByteArray got; got.size() < 10;) {
             device.waitForReadyRead(20000);
             told << text(device.bytesAvailable());
             got += device.readAll();
         }
     },
     {"4", "4", "2"}},
    {"a handler waits for more",
     [](Candidate &candidate, QIODevice &device, QStringList &told) {
         int depth = 0;
         QObject::connect(&device, &QIODevice::readyRead, &device, [&] {
             told << "depth " + text(qint64(++depth)) << text(device.readAll());
             if (told.size() == 2) {
                 candidate.send("second");
                 told << text(device.waitForReadyRead(20000)) << text(device.readAll());
             }
             --depth;
         });
         candidate.send("first");
         told << text(device.waitForReadyRead(20000));
         QObject::disconnect(&device, &QIODevice::readyRead, &device, nullptr);
     },
     {"depth 1", "\"first\"", "true", "\"second\"", "true"}},
    {"the far end goes with bytes unread",
     [](Candidate &candidate, QIODevice &device, QStringList &told) {
         candidate.send("bye");
         told << text(device.waitForReadyRead(20000));
         candidate.cutOff();
         told << text(candidate.waitForDisconnected()) << candidate.take();
         told << text(device.isOpen()) << text(device.bytesAvailable()) << text(device.readAll());
         char byte = 0;
         told << text(device.read(&byte, 1)) << text(device.write("x"));
         told << text(device.waitForReadyRead(1));
     },
     // A socket has a state for the time until all is sent; a port's loss is over when it is told.
     {"true", "true", "readyRead", "errorOccurred", "UnconnectedState", "readChannelFinished",
      "disconnected", "true", "3", "\"bye\"", "-1", "-1", "false"},
     {"true", "true", "readyRead", "errorOccurred", "ClosingState", "UnconnectedState",
      "readChannelFinished", "disconnected", "true", "3", "\"bye\"", "-1", "-1", "false"}},
    {"it is closed with bytes unread",
     [](Candidate &candidate, QIODevice &device, QStringList &told) {
         candidate.send("unread");
         told << text(device.waitForReadyRead(20000));
         told << text(device.write("hello")) << candidate.take();
         device.close();
         told << text(device.isOpen()) << text(device.bytesAvailable());
         const bool disconnected = QTest::qWaitFor(
             [&] {
                 told += candidate.take();
                 return told.contains("disconnected");
             },
             20000);
         told << text(disconnected) << text(candidate.waitForReceived("hello"));
     },
     // A port's close sends what it can before it returns; a socket's goes on in the event loop.
     // That a local socket is the owner of another one is why it says twice that it closes.
     {"true", "5", "readyRead", "false", "0", "aboutToClose", "bytesWritten 5", "UnconnectedState",
      "readChannelFinished", "disconnected", "true", "true"},
     {"true", "5", "readyRead", "false", "0", "aboutToClose", "ClosingState", "bytesWritten 5",
      "UnconnectedState", "readChannelFinished", "disconnected", "true", "true"},
     {"true", "5", "readyRead", "false", "0", "aboutToClose", "ClosingState", "aboutToClose",
      "bytesWritten 5", "UnconnectedState", "readChannelFinished", "disconnected", "true", "true"}},
};

QStringList run(const Row &row, Candidate &&candidate)
{
    QStringList told;
    if (!candidate.connect())
        return {"not connected"};
    candidate.take();
    row.script(candidate, *candidate.device(), told);
    return told;
}

// A close waits 300 ms for the node, in which a busy machine may not come to it.
QStringList runOnPort(const Row &row, PortFixture &fixture)
{
    QStringList told;
    for (int i = 0; i < 10; ++i) {
        told = run(row, PortCandidate(fixture));
        if (!told.contains("bytesLost"))
            break;
    }
    return told;
}

bool tells(const char *who, const Row &row, const QStringList &told, const QStringList &expected)
{
    if (told == expected)
        return true;
    qWarning() << who << row.what << "\ntold    " << told << "\nexpected" << expected;
    return false;
}

} // namespace

void PortLibPeersTest::aPortBehavesLikeASocket()
{
    PortFixture fixture;
    for (const Row &row : rows) {
        const QStringList &tcp = row.tcp.isEmpty() ? row.port : row.tcp;
        const QStringList &local = row.local.isEmpty() ? tcp : row.local;
        QVERIFY(tells("port:", row, runOnPort(row, fixture), row.port));
        QVERIFY(tells("TCP socket:", row, run(row, TcpCandidate()), tcp));
        QVERIFY(tells("local socket:", row, run(row, LocalCandidate()), local));
    }
}

QTEST_GUILESS_MAIN(PortLibPeersTest)
#include "tst_portlib_peers.moc"
