// SPDX-License-Identifier: MIT
#include "UsbHalLog.h"

#include "workerthread.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>

#include <iostream>
#include <mutex>

namespace {

constexpr int defaultMaxLines = 500;
constexpr int largestMaxLines = 20000;
constexpr int lastFileIndex = 30000;
constexpr int lockPollPeriod = 10; // ms

QString timestamp()
{
    return QDateTime::currentDateTime().toString(QStringLiteral("dd-MM-yyyy hh:mm:ss:zzz"));
}

qint32 currentThreadId()
{
    return static_cast<qint32>(reinterpret_cast<quintptr>(QThread::currentThreadId()));
}

QByteArray composeLine(const QString &function, unsigned int line, const QString &message)
{
    const QString text = timestamp() + " [THREAD " + QString::number(currentThreadId()) + "] [" +
                         function + ':' + QString::number(line) + "] " + message + '\n';
    return text.toUtf8();
}

void writeToConsole(const QString &function, const QString &message)
{
    const QByteArray line = "USBHAL] " + function.toLatin1() + " - " + message.toLatin1() + '\n';
    if (!std::cout) // an earlier line found the disk full
        std::cout.clear();
    std::cout.write(line.constData(), line.size()).flush();
}

} // namespace

QScopedPointer<UsbHalLog, UsbHalLog::Disposal> UsbHalLog::logger;
bool UsbHalLog::outlivesProcess = false;

void UsbHalLog::Disposal::cleanup(UsbHalLog *log)
{
    if (!outlivesProcess)
        delete log;
}

UsbHalLog::UsbHalLog()
{
    timestamp(); // what Qt keeps to write a date then outlives this object, and the facade
}

UsbHalLog::~UsbHalLog() = default;

UsbHalLog *UsbHalLog::getInstance()
{
    if (!logger)
        logger.reset(new UsbHalLog);
    return logger.data();
}

void UsbHalLog::keepUntilProcessEnds()
{
    outlivesProcess = true;
}

bool UsbHalLog::open(QString dir, QString name)
{
    const QMutexLocker locker(&_logMutex);
    _logDir = dir.replace('\\', '/');
    _logName = name;
    if (!_logDir.isEmpty() && !_logDir.endsWith('/'))
        _logDir += '/';
    _file->close();
    _createLogDir();
    _keepPreviousFiles();
    if (_openFile(_fileIndex, QIODevice::WriteOnly))
        _logCreated = true;
    return _logCreated;
}

void UsbHalLog::log(QString function, unsigned int line, QString message)
{
    // A thread that is killed in the middle of a line would leave the file in disorder; one that
    // writes line after line must be killed between two.
    const CancellationBlocker blocker;
    blocker.testCancel();
    if (!_logCreated) {
        writeToConsole(function, message);
        return;
    }
    const QByteArray text = composeLine(function, line, message);
    while (!_logMutex.tryLock(lockPollPeriod))
        blocker.testCancel();
    std::unique_lock<QMutex> locker(_logMutex, std::adopt_lock);
    if (!_logCreated) {
        locker.unlock();
        writeToConsole(function, message);
    } else if (_lineCount < _maxLines) {
        _append(text);
    } else {
        _rotate(text);
    }
}

bool UsbHalLog::setupConfig(const ParamHal &param)
{
    const QMutexLocker locker(&_logMutex);
    _maxLines = param.maxLogLines == 0 ? defaultMaxLines : qMin(param.maxLogLines, largestMaxLines);
    return false;
}

bool UsbHalLog::isLogCreated()
{
    const QMutexLocker locker(&_logMutex);
    return _logCreated;
}

QString UsbHalLog::_path(int index) const
{
    return _logDir + _logName + QString::number(index) + ".log";
}

void UsbHalLog::_createLogDir()
{
    const QString folder = QFileInfo(_path(_fileIndex)).absolutePath();
    if (!QDir(folder).exists() && !QDir().mkpath(folder))
        _logDir = QStringLiteral("./");
}

void UsbHalLog::_keepPreviousFiles()
{
    const QDir dir(_logDir);
    const QStringList keptFiles = dir.entryList({_logName + "*.log.keep"});
    for (const QString &entry : keptFiles)
        QFile::remove(_logDir + entry);
    const QStringList files = dir.entryList({_logName + "*.log"});
    for (const QString &entry : files)
        QFile::rename(_logDir + entry, _logDir + entry + ".keep");
}

bool UsbHalLog::_openFile(int index, QIODevice::OpenMode mode)
{
    _file->setFileName(_path(index));
    // Unbuffered: a line that a full disk refuses is lost, and does not pile up in memory.
    const bool opened = _file->open(mode | QIODevice::Text | QIODevice::Unbuffered);
    if (opened && mode == QIODevice::WriteOnly)
        _lineCut = false;
    return opened;
}

void UsbHalLog::_append(const QByteArray &line)
{
    if (_file->isOpen())
        _write(line);
    ++_lineCount;
}

// A disk that fills up may take the beginning of a line: the next line must not follow on it.
void UsbHalLog::_write(const QByteArray &line)
{
    const QByteArray bytes = _lineCut ? '\n' + line : line;
    const qint64 written = _file->write(bytes);
    if (written > 0)
        _lineCut = written < bytes.size();
}

/*
 * <name>1.log  full: removed when the third file is begun
 * <name>2.log  full: survives
 * <name>3.log  begun with the line that found the second file full
 */
void UsbHalLog::_rotate(const QByteArray &line)
{
    const int previousIndex = _fileIndex;
    _fileIndex = _fileIndex < lastFileIndex ? _fileIndex + 1 : 1;
    _file.reset(new QFile);
    if (_openFile(_fileIndex, QIODevice::WriteOnly)) {
        _lineCount = 0;
        _append(line);
    } else {
        _stopLogging();
    }
    _removeOldFile(previousIndex - _nbKeptFiles);
}

void UsbHalLog::_stopLogging()
{
    if (_fileIndex > 1 && _openFile(_fileIndex - 1, QIODevice::Append)) {
        const QString text = timestamp() + "ERROR: couldn't open new log file, stop logging !\n";
        _write(text.toUtf8());
        _file->close();
    }
    _logCreated = false;
}

void UsbHalLog::_removeOldFile(int index)
{
    if (index <= 0 || QFile::remove(_path(index)))
        return;
    // With one line a file the report would begin a new file, and so ask for the next removal.
    if (!_logCreated || _reportingRemoval)
        return;
    _reportingRemoval = true;
    log(QStringLiteral("log"), __LINE__,
        "failed to remove log file: " + _logDir + "UsbHal" + QString::number(index) + ".log");
    _reportingRemoval = false;
}
