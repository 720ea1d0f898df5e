// SPDX-License-Identifier: MIT
#ifndef LOGFOLDER_H
#define LOGFOLDER_H

#include <QString>

/**
 * The folder of the library's log, which one manager may use at a time: each would rename the files
 * of the other at its start.
 */
class LogFolder
{
public:
    enum class Claim { Done, TakenByAnother, Failed };

    /** An empty path is the working directory. */
    explicit LogFolder(const QString &path);
    ~LogFolder();
    Q_DISABLE_COPY(LogFolder)

    /** Makes the folder when it is missing and locks it, for as long as this object or process
     * lives. */
    Claim claim();

    /** After a claim that failed: the system's reason, or who has the folder. */
    QString error() const { return _error; }

    /** The system's reason why nothing can be written now; empty when it can. */
    QString whyNotWritable() const;

    QString path() const { return _path; }

private:
    Claim _fail(int error);
    void _writeOwner() const;
    QString _readOwner() const;

    QString _path;
    QString _error;
    int _lock = -1;
};

#endif
