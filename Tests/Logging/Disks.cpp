// SPDX-License-Identifier: MIT
#include "Disks.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

const char ballast[] = "/ballast";

bool writeTo(const char *path, const QByteArray &text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) &&
           file.write(text) == text.size();
}

// Without privileges, a user namespace lends them.
bool enterUserSpace()
{
    const QByteArray user = QByteArray::number(::getuid());
    const QByteArray group = QByteArray::number(::getgid());
    return ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && writeTo("/proc/self/setgroups", "deny") &&
           writeTo("/proc/self/uid_map", "0 " + user + " 1") &&
           writeTo("/proc/self/gid_map", "0 " + group + " 1");
}

void mustHold(bool condition, const char *what)
{
    if (!condition)
        qFatal("%s: %s", what, std::strerror(errno));
}

} // namespace

bool Disks::enterOwnSpace()
{
    if (::unshare(CLONE_NEWNS) != 0 && !enterUserSpace())
        return false;
    return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

Disks::SmallDisk::SmallDisk(int kilobytes, int inodes)
{
    const QByteArray options =
        "size=" + QByteArray::number(kilobytes) + "k,nr_inodes=" + QByteArray::number(inodes);
    mustHold(::mount("small", path().toUtf8(), "tmpfs", 0, options) == 0, "no small disk");
}

Disks::SmallDisk::~SmallDisk()
{
    ::umount2(path().toUtf8(), MNT_DETACH);
}

void Disks::SmallDisk::fill()
{
    const int file =
        ::open((path() + ballast).toUtf8(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    mustHold(file >= 0, "no ballast");
    const QByteArray block(4096, 'x');
    while (::write(file, block, static_cast<size_t>(block.size())) > 0)
        continue;
    mustHold(errno == ENOSPC, "the disk cannot be filled");
    ::close(file);
}

void Disks::SmallDisk::clear()
{
    QFile::remove(path() + ballast);
}

QString Disks::SmallDisk::fillerOf(int number) const
{
    return path() + "/filler" + QString::number(number);
}

void Disks::SmallDisk::fillInodes()
{
    for (;;) {
        const int file = ::open(fillerOf(_fillers).toUtf8(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (file < 0)
            break;
        ++_fillers;
        ::close(file);
    }
    mustHold(errno == ENOSPC, "the disk's inodes cannot be used up");
}

void Disks::SmallDisk::clearInodes()
{
    while (_fillers > 0)
        QFile::remove(fillerOf(--_fillers));
}

// Laid over the folder: files that are open there stay open for writing.
Disks::ReadOnlyFolder::ReadOnlyFolder(const QString &folder) : _folder(folder.toUtf8())
{
    mustHold(::mount(_folder, _folder, nullptr, MS_BIND, nullptr) == 0, "no second view");
    mustHold(::mount(nullptr, _folder, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0,
             "the folder cannot be made read only");
}

Disks::ReadOnlyFolder::~ReadOnlyFolder()
{
    ::umount2(_folder, MNT_DETACH);
}
