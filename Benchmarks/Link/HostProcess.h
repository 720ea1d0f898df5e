// SPDX-License-Identifier: MIT
#ifndef HOSTPROCESS_H
#define HOSTPROCESS_H

#include <QtGlobal>

#include <string>
#include <sys/types.h>

/** ns of the system's monotonic clock, which all processes share. */
qint64 now();

/** Size of a write that carries the time at which it was made; see stampOf(). */
constexpr int stampSize = 20;

/** The byte that a port's payloads consist of. */
constexpr char fillOf(int port)
{
    return static_cast<char>('0' + port);
}

/**
 * A USB host at the simulated node, in a process of its own, so that its work is not taken for the
 * device's. It exchanges transfers all the time and notes when each answer came.
 */
class HostProcess
{
public:
    /** One answer of the device, and the payload bytes that had passed by then. */
    struct Exchange
    {
        qint64 time;
        qint64 bytesToDevice;
        qint64 bytesToHost;
    };

    static constexpr int ports = 5; // 1 to 5

    /** Forks: to be made before any thread is started. */
    explicit HostProcess(const std::string &nodeFolder);
    /** Ends the process. */
    ~HostProcess();
    Q_DISABLE_COPY(HostProcess)

    /** Whether every port has more bytes for the device than fit into a transfer. Not so at first.
     */
    void setFeeding(bool feeding);
    /** Whether port 1 of the device sends stamps instead of its payload. Not so at first. */
    void setStamping(bool stamping);

    /** Exchanges so far. */
    quint32 exchanges() const;
    /** One of the last 65536 exchanges. */
    Exchange exchange(quint32 index) const;

    /** Bytes that still wait for the device. */
    qint64 pending() const;

    /** Stamps that arrived so far, and the sum of the ns that they took. */
    quint32 stamps() const;
    qint64 stampDelays() const;

    /** Whether any byte came that was not its port's. */
    bool sawWrongBytes() const;

private:
    struct Record;
    class Host;

    Record *_record;
    pid_t _pid;
};

#endif
