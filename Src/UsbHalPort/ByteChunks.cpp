// SPDX-License-Identifier: MIT
#include "ByteChunks.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int smallSize = 512;   // bytes; an array below it costs more than its bytes
constexpr int joinedSize = 4096; // bytes

} // namespace

void ByteChunks::clear()
{
    _chunks.clear();
    _start = 0;
    _size = 0;
}

void ByteChunks::append(const QByteArray &bytes)
{
    if (bytes.isEmpty())
        return;
    _size += bytes.size();
    if (bytes.size() >= smallSize) {
        _chunks.append(bytes);
        return;
    }
    if (_chunks.isEmpty() || _chunks.last().capacity() - _chunks.last().size() < bytes.size()) {
        _chunks.append(QByteArray());
        _chunks.last().reserve(joinedSize);
    }
    _chunks.last().append(bytes);
}

void ByteChunks::append(const char *bytes, qint64 size, int chunkSize)
{
    _size += size;
    while (size > 0) {
        if (_chunks.isEmpty() || _chunks.constLast().size() >= chunkSize) {
            _chunks.append(QByteArray());
            _chunks.last().reserve(chunkSize); // else it would take half as much again
        }
        QByteArray &last = _chunks.last();
        const int part = static_cast<int>(qMin<qint64>(size, chunkSize - last.size()));
        last.append(bytes, part);
        bytes += part;
        size -= part;
    }
}

QByteArray ByteChunks::front(int maxSize) const
{
    if (_chunks.isEmpty())
        return QByteArray();
    const QByteArray &first = _chunks.constFirst();
    return QByteArray::fromRawData(first.constData() + _start,
                                   qMin(maxSize, first.size() - _start));
}

void ByteChunks::removeFront(int size)
{
    _size -= size;
    _start += size;
    if (_start < _chunks.constFirst().size())
        return;
    _chunks.removeFirst();
    _start = 0;
}

qint64 ByteChunks::read(char *to, qint64 maxSize)
{
    qint64 total = 0;
    while (total < maxSize && !_chunks.isEmpty()) {
        const QByteArray &first = _chunks.constFirst();
        const int size = static_cast<int>(qMin<qint64>(maxSize - total, first.size() - _start));
        std::memcpy(to + total, first.constData() + _start, static_cast<std::size_t>(size));
        removeFront(size);
        total += size;
    }
    return total;
}

qint64 ByteChunks::lineSize(qint64 maxSize) const
{
    qint64 before = 0;
    int start = _start;
    for (const QByteArray &chunk : qAsConst(_chunks)) {
        if (before >= maxSize)
            break;
        const int found = chunk.indexOf('\n', start);
        if (found >= 0) {
            const qint64 size = before + found - start + 1;
            return size <= maxSize ? size : 0;
        }
        before += chunk.size() - start;
        start = 0;
    }
    return 0;
}
