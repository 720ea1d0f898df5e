// SPDX-License-Identifier: MIT
#include "LogTally.h"

#include "FuzzTarget.h"

#include <UsbHalLog.h>

#include <QLatin1String>

namespace {

constexpr int smallestMessage = 13;
constexpr int linesPerMessage = 4;
constexpr int linesPerLoss = 100; // and per return of the link, with all ports
constexpr int lineLength = 300;   // without the rest of the buffer in it
constexpr int textsPerBuffer = 1; // that hold all the rest of the buffer

const QLatin1String remainingText("Remaining frame size : ");

} // namespace

extern "C" void __wrap__Z7logLinePKcSt16initializer_listI7LogPartEj(const char *function,
                                                                    LogPart::List text,
                                                                    unsigned int line);

void __wrap__Z7logLinePKcSt16initializer_listI7LogPartEj(const char * /*function*/,
                                                         LogPart::List text, unsigned int /*line*/)
{
    LogTally::instance().add(toString(text));
}

LogTally &LogTally::instance()
{
    static LogTally tally;
    return tally;
}

void LogTally::beginBuffer(int size, bool isHost)
{
    const std::lock_guard<std::mutex> lock(_mutex);
    _bufferSize = size;
    _isHost = isHost;
    _lines = 0;
    _characters = 0;
    _remaining = size;
    _stuck = false;
}

void LogTally::checkBuffer() const
{
    const std::lock_guard<std::mutex> lock(_mutex);
    const qint64 messages = _bufferSize / smallestMessage + 1;
    require(_lines <= linesPerMessage * messages + linesPerLoss,
            "a buffer logs a bounded number of lines for each of its messages");
    const qint64 texts = _isHost ? messages + textsPerBuffer : textsPerBuffer;
    require(_characters <= texts * _bufferSize + lineLength * _lines,
            "a buffer logs a bounded amount of text");
}

void LogTally::add(const QString &message)
{
    if (_pauses > 0)
        return;
    const std::lock_guard<std::mutex> lock(_mutex);
    ++_lines;
    _characters += message.size();
    if (message.startsWith(remainingText))
        _addRemaining(message);
}

void LogTally::_addRemaining(const QString &message)
{
    const qint64 remaining = message.midRef(remainingText.size()).toLongLong();
    require(!_stuck, "a message that takes nothing ends its buffer");
    require(remaining > 0 && remaining <= _remaining, "the rest of a buffer only shrinks");
    _stuck = remaining == _remaining;
    _remaining = remaining;
}
