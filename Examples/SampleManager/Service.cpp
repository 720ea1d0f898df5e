// SPDX-License-Identifier: MIT
#include "Service.h"

#include <algorithm>

namespace {

// Beyond this the bytes are left with the library, whose flow control then slows the host down.
constexpr int outgoingLimit = 256 * 1024;

constexpr int longestLine = 80;
constexpr qint64 largestGift = qint64(1) << 40;

} // namespace

void Service::restart()
{
    outgoing.clear();
}

bool Service::takesBytes() const
{
    return outgoing.size() < outgoingLimit;
}

QByteArray Service::nextBytes(int limit)
{
    if (outgoing.size() < limit)
        refill(limit);
    return outgoing.left(limit);
}

void Service::bytesSent(int count)
{
    outgoing.remove(0, count);
}

void Service::refill(int) {}

void EchoService::receive(const QByteArray &bytes)
{
    outgoing += bytes;
}

void SinkService::receive(const QByteArray &) {}

void SourceService::restart()
{
    Service::restart();
    _line.clear();
    _owed = 0;
    _next = 0;
}

void SourceService::receive(const QByteArray &bytes)
{
    for (const char c : bytes) {
        if (c == '\n') {
            _obey(_line);
            _line.clear();
        } else if (_line.size() < longestLine) {
            _line += c;
        }
    }
}

void SourceService::_obey(const QByteArray &line)
{
    if (!line.startsWith("GIVE "))
        return;
    const qint64 count = parseCount(line.mid(5), largestGift);
    if (count > 0)
        _owed = std::min(_owed + count, largestGift);
}

void SourceService::refill(int limit)
{
    while (_owed > 0 && outgoing.size() < limit) {
        outgoing += _next++;
        --_owed;
    }
}

qint64 parseCount(const QByteArray &digits, qint64 maximum)
{
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (!std::all_of(digits.begin(), digits.end(), isDigit))
        return -1;
    bool ok = false;
    const qint64 count = digits.toLongLong(&ok);
    return ok && count <= maximum ? count : -1;
}
