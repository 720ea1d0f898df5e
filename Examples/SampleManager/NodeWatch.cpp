// SPDX-License-Identifier: MIT
#include "NodeWatch.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

NodeWatch::NodeWatch(const QString &path, QObject *parent) : QObject(parent), _path(path)
{
    connect(&_folder, &QFileSystemWatcher::directoryChanged, this, &NodeWatch::look);
    _folder.addPath(QFileInfo(path).path());
    _whyMissing = _reason();
    _identity = _identityNow();
}

void NodeWatch::look()
{
    const bool wasPresent = isPresent();
    const Identity before = _identity;
    _whyMissing = _reason();
    _identity = _identityNow();
    if (wasPresent && (!isPresent() || _identity != before))
        emit vanished();
    if (isPresent() && (!wasPresent || _identity != before))
        emit appeared();
}

// O_PATH names the node without a word to its driver. It may be there before its rights are, which
// udev sets after it has made it.
QString NodeWatch::_reason() const
{
    const int node = ::open(QFile::encodeName(_path).constData(), O_PATH | O_CLOEXEC);
    if (node < 0)
        return qt_error_string(errno);
    const QByteArray opened = "/proc/self/fd/" + QByteArray::number(node);
    const bool isUsable = ::access(opened.constData(), R_OK | W_OK) == 0;
    QString reason = isUsable ? QString() : qt_error_string(errno);
    ::close(node);
    return reason;
}

// A node that was removed and made again between two looks has another number.
NodeWatch::Identity NodeWatch::_identityNow() const
{
    struct stat status = {};
    if (::stat(QFile::encodeName(_path).constData(), &status) != 0)
        return {};
    return {status.st_dev, status.st_ino, status.st_rdev};
}
