// SPDX-License-Identifier: MIT
#ifndef REPORT_H
#define REPORT_H

#include "PortExchange.h"

#include <QString>
#include <QVector>

/** Payload bytes a second that one direction can carry: one maximum message every 20 ms. */
struct Ceilings
{
    double toDevice = 0;
    double toHost = 0;
};

/** Ceiling of a direction whose transfers have at most this many bytes. */
double ceilingOf(qint64 maxTransferSize);

/**
 * The results of one round as a table of several lines: for each port and direction the bytes, the
 * seconds from the direction's first transfer to the port's last byte, and the rate that these two
 * make; below, all ports together against the ceiling.
 */
QString tableOf(int round, const QVector<PortResult> &results, const Ceilings &ceilings);

/** Whether every file of the round arrived unchanged; false for no files at all. */
bool allEqual(const QVector<PortResult> &results);

#endif
