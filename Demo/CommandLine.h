// SPDX-License-Identifier: MIT
#ifndef COMMANDLINE_H
#define COMMANDLINE_H

#include "PortExchange.h"

#include <QString>
#include <QStringList>
#include <QVector>

struct Options
{
    QString socketPath;         ///< the host's end of the simulated node
    QString managerOutput;      ///< file into which the connection manager prints
    QVector<PortFiles> ports;   ///< at least one, in the order of the command line
    int deviceMaxWrite = 10000; ///< largest transfer of the device in bytes, for the ceiling
};

/** A command line is either an order to run, or a text to print before leaving with exitStatus. */
struct CommandLine
{
    bool run = false;
    Options options;
    QString text;
    int exitStatus = 0;
};

/** Reads the command line, whose first element is the program's name. */
CommandLine parseCommandLine(const QStringList &arguments);

#endif
