// SPDX-License-Identifier: MIT
// With words of 32 bits the C library's time ends in 2038, unless it is asked for the longer one.
#define _FILE_OFFSET_BITS 64
#define _TIME_BITS 64

#include "LogLine.h"

#include <QThread>

#include <algorithm>
#include <ctime>
#include <iterator>
#include <limits>

namespace {

void append(LogPart::Line &line, QLatin1String text)
{
    line.append(text.data(), text.size());
}

void append(LogPart::Line &line, const QString &text)
{
    const QByteArray utf8 = text.toUtf8();
    line.append(utf8.constData(), utf8.size());
}

bool isAscii(char c)
{
    return static_cast<unsigned char>(c) < 0x80;
}

void appendNumber(LogPart::Line &line, qint64 number)
{
    char digits[std::numeric_limits<qint64>::digits10 + 1];
    char *first = std::end(digits);
    qint64 rest = qAbs(number);
    do {
        *--first = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    if (number < 0)
        line.append('-');
    line.append(first, static_cast<int>(std::end(digits) - first));
}

// "dd-MM-yyyy hh:mm:ss:". Each thread makes it once a second: it takes longer than all the rest of
// a line, and asks for the file of the time zone. Without Qt, whose calendar is gone before the
// last line of a process.
QLatin1String dateOf(time_t second)
{
    struct Date
    {
        time_t second = -1;
        size_t size = 0;
        char text[32] = {};
    };
    static thread_local Date date;
    if (date.second != second) {
        tm local = {};
        tzset(); // localtime_r need not notice that the time zone has changed
        localtime_r(&second, &local);
        date.size = std::strftime(date.text, sizeof date.text, "%d-%m-%Y %H:%M:%S:", &local);
        date.second = second;
    }
    return QLatin1String(date.text, static_cast<int>(date.size));
}

qint32 currentThreadId()
{
    return static_cast<qint32>(reinterpret_cast<quintptr>(QThread::currentThreadId()));
}

} // namespace

void appendTimestamp(LogPart::Line &line)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    append(line, dateOf(now.tv_sec));
    for (long unit = 100000000; unit >= 1000000; unit /= 10) // the digits of the milliseconds
        line.append(static_cast<char>('0' + now.tv_nsec / unit % 10));
}

void compose(LogPart::Line &line, const LogPart &function, unsigned int number, LogPart::List text)
{
    appendTimestamp(line);
    append(line, QLatin1String(" [THREAD "));
    appendNumber(line, currentThreadId());
    append(line, QLatin1String("] ["));
    function.appendTo(line);
    line.append(':');
    appendNumber(line, number);
    append(line, QLatin1String("] "));
    for (const LogPart &part : text)
        part.appendTo(line);
    line.append('\n');
}

void LogPart::appendTo(LogPart::Line &line) const
{
    if (_kind == Kind::Number)
        appendNumber(line, _number);
    else if (_kind == Kind::Ascii ||
             (_kind == Kind::Received && std::all_of(_bytes, _bytes + _size, isAscii)))
        line.append(_bytes, _size);
    else
        append(line, toString());
}

QString LogPart::toString() const
{
    switch (_kind) {
    case Kind::Ascii:
    case Kind::Received:
        return QString::fromUtf8(_bytes, _size);
    case Kind::Text:
        return *_text;
    case Kind::Number:
        break;
    }
    LogPart::Line digits;
    appendNumber(digits, _number);
    return QString::fromLatin1(digits.constData(), digits.size());
}

QString toString(LogPart::List text)
{
    QString joined;
    for (const LogPart &part : text)
        joined += part.toString();
    return joined;
}
