// SPDX-License-Identifier: MIT
#ifndef SETUP_H
#define SETUP_H

#include <QByteArray>
#include <QString>

#include <array>

/** What a core is given at its construction. */
struct Setup
{
    bool isHost = false;
    int drivers = 1;
    bool avoidClosingDuringHandshake = false;
    bool closeDriverAfterConnectionError = false;
    /** What the drivers answer first while the core waits for its thread to end. */
    std::array<bool, 4> answersAtTheEnd = {};

    QString text() const
    {
        QString text = QString(isHost ? "host" : "device") + " with " + QString::number(drivers) +
                       " driver(s), avoidClosingDuringHandshake " +
                       QString::number(avoidClosingDuringHandshake) +
                       ", closeDriverAfterConnectionError " +
                       QString::number(closeDriverAfterConnectionError) + ", answers at the end";
        for (const bool answer : answersAtTheEnd)
            text += answer ? " good" : " bad";
        return text;
    }
};

/** The calls of a driver in which the communication thread waits for the test. */
enum class Transfer { Open, Read, Write };

/** How a driver's call ends: an open or a write by good, a read by a block that is not empty. */
struct Outcome
{
    bool good = false;
    QByteArray block = {};
};

/**
 * What a driver answers to its call with that number since the core began to wait for the end of
 * its thread. In the end every open succeeds, so that the thread finds its way out.
 */
inline Outcome outcomeAtTheEnd(const Setup &setup, std::size_t number, Transfer transfer)
{
    const bool given = number < setup.answersAtTheEnd.size();
    const bool good = given ? setup.answersAtTheEnd[number] : transfer == Transfer::Open;
    return {good, transfer == Transfer::Read && good ? QByteArray("DEVICE_NODATA") : QByteArray()};
}

inline QString driverName(int index)
{
    return index == 0 ? QStringLiteral("first") : QStringLiteral("second");
}

#endif
