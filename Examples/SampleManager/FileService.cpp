// SPDX-License-Identifier: MIT
#include "FileService.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace {

constexpr int longestLine = 80;
constexpr int maxAnswers = 16;
constexpr qint64 largestCount = std::numeric_limits<qint64>::max();

} // namespace

FileService::FileService(QString sendPath, QString receivePath, qint64 largestFile, Report report)
    : _sendPath(std::move(sendPath)),
      _receivePath(std::move(receivePath)),
      _largestFile(largestFile),
      _report(std::move(report))
{
}

void FileService::restart()
{
    Service::restart();
    _state = State::Line;
    _line.clear();
    _storing.reset();
    _answers.clear();
    _sending.close();
    _sendLeft = 0;
}

bool FileService::takesBytes() const
{
    return Service::takesBytes() && _answers.size() < maxAnswers;
}

void FileService::receive(const QByteArray &bytes)
{
    int position = 0;
    while (position < bytes.size()) {
        const bool isLine = _state == State::Line || _state == State::SkippedLine;
        position = isLine ? _receiveLine(bytes, position) : _receiveBytes(bytes, position);
    }
}

// Both return the position behind what they took.
int FileService::_receiveLine(const QByteArray &bytes, int from)
{
    const int end = bytes.indexOf('\n', from);
    if (_state == State::Line)
        _line += bytes.mid(from, end < 0 ? -1 : end - from);
    if (_line.size() > longestLine) {
        _answers.enqueue(_error(QString("a line is longer than %1 bytes").arg(longestLine)));
        _line.clear();
        _state = State::SkippedLine;
    }
    if (end < 0)
        return bytes.size();
    _endLine();
    return end + 1;
}

int FileService::_receiveBytes(const QByteArray &bytes, int from)
{
    const int count = static_cast<int>(std::min<qint64>(bytes.size() - from, _storeLeft));
    _storeLeft -= count;
    if (_state == State::Bytes)
        _store(bytes.constData() + from, count);
    if (_storeLeft == 0)
        _endStoring();
    return from + count;
}

void FileService::_endLine()
{
    const QByteArray line = std::exchange(_line, QByteArray());
    if (std::exchange(_state, State::Line) == State::Line)
        _obey(line);
}

void FileService::_obey(const QByteArray &line)
{
    const bool isFile = line.startsWith("FILE ") && line.size() > 5;
    const qint64 size = isFile ? parseCount(line.mid(5), largestCount) : -1;
    if (line == "SEND")
        _answers.enqueue(Answer());
    else if (size >= 0)
        _beginStoring(size);
    else
        _answers.enqueue(_error("expected \"SEND\" or \"FILE <bytes>\""));
}

void FileService::_beginStoring(qint64 size)
{
    _state = State::Bytes;
    _storeSize = size;
    _storeLeft = size;
    _storing = std::make_unique<QSaveFile>(_receivePath);
    if (size > _largestFile)
        _refuseFile(QString("%1 bytes are more than the %2 that may be stored")
                        .arg(size)
                        .arg(_largestFile));
    // Without a buffer of Qt's each write tells the system's reason when it fails.
    else if (!_storing->open(QIODevice::WriteOnly | QIODevice::Unbuffered))
        _refuseFile(_receivePath + ": " + _storing->errorString());
    if (size == 0)
        _endStoring();
}

// A disk that gets full takes a part, and tells its reason at the next try.
void FileService::_store(const char *bytes, int count)
{
    qint64 written = 0;
    for (qint64 done = 0; done < count; done += written) {
        written = _storing->write(bytes + done, count - done);
        if (written <= 0) {
            _refuseFile(_receivePath + ": " + _storing->errorString());
            return;
        }
    }
}

void FileService::_refuseFile(const QString &reason)
{
    _state = State::SkippedBytes;
    _storing.reset();
    _answers.enqueue(_error(reason));
}

void FileService::_endStoring()
{
    if (_state == State::Bytes && !_storing->commit())
        _refuseFile(_receivePath + ": " + _storing->errorString());
    const bool isStored = std::exchange(_state, State::Line) == State::Bytes;
    _storing.reset();
    if (!isStored)
        return;
    const QByteArray size = QByteArray::number(_storeSize);
    _answers.enqueue("STORED " + size + '\n');
    _report("stored " + size + " bytes in " + _receivePath);
}

void FileService::refill(int limit)
{
    while (outgoing.size() < limit) {
        if (_sendLeft > 0)
            _readMore(limit - outgoing.size());
        else if (_answers.isEmpty())
            return;
        else if (const Answer answer = _answers.dequeue(); answer.isEmpty())
            _beginSending();
        else
            outgoing += answer;
    }
}

void FileService::_beginSending()
{
    _sending.close();
    _sending.setFileName(_sendPath);
    if (!_sending.open(QIODevice::ReadOnly)) {
        outgoing += _error(_sendPath + ": " + _sending.errorString());
        return;
    }
    _sendSize = _sending.size();
    _sendLeft = _sendSize;
    _isShort = false;
    outgoing += "FILE " + QByteArray::number(_sendSize) + '\n';
}

void FileService::_readMore(int count)
{
    const int wanted = static_cast<int>(std::min<qint64>(count, _sendLeft));
    QByteArray bytes = _isShort ? QByteArray() : _sending.read(wanted);
    _isShort = bytes.isEmpty();
    if (_isShort)
        bytes.fill('\0', wanted);
    outgoing += bytes;
    _sendLeft -= bytes.size();
    if (_sendLeft == 0)
        _endSending();
}

void FileService::_endSending()
{
    _sending.close();
    if (_isShort)
        outgoing += _error(_sendPath + ": shorter than its announced size");
    else
        _report("sent " + QString::number(_sendSize) + " bytes of " + _sendPath);
}

QByteArray FileService::_error(const QString &reason) const
{
    _report("error: " + reason);
    return "ERROR " + reason.toUtf8() + '\n';
}
