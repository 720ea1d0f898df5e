// SPDX-License-Identifier: MIT
#include "FileService.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int longestLine = 80;
constexpr int maxAnswers = 16;
constexpr qint64 largestFile = qint64(1) << 40;

} // namespace

FileService::FileService(QString sendPath, QString receivePath, Report report)
    : _sendPath(std::move(sendPath)),
      _receivePath(std::move(receivePath)),
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
    while (position < bytes.size() && _state != State::Failed) {
        position =
            _state == State::Line ? _receiveLine(bytes, position) : _receiveBytes(bytes, position);
    }
}

// Both return the position behind what they took.
int FileService::_receiveLine(const QByteArray &bytes, int from)
{
    const int end = bytes.indexOf('\n', from);
    _line += bytes.mid(from, end < 0 ? -1 : end - from);
    if (_line.size() > longestLine) {
        _fail("a header line is longer than " + QString::number(longestLine) + " bytes");
    } else if (end >= 0) {
        _obey(_line);
        _line.clear();
    }
    return end < 0 ? bytes.size() : end + 1;
}

int FileService::_receiveBytes(const QByteArray &bytes, int from)
{
    const int count = static_cast<int>(std::min<qint64>(bytes.size() - from, _storeLeft));
    if (_storing->write(bytes.constData() + from, count) != count) {
        _fail(_receivePath + ": " + _storing->errorString());
        return bytes.size();
    }
    _storeLeft -= count;
    if (_storeLeft == 0)
        _endStoring();
    return from + count;
}

void FileService::_obey(const QByteArray &line)
{
    const bool isFile = line.startsWith("FILE ");
    const qint64 size = isFile ? parseCount(line.mid(5), largestFile) : -1;
    if (line == "SEND")
        _answers.enqueue(Answer());
    else if (size >= 0)
        _beginStoring(size);
    else
        _fail("expected \"SEND\" or \"FILE <bytes>\"");
}

void FileService::_beginStoring(qint64 size)
{
    _storing = std::make_unique<QSaveFile>(_receivePath);
    if (!_storing->open(QIODevice::WriteOnly)) {
        _fail(_receivePath + ": " + _storing->errorString());
        return;
    }
    _state = State::Bytes;
    _storeSize = size;
    _storeLeft = size;
    if (size == 0)
        _endStoring();
}

void FileService::_endStoring()
{
    if (!_storing->commit()) {
        _fail(_receivePath + ": " + _storing->errorString());
        return;
    }
    _storing.reset();
    _state = State::Line;
    const QByteArray size = QByteArray::number(_storeSize);
    _answers.enqueue("STORED " + size + '\n');
    _report("stored " + size + " bytes in " + _receivePath);
}

void FileService::refill(int limit)
{
    while (outgoing.size() < limit) {
        if (_sendLeft > 0) {
            if (!_readMore(limit - outgoing.size()))
                return;
        } else if (_answers.isEmpty()) {
            return;
        } else if (const Answer answer = _answers.dequeue(); answer.isEmpty()) {
            _beginSending();
        } else {
            outgoing += answer;
        }
    }
}

void FileService::_beginSending()
{
    _sending.close();
    _sending.setFileName(_sendPath);
    if (!_sending.open(QIODevice::ReadOnly)) {
        _fail(_sendPath + ": " + _sending.errorString());
        return;
    }
    _sendSize = _sending.size();
    _sendLeft = _sendSize;
    outgoing += "FILE " + QByteArray::number(_sendSize) + '\n';
}

bool FileService::_readMore(int count)
{
    const QByteArray bytes = _sending.read(std::min<qint64>(count, _sendLeft));
    if (bytes.isEmpty()) {
        _fail(_sendPath + ": shorter than its announced size");
        return false;
    }
    outgoing += bytes;
    _sendLeft -= bytes.size();
    if (_sendLeft == 0)
        _report("sent " + QString::number(_sendSize) + " bytes of " + _sendPath);
    return true;
}

// What is already among the outgoing bytes still goes out ahead of the error line. A host that is
// in the middle of a file takes the line for bytes of the file, and waits for the rest in vain.
void FileService::_fail(const QString &reason)
{
    _state = State::Failed;
    _storing.reset();
    _sending.close();
    _sendLeft = 0;
    _answers.clear();
    outgoing += "ERROR " + reason.toUtf8() + '\n';
    _report("failed: " + reason);
}
