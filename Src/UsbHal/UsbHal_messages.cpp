// SPDX-License-Identifier: MIT
#include "UsbHal.h"

#include <QRegExp>

namespace {

constexpr int widestField = qMax(usb_messages::lengthWidth, usb_messages::maxReadSizeWidth);
constexpr int excerptBelow = 500;  // bytes; longer messages are not shown
constexpr int excerptFrom = 6;     // bytes; shorter ones are not worth it
constexpr int excerptPart = 40;    // bytes of each end
constexpr int excerptWholeTo = 80; // bytes; up to here the whole message is shown

// A value that the field cannot hold makes it wider.
void appendDecimalField(QByteArray &message, qint64 value, int width)
{
    char field[widestField];
    qint64 rest = value;
    for (int i = width - 1; i >= 0; --i, rest /= 10)
        field[i] = static_cast<char>('0' + rest % 10);
    if (value >= 0 && rest == 0)
        message.append(field, width);
    else
        message += QByteArray::number(value).rightJustified(width, '0');
}

} // namespace

namespace usb_messages {

const QByteArray magicNumber = QByteArrayLiteral("FADA");
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
    QByteArray message;
    message.reserve(headerSize + size);
    message += magicNumber;
    appendDecimalField(message, idWidth + size, lengthWidth);
    appendDecimalField(message, port, idWidth);
    message.append(payload, size);
    return message;
}

DataMessage cutData(const QByteArray &bytes)
{
    DataMessage message;
    if (!bytes.startsWith(magicNumber)) {
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
    QByteArray message = devNoData;
    appendDecimalField(message, size, maxReadSizeWidth);
    return message;
}

std::optional<int> parseMaxReadSize(const QByteArray &bytes)
{
    const int width = qMin(maxReadSizeWidth, bytes.size());
    const auto size = parseDecimal(bytes.constData() + bytes.size() - width, width);
    return size && *size > 0 ? size : std::nullopt;
}

QString toText(const QByteArray &bytes, int limit)
{
    const uint length = qstrnlen(bytes.constData(), static_cast<uint>(qMin(bytes.size(), limit)));
    return QString::fromUtf8(bytes.constData(), static_cast<int>(length));
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
