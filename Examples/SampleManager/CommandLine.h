// SPDX-License-Identifier: MIT
#ifndef COMMANDLINE_H
#define COMMANDLINE_H

#include <UsbHalIntf.h>

#include <QMap>
#include <QString>
#include <QStringList>

enum class ServiceKind { Echo, Sink, Source, File };

/** The service of one port; the paths belong to the file service. */
struct ServiceOptions
{
    ServiceKind kind = ServiceKind::Echo;
    QString sendPath = {};
    QString receivePath = {};
};

struct Options
{
    QMap<int, ServiceOptions> services; ///< by port
    ParamHal param;
    int firstWait = 1000; ///< ms that the start waits for the host before it goes on without
};

/** A command line is either an order to run, or a text to print before leaving with exitStatus. */
struct CommandLine
{
    bool run = false;
    Options options;
    QString text;
    int exitStatus = 0;
};

/** Reads the command line, whose first element is the program's name, over the given defaults. */
CommandLine parseCommandLine(const QStringList &arguments, const ParamHal &defaults);

#endif
