// SPDX-License-Identifier: MIT
#include "PortExchange.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>

#include <algorithm>

namespace {

constexpr int longestLine = 200;

QByteArray sumOf(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256);
}

// Empty when the file cannot be read, so that a missing file never equals anything.
QByteArray sumOfFile(const QString &path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return {};
    return hash.result();
}

bool sumsEqual(const QByteArray &original, const QByteArray &arrived)
{
    return !original.isEmpty() && original == arrived;
}

} // namespace

PortExchange::PortExchange(const PortFiles &files) : _files(files) {}

QByteArray PortExchange::begin()
{
    QFile::remove(_files.stored);
    if (QFile::exists(_files.stored)) {
        _fail(_files.stored + " cannot be removed");
        return {};
    }
    QFile file(_files.toDevice);
    if (!file.open(QIODevice::ReadOnly)) {
        _fail(_files.toDevice + ": " + file.errorString());
        return {};
    }
    const QByteArray content = file.readAll();
    _sentFileSize = content.size();
    _expectedSize = QFileInfo(_files.toHost).size();
    const QByteArray header = "SEND\nFILE " + QByteArray::number(content.size()) + '\n';
    _outgoingSize = header.size() + content.size();
    return header + content;
}

void PortExchange::receive(const QByteArray &bytes, qint64 now)
{
    int position = 0;
    while (position < bytes.size() && _error.isEmpty()) {
        const qint64 missing = _announcedSize - _content.size();
        if (missing > 0) {
            const int count = static_cast<int>(std::min<qint64>(missing, bytes.size() - position));
            _content += bytes.mid(position, count);
            position += count;
            _noteArrival(now);
        } else if (const char c = bytes[position++]; c != '\n') {
            _line += c;
            if (_line.size() > longestLine)
                _fail("the device sent an overlong line");
        } else {
            _obey(_line);
            _line.clear();
            _noteArrival(now);
        }
    }
}

void PortExchange::_obey(const QByteArray &line)
{
    if (line == "FILE " + QByteArray::number(_expectedSize) && _announcedSize < 0)
        _announcedSize = _expectedSize;
    else if (line == "STORED " + QByteArray::number(_sentFileSize) && !_stored)
        _stored = true;
    else
        _fail("the device answered \"" + QString::fromUtf8(line) + '"');
}

void PortExchange::_noteArrival(qint64 now)
{
    if (_content.size() == _announcedSize && _receivedAt == 0)
        _receivedAt = now;
}

void PortExchange::delivered(qint64 bytes, qint64 now)
{
    _delivered += bytes;
    if (_delivered == _outgoingSize)
        _deliveredAt = now;
}

bool PortExchange::isDone() const
{
    return !_error.isEmpty() || (_stored && _content.size() == _announcedSize);
}

PortResult PortExchange::result() const
{
    PortResult result;
    result.port = _files.port;
    result.toDevice.bytes = QFileInfo(_files.stored).size();
    result.toDevice.milliseconds = _deliveredAt;
    result.toDevice.sumsEqual =
        _stored && sumsEqual(sumOfFile(_files.toDevice), sumOfFile(_files.stored));
    result.toHost.bytes = _content.size();
    result.toHost.milliseconds = _receivedAt;
    result.toHost.sumsEqual = sumsEqual(sumOfFile(_files.toHost), sumOf(_content));
    return result;
}

void PortExchange::_fail(const QString &reason)
{
    if (_error.isEmpty())
        _error = QString("port %1: %2").arg(_files.port).arg(reason);
}
