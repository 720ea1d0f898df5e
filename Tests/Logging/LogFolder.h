// SPDX-License-Identifier: MIT
#ifndef LOGFOLDER_H
#define LOGFOLDER_H

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/** A folder for log files, with what the tests of the logger read and prepare in it. */
class LogFolder
{
public:
    QString path() const { return _folder.path(); }
    /** The path of the logger's file with that number. */
    QString file(int number) const { return _folder.filePath(name(number)); }
    QString file(const QString &fileName) const { return _folder.filePath(fileName); }
    static QString name(int number) { return QStringLiteral("UsbHal%1.log").arg(number); }

    /** The names of all entries, sorted. */
    QStringList names() const;
    QByteArray content(const QString &fileName) const;
    /** The lines of a file without their ends. */
    QStringList lines(const QString &fileName) const;
    QStringList lines(int number) const { return lines(name(number)); }
    /** What follows "] [function:line] " in each line of a file. */
    QStringList messages(const QString &fileName) const;
    QStringList messages(int number) const { return messages(name(number)); }
    /** How many descriptors of this process refer to files in the folder. */
    int openDescriptors() const;

    bool write(const QString &fileName, const QByteArray &content) const;
    /** Puts a folder that is not empty there, which no file operation opens, renames over or
     * removes. */
    bool obstruct(const QString &fileName) const;
    /** The same in place of a file. */
    bool replaceByObstruction(const QString &fileName) const;

private:
    QTemporaryDir _folder;
};

/** Makes a folder the working directory for as long as this object lives. */
class WorkingDirectory
{
public:
    explicit WorkingDirectory(const QString &folder);
    ~WorkingDirectory();
    Q_DISABLE_COPY(WorkingDirectory)

private:
    QString _former;
};

#endif
