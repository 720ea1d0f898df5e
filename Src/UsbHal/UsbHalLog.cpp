// SPDX-License-Identifier: MIT
// With words of 32 bits the C library's time ends in 2038, unless it is asked for the longer one.
#define _FILE_OFFSET_BITS 64
#define _TIME_BITS 64

#include "UsbHalLog.h"

#include "workerthread.h"

#include <QDir>
#include <QFileInfo>

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <iostream>
#include <iterator>
#include <limits>
#include <memory>

namespace {

constexpr int defaultMaxLines = 500;
constexpr int largestMaxLines = 20000;
constexpr int lastFileIndex = 30000;
constexpr int lockPollPeriod = 10; // ms

void append(LogLine &line, QLatin1String text)
{
    line.append(text.data(), text.size());
}

void append(LogLine &line, const QString &text)
{
    const QByteArray utf8 = text.toUtf8();
    line.append(utf8.constData(), utf8.size());
}

bool isAscii(char c)
{
    return static_cast<unsigned char>(c) < 0x80;
}

void appendNumber(LogLine &line, qint64 number)
{
    char digits[std::numeric_limits<qint64>::digits10 + 1];
    char *first = std::end(digits);
    qint64 rest = qAbs(number);
    do {
        *--first = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    if (number < 0)
        line.append('-');
    line.append(first, static_cast<int>(std::end(digits) - first));
}

// "dd-MM-yyyy hh:mm:ss:". Each thread makes it once a second: it takes longer than all the rest of
// a line, and asks for the file of the time zone. Without Qt, whose calendar is gone before the
// last line of a process.
QLatin1String dateOf(time_t second)
{
    struct Date
    {
        time_t second = -1;
        size_t size = 0;
        char text[32] = {};
    };
    static thread_local Date date;
    if (date.second != second) {
        tm local = {};
        tzset(); // localtime_r need not notice that the time zone has changed
        localtime_r(&second, &local);
        date.size = std::strftime(date.text, sizeof date.text, "%d-%m-%Y %H:%M:%S:", &local);
        date.second = second;
    }
    return QLatin1String(date.text, static_cast<int>(date.size));
}

void appendTimestamp(LogLine &line)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    append(line, dateOf(now.tv_sec));
    for (long unit = 100000000; unit >= 1000000; unit /= 10) // the digits of the milliseconds
        line.append(static_cast<char>('0' + now.tv_nsec / unit % 10));
}

qint32 currentThreadId()
{
    return static_cast<qint32>(reinterpret_cast<quintptr>(QThread::currentThreadId()));
}

void compose(LogLine &line, const LogPart &function, unsigned int number, LogText text)
{
    appendTimestamp(line);
    append(line, QLatin1String(" [THREAD "));
    appendNumber(line, currentThreadId());
    append(line, QLatin1String("] ["));
    function.appendTo(line);
    line.append(':');
    appendNumber(line, number);
    append(line, QLatin1String("] "));
    for (const LogPart &part : text)
        part.appendTo(line);
    line.append('\n');
}

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

void writeToConsole(const LogPart &function, LogText text)
{
    const QByteArray line =
        "USBHAL] " + function.toString().toLatin1() + " - " + toString(text).toLatin1() + '\n';
    if (!std::cout) // an earlier line found the disk full
        std::cout.clear();
    std::cout.write(line.constData(), line.size()).flush();
}

} // namespace

void LogPart::appendTo(LogLine &line) const
{
    if (_kind == Kind::Number)
        appendNumber(line, _number);
    else if (_kind == Kind::Ascii ||
             (_kind == Kind::Received && std::all_of(_bytes, _bytes + _size, isAscii)))
        line.append(_bytes, _size);
    else
        append(line, toString());
}

QString LogPart::toString() const
{
    switch (_kind) {
    case Kind::Ascii:
    case Kind::Received:
        return QString::fromUtf8(_bytes, _size);
    case Kind::Text:
        return *_text;
    case Kind::Number:
        break;
    }
    LogLine digits;
    appendNumber(digits, _number);
    return QString::fromLatin1(digits.constData(), digits.size());
}

QString toString(LogText text)
{
    QString joined;
    for (const LogPart &part : text)
        joined += part.toString();
    return joined;
}

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

void UsbHalLog::log(const LogPart &function, unsigned int line, LogText text)
{
    // A thread that is killed in the middle of a line would leave the file in disorder; one that
    // writes line after line must be killed between two.
    const CancellationBlocker blocker;
    blocker.testCancel();
    if (!_logCreated) {
        writeToConsole(function, text);
        return;
    }
    LogLine composed;
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

void UsbHalLog::_append(const LogLine &line)
{
    if (_file->isOpen())
        _write(line);
    ++_lineCount;
}

// A disk that fills up may take the beginning of a line: the next line must not follow on it.
void UsbHalLog::_write(const LogLine &line)
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
void UsbHalLog::_rotate(const LogLine &line)
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
        LogLine line;
        appendTimestamp(line);
        append(line, QLatin1String("ERROR: couldn't open new log file, stop logging !\n"));
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

void logLine(const char *function, LogText text, unsigned int line)
{
    UsbHalLog::getInstance()->log(LogPart(function), line, text);
}
