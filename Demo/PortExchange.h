// SPDX-License-Identifier: MIT
#ifndef PORTEXCHANGE_H
#define PORTEXCHANGE_H

#include <QByteArray>
#include <QString>

/** The files of one port. */
struct PortFiles
{
    int port;
    QString toDevice; ///< sent by the host
    QString toHost;   ///< sent by the file service
    QString stored;   ///< where the file service stores what it receives
};

/** What one direction of one port carried. */
struct FlowResult
{
    qint64 bytes = 0;        ///< of the file, without the service's headers
    qint64 milliseconds = 0; ///< from the direction's first transfer in the round to the last byte
    bool sumsEqual = false;  ///< SHA-256 of the original and of what arrived
};

/** What one port carried in one round, in both directions. */
struct PortResult
{
    int port = 0;
    FlowResult toDevice;
    FlowResult toHost;
};

/**
 * One round of one port with the file service: asks for the service's file, sends it another at the
 * same time, and waits for its word that it was stored. Used by one thread at a time.
 */
class PortExchange
{
public:
    /** Touches no file; begin() does. */
    explicit PortExchange(const PortFiles &files);

    /** Number of the port. */
    int port() const { return _files.port; }

    /**
     * Removes what an earlier round stored and returns all bytes of this round for the device: the
     * request, the header and the file. Empty, with error() set, when a file cannot be read or
     * removed.
     */
    QByteArray begin();

    /** Takes bytes that the device sent; now is the time since the start of the round in ms. */
    void receive(const QByteArray &bytes, qint64 now);

    /** Notes that the device has taken this many more bytes. */
    void delivered(qint64 bytes, qint64 now);

    /** Bytes that the device has taken so far, the request and the header included. */
    qint64 bytesDelivered() const { return _delivered; }
    /** Bytes of the service's file that have arrived so far, without its header. */
    qint64 bytesReceived() const { return _content.size(); }

    /** Size in bytes of what begin() returned. */
    qint64 bytesToDeliver() const { return _outgoingSize; }
    /** Size in bytes of the file that is expected from the service. */
    qint64 bytesToReceive() const { return _expectedSize; }

    /** Whether both files have arrived, or an error ended the round. */
    bool isDone() const;

    /** What went wrong; empty while nothing has. */
    QString error() const { return _error; }

    /** Compares the sums; to be called once the round is done. */
    PortResult result() const;

private:
    void _obey(const QByteArray &line);
    void _noteArrival(qint64 now);
    void _fail(const QString &reason);

    PortFiles _files;
    QString _error;
    qint64 _outgoingSize = 0;
    qint64 _sentFileSize = 0;
    qint64 _delivered = 0;
    qint64 _deliveredAt = 0;

    QByteArray _line;
    QByteArray _content;
    qint64 _expectedSize = 0;
    qint64 _announcedSize = -1;
    qint64 _receivedAt = 0;
    bool _stored = false;
};

#endif
