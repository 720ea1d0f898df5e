// SPDX-License-Identifier: MIT
#ifndef USBHALLOG_H
#define USBHALLOG_H

#include "UsbHalIntf.h"

#include <QFile>
#include <QMutex>
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

    /** The process ends while threads may still log: the instance is not destroyed any more. */
    static void keepUntilProcessEnds();

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

    /** Takes the number of lines of one file from the configuration. Always returns false. */
    bool setupConfig(const ParamHal &param);

    /** Whether a log file is in use. */
    bool isLogCreated();

    /** The mutex that is held while a line is written; whoever kills a thread takes it first. */
    QMutex *getLogMutex() { return &_logMutex; }

private:
    QString _path(int index) const;
    void _createLogDir();
    void _keepPreviousFiles();
    bool _openFile(int index, QIODevice::OpenMode mode);
    void _append(const QByteArray &line);
    void _write(const QByteArray &line);
    void _rotate(const QByteArray &line);
    void _stopLogging();
    void _removeOldFile(int index);

    struct Disposal
    {
        static void cleanup(UsbHalLog *log);
    };

    static QScopedPointer<UsbHalLog, Disposal> logger;
    static bool outlivesProcess;

    int _maxLines = 10000;
    int _lineCount = 0;
    int _fileIndex = 1;
    QString _logDir = QStringLiteral("./");
    QString _logName = QStringLiteral("UsbHal");
    QScopedPointer<QFile> _file{new QFile};
    QMutex _logMutex{QMutex::Recursive};
    std::atomic<bool> _logCreated{false};
    int _nbKeptFiles = 1;
    bool _reportingRemoval = false;
    bool _lineCut = false;
};

/** Logs a text with the caller's source line. */
inline void logLine(const char *function, const QString &message,
                    unsigned int line = __builtin_LINE())
{
    UsbHalLog::getInstance()->log(QString::fromLatin1(function), line, message);
}

#endif
