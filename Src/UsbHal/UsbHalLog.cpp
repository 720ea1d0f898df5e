// SPDX-License-Identifier: MIT
// With words of 32 bits a file's number or date, which may be larger, hides it unless asked for so.
#define _FILE_OFFSET_BITS 64
#define _TIME_BITS 64

#include "UsbHalLog.h"

#include "CancellationBlocker.h"

#include <QDir>
#include <QFileInfo>

#include <dirent.h>
#include <sys/stat.h>

#include <iostream>
#include <memory>

namespace {

constexpr int defaultMaxLines = 500;
constexpr int largestMaxLines = 20000;
constexpr int lastFileIndex = 30000;
constexpr int lockPollPeriod = 10; // ms

struct DirectoryCloser
{
    void operator()(DIR *directory) const { closedir(directory); }
};

bool matches(const QString &name, const QString &prefix, QLatin1String ending)
{
    return name.size() >= prefix.size() + ending.size() && !name.startsWith('.') &&
           name.startsWith(prefix, Qt::CaseInsensitive) &&
           name.endsWith(ending, Qt::CaseInsensitive);
}

// Neither a FIFO, a socket or a device, nor a link that leads nowhere.
bool isFileOrFolder(const QByteArray &path)
{
    struct stat entry = {};
    struct stat target = {};
    return lstat(path.constData(), &entry) == 0 && stat(path.constData(), &target) == 0 &&
           (S_ISREG(entry.st_mode) || S_ISDIR(entry.st_mode) || S_ISLNK(entry.st_mode));
}

// What QDir lists for the name filter <prefix>*<ending>. Not by QDir: it has a regular expression
// and more for it, a quarter of a MiB of code and tables that then stay in memory for as long as
// the process runs.
QStringList findFiles(const QString &folder, const QString &prefix, QLatin1String ending)
{
    QStringList paths;
    const QByteArray place = folder.isEmpty() ? QByteArray(".") : QFile::encodeName(folder);
    const std::unique_ptr<DIR, DirectoryCloser> directory(opendir(place.constData()));
    while (const dirent *entry = directory ? readdir(directory.get()) : nullptr) {
        const QString name = QFile::decodeName(entry->d_name);
        if (matches(name, prefix, ending) && isFileOrFolder(QFile::encodeName(folder + name)))
            paths += folder + name;
    }
    return paths;
}

void writeToConsole(const LogPart &function, LogPart::List text)
{
    const QByteArray line =
        "USBHAL] " + function.toString().toLatin1() + " - " + toString(text).toLatin1() + '\n';
    if (!std::cout) // an earlier line found the disk full
        std::cout.clear();
    std::cout.write(line.constData(), line.size()).flush();
}

} // namespace

QScopedPointer<UsbHalLog, UsbHalLog::KeptToTheEnd> UsbHalLog::logger;

UsbHalLog::UsbHalLog() = default;

UsbHalLog::~UsbHalLog() = default;

UsbHalLog *UsbHalLog::getInstance()
{
    if (!logger)
        logger.reset(new UsbHalLog);
    return logger.data();
}

bool UsbHalLog::open(QString dir, QString name)
{
    const CheckedLocker locker(&_logMutex);
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
    log(LogPart(function), line, {message});
}

void UsbHalLog::log(const LogPart &function, unsigned int line, LogPart::List text)
{
    // A thread that is killed in the middle of a line would leave the file in disorder; one that
    // writes line after line must be killed between two.
    const CancellationBlocker blocker;
    blocker.testCancel();
    if (!_logCreated) {
        writeToConsole(function, text);
        return;
    }
    LogPart::Line composed;
    compose(composed, function, line, text);
    while (!_logMutex.tryLock(lockPollPeriod))
        blocker.testCancel();
    AdoptingLocker locker(&_logMutex);
    if (!_logCreated) {
        locker.unlock();
        writeToConsole(function, text);
        return;
    }
    if (_lineCount < _maxLines)
        _append(composed);
    else
        _rotate(composed);
}

bool UsbHalLog::setupConfig(const ParamHal &param)
{
    const CheckedLocker locker(&_logMutex);
    _maxLines = param.maxLogLines == 0 ? defaultMaxLines : qMin(param.maxLogLines, largestMaxLines);
    return false;
}

bool UsbHalLog::isLogCreated()
{
    const CheckedLocker locker(&_logMutex);
    return _logCreated;
}

QString UsbHalLog::_path(int index) const
{
    return toString({_logDir, _logName, index, ".log"});
}

void UsbHalLog::_createLogDir()
{
    const QString folder = QFileInfo(_path(_fileIndex)).absolutePath();
    if (!QDir(folder).exists() && !QDir().mkpath(folder))
        _logDir = QStringLiteral("./");
}

void UsbHalLog::_keepPreviousFiles()
{
    const QStringList kept = findFiles(_logDir, _logName, QLatin1String(".log.keep"));
    for (const QString &path : kept)
        QFile::remove(path);
    const QStringList previous = findFiles(_logDir, _logName, QLatin1String(".log"));
    for (const QString &path : previous)
        QFile::rename(path, path + ".keep");
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

void UsbHalLog::_append(const LogPart::Line &line)
{
    if (_file->isOpen())
        _write(line);
    ++_lineCount;
}

// A disk that fills up may take the beginning of a line: the next line must not follow on it.
void UsbHalLog::_write(const LogPart::Line &line)
{
    if (_lineCut && _file->write("\n", 1) != 1)
        return;
    const qint64 written = _file->write(line.constData(), line.size());
    _lineCut = written > 0 && written < line.size();
}

/*
 * <name>1.log  full: removed when the third file is begun
 * <name>2.log  full: survives
 * <name>3.log  begun with the line that found the second file full
 */
void UsbHalLog::_rotate(const LogPart::Line &line)
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
        LogPart::Line line;
        appendTimestamp(line);
        LogPart("ERROR: couldn't open new log file, stop logging !\n").appendTo(line);
        _write(line);
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
    log(LogPart("log"), __LINE__,
        {"failed to remove log file: ", _logDir, "UsbHal", index, ".log"});
    _reportingRemoval = false;
}

void logLine(const char *function, LogPart::List text, unsigned int line)
{
    UsbHalLog::getInstance()->log(LogPart(function), line, text);
}
