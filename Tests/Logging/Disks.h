// SPDX-License-Identifier: MIT
#ifndef DISKS_H
#define DISKS_H

#include <QString>
#include <QTemporaryDir>

/** Disks of this process alone, which nobody else sees. */
namespace Disks {

/**
 * Gives the process mounts of its own. To be called in main, before there is another thread.
 * Returns whether the system permits it.
 */
bool enterOwnSpace();

/** A small disk in memory. */
class SmallDisk
{
public:
    SmallDisk(int kilobytes, int inodes);
    ~SmallDisk();
    Q_DISABLE_COPY(SmallDisk)

    QString path() const { return _folder.path(); }
    /** Takes the room that is left, to the last byte. */
    void fill();
    /** Gives it back. */
    void clear();
    /** Takes the files that may still be made. */
    void fillInodes();
    void clearInodes();

private:
    QString fillerOf(int number) const;

    QTemporaryDir _folder;
    int _fillers = 0;
};

/** Lets a folder be read only, for whoever opens a file in it from now on. */
class ReadOnlyFolder
{
public:
    explicit ReadOnlyFolder(const QString &folder);
    ~ReadOnlyFolder();
    Q_DISABLE_COPY(ReadOnlyFolder)

private:
    QByteArray _folder;
};

} // namespace Disks

#endif
