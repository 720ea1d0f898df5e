// SPDX-License-Identifier: MIT
#ifndef FAKENODE_H
#define FAKENODE_H

#include <QByteArray>
#include <QList>
#include <QStringList>

/**
 * Answers this program's system calls on "/dev/..." from a script and records them. The program is
 * linked with --wrap for each of these calls (see CMakeLists.txt), so that only its own objects
 * meet it. One thread at a time.
 */
class FakeNode
{
public:
    static constexpr int firstDescriptor = 1001;

    struct Call
    {
        QByteArray name;
        int descriptor = 0;
        unsigned long argument = 0; // open: flags; read and write: size; ioctl: request
        unsigned long value = 0;    // ioctl: argument
        QByteArray bytes;           // open: path; write: data
        void *buffer = nullptr;     // read
    };

    struct Answer
    {
        long result = 0;
        int error = 0;
        QByteArray data = {};    // read: stored into the buffer
        unsigned long pause = 0; // ms before the answer
    };

    static FakeNode &instance();

    /** Forgets the script and the record. */
    void reset();

    static Answer data(const QByteArray &bytes, unsigned long pause = 0);
    static Answer failure(int error) { return {-1, error}; }

    // Taken in their order; an open without an answer succeeds, a read finds nothing, a write takes
    // all, ioctl and close return 0.
    QList<Answer> opens;
    QList<Answer> reads;
    QList<Answer> writes;
    QList<Answer> ioctls;
    QList<Answer> closes;
    /** Answers the reads beyond the list. */
    Answer otherReads;

    QList<Call> calls() const { return _calls; }
    /** The calls of one kind. */
    QList<Call> calls(const QByteArray &name) const;
    /** "open PATH", "ioctl FD REQUEST VALUE", "read FD SIZE", "write FD SIZE", "close FD". */
    QStringList record() const;
    QStringList record(const QByteArray &name) const;
    void clearRecord() { _calls.clear(); }

    /** Whether a call on the descriptor is the node's: its own ones and, in scripts, input 0. */
    bool owns(int descriptor) const { return descriptor >= firstDescriptor || descriptor == 0; }

    long open(const char *path, int flags);
    long read(int descriptor, void *buffer, size_t size);
    long write(int descriptor, const void *bytes, size_t size);
    long ioctl(int descriptor, unsigned long request, unsigned long value);
    long close(int descriptor);

private:
    QList<Call> _calls;
    int _nextDescriptor = firstDescriptor;
};

#endif
