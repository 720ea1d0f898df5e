// SPDX-License-Identifier: MIT
#ifndef LOGCAPTURE_H
#define LOGCAPTURE_H

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/** One line of a log file, taken apart. */
struct LogEntry
{
    QString date;
    int thread = 0;
    QString function;
    int line = 0;
    QString message;
};

/**
 * The library's log in a folder of its own, for as long as this object lives. Setting a core's
 * ParamHal::logDir to folder() makes the core open its log here.
 */
class LogCapture
{
public:
    LogCapture();

    QString folder() const { return _folder.path(); }

    /** The lines of every numbered file, oldest file first. */
    QList<LogEntry> entries() const;
    /** "function: message" of every line. */
    QStringList lines() const;
    /** How often that line, as "function: message", stands in the log. */
    int count(const QString &line) const;
    bool contains(const QString &line) const { return count(line) > 0; }
    /** Waits until the line stands in the log at least that often. */
    bool waitFor(const QString &line, int times = 1, int msecs = 5000) const;

private:
    QTemporaryDir _folder;
};

#endif
