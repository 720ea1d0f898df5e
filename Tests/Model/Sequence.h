// SPDX-License-Identifier: MIT
#ifndef SEQUENCE_H
#define SEQUENCE_H

#include "Call.h"
#include "ClientHandlers.h"
#include "Setup.h"

#include <QVector>

/** What a test does to a core, real or modelled, at one time. */
struct Step
{
    enum Kind { MakeCall, EndTransfer, FailCloses, AddHandler, HandleEvents, Tick, KindCount };

    Kind kind = HandleEvents;
    Call call = {};
    Outcome outcome = {};
    Handler handler = {};
    int count = 0; ///< of closes; for a tick whether the period is over

    QString text() const;
    static QString name(Kind kind);
};

/** A core and what is done to it. */
struct Sequence
{
    Setup setup;
    QVector<Step> steps;

    QString text() const;
};

/** The sequence that a seed and a number stand for. */
Sequence randomSequence(quint32 seed, quint64 number);

#endif
