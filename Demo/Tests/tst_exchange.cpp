// SPDX-License-Identifier: MIT
#include "ManagerOutput.h"
#include "PortExchange.h"
#include "Report.h"

#include <QTemporaryDir>
#include <QtTest>

class ExchangeTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { _folder.reset(); }

    void theRoundBeginsWithTheRequestTheHeaderAndTheFile();
    void bothFilesArrivingUnchangedEndTheRound();
    void answersMayComeByteByByte();
    void aChangedFileMakesTheSumsDiffer();
    void aFileThatWasNotStoredMakesTheSumsDiffer();
    void whatAnEarlierRoundStoredIsRemoved();
    void aFileThatCannotBeReadIsAnError();
    void unexpectedAnswersEndTheRoundWithAnError_data();
    void unexpectedAnswersEndTheRoundWithAnError();
    void timesAreThoseOfTheLastBytes();

    void theCeilingIsOneFullMessageInTwentyMilliseconds();
    void theTableHoldsEachPortAndBothTotals();
    void allEqualNeedsEveryFileAndAtLeastOne();
    void managerLinesAreReadOnceTheyAreComplete();

private:
    void write(const QString &name, const QByteArray &content) const;
    PortExchange exchange() const
    {
        return PortExchange({3, _path("out"), _path("in"), _path("stored")});
    }
    QString _path(const QString &name) const { return _folder->filePath(name); }

    QScopedPointer<QTemporaryDir> _folder;
};

void ExchangeTest::init()
{
    _folder.reset(new QTemporaryDir);
    QVERIFY(_folder->isValid());
    write("out", "outgoing");
    write("in", "incoming\n");
}

void ExchangeTest::write(const QString &name, const QByteArray &content) const
{
    QFile file(_path(name));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), qint64(content.size()));
}

void ExchangeTest::theRoundBeginsWithTheRequestTheHeaderAndTheFile()
{
    PortExchange port = exchange();
    QCOMPARE(port.begin(), QByteArray("SEND\nFILE 8\noutgoing"));
    QCOMPARE(port.bytesToDeliver(), qint64(20));
    QCOMPARE(port.bytesToReceive(), qint64(9));
    QVERIFY(!port.isDone());
}

void ExchangeTest::bothFilesArrivingUnchangedEndTheRound()
{
    PortExchange port = exchange();
    port.begin();
    port.receive("FILE 9\nincoming\n", 10);
    QVERIFY(!port.isDone());
    write("stored", "outgoing");
    port.receive("STORED 8\n", 20);
    QVERIFY(port.isDone());
    QCOMPARE(port.error(), QString());
    const PortResult result = port.result();
    QCOMPARE(result.port, 3);
    QCOMPARE(result.toDevice.bytes, qint64(8));
    QCOMPARE(result.toHost.bytes, qint64(9));
    QVERIFY(result.toDevice.sumsEqual);
    QVERIFY(result.toHost.sumsEqual);
}

void ExchangeTest::answersMayComeByteByByte()
{
    PortExchange port = exchange();
    port.begin();
    write("stored", "outgoing");
    for (const char c : QByteArray("STORED 8\nFILE 9\nincoming\n")) {
        QVERIFY(!port.isDone());
        port.receive(QByteArray(1, c), 1);
    }
    QVERIFY(port.isDone());
    QVERIFY(port.result().toHost.sumsEqual);
}

void ExchangeTest::aChangedFileMakesTheSumsDiffer()
{
    PortExchange port = exchange();
    port.begin();
    write("stored", "outgoinG");
    port.receive("FILE 9\nincominG\nSTORED 8\n", 1);
    QVERIFY(port.isDone());
    QVERIFY(!port.result().toDevice.sumsEqual);
    QVERIFY(!port.result().toHost.sumsEqual);
}

void ExchangeTest::aFileThatWasNotStoredMakesTheSumsDiffer()
{
    PortExchange port = exchange();
    port.begin();
    port.receive("FILE 9\nincoming\nSTORED 8\n", 1);
    QVERIFY(!port.result().toDevice.sumsEqual);
    QVERIFY(port.result().toHost.sumsEqual);

    PortExchange unanswered = exchange();
    unanswered.begin();
    write("stored", "outgoing");
    QVERIFY(!unanswered.result().toDevice.sumsEqual);
    QVERIFY(!unanswered.result().toHost.sumsEqual);
}

void ExchangeTest::whatAnEarlierRoundStoredIsRemoved()
{
    write("stored", "outgoing");
    PortExchange port = exchange();
    QVERIFY(!port.begin().isEmpty());
    QVERIFY(!QFile::exists(_path("stored")));
}

void ExchangeTest::aFileThatCannotBeReadIsAnError()
{
    QVERIFY(QFile::remove(_path("out")));
    PortExchange port = exchange();
    QCOMPARE(port.begin(), QByteArray());
    QVERIFY(port.isDone());
    QCOMPARE(port.error(), "port 3: " + _path("out") + ": No such file or directory");
}

void ExchangeTest::unexpectedAnswersEndTheRoundWithAnError_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::newRow("error") << QByteArray("ERROR disk full\n");
    QTest::newRow("other size") << QByteArray("FILE 10\n");
    QTest::newRow("other size stored") << QByteArray("STORED 9\n");
    QTest::newRow("stored twice") << QByteArray("STORED 8\nSTORED 8\n");
    QTest::newRow("file twice") << QByteArray("FILE 9\nincoming\nFILE 9\n");
    QTest::newRow("endless line") << QByteArray(300, 'x');
}

void ExchangeTest::unexpectedAnswersEndTheRoundWithAnError()
{
    QFETCH(QByteArray, answer);
    PortExchange port = exchange();
    port.begin();
    QCOMPARE(port.error(), QString());
    port.receive(answer, 1);
    QVERIFY(port.isDone());
    QVERIFY2(port.error().startsWith("port 3: the device "), qPrintable(port.error()));
}

void ExchangeTest::timesAreThoseOfTheLastBytes()
{
    PortExchange port = exchange();
    port.begin();
    port.delivered(15, 5);
    port.receive("FILE 9\nincom", 6);
    port.delivered(5, 7);
    port.receive("ing\n", 8);
    port.receive("STORED 8\n", 9);
    QCOMPARE(port.result().toDevice.milliseconds, qint64(7));
    QCOMPARE(port.result().toHost.milliseconds, qint64(8));
}

void ExchangeTest::theCeilingIsOneFullMessageInTwentyMilliseconds()
{
    QCOMPARE(ceilingOf(10000), 499350.0);
    QCOMPARE(ceilingOf(14), 50.0);
}

void ExchangeTest::theTableHoldsEachPortAndBothTotals()
{
    PortResult first{1, {1000, 2000, true}, {500, 1000, true}};
    PortResult second{2, {3000, 4000, true}, {1500, 3000, false}};
    const QStringList lines = tableOf(1, {first, second}, {2000, 1000}).split('\n');
    QCOMPARE(lines.size(), 6);
    QCOMPARE(lines[0], QString("Round 1, at most 2000 bytes/s to device and 1000 bytes/s to host"));
    const auto cells = [](const QString &line) { return line.simplified().split(' '); };
    QCOMPARE(cells(lines[2]),
             (QStringList{"1", "1000", "2.00", "500", "500", "1.00", "500", "equal"}));
    QCOMPARE(cells(lines[3]),
             (QStringList{"2", "3000", "4.00", "750", "1500", "3.00", "500", "DIFFER"}));
    QCOMPARE(lines[2].size(), lines[1].size());
    QCOMPARE(lines[4], QString("all ports to device: 4000 bytes in 4.00 s, 1000 of at most 2000 "
                               "bytes/s, 50.0 %"));
    QCOMPARE(lines[5], QString("all ports to host  : 2000 bytes in 3.00 s, 667 of at most 1000 "
                               "bytes/s, 66.7 %"));
}

void ExchangeTest::allEqualNeedsEveryFileAndAtLeastOne()
{
    const FlowResult good{1, 1, true};
    const FlowResult bad{1, 1, false};
    QVERIFY(allEqual({{1, good, good}, {2, good, good}}));
    QVERIFY(!allEqual({{1, good, good}, {2, good, bad}}));
    QVERIFY(!allEqual({{1, bad, good}, {2, good, good}}));
    QVERIFY(!allEqual({}));
}

void ExchangeTest::managerLinesAreReadOnceTheyAreComplete()
{
    QFile file(_path("output"));
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    ManagerOutput output(_path("output"));
    QCOMPARE(output.newLines(), QStringList());
    file.write("one\ntw");
    QCOMPARE(output.newLines(), QStringList{"one"});
    file.write("o\nthree\n");
    QCOMPARE(output.newLines(), (QStringList{"two", "three"}));
    QCOMPARE(output.newLines(), QStringList());
    QCOMPARE(ManagerOutput(_path("missing")).newLines(), QStringList());
}

QTEST_GUILESS_MAIN(ExchangeTest)
#include "tst_exchange.moc"
