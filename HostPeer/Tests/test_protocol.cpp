// SPDX-License-Identifier: MIT
#include "Protocol.h"

#include <QtTest>

#include <random>

using namespace hostpeer;

namespace {

// The messages of a transfer and its fault in one line, to compare with one glance.
struct Describe
{
    QString operator()(const DataMessage &message) const
    {
        const auto size = static_cast<int>(message.payload.size());
        return QString("%1:%2")
            .arg(message.port)
            .arg(QString::fromLatin1(message.payload.data(), size));
    }
    QString operator()(const NoData &) const { return "none"; }
    QString operator()(const MaxReadSize &message) const
    {
        return QString("max %1").arg(message.bytes);
    }
    QString operator()(const UnusableReadSize &message) const
    {
        const auto size = static_cast<int>(message.digits.size());
        return QString("unusable %1").arg(QString::fromLatin1(message.digits.data(), size));
    }
    QString operator()(const DelayRequest &) const { return "delay"; }
};

QString describe(std::string_view transfer)
{
    const ParsedTransfer parsed = parseTransfer(transfer);
    QStringList parts;
    for (const Message &message : parsed.messages)
        parts << std::visit(Describe(), message);
    if (parsed.fault)
        parts << QString("fault at %1").arg(parsed.fault->offset);
    return parts.join(", ");
}

std::string randomBytes(std::mt19937 &random, std::size_t count)
{
    std::uniform_int_distribution<int> byte(0, 255);
    std::string bytes(count, '\0');
    for (char &c : bytes)
        c = static_cast<char>(byte(random));
    return bytes;
}

} // namespace

class ProtocolTest : public QObject
{
    Q_OBJECT

private slots:
    void aDataMessageIsFramedWithTagLengthAndPort();
    void aFramedMessageIsAppendedBehindTheOthers();
    void theLargestPortAndPayloadAreFramed();
    void whatDoesNotFitItsFieldsIsNotFramed();
    void wellFormedTransfersAreCutIntoTheirMessages_data();
    void wellFormedTransfersAreCutIntoTheirMessages();
    void malformedTransfersYieldTheMessagesBeforeTheFault_data();
    void malformedTransfersYieldTheMessagesBeforeTheFault();
    void everyFaultHasAReason();
    void aPayloadMayHoldAnyBytes();
    void framedMessagesAreParsedToWhatTheyWere();
    void aCutMessageIsNeverTakenForAWholeOne();
    void anyBytesAreParsedWithinTheirBounds();
};

void ProtocolTest::aDataMessageIsFramedWithTagLengthAndPort()
{
    std::string transfer;
    QVERIFY(appendDataMessage(transfer, 2, "abc"));
    QCOMPARE(transfer, std::string("FADA000070002abc"));
}

void ProtocolTest::aFramedMessageIsAppendedBehindTheOthers()
{
    std::string transfer;
    QVERIFY(appendDataMessage(transfer, 1, "x"));
    QVERIFY(appendDataMessage(transfer, 9999, ""));
    QCOMPARE(transfer, std::string("FADA000050001xFADA000049999"));
}

void ProtocolTest::theLargestPortAndPayloadAreFramed()
{
    std::string transfer;
    QVERIFY(appendDataMessage(transfer, maxPort, std::string(maxPayload, 'p')));
    QCOMPARE(transfer.substr(0, headerSize), std::string("FADA999999999"));
    QCOMPARE(transfer.size(), headerSize + maxPayload);
}

void ProtocolTest::whatDoesNotFitItsFieldsIsNotFramed()
{
    std::string transfer = "kept";
    QVERIFY(!appendDataMessage(transfer, -1, "a"));
    QVERIFY(!appendDataMessage(transfer, maxPort + 1, "a"));
    QVERIFY(!appendDataMessage(transfer, 1, std::string(maxPayload + 1, 'p')));
    QCOMPARE(transfer, std::string("kept"));
}

void ProtocolTest::wellFormedTransfersAreCutIntoTheirMessages_data()
{
    QTest::addColumn<QByteArray>("transfer");
    QTest::addColumn<QString>("messages");
    QTest::newRow("nothing") << QByteArray("") << "";
    QTest::newRow("no data") << QByteArray("DEVICE_NODATA") << "none";
    QTest::newRow("max read size") << QByteArray("DEVICE_NODATA10000") << "max 10000";
    QTest::newRow("small max read size") << QByteArray("DEVICE_NODATA00014") << "max 14";
    QTest::newRow("largest max read size") << QByteArray("DEVICE_NODATA99999") << "max 99999";
    QTest::newRow("max read size of six digits")
        << QByteArray("DEVICE_NODATA100000") << "max 100000";
    QTest::newRow("max read size of six digits and data")
        << QByteArray("DEVICE_NODATA100000FADA000050003x") << "max 100000, 3:x";
    QTest::newRow("max read size zero and data")
        << QByteArray("DEVICE_NODATA00000FADA000050003x") << "unusable 00000, 3:x";
    QTest::newRow("max read size of too few digits and data")
        << QByteArray("DEVICE_NODATA1000FADA000050003x") << "unusable 1000, 3:x";
    QTest::newRow("max read size beyond every number and data")
        << QByteArray("DEVICE_NODATA999999999999999999999FADA000050003x")
        << "unusable 999999999999999999999, 3:x";
    QTest::newRow("delay") << QByteArray("DEVICE_WTSEND") << "delay";
    QTest::newRow("data") << QByteArray("FADA000050003x") << "3:x";
    QTest::newRow("empty payload") << QByteArray("FADA000040003") << "3:";
    QTest::newRow("two data") << QByteArray("FADA000050003xFADA000060012yz") << "3:x, 12:yz";
    QTest::newRow("no data and data") << QByteArray("DEVICE_NODATAFADA000050003x") << "none, 3:x";
    QTest::newRow("max read size and data")
        << QByteArray("DEVICE_NODATA00500FADA000050003x") << "max 500, 3:x";
    QTest::newRow("all") << QByteArray("DEVICE_NODATAFADA000050003xDEVICE_WTSEND")
                         << "none, 3:x, delay";
    QTest::newRow("tag in the payload") << QByteArray("FADA000080003FADA") << "3:FADA";
    QTest::newRow("control message in the payload")
        << QByteArray("FADA000170003DEVICE_WTSEND") << "3:DEVICE_WTSEND";
}

void ProtocolTest::wellFormedTransfersAreCutIntoTheirMessages()
{
    QFETCH(QByteArray, transfer);
    QFETCH(QString, messages);
    QCOMPARE(describe(transfer.toStdString()), messages);
}

void ProtocolTest::malformedTransfersYieldTheMessagesBeforeTheFault_data()
{
    QTest::addColumn<QByteArray>("transfer");
    QTest::addColumn<QString>("messages");
    QTest::newRow("garbage") << QByteArray("garbage") << "fault at 0";
    QTest::newRow("cut tag") << QByteArray("FAD") << "fault at 0";
    QTest::newRow("cut header") << QByteArray("FADA00005000") << "fault at 0";
    QTest::newRow("cut payload") << QByteArray("FADA000060003x") << "fault at 0";
    QTest::newRow("letters as length") << QByteArray("FADAabcde0003x") << "fault at 0";
    QTest::newRow("signed length") << QByteArray("FADA+00050003x") << "fault at 0";
    QTest::newRow("negative length") << QByteArray("FADA-00050003x") << "fault at 0";
    QTest::newRow("blank in length") << QByteArray("FADA    50003x") << "fault at 0";
    QTest::newRow("zero byte in length") << QByteArray("FADA0005\0000030x", 15) << "fault at 0";
    QTest::newRow("length without port") << QByteArray("FADA000030003x") << "fault at 0";
    QTest::newRow("length zero") << QByteArray("FADA000000003x") << "fault at 0";
    QTest::newRow("largest length") << QByteArray("FADA999990003x") << "fault at 0";
    QTest::newRow("letters as port") << QByteArray("FADA00007ab12xyz") << "fault at 0";
    QTest::newRow("signed port") << QByteArray("FADA00007-001xyz") << "fault at 0";
    QTest::newRow("lower case tag") << QByteArray("fada000050003x") << "fault at 0";
    QTest::newRow("cut control message") << QByteArray("DEVICE_NODAT") << "fault at 0";
    QTest::newRow("disconnect message") << QByteArray("DEVICE_DISC") << "fault at 0";
    QTest::newRow("data behind delay") << QByteArray("DEVICE_WTSENDFADA000050003x") << "fault at 0";
    QTest::newRow("second message cut")
        << QByteArray("FADA000050003xFADA000090003x") << "3:x, fault at 14";
    QTest::newRow("garbage behind data") << QByteArray("FADA000050003x?") << "3:x, fault at 14";
    QTest::newRow("garbage behind no data") << QByteArray("DEVICE_NODATA?") << "none, fault at 13";
    QTest::newRow("nothing behind the fault is read")
        << QByteArray("?FADA000050003xDEVICE_NODATA") << "fault at 0";
}

void ProtocolTest::malformedTransfersYieldTheMessagesBeforeTheFault()
{
    QFETCH(QByteArray, transfer);
    QFETCH(QString, messages);
    QCOMPARE(describe(transfer.toStdString()), messages);
}

void ProtocolTest::everyFaultHasAReason()
{
    const auto reason = [](std::string_view transfer) {
        const ParsedTransfer parsed = parseTransfer(transfer);
        return parsed.fault ? parsed.fault->reason : std::string("no fault");
    };
    QCOMPARE(reason("garbage"), std::string("no message begins here"));
    QCOMPARE(reason("FADA00"), std::string("the transfer ends within a message header"));
    QCOMPARE(reason("FADAabcde0003x"), std::string("the length is not a decimal number"));
    QCOMPARE(reason("FADA000030003"), std::string("the length 3 leaves no room for the port"));
    QCOMPARE(reason("FADA000060003x"),
             std::string("the message has 15 bytes, the transfer only 14 more"));
    QCOMPARE(reason("FADA00005abcdx"), std::string("the port is not a decimal number"));
    QCOMPARE(reason("DEVICE_WTSEND "), std::string("bytes follow a request to delay writes"));
}

void ProtocolTest::aPayloadMayHoldAnyBytes()
{
    std::string payload;
    for (int byte = 0; byte < 256; ++byte)
        payload.push_back(static_cast<char>(byte));
    std::string transfer;
    QVERIFY(appendDataMessage(transfer, 7, payload));
    const ParsedTransfer parsed = parseTransfer(transfer);
    QVERIFY(!parsed.fault);
    QCOMPARE(parsed.messages.size(), std::size_t(1));
    QVERIFY(std::get<DataMessage>(parsed.messages.front()).payload == payload);
}

void ProtocolTest::framedMessagesAreParsedToWhatTheyWere()
{
    std::mt19937 random(20);
    std::uniform_int_distribution<int> anyPort(0, maxPort);
    std::uniform_int_distribution<std::size_t> anySize(0, 300);
    for (int round = 0; round < 200; ++round) {
        std::string transfer;
        std::vector<std::pair<int, std::string>> sent;
        for (int i = 0; i < 5; ++i) {
            sent.emplace_back(anyPort(random), randomBytes(random, anySize(random)));
            QVERIFY(appendDataMessage(transfer, sent.back().first, sent.back().second));
        }
        const ParsedTransfer parsed = parseTransfer(transfer);
        QVERIFY(!parsed.fault);
        QCOMPARE(parsed.messages.size(), sent.size());
        for (std::size_t i = 0; i < sent.size(); ++i) {
            const auto &message = std::get<DataMessage>(parsed.messages[i]);
            QCOMPARE(message.port, sent[i].first);
            QVERIFY(message.payload == sent[i].second);
        }
    }
}

void ProtocolTest::aCutMessageIsNeverTakenForAWholeOne()
{
    std::string transfer;
    QVERIFY(appendDataMessage(transfer, 12, "payload"));
    for (std::size_t size = 1; size < transfer.size(); ++size) {
        const ParsedTransfer parsed = parseTransfer(std::string_view(transfer).substr(0, size));
        QVERIFY(parsed.messages.empty());
        QVERIFY(parsed.fault.has_value());
        QCOMPARE(parsed.fault->offset, std::size_t(0));
    }
}

void ProtocolTest::anyBytesAreParsedWithinTheirBounds()
{
    std::mt19937 random(21);
    const std::string valid = "FADA000070002abcDEVICE_NODATA10000FADA000050001xDEVICE_WTSEND";
    std::uniform_int_distribution<std::size_t> position(0, valid.size() - 1);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int round = 0; round < 20000; ++round) {
        std::string transfer = valid;
        for (int change = 0; change < 3; ++change)
            transfer[position(random)] = static_cast<char>(byte(random));
        const ParsedTransfer parsed = parseTransfer(transfer);
        if (parsed.fault)
            QVERIFY(parsed.fault->offset < transfer.size());
        for (const Message &message : parsed.messages) {
            if (const auto *data = std::get_if<DataMessage>(&message)) {
                QVERIFY(data->port >= 0 && data->port <= maxPort);
                QVERIFY(data->payload.data() >= transfer.data());
                QVERIFY(data->payload.data() + data->payload.size() <=
                        transfer.data() + transfer.size());
            }
        }
    }
}

QTEST_APPLESS_MAIN(ProtocolTest)
#include "test_protocol.moc"
