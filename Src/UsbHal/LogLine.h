// SPDX-License-Identifier: MIT
#ifndef LOGLINE_H
#define LOGLINE_H

#include <QByteArray>
#include <QString>
#include <QVarLengthArray>

#include <cstring>
#include <initializer_list>
#include <limits>
#include <type_traits>

/**
 * A part of a line's text. It only refers to what it was made from, which has to outlive it: so a
 * line is put together once, where it is written.
 */
class LogPart
{
public:
    /** A line of a log file, in UTF-8. All but the longest are put together on the stack. */
    using Line = QVarLengthArray<char, 512>;
    /** The parts of a line's text, in their order. */
    using List = std::initializer_list<LogPart>;

    /** A text of ours, in ASCII, that ends with a zero byte. */
    LogPart(const char *text)
        : _kind(Kind::Ascii), _size(static_cast<int>(std::strlen(text))), _bytes(text)
    {
    }
    LogPart(const QString &text) : _kind(Kind::Text), _text(&text) {}
    /** Received bytes: up to the first zero byte, at most limit bytes. */
    LogPart(const QByteArray &bytes, int limit = std::numeric_limits<int>::max())
        : _kind(Kind::Received),
          _size(static_cast<int>(
              strnlen(bytes.constData(), static_cast<size_t>(qMin(bytes.size(), limit))))),
          _bytes(bytes.constData())
    {
    }
    /** A number, shown in decimal. */
    template <typename Integer, typename = std::enable_if_t<std::is_integral_v<Integer>>>
    LogPart(Integer number) : _kind(Kind::Number), _number(number)
    {
    }
    LogPart(bool value) : LogPart(value ? "true" : "false") {}

    void appendTo(Line &line) const;
    QString toString() const;

private:
    enum class Kind { Ascii, Received, Text, Number };

    Kind _kind;
    int _size = 0; // of the bytes
    union {
        const char *_bytes;
        const QString *_text;
        qint64 _number;
    };
};

QString toString(LogPart::List text);

/** Appends the local date and time, to the millisecond. Any thread may call it. */
void appendTimestamp(LogPart::Line &line);

/** Puts a whole line of a log file together: when, which thread, where, what. */
void compose(LogPart::Line &line, const LogPart &function, unsigned int number, LogPart::List text);

#endif
