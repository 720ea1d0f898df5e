// SPDX-License-Identifier: MIT
#ifndef TRAFFIC_H
#define TRAFFIC_H

#include <QByteArray>
#include <QHash>
#include <QRandomGenerator>
#include <QSet>

#include <stdexcept>

/** Something that the library must not do; the text is for the user. */
struct SoakFailure : std::runtime_error
{
    explicit SoakFailure(const QString &text) : std::runtime_error(text.toStdString()) {}
};

/**
 * The bytes that went one way since the link was last set in order, port by port. Every byte tells
 * its port by its last three bits, so that none can go astray unseen; none is zero, since a zero
 * byte that is discarded unread leaves a delay on.
 */
class Traffic
{
public:
    explicit Traffic(const QString &way) : _way(way) {}

    /** Fresh bytes for a port. */
    static QByteArray makeBytes(int port, int size, QRandomGenerator &random);

    void noteSent(int port, const QByteArray &bytes) { _ports[port].sent += bytes; }
    void noteReceived(int port, const QByteArray &bytes);
    const QByteArray &received(int port) { return _ports[port].received; }
    qint64 receivedBytes() const;
    void clear();
    /** The port's streams are broken: what it received and will receive is judged no more. */
    void forget(int port) { _forgotten.insert(port); }

    bool isComplete(int port) const;
    bool isComplete() const;

    /** Throws SoakFailure unless the port received the beginning of what was sent to it. */
    void expectPrefix(int port) const;
    /** Throws SoakFailure unless the port received all that was sent to it. */
    void expectComplete(int port) const;

private:
    struct Streams
    {
        QByteArray sent;
        QByteArray received;
    };

    [[noreturn]] void fail(int port, const QString &text) const;

    QString _way;
    QHash<int, Streams> _ports;
    QSet<int> _forgotten;
};

#endif
