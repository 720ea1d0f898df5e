// SPDX-License-Identifier: MIT
#ifndef HOSTILETRAFFIC_H
#define HOSTILETRAFFIC_H

#include <QByteArray>
#include <QList>

#include <random>

/** Random numbers that are the same on every machine for the same seed. */
class Random
{
public:
    explicit Random(quint64 seed) : _engine(seed) {}

    /** From 0 to bound - 1. */
    int below(int bound) { return static_cast<int>(_engine() % static_cast<quint64>(bound)); }
    bool oneIn(int chances) { return below(chances) == 0; }
    char byte() { return static_cast<char>(below(256)); }

    template <typename Type>
    const Type &pick(const QList<Type> &choices)
    {
        return choices[below(choices.size())];
    }

private:
    std::mt19937_64 _engine;
};

/** What a host may send, from well-formed messages to noise. */
class HostileTraffic
{
public:
    explicit HostileTraffic(quint64 seed) : random(seed) {}

    /** Well-formed messages for these ports; framedBytes is the sum of their payloads. */
    QByteArray wellFormed(const QList<int> &ports, int &framedBytes);
    /** Anything: noise, words of the protocol in any order, messages with damage done to them. */
    QByteArray hostile();
    /** So many empty messages for a port that its queue is near its limit, then large ones. */
    QByteArray flood(int port);
    /** A port that a client may have open, or some other one. */
    int anyPort();

    Random random;

private:
    int _payloadSize();
    QByteArray _payload();
    QByteArray _noise(int size);
    QByteArray _words();
    QByteArray _messages();
    void _damage(QByteArray &buffer);
    void _damageLength(QByteArray &buffer);
    void _repeatRange(QByteArray &buffer);
};

#endif
