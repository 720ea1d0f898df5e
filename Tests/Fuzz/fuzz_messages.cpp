// SPDX-License-Identifier: MIT
//
// The framing and cutting of messages: each function against a second working-out, and cut messages
// framed again.

#include "FuzzTarget.h"

#include <UsbHal.h>
#include <UsbHalLog.h>

#include <charconv>
#include <string>

using namespace usb_messages;

namespace {

// -1 for anything but digits.
long expectedNumber(std::string_view field)
{
    if (field.find_first_not_of("0123456789") != std::string_view::npos)
        return -1;
    long value = 0;
    std::from_chars(field.data(), field.data() + field.size(), value);
    return value;
}

Fault expectedFault(std::string_view bytes)
{
    if (bytes.substr(0, 4) != "FADA")
        return Fault::NotValid;
    if (bytes.size() < 13)
        return Fault::WrongSize;
    const long length = expectedNumber(bytes.substr(4, 5));
    if (length < 4 || static_cast<std::size_t>(length) > bytes.size() - 9)
        return Fault::WrongSize;
    return expectedNumber(bytes.substr(9, 4)) < 0 ? Fault::InvalidId : Fault::None;
}

QByteArray view(std::string_view bytes)
{
    return QByteArray::fromRawData(bytes.data(), static_cast<int>(bytes.size()));
}

void checkWholeMessage(std::string_view bytes, const DataMessage &message)
{
    const auto size = static_cast<std::size_t>(message.size);
    require(message.size == expectedNumber(bytes.substr(4, 5)) + 9, "the size is as framed");
    require(message.port == expectedNumber(bytes.substr(9, 4)), "the port is as framed");
    require(message.payload == bytes.data() + 13, "the payload stands behind the header");
    require(message.payloadSize == message.size - 13, "the payload is what the header leaves");
    require(frameData(message.port, message.payload, message.payloadSize) ==
                view(bytes.substr(0, size)),
            "a message that was cut is framed to the same bytes");
}

// Cuts the bytes as the receive path does. Each step is bounded by the one before.
void checkCutting(std::string_view bytes)
{
    for (;;) {
        const DataMessage message = cutData(view(bytes));
        require(message.fault == expectedFault(bytes), "the fault is the one that the bytes have");
        require(message.size >= 0 && static_cast<std::size_t>(message.size) <= bytes.size(),
                "no message passes the end of its buffer");
        if (message.fault != Fault::None)
            return;
        require(message.size >= headerSize, "an accepted message takes bytes");
        checkWholeMessage(bytes, message);
        bytes.remove_prefix(static_cast<std::size_t>(message.size));
    }
}

void checkNumbers(std::string_view bytes)
{
    for (std::size_t width = 1; width <= std::min<std::size_t>(bytes.size(), 9); ++width) {
        const long expected = expectedNumber(bytes.substr(0, width));
        const auto number = parseDecimal(bytes.data(), static_cast<int>(width));
        require(number.value_or(-1) == expected, "a field is a number if it holds digits only");
    }
    const long expected =
        expectedNumber(bytes.substr(bytes.size() - std::min<std::size_t>(bytes.size(), 5)));
    const auto size = parseMaxReadSize(view(bytes));
    require(size.value_or(-1) == (expected > 0 ? expected : -1),
            "a max read size is the number above 0 at the end");
}

void checkFraming(UsbConnID port, std::string_view payload)
{
    const QByteArray framed = frameData(port, payload.data(), static_cast<int>(payload.size()));
    const DataMessage message = cutData(framed);
    const bool whole = message.fault == Fault::None && message.size == framed.size();
    require(whole == (port >= 0 && port <= 9999), "ports of 0 to 9999 alone can be framed");
    if (!whole)
        return;
    require(message.port == port, "a framed message is cut for its port");
    require(QByteArray(message.payload, message.payloadSize) == view(payload),
            "a framed message is cut to its payload");
}

void checkMaxReadSize(quint32 size)
{
    const QByteArray framed = frameMaxReadSize(size);
    require(framed.startsWith("DEVICE_NODATA"), "a max read size is a form of no data");
    require(framed.size() >= 18, "a max read size has at least five digits");
    require(framed.mid(13).toULongLong() == size, "the digits are the max read size");
    const bool fits = size > 0 && size <= 99999;
    if (fits)
        require(parseMaxReadSize(framed) == static_cast<int>(size), "the host gets the number");
}

void checkTexts(std::string_view bytes, int limit)
{
    const std::string_view shown = bytes.substr(0, static_cast<std::size_t>(limit));
    const std::string_view untilZero = shown.substr(0, shown.find('\0'));
    const QString text = LogPart(view(bytes), limit).toString();
    require(text == QString::fromUtf8(untilZero.data(), static_cast<int>(untilZero.size())),
            "a text ends at its limit and at a zero byte");
    const QString shortForm = excerpt(view(bytes));
    const bool expected = bytes.size() >= 6 && bytes.size() < 500;
    require(shortForm.isEmpty() != expected, "an excerpt is made of 6 to 499 bytes");
    require(shortForm.size() <= 90, "an excerpt is short");
    require(std::none_of(shortForm.begin(), shortForm.end(), [](QChar c) { return c.isSpace(); }),
            "an excerpt has no blank");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzInput input(data, size);
    const std::uint32_t number = input.number(4);
    const std::string_view bytes = input.rest();
    checkCutting(bytes);
    checkNumbers(bytes);
    checkFraming(static_cast<UsbConnID>(number), bytes);
    checkFraming(static_cast<UsbConnID>(number % 10000), bytes);
    checkMaxReadSize(number);
    checkMaxReadSize(number % 100000);
    checkTexts(bytes, static_cast<int>(number % 1000));
    return 0;
}
