// SPDX-License-Identifier: MIT
#ifndef SERVICE_H
#define SERVICE_H

#include <QByteArray>
#include <QString>

/**
 * What the manager does with the byte stream of one port. A service knows nothing of ports,
 * messages and links; it is used by one thread.
 */
class Service
{
public:
    virtual ~Service() = default;

    /** Begins anew, as at the start: the link was lost and all bytes under way with it. */
    virtual void restart();

    /** Whether receive() may be called; false while too much waits to be sent. */
    virtual bool takesBytes() const;

    /** Takes the next bytes that the host sent. */
    virtual void receive(const QByteArray &bytes) = 0;

    /** The next bytes for the host, at most limit of them; they stay until bytesSent(). */
    QByteArray nextBytes(int limit);

    /** Removes bytes that are on their way to the host. */
    void bytesSent(int count);

protected:
    /** Appends to the outgoing bytes until there are at least limit of them, as far as possible. */
    virtual void refill(int limit);

    QByteArray outgoing;
};

/** Sends back what it receives. */
class EchoService : public Service
{
public:
    void receive(const QByteArray &bytes) override;
};

/** Discards what it receives. */
class SinkService : public Service
{
public:
    void receive(const QByteArray &bytes) override;
};

/**
 * Sends as many bytes as the host asks for: each line "GIVE <count>\n" adds count bytes of the
 * endless sequence 0, 1, ... 255, 0, ... Other lines are ignored.
 */
class SourceService : public Service
{
public:
    void restart() override;
    void receive(const QByteArray &bytes) override;

protected:
    void refill(int limit) override;

private:
    void _obey(const QByteArray &line);

    QByteArray _line;
    qint64 _owed = 0;
    char _next = 0;
};

/** A decimal number without sign and blanks, from 0 to maximum; -1 for anything else. */
qint64 parseCount(const QByteArray &digits, qint64 maximum);

#endif
