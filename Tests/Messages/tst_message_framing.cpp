// SPDX-License-Identifier: MIT
#include <UsbHal.h>
#include <UsbHalLog.h>

#include <QTest>

using namespace usb_messages;

Q_DECLARE_METATYPE(usb_messages::Fault)

namespace {

// Bytes with no terminator behind them, as a driver hands them out.
class BareBytes
{
public:
    explicit BareBytes(const QByteArray &bytes)
        : _storage(bytes.constData(), bytes.constData() + bytes.size())
    {
    }

    QByteArray view() const
    {
        return QByteArray::fromRawData(_storage.data(), static_cast<int>(_storage.size()));
    }

private:
    std::vector<char> _storage;
};

constexpr int notDecimal = -1;

} // namespace

class MessageFramingTest : public QObject
{
    Q_OBJECT

private slots:
    void theConstantsHoldTheBytesOfTheProtocol_data();
    void theConstantsHoldTheBytesOfTheProtocol();
    void aDataMessageIsMagicLengthIdAndPayload_data();
    void aDataMessageIsMagicLengthIdAndPayload();
    void thePayloadOfADataMessageIsUntouched();
    void framingCostsOneAllocation();
    void theLargestPayloadFillsTheLengthField();
    void anIdThatDoesNotFitGivesAFieldOfTheWrongWidth_data();
    void anIdThatDoesNotFitGivesAFieldOfTheWrongWidth();

    void aDecimalFieldHoldsDigitsOnly_data();
    void aDecimalFieldHoldsDigitsOnly();

    void aDataMessageIsCutAndChecked_data();
    void aDataMessageIsCutAndChecked();
    void aCutPayloadPointsIntoTheReceivedBytes();

    void theMaxReadSizeMessageHoldsFiveDigits_data();
    void theMaxReadSizeMessageHoldsFiveDigits();
    void theMaxReadSizeIsReadFromTheLastFiveBytes_data();
    void theMaxReadSizeIsReadFromTheLastFiveBytes();

    void receivedBytesBecomeText_data();
    void receivedBytesBecomeText();
    void anInvalidMessageIsShownByItsEnds_data();
    void anInvalidMessageIsShownByItsEnds();
};

void MessageFramingTest::theConstantsHoldTheBytesOfTheProtocol_data()
{
    QTest::addColumn<QByteArray>("constant");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("size");
    QTest::newRow("magic number") << magicNumber << QByteArray("FADA") << 4;
    QTest::newRow("no data") << devNoData << QByteArray("DEVICE_NODATA") << 13;
    QTest::newRow("delay writes") << waitSend << QByteArray("DEVICE_WTSEND") << 13;
    QTest::newRow("port opened") << deviceConn << QByteArray("DEVICE_CONN") << 11;
    QTest::newRow("reserved") << deviceDisc << QByteArray("DEVICE_DISC") << 11;
}

void MessageFramingTest::theConstantsHoldTheBytesOfTheProtocol()
{
    QFETCH(QByteArray, constant);
    QFETCH(int, size);
    QTEST(constant, "bytes");
    QCOMPARE(constant.size(), size);
}

void MessageFramingTest::aDataMessageIsMagicLengthIdAndPayload_data()
{
    QTest::addColumn<int>("port");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("three bytes") << 2 << QByteArray("abc") << QByteArray("FADA000070002abc");
    QTest::newRow("one byte") << 3 << QByteArray("x") << QByteArray("FADA000050003x");
    QTest::newRow("no byte") << 3 << QByteArray() << QByteArray("FADA000040003");
    QTest::newRow("lowest port") << 0 << QByteArray("a") << QByteArray("FADA000050000a");
    QTest::newRow("highest port") << 9999 << QByteArray("a") << QByteArray("FADA000059999a");
    QTest::newRow("two-digit length")
        << 12 << QByteArray("0123456789") << QByteArray("FADA0001400120123456789");
}

void MessageFramingTest::aDataMessageIsMagicLengthIdAndPayload()
{
    QFETCH(int, port);
    QFETCH(QByteArray, payload);
    QTEST(frameData(port, payload.constData(), payload.size()), "message");
}

void MessageFramingTest::thePayloadOfADataMessageIsUntouched()
{
    QByteArray payload;
    for (int byte = 0; byte < 256; ++byte)
        payload.append(static_cast<char>(byte));
    const QByteArray message = frameData(1, payload.constData(), payload.size());
    QCOMPARE(message.left(13), QByteArray("FADA002600001"));
    QCOMPARE(message.mid(13), payload);
}

void MessageFramingTest::framingCostsOneAllocation()
{
    const QByteArray payload(1000, 'p');
    const QByteArray message = frameData(1, payload.constData(), payload.size());
    // An array that grew on the way would hold more room than the header's.
    QVERIFY2(message.capacity() <= payload.size() + 4 + 11,
             qPrintable(QString::number(message.capacity())));
}

void MessageFramingTest::theLargestPayloadFillsTheLengthField()
{
    QCOMPARE(largestPayload, 99995);
    const QByteArray payload(largestPayload, 'p');
    const QByteArray message = frameData(1, payload.constData(), payload.size());
    QCOMPARE(message.left(13), QByteArray("FADA999990001"));
    const DataMessage cut = cutData(message);
    QCOMPARE(cut.size, message.size());
    QCOMPARE(cut.payloadSize, largestPayload);
}

void MessageFramingTest::anIdThatDoesNotFitGivesAFieldOfTheWrongWidth_data()
{
    QTest::addColumn<int>("port");
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("five digits") << 10000 << QByteArray("FADA0000610000ab");
    QTest::newRow("negative") << -1 << QByteArray("FADA0000600-1ab");
    QTest::newRow("negative and long") << -1000 << QByteArray("FADA00006-1000ab");
}

void MessageFramingTest::anIdThatDoesNotFitGivesAFieldOfTheWrongWidth()
{
    QFETCH(int, port);
    QTEST(frameData(port, "ab", 2), "message");
}

void MessageFramingTest::aDecimalFieldHoldsDigitsOnly_data()
{
    QTest::addColumn<QByteArray>("field");
    QTest::addColumn<int>("value");
    QTest::newRow("zero") << QByteArray("00000") << 0;
    QTest::newRow("padded") << QByteArray("00042") << 42;
    QTest::newRow("not padded") << QByteArray("12345") << 12345;
    QTest::newRow("largest") << QByteArray("99999") << 99999;
    QTest::newRow("four digits") << QByteArray("9999") << 9999;
    QTest::newRow("plus sign") << QByteArray("+0042") << notDecimal;
    QTest::newRow("minus sign") << QByteArray("-0042") << notDecimal;
    QTest::newRow("minus zero") << QByteArray("-0000") << notDecimal;
    QTest::newRow("leading blank") << QByteArray("   42") << notDecimal;
    QTest::newRow("trailing blank") << QByteArray("42   ") << notDecimal;
    QTest::newRow("blank inside") << QByteArray("00 42") << notDecimal;
    QTest::newRow("tab") << QByteArray("\t0042") << notDecimal;
    QTest::newRow("line end") << QByteArray("0042\n") << notDecimal;
    QTest::newRow("letter") << QByteArray("0004a") << notDecimal;
    QTest::newRow("hexadecimal") << QByteArray("0x042") << notDecimal;
    QTest::newRow("exponent") << QByteArray("001e1") << notDecimal;
    QTest::newRow("point") << QByteArray("0042.") << notDecimal;
    QTest::newRow("before the digits") << QByteArray("0004/") << notDecimal;
    QTest::newRow("behind the digits") << QByteArray("0004:") << notDecimal;
    QTest::newRow("zero byte") << QByteArray("42\0\0\0", 5) << notDecimal;
    QTest::newRow("high bytes") << QByteArray("\xd9\xa1\xd9\xa2\x30") << notDecimal;
    QTest::newRow("highest byte") << QByteArray("0000\xff") << notDecimal;
}

void MessageFramingTest::aDecimalFieldHoldsDigitsOnly()
{
    QFETCH(QByteArray, field);
    QTEST(parseDecimal(field.constData(), field.size()).value_or(notDecimal), "value");
}

void MessageFramingTest::aDataMessageIsCutAndChecked_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<Fault>("fault");
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("port");
    QTest::addColumn<QByteArray>("payload");
    const auto accepted = [](const char *name, const QByteArray &bytes, int size, int port,
                             const QByteArray &payload) {
        QTest::newRow(name) << bytes << Fault::None << size << port << payload;
    };
    accepted("one byte", "FADA000050003x", 14, 3, "x");
    accepted("empty payload", "FADA000040003", 13, 3, "");
    accepted("message behind", "FADA000070002abcFADA000050003x", 16, 2, "abc");
    accepted("lowest port", "FADA000050000a", 14, 0, "a");
    accepted("highest port", "FADA000059999a", 14, 9999, "a");
    const auto rejected = [](const char *name, const QByteArray &bytes, Fault fault, int size) {
        QTest::newRow(name) << bytes << fault << size << 0 << QByteArray();
    };
    rejected("nothing", "", Fault::NotValid, 0);
    rejected("half of the magic", "FAD", Fault::NotValid, 0);
    rejected("other magic", "FADE000050003x", Fault::NotValid, 0);
    rejected("lower case", "fada000050003x", Fault::NotValid, 0);
    rejected("magic behind a blank", " FADA000050003x", Fault::NotValid, 0);
    rejected("magic only", "FADA", Fault::WrongSize, 0);
    rejected("length cut off", "FADA0000", Fault::WrongSize, 0);
    rejected("length of letters", "FADAabcde0003x", Fault::WrongSize, 0);
    rejected("length with sign", "FADA+00050003x", Fault::WrongSize, 0);
    rejected("length with blanks", "FADA    50003x", Fault::WrongSize, 0);
    rejected("negative length", "FADA-00050003x", Fault::WrongSize, 0);
    rejected("length 0", "FADA000000003x", Fault::WrongSize, 0);
    rejected("length 3", "FADA000030003x", Fault::WrongSize, 0);
    rejected("id cut off", "FADA00005000", Fault::WrongSize, 0);
    rejected("payload cut off", "FADA000070002ab", Fault::WrongSize, 0);
    rejected("largest length", "FADA999990002ab", Fault::WrongSize, 0);
    rejected("id with letters", "FADA00007ab12xyz", Fault::InvalidId, 16);
    rejected("id with sign", "FADA00007+012xyz", Fault::InvalidId, 16);
    rejected("negative id", "FADA00007-001xyz", Fault::InvalidId, 16);
    rejected("id with blanks", "FADA00007  12xyz", Fault::InvalidId, 16);
    rejected("invalid id, message behind", "FADA00007ab12xyzFADA000040003", Fault::InvalidId, 16);
}

void MessageFramingTest::aDataMessageIsCutAndChecked()
{
    QFETCH(QByteArray, bytes);
    const BareBytes bare(bytes);
    const DataMessage message = cutData(bare.view());
    QTEST(message.fault, "fault");
    QTEST(message.size, "size");
    QTEST(message.port, "port");
    QTEST(QByteArray(message.payload, message.payloadSize), "payload");
}

void MessageFramingTest::aCutPayloadPointsIntoTheReceivedBytes()
{
    const QByteArray bytes("FADA000070002abc");
    QCOMPARE(static_cast<const void *>(cutData(bytes).payload),
             static_cast<const void *>(bytes.constData() + 13));
}

void MessageFramingTest::theMaxReadSizeMessageHoldsFiveDigits_data()
{
    QTest::addColumn<quint32>("size");
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("usual") << 10000U << QByteArray("DEVICE_NODATA10000");
    QTest::newRow("padded") << 512U << QByteArray("DEVICE_NODATA00512");
    QTest::newRow("one") << 1U << QByteArray("DEVICE_NODATA00001");
    QTest::newRow("largest") << 99999U << QByteArray("DEVICE_NODATA99999");
    QTest::newRow("not cut") << 100000U << QByteArray("DEVICE_NODATA100000");
}

void MessageFramingTest::theMaxReadSizeMessageHoldsFiveDigits()
{
    QFETCH(quint32, size);
    QTEST(frameMaxReadSize(size), "message");
}

void MessageFramingTest::theMaxReadSizeIsReadFromTheLastFiveBytes_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("size");
    QTest::newRow("usual") << QByteArray("DEVICE_NODATA10000") << 10000;
    QTest::newRow("padded") << QByteArray("DEVICE_NODATA00001") << 1;
    QTest::newRow("message behind") << QByteArray("DEVICE_NODATA10000FADA00007000200512") << 512;
    QTest::newRow("fewer than five bytes") << QByteArray("12") << 12;
    QTest::newRow("zero") << QByteArray("DEVICE_NODATA00000") << notDecimal;
    QTest::newRow("no number") << QByteArray("DEVICE_NODATA") << notDecimal;
    QTest::newRow("four digits") << QByteArray("DEVICE_NODATA1000") << notDecimal;
    QTest::newRow("sign") << QByteArray("DEVICE_NODATA+1000") << notDecimal;
    QTest::newRow("negative") << QByteArray("DEVICE_NODATA-1000") << notDecimal;
    QTest::newRow("nothing") << QByteArray() << notDecimal;
}

void MessageFramingTest::theMaxReadSizeIsReadFromTheLastFiveBytes()
{
    QFETCH(QByteArray, bytes);
    const BareBytes bare(bytes);
    QTEST(parseMaxReadSize(bare.view()).value_or(notDecimal), "size");
}

void MessageFramingTest::receivedBytesBecomeText_data()
{
    constexpr int noLimit = std::numeric_limits<int>::max();
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("limit");
    QTest::addColumn<QString>("text");
    QTest::newRow("plain") << QByteArray("abc") << noLimit << QString("abc");
    QTest::newRow("nothing") << QByteArray() << noLimit << QString();
    QTest::newRow("up to the zero byte") << QByteArray("ab\0cd", 5) << noLimit << QString("ab");
    QTest::newRow("zero byte first") << QByteArray("\0cd", 3) << noLimit << QString();
    QTest::newRow("limit") << QByteArray("abcdef") << 3 << QString("abc");
    QTest::newRow("limit behind the end") << QByteArray("abc") << 100 << QString("abc");
    QTest::newRow("zero byte before the limit") << QByteArray("a\0bcd", 5) << 3 << QString("a");
    QTest::newRow("UTF-8") << QByteArray("\xc3\xa9t\xc3\xa9") << noLimit
                           << QString::fromUtf8("\xc3\xa9t\xc3\xa9");
    QTest::newRow("cut before the conversion")
        << QByteArray("ab\xc3\xa9") << 3 << "ab" + QString(QChar::ReplacementCharacter);
    QTest::newRow("not UTF-8") << QByteArray("a\xff") << noLimit
                               << "a" + QString(QChar::ReplacementCharacter);
}

void MessageFramingTest::receivedBytesBecomeText()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, limit);
    const BareBytes bare(bytes);
    QTEST(LogPart(bare.view(), limit).toString(), "text");
}

void MessageFramingTest::anInvalidMessageIsShownByItsEnds_data()
{
    const auto digits = [](int count) {
        QString text;
        for (int i = 0; i < count; ++i)
            text += QString::number(i % 10);
        return text;
    };
    const auto ends = [&](int count) {
        return '[' + digits(count).left(40) + "..." + digits(count).right(40) + ']';
    };
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("shown");
    QTest::newRow("nothing") << QByteArray() << QString();
    QTest::newRow("5 bytes") << digits(5).toUtf8() << QString();
    QTest::newRow("6 bytes") << digits(6).toUtf8() << QString("[012345]");
    QTest::newRow("80 bytes") << digits(80).toUtf8() << '[' + digits(80) + ']';
    QTest::newRow("81 bytes") << digits(81).toUtf8() << ends(81);
    QTest::newRow("499 bytes") << digits(499).toUtf8() << ends(499);
    QTest::newRow("500 bytes") << digits(500).toUtf8() << QString();
    QTest::newRow("white space") << QByteArray(" a b\t\tc\r\nd ") << QString("[abcd]");
    QTest::newRow("zero byte") << QByteArray("abc\0def", 7) << QString("[abc]");
    QTest::newRow("zero byte in both ends") << "ab" + QByteArray(98, '\0') << QString("[ab...]");
}

void MessageFramingTest::anInvalidMessageIsShownByItsEnds()
{
    QFETCH(QByteArray, bytes);
    const BareBytes bare(bytes);
    QTEST(excerpt(bare.view()), "shown");
}

QTEST_GUILESS_MAIN(MessageFramingTest)
#include "tst_message_framing.moc"
