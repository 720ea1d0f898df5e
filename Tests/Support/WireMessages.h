// SPDX-License-Identifier: MIT
#ifndef WIREMESSAGES_H
#define WIREMESSAGES_H

#include <QByteArray>

/** A data message as the host frames it, written without the library's functions. */
inline QByteArray dataMessage(int port, const QByteArray &payload)
{
    return "FADA" + QByteArray::number(payload.size() + 4).rightJustified(5, '0') +
           QByteArray::number(port).rightJustified(4, '0') + payload;
}

/** Bytes of all values in a row that does not repeat soon, another one for each seed. */
inline QByteArray patternBytes(int size, int seed = 0)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 7 + i / 256 + seed * 31) % 256);
    return bytes;
}

#endif
