// SPDX-License-Identifier: MIT
#ifndef BYTECHUNKS_H
#define BYTECHUNKS_H

#include <QByteArray>
#include <QList>

/** A queue of bytes, held as the arrays that they came in, so that arrays pass through uncopied. */
class ByteChunks
{
public:
    qint64 size() const { return _size; }
    bool isEmpty() const { return _size == 0; }
    void clear();

    /** Takes an array as it is, or, when it is small, a copy of its bytes. */
    void append(const QByteArray &bytes);

    /** Copies bytes, filling up arrays of a given size. */
    void append(const char *bytes, qint64 size, int chunkSize);

    /** The first bytes that lie in one array, at most maxSize; shares them, valid until a change.
     */
    QByteArray front(int maxSize) const;
    void removeFront(int size);

    /** Copies up to maxSize bytes out and removes them. Returns how many. */
    qint64 read(char *to, qint64 maxSize);

    /** Bytes up to and with the first line feed; 0 when there is none in the first maxSize bytes.
     */
    qint64 lineSize(qint64 maxSize) const;

private:
    QList<QByteArray> _chunks;
    int _start = 0; // of what is left of the first array
    qint64 _size = 0;
};

#endif
