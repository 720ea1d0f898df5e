// SPDX-License-Identifier: MIT
#include "UsbHal.h"

#include "UsbHalLog.h"

#include <QRegExp>
#include <QVarLengthArray>

#include <algorithm>

namespace {

constexpr int excerptBelow = 500;  // bytes; longer messages are not shown
constexpr int excerptFrom = 6;     // bytes; shorter ones are not worth it
constexpr int excerptPart = 40;    // bytes of each end
constexpr int excerptWholeTo = 80; // bytes; up to here the whole message is shown

// What goes before a payload. On the stack: the message then takes memory once, and as much as it
// needs.
using Header = QVarLengthArray<char, 32>;

void append(Header &header, const QByteArray &bytes)
{
    header.append(bytes.constData(), bytes.size());
}

// A value that the field cannot hold makes it wider.
void appendDecimalField(Header &header, qint64 value, int width)
{
    const int begin = header.size();
    header.resize(begin + width);
    char *const field = header.data() + begin;
    qint64 rest = value;
    for (int i = width - 1; i >= 0; --i, rest /= 10)
        field[i] = static_cast<char>('0' + rest % 10);
    if (value >= 0 && rest == 0)
        return;
    header.resize(begin);
    append(header, QByteArray::number(value).rightJustified(width, '0'));
}

QString toText(const QByteArray &bytes)
{
    return LogPart(bytes).toString();
}

} // namespace

namespace usb_messages {

const QByteArray magicNumber = QByteArray::fromRawData(magic, magicSize);
const QByteArray devNoData = QByteArrayLiteral("DEVICE_NODATA");
const QByteArray waitSend = QByteArrayLiteral("DEVICE_WTSEND");
const QByteArray deviceConn = QByteArrayLiteral("DEVICE_CONN");
const QByteArray deviceDisc = QByteArrayLiteral("DEVICE_DISC");

std::optional<int> parseDecimal(const char *field, int width)
{
    int value = 0;
    for (int i = 0; i < width; ++i) {
        if (field[i] < '0' || field[i] > '9')
            return std::nullopt;
        value = 10 * value + (field[i] - '0');
    }
    return value;
}

QByteArray frameData(UsbConnID port, const char *payload, int size)
{
    Header header;
    append(header, magicNumber);
    appendDecimalField(header, idWidth + size, lengthWidth);
    appendDecimalField(header, port, idWidth);
    QByteArray message(header.size() + size, Qt::Uninitialized);
    std::copy(header.cbegin(), header.cend(), message.begin());
    std::copy_n(payload, size, message.begin() + header.size());
    return message;
}

DataMessage cutData(const QByteArray &bytes)
{
    DataMessage message;
    if (!hasMagicNumber(bytes)) {
        message.fault = Fault::NotValid;
        return message;
    }
    const auto length = bytes.size() < prefixSize
                            ? std::nullopt
                            : parseDecimal(bytes.constData() + magicSize, lengthWidth);
    if (!length || *length < idWidth || *length + prefixSize > bytes.size()) {
        message.fault = Fault::WrongSize;
        return message;
    }
    message.size = *length + prefixSize;
    const auto port = parseDecimal(bytes.constData() + prefixSize, idWidth);
    if (!port) {
        message.fault = Fault::InvalidId;
        return message;
    }
    message.port = *port;
    message.payload = bytes.constData() + headerSize;
    message.payloadSize = *length - idWidth;
    return message;
}

QByteArray frameMaxReadSize(quint32 size)
{
    Header header;
    append(header, devNoData);
    appendDecimalField(header, size, maxReadSizeWidth);
    return QByteArray(header.constData(), header.size());
}

std::optional<int> parseMaxReadSize(const QByteArray &bytes)
{
    const int width = qMin(maxReadSizeWidth, bytes.size());
    const auto size = parseDecimal(bytes.constData() + bytes.size() - width, width);
    return size && *size > 0 ? size : std::nullopt;
}

QString excerpt(const QByteArray &bytes)
{
    if (bytes.size() < excerptFrom || bytes.size() >= excerptBelow)
        return QString();
    const QString text =
        bytes.size() <= excerptWholeTo
            ? toText(bytes)
            : toText(bytes.left(excerptPart)) + " ... " + toText(bytes.right(excerptPart));
    return QString("   [" + text + ']').remove(QRegExp("\\s+"));
}

} // namespace usb_messages
