// SPDX-License-Identifier: MIT
#include "LogFolder.h"

#include <QDir>
#include <QFile>
#include <QTemporaryFile>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <unistd.h>

LogFolder::LogFolder(const QString &path) : _path(QDir(path).absolutePath()) {}

LogFolder::~LogFolder()
{
    if (_lock >= 0)
        ::close(_lock);
}

LogFolder::Claim LogFolder::claim()
{
    std::error_code error;
    std::filesystem::create_directories(QFile::encodeName(_path).toStdString(), error);
    if (error)
        return _fail(error.value());
    const QByteArray file = QFile::encodeName(_path + "/usbhal-sample-manager.lock");
    _lock = ::open(file.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (_lock < 0)
        return _fail(errno);
    if (::flock(_lock, LOCK_EX | LOCK_NB) == 0) {
        _writeOwner();
        return Claim::Done;
    }
    if (errno != EWOULDBLOCK)
        return _fail(errno);
    _error = "process " + _readOwner();
    return Claim::TakenByAnother;
}

LogFolder::Claim LogFolder::_fail(int error)
{
    _error = qt_error_string(error);
    return Claim::Failed;
}

// For a reader of the refusal only: the lock is the kernel's, and ends with its process.
void LogFolder::_writeOwner() const
{
    const QByteArray owner = QByteArray::number(::getpid()) + '\n';
    if (::ftruncate(_lock, 0) == 0)
        (void)!::pwrite(_lock, owner.constData(), static_cast<size_t>(owner.size()), 0);
}

QString LogFolder::_readOwner() const
{
    char text[32];
    const ssize_t size = ::pread(_lock, text, sizeof text, 0);
    return QString::fromLatin1(text, static_cast<int>(qMax<ssize_t>(size, 0))).trimmed();
}

// The library does not tell of a line that it could not write. So a file is tried, which takes room
// of its own: to write over bytes that are there would work on a full disk, too.
QString LogFolder::whyNotWritable() const
{
    QTemporaryFile file(_path + "/.usbhal-sample-manager-XXXXXX");
    if (file.open() && file.write("x") == 1 && file.flush())
        return QString();
    return file.errorString();
}
