// SPDX-License-Identifier: MIT
//
// A logger of its own for each input, with any texts, folders and names, under a folder on a memory
// file system that nothing leaves: names keep their "..", as far as those stay within it.

#include "FuzzTarget.h"

#include <UsbHalLog.h>

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <iostream>
#include <sstream>

namespace {

constexpr int dateSize = 23;
constexpr int longestName = 60; // characters, so that no file's name is too long for the disk
constexpr int mostLines[] = {1, 2, 3, 5, 0, -1, 30000};

/** A line of a file, as UTF-8. */
struct Record
{
    QByteArray function; ///< none in the line that ends a log
    QByteArray line;     ///< none for any number
    QByteArray message;
};

const Record stopRecord = {{}, {}, "ERROR: couldn't open new log file, stop logging !"};

/** Takes the beginning from the text, which must have it. */
void takeFront(QByteArray &text, const QByteArray &front)
{
    require(text.startsWith(front), "the text on disk is the UTF-8 of what was logged");
    text.remove(0, front.size());
}

void takeDate(QByteArray &text)
{
    const QByteArray format = "00-00-0000 00:00:00:000";
    require(text.size() > dateSize, "a line has a date");
    for (int i = 0; i < dateSize; ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        require(format[i] == '0' ? isDigit : text[i] == format[i], "a date has its format");
    }
    text.remove(0, dateSize);
}

void takeNumber(QByteArray &text)
{
    int size = 0;
    while (size < text.size() && text[size] >= '0' && text[size] <= '9')
        ++size;
    require(size > 0, "a number stands where one should");
    text.remove(0, size);
}

void takeRecord(QByteArray &text, const Record &record)
{
    takeDate(text);
    if (!record.function.isEmpty() || !record.line.isEmpty()) {
        const auto thread = reinterpret_cast<quintptr>(QThread::currentThreadId());
        takeFront(text, " [THREAD " + QByteArray::number(static_cast<qint32>(thread)));
        takeFront(text, "] [" + record.function + ':');
        record.line.isEmpty() ? takeNumber(text) : takeFront(text, record.line);
        takeFront(text, "] ");
    }
    takeFront(text, record.message + '\n');
}

void checkFile(const QString &path, const QList<Record> &records)
{
    QFile file(path);
    require(file.open(QIODevice::ReadOnly), "a file of the log is there");
    QByteArray text = file.readAll();
    for (const Record &record : records)
        takeRecord(text, record);
    require(text.isEmpty(), "nothing else is on disk");
}

/** A path without the ".." that would leave the folder that it begins in. */
QString contained(const QString &path)
{
    QString result;
    int depth = 0;
    for (int begin = 0; begin <= path.size();) {
        int end = begin;
        while (end < path.size() && path[end] != '/' && path[end] != '\\')
            ++end;
        const QString part = path.mid(begin, end - begin);
        const bool leaves = part == ".." && depth == 0;
        if (part == "..")
            depth -= leaves ? 0 : 1;
        else if (!part.isEmpty() && part != ".")
            ++depth;
        result += (leaves ? QString() : part) + path.mid(end, 1);
        begin = end + 1;
    }
    return result;
}

/** What the logger must do, worked out a second time; the disk says what can be opened. */
class LogModel
{
public:
    /** Returns whether the new file can be followed: an open that fails leaves the log without. */
    bool open(const QString &folder, const QString &name, bool created)
    {
        const QString formerPath = _created && !_currentGone ? path(_index) : QString();
        _folder = QString(folder).replace('\\', '/');
        if (!_folder.isEmpty() && !_folder.endsWith('/'))
            _folder += '/';
        _name = name;
        // Behind a colon Qt looks for what was compiled into the program, where no file can begin.
        const bool isResource = path(_index).startsWith(':');
        if (!QFileInfo(QFileInfo(path(_index)).absolutePath()).isDir())
            _folder = "./";
        if (path(_index) == formerPath && _keepsFiles())
            checkFile(formerPath + ".keep", _current);
        _leavesFiles = _leavesFiles || (_opened && !_keepsFiles());
        _opened = true;
        _created = created;
        _current.clear();
        _currentGone = false;
        _previousPath.clear();
        if (created && (isResource || !_canOpen(path(_index))))
            return false;
        const QFileInfo file(path(_index));
        require(!created || (file.isFile() && file.size() == 0), "an open begins a file");
        return true;
    }

    void setMaxLines(int lines) { _maxLines = lines == 0 ? 500 : qMin(lines, 20000); }

    /** Takes in a line before the logger does, as the disk must be that of before. */
    void log(const Record &record)
    {
        if (!_created)
            return;
        if (_lines >= _maxLines) {
            _rotate(record);
            return;
        }
        _current.append(record);
        ++_lines;
    }

    /** The files were removed from the disk. */
    void removeFiles()
    {
        _currentGone = true;
        _previousPath.clear();
    }

    bool isCreated() const { return _created; }
    QString nextPath() const { return path(_index + 1); }
    QString path(int index) const { return _folder + _name + QString::number(index) + ".log"; }

    void checkDisk() const
    {
        if (_created && !_currentGone)
            checkFile(path(_index), _current);
        if (!_previousPath.isEmpty())
            checkFile(_previousPath, _previous);
    }

    /** Whether files of an earlier open may stand beside those of the last one. */
    bool leavesFiles() const { return _leavesFiles; }

    int numberedFiles() const
    {
        int count = 0;
        for (int index = 1; index <= _index + 1; ++index)
            count += QFileInfo(path(index)).isFile() && _canBeKept(path(index)) ? 1 : 0;
        return count;
    }

private:
    // The path as it is: the parent of a folder that is missing is missing, too.
    static bool _canOpen(const QString &path)
    {
        return !QFileInfo(path).isDir() && QFileInfo(QFileInfo(path).path()).isDir();
    }

    // A folder in its way holds a file where it is.
    static bool _canBeKept(const QString &path) { return !QFileInfo(path + ".keep").isDir(); }

    // Whether the current file has made way for the new one: not where its name is hidden or has a
    // folder in it. Plain names are neither.
    bool _keepsFiles() const
    {
        const auto isPlain = [](QChar c) { return c >= '0' && c <= 'z' && c.isLetterOrNumber(); };
        return std::all_of(_name.begin(), _name.end(), isPlain) && _canBeKept(path(_index));
    }

    void _rotate(const Record &record)
    {
        const QString oldPath = path(_index - 1);
        const bool reports = _index > 1 && !QFileInfo(oldPath).isFile();
        _previousPath = _currentGone ? QString() : path(_index);
        _previous = _current;
        _current = {record};
        _currentGone = false;
        if (!_canOpen(path(++_index))) {
            _stopLogging();
            return;
        }
        _lines = 1;
        if (reports && !_reporting)
            _reportRemoval();
    }

    void _stopLogging()
    {
        _created = false;
        const QString path = this->path(_index - 1);
        if (!_canOpen(path))
            return;
        if (_previousPath.isEmpty())
            _previous.clear();
        _previousPath = path;
        _previous.append(stopRecord);
    }

    // Logged by the logger itself, with the default name of the files.
    void _reportRemoval()
    {
        _reporting = true;
        const QString file = _folder + "UsbHal" + QString::number(_index - 2) + ".log";
        log({"log", {}, ("failed to remove log file: " + file).toUtf8()});
        _reporting = false;
    }

    QString _folder = "./";
    QString _name = "UsbHal";
    int _index = 1;
    int _maxLines = 10000;
    int _lines = 0;
    bool _opened = false;
    bool _leavesFiles = false;
    bool _created = false;
    bool _currentGone = false;
    bool _reporting = false;
    QList<Record> _current;
    QList<Record> _previous;
    QString _previousPath; // of the file that was full before the current one, if it is followed
};

/** The folder that nothing leaves; the working directory while an input runs. */
class Place
{
public:
    Place() : _folder(QDir("/dev/shm").exists() ? "/dev/shm/usbhal-fuzz-log" : "usbhal-fuzz-log")
    {
        require(_folder.isValid(), "there is a folder");
        qputenv("TZ", "UTC0"); // else the C library looks at the system's zone file every second
    }

    QString path() const { return _folder.path(); }

    void enter() const { require(QDir::setCurrent(path()), "the folder is there"); }

    void leave() const
    {
        clear();
        QDir::setCurrent(_former);
    }

    void clear() const
    {
        const auto kinds = QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
        for (const QFileInfo &entry : QDir(path()).entryInfoList(kinds))
            entry.isDir() ? QDir(entry.filePath()).removeRecursively()
                          : QFile::remove(entry.filePath());
    }

private:
    const QTemporaryDir _folder;
    const QString _former = QDir::currentPath();
};

/** Standard output's lines, as long as it lives. */
class Console
{
public:
    Console() : _former(std::cout.rdbuf(_lines.rdbuf())) {}
    ~Console() { std::cout.rdbuf(_former); }
    Q_DISABLE_COPY(Console)

    QByteArray take()
    {
        const QByteArray text = QByteArray::fromStdString(_lines.str());
        _lines.str({});
        return text;
    }

private:
    std::ostringstream _lines;
    std::streambuf *_former;
};

class LogRun
{
public:
    LogRun(FuzzInput &input, const Place &place) : _input(input), _place(place) {}

    void run()
    {
        while (!_input.isEmpty() && _follows) {
            _act(_input.below(12));
            require(_log.isLogCreated() == _model.isCreated(), "whether there is a file");
        }
        if (_follows)
            _check();
    }

private:
    void _act(unsigned action)
    {
        switch (action) {
        case 0:
        case 1:
            _open();
            break;
        case 2:
            _setMaxLines();
            break;
        case 3:
            _obstruct();
            break;
        case 4:
            if (_input.below(4) == 1)
                _removeFiles();
            break;
        default:
            _write();
        }
    }

    // UTF-8, right or wrong, or UTF-16 units in any order.
    QString _text()
    {
        const bool isUtf16 = _input.byte() % 4 == 1;
        const std::string_view bytes = _input.shortText();
        const int size = static_cast<int>(bytes.size());
        if (!isUtf16)
            return QString::fromUtf8(bytes.data(), size);
        QString text(size / 2, QChar());
        for (int i = 0; i < text.size(); ++i) {
            const auto at = static_cast<std::size_t>(2 * i);
            text[i] = QChar(uchar(bytes[at]), uchar(bytes[at + 1]));
        }
        return text;
    }

    QString _path() { return contained(_text().left(longestName).remove(QChar())); }

    void _open()
    {
        _check();
        QString folder = _path();
        if (folder.startsWith('/') || folder.startsWith('\\'))
            folder.prepend(_place.path());
        QString name = _path();
        if (folder.isEmpty() && name.startsWith('/'))
            name.prepend(_place.path());
        const bool created = _log.open(folder, name);
        require(created || !_model.isCreated(), "an open takes no file away");
        _follows = _model.open(folder, name, created);
    }

    void _setMaxLines()
    {
        ParamHal param;
        param.maxLogLines = mostLines[_input.below(7)];
        require(!_log.setupConfig(param), "setupConfig returns false");
        _model.setMaxLines(param.maxLogLines);
    }

    void _obstruct() { QDir().mkdir(_model.nextPath()); }

    void _removeFiles()
    {
        _place.clear();
        _model.removeFiles();
    }

    void _write()
    {
        const QString function = _text();
        const unsigned line = _input.number(2);
        const QString message = _text();
        const bool toConsole = !_model.isCreated();
        _model.log({function.toUtf8(), QByteArray::number(line), message.toUtf8()});
        _log.log(function, line, message);
        const QByteArray shown =
            "USBHAL] " + function.toLatin1() + " - " + message.toLatin1() + '\n';
        require(_console.take() == (toConsole ? shown : QByteArray()),
                "a line is shown where there is no file for it, and else not");
    }

    void _check()
    {
        _model.checkDisk();
        require(!_model.isCreated() || _model.leavesFiles() || _model.numberedFiles() <= 2,
                "at most two numbered files stand beside the kept ones");
    }

    FuzzInput &_input;
    const Place &_place;
    UsbHalLog _log;
    LogModel _model;
    Console _console;
    bool _follows = true;
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const Place place;
    FuzzInput input(data, size);
    place.enter();
    LogRun(input, place).run();
    place.leave();
    return 0;
}
