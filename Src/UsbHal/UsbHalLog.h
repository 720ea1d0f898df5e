// SPDX-License-Identifier: MIT
#ifndef USBHALLOG_H
#define USBHALLOG_H

#include "LogLine.h"
#include "UsbHalIntf.h"
#include "threadsafety.h"

#include <QFile>
#include <QScopedPointer>

#include <atomic>

/**
 * The process-wide trace: lines go to standard output until a log file is open, then to numbered
 * files that are rotated by line count.
 *
 * Any thread may call any operation; getInstance must have returned once before a second thread
 * uses it.
 */
class UsbHalLog : public QObject
{
    Q_OBJECT

public:
    UsbHalLog();
    ~UsbHalLog() override;

    /** The one instance, created by the first call. */
    static UsbHalLog *getInstance();

    /**
     * Starts logging into <dir>/<name><number>.log; the files of the run before are kept once with
     * ".keep" at their end. A folder that cannot be created is replaced by the working directory.
     * Returns whether a log file is in use.
     */
    bool open(QString dir, QString name);

    /**
     * Writes one line: function and line of the caller, and a text. A line that the disk has no
     * room for is lost.
     */
    void log(QString function, unsigned int line, QString message);
    void log(const LogPart &function, unsigned int line, LogPart::List text);

    /** Takes the number of lines of one file from the configuration. Always returns false. */
    bool setupConfig(const ParamHal &param);

    /** Whether a log file is in use. */
    bool isLogCreated();

    /** The mutex that is held while a line is written; whoever kills a thread takes it first. */
    QMutex *getLogMutex() { return &_logMutex; }

private:
    QString _path(int index) const REQUIRES(_logMutex);
    void _createLogDir() REQUIRES(_logMutex);
    void _keepPreviousFiles() REQUIRES(_logMutex);
    bool _openFile(int index, QIODevice::OpenMode mode) REQUIRES(_logMutex);
    void _append(const LogPart::Line &line) REQUIRES(_logMutex);
    void _write(const LogPart::Line &line) REQUIRES(_logMutex);
    void _rotate(const LogPart::Line &line) REQUIRES(_logMutex);
    void _stopLogging() REQUIRES(_logMutex);
    void _removeOldFile(int index) REQUIRES(_logMutex);

    // Threads may log until the process is gone.
    struct KeptToTheEnd
    {
        static void cleanup(UsbHalLog * /*log*/) {}
    };

    static QScopedPointer<UsbHalLog, KeptToTheEnd> logger;

    int _maxLines GUARDED_BY(_logMutex) = 10000;
    int _lineCount GUARDED_BY(_logMutex) = 0;
    int _fileIndex GUARDED_BY(_logMutex) = 1;
    QString _logDir GUARDED_BY(_logMutex) = QStringLiteral("./");
    QString _logName GUARDED_BY(_logMutex) = QStringLiteral("UsbHal");
    QScopedPointer<QFile> _file GUARDED_BY(_logMutex){new QFile};
    CheckedMutex _logMutex{QMutex::Recursive};
    std::atomic<bool> _logCreated{false};
    int _nbKeptFiles GUARDED_BY(_logMutex) = 1;
    bool _reportingRemoval GUARDED_BY(_logMutex) = false;
    bool _lineCut GUARDED_BY(_logMutex) = false;
};

/** Logs a text with the caller's source line. */
void logLine(const char *function, LogPart::List text, unsigned int line = __builtin_LINE());

#endif
