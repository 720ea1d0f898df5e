// SPDX-License-Identifier: MIT
#ifndef COMMANDLINE_H
#define COMMANDLINE_H

#include <UsbHalIntf.h>

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

enum class ServiceKind { Echo, Sink, Source, File };

/** The service of one port; the paths belong to the file service. */
struct ServiceOptions
{
    ServiceKind kind = ServiceKind::Echo;
    QString sendPath = {};
    QString receivePath = {};
};

/** A number of the library's configuration. */
struct Setting
{
    quint32 ParamHal::*field;
    quint32 value;
};

struct Options
{
    /** Sets in the configuration what the command line can name; the other fields stay. */
    void applyTo(ParamHal &param) const;

    QMap<int, ServiceOptions> services; ///< by port
    QString logDir;                     ///< empty: the working directory
    QVector<Setting> settings;
    qint64 largestFile =
        qint64(16) * 1024 * 1024; ///< bytes that the host may have a file service store
    int firstWait = 1000;         ///< ms after the start, when it is told that there is no host yet
    int silenceLimit = 5000;      ///< ms without a message, when it is told that the link is silent
    bool verbose = false;
};

/** A command line is either an order to run, or a text to print before leaving with exitStatus. */
struct CommandLine
{
    bool run = false;
    Options options;
    QString text;
    int exitStatus = 0;
};

/** Reads the command line, whose first element is the program's name. Needs no library instance. */
CommandLine parseCommandLine(const QStringList &arguments);

#endif
