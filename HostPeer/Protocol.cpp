// SPDX-License-Identifier: MIT
#include "Protocol.h"

#include <algorithm>
#include <charconv>

namespace hostpeer {

namespace {

struct Parsed
{
    Message message;
    std::size_t consumed;
};

using Outcome = std::variant<Parsed, std::string>;

bool startsWith(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isAllDigits(std::string_view field)
{
    return std::all_of(field.begin(), field.end(), isDigit);
}

// std::from_chars alone would accept a minus sign and digits followed by anything.
std::optional<std::size_t> parseDecimal(std::string_view field)
{
    if (field.empty() || !isAllDigits(field))
        return std::nullopt;
    std::size_t value = 0;
    const auto result = std::from_chars(field.data(), field.data() + field.size(), value);
    if (result.ec != std::errc())
        return std::nullopt;
    return value;
}

std::string padded(std::size_t value, std::size_t width)
{
    const std::string digits = std::to_string(value);
    return std::string(width - std::min(width, digits.size()), '0') + digits;
}

// The device does not cut a size that needs more digits than the field has.
Outcome parseNoData(std::string_view rest)
{
    const std::string_view behind = rest.substr(noDataTag.size());
    const auto end = std::find_if_not(behind.begin(), behind.end(), isDigit);
    const std::string_view digits =
        behind.substr(0, static_cast<std::size_t>(end - behind.begin()));
    const std::size_t consumed = noDataTag.size() + digits.size();
    if (digits.empty())
        return Parsed{NoData{}, consumed};
    const std::size_t bytes = parseDecimal(digits).value_or(0);
    if (digits.size() < readSizeWidth || bytes == 0)
        return Parsed{UnusableReadSize{digits}, consumed};
    return Parsed{MaxReadSize{bytes}, consumed};
}

Outcome parseDelayRequest(std::string_view rest)
{
    if (rest.size() != delayTag.size())
        return std::string("bytes follow a request to delay writes");
    return Parsed{DelayRequest{}, delayTag.size()};
}

Outcome parseData(std::string_view rest)
{
    if (rest.size() < headerSize)
        return std::string("the transfer ends within a message header");
    const auto length = parseDecimal(rest.substr(lengthOffset, lengthWidth));
    if (!length)
        return std::string("the length is not a decimal number");
    if (*length < portWidth)
        return "the length " + std::to_string(*length) + " leaves no room for the port";
    const std::size_t size = portOffset + *length;
    if (size > rest.size())
        return "the message has " + std::to_string(size) + " bytes, the transfer only " +
               std::to_string(rest.size()) + " more";
    const auto port = parseDecimal(rest.substr(portOffset, portWidth));
    if (!port)
        return std::string("the port is not a decimal number");
    const std::string_view payload = rest.substr(headerSize, size - headerSize);
    return Parsed{DataMessage{static_cast<int>(*port), payload}, size};
}

Outcome parseMessage(std::string_view rest)
{
    if (startsWith(rest, noDataTag))
        return parseNoData(rest);
    if (startsWith(rest, delayTag))
        return parseDelayRequest(rest);
    if (startsWith(rest, dataTag))
        return parseData(rest);
    return std::string("no message begins here");
}

} // namespace

ParsedTransfer parseTransfer(std::string_view transfer)
{
    ParsedTransfer result;
    std::size_t offset = 0;
    while (offset < transfer.size()) {
        const Outcome outcome = parseMessage(transfer.substr(offset));
        if (const auto *reason = std::get_if<std::string>(&outcome)) {
            result.fault = ParseFault{offset, *reason};
            break;
        }
        const auto &parsed = std::get<Parsed>(outcome);
        result.messages.push_back(parsed.message);
        offset += parsed.consumed;
    }
    return result;
}

bool appendDataMessage(std::string &transfer, int port, std::string_view payload)
{
    if (port < 0 || port > maxPort || payload.size() > maxPayload)
        return false;
    transfer.append(dataTag);
    transfer.append(padded(portWidth + payload.size(), lengthWidth));
    transfer.append(padded(static_cast<std::size_t>(port), portWidth));
    transfer.append(payload);
    return true;
}

} // namespace hostpeer
