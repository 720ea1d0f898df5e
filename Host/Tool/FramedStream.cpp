// SPDX-License-Identifier: MIT
#include "FramedStream.h"

#include <charconv>

namespace {

constexpr std::size_t numberOffset = 2; // behind the letter and a blank

std::string frame(char kind, std::size_t number)
{
    return std::string(1, kind) + ' ' + std::to_string(number) + '\n';
}

} // namespace

void FramedStream::put(const std::string &bytes)
{
    SocketStream::put(frame('D', bytes.size()) + bytes);
}

void FramedStream::noteDelivered(std::size_t bytes)
{
    SocketStream::put(frame('A', bytes));
}

bool FrameCutter::takeLine(std::string &line)
{
    const std::size_t end = _bytes.find('\n');
    if (end == std::string::npos)
        return false;
    line = _bytes.substr(0, end);
    _bytes.erase(0, end + 1);
    return true;
}

bool FrameCutter::takeFrame(const Handlers &handlers)
{
    const std::size_t end = _bytes.find('\n');
    if (end == std::string::npos || end < numberOffset)
        return false;
    std::size_t number = 0;
    std::from_chars(&_bytes[numberOffset], &_bytes[end], number);
    const std::size_t size = _bytes.front() == 'D' ? number : 0;
    if (_bytes.size() - end - 1 < size)
        return false;
    const std::string payload = _bytes.substr(end + 1, size);
    const bool isAnswer = _bytes.front() == 'A';
    _bytes.erase(0, end + 1 + size);
    if (isAnswer)
        handlers.delivered(number);
    else
        handlers.received(payload);
    return true;
}
