// SPDX-License-Identifier: MIT
#include "usb_messages.h"

#include <QRegExp>

#include <algorithm>

namespace {

constexpr int excerptBelow = 500;  // bytes; longer messages are not shown
constexpr int excerptFrom = 6;     // bytes; shorter ones are not worth it
constexpr int excerptPart = 40;    // bytes of each end
constexpr int excerptWholeTo = 80; // bytes; up to here the whole message is shown

constexpr qint64 powerOfTen(int exponent)
{
    return exponent == 0 ? 1 : 10 * powerOfTen(exponent - 1);
}

// A value that the field cannot hold makes it wider.
int fieldSize(qint64 value, int width)
{
    if (value >= 0 && value < powerOfTen(width))
        return width;
    return qMax(width, QByteArray::number(value).size());
}

// Returns the end of the field.
char *putField(char *field, qint64 value, int size)
{
    if (value < 0) {
        const QByteArray digits = QByteArray::number(value).rightJustified(size, '0');
        return std::copy(digits.cbegin(), digits.cend(), field);
    }
    auto rest = static_cast<quint32>(value);
    for (int i = size - 1; i >= 0; --i, rest /= 10)
        field[i] = static_cast<char>('0' + rest % 10);
    return field + size;
}

// Up to the first zero byte.
QString toText(const QByteArray &bytes)
{
    const uint size = qstrnlen(bytes.constData(), static_cast<uint>(bytes.size()));
    return QString::fromUtf8(bytes.constData(), static_cast<int>(size));
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

// The message takes memory once, and as much as it needs.
QByteArray frameData(UsbConnID port, const char *payload, int size)
{
    const qint64 length = qint64(idWidth) + size;
    const int lengthSize = fieldSize(length, lengthWidth);
    const int portSize = fieldSize(port, idWidth);
    QByteArray message(magicSize + lengthSize + portSize + size, Qt::Uninitialized);
    char *end = std::copy_n(magicNumber.constData(), magicSize, message.data());
    end = putField(end, length, lengthSize);
    end = putField(end, port, portSize);
    std::copy_n(payload, size, end);
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
    return devNoData + QByteArray::number(size).rightJustified(maxReadSizeWidth, '0');
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
