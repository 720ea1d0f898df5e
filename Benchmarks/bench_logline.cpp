// SPDX-License-Identifier: MIT
// One line into the log's file, its message put together included, against a bare write of the same
// bytes and against another logger with the same fields. TZ is as the environment has it.

#include "Require.h"

#include <Campaign.h>
#include <UsbHalLog.h>

#include <QDir>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

namespace {

// Few enough to stay within two files of the log, those that a rotation leaves.
constexpr int linesPerRun = 20000;

qint64 countLines(const QStringList &paths)
{
    qint64 lines = 0;
    for (const QString &path : paths) {
        QFile file(path);
        require(file.open(QIODevice::ReadOnly), "a file of the log can be read");
        // A new folder lacks the old file that a rotation removes, and the log says so.
        lines += file.readAll().count("] Add to write queue message of size: ");
    }
    return lines;
}

// Writes lines in the benchmark's threads; the first one begins and ends the file.
class Writer
{
public:
    virtual ~Writer() = default;
    virtual void begin() = 0;
    virtual void write(int number) = 0;
    virtual qint64 linesInFile() = 0;

protected:
    QTemporaryDir folder;
};

class LibraryWriter : public Writer
{
public:
    void begin() override
    {
        ParamHal param;
        param.maxLogLines = linesPerRun;
        UsbHalLog::getInstance()->open(folder.path(), QStringLiteral("UsbHal"));
        UsbHalLog::getInstance()->setupConfig(param);
    }
    void write(int number) override
    {
        logLine("write", {"Add to write queue message of size: ", number});
    }
    qint64 linesInFile() override { return countLines(paths()); }

    QByteArray lastLine() const
    {
        QFile file(paths().constLast());
        require(file.open(QIODevice::ReadOnly), "the log can be read");
        return file.readAll().split('\n').at(0) + '\n';
    }

private:
    QStringList paths() const
    {
        QStringList found;
        const QStringList names = QDir(folder.path()).entryList({"*.log"});
        for (const QString &name : names)
            found.append(folder.filePath(name));
        return found;
    }
};

class SpdlogWriter : public Writer
{
public:
    void begin() override
    {
        _path = folder.filePath("peer.log");
        _logger = std::make_shared<spdlog::logger>(
            "peer", std::make_shared<spdlog::sinks::basic_file_sink_mt>(_path.toStdString(), true));
        _logger->set_pattern("%d-%m-%Y %H:%M:%S:%e [THREAD %t] [%!:%#] %v");
        _logger->set_level(spdlog::level::trace);
        _logger->flush_on(spdlog::level::trace);
    }
    void write(int number) override
    {
        _logger->log(spdlog::source_loc{__FILE__, __LINE__, "write"}, spdlog::level::info,
                     "Add to write queue message of size: {}", number);
    }
    qint64 linesInFile() override { return countLines({_path}); }

private:
    QString _path;
    std::shared_ptr<spdlog::logger> _logger;
};

QByteArray lineOfLibrary()
{
    LibraryWriter library;
    library.begin();
    library.write(9999);
    return library.lastLine();
}

class BareWriter : public Writer
{
public:
    ~BareWriter() override { ::close(_file); }

    void begin() override
    {
        _path = folder.filePath("bare.log");
        _file = ::open(_path.toUtf8().constData(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        _line = lineOfLibrary();
    }
    void write(int /*number*/) override
    {
        const ssize_t size = ::write(_file, _line.constData(), static_cast<size_t>(_line.size()));
        benchmark::DoNotOptimize(size);
    }
    qint64 linesInFile() override { return countLines({_path}); }

private:
    QString _path;
    QByteArray _line;
    int _file = -1;
};

template <typename SomeWriter>
void run(benchmark::State &state)
{
    static std::unique_ptr<Writer> writer;
    if (state.thread_index() == 0) {
        writer = std::make_unique<SomeWriter>();
        writer->begin();
    }
    int number = 1000;
    for (auto _ : state)
        writer->write(number < 9999 ? ++number : number);
    if (state.thread_index() == 0) {
        require(writer->linesInFile() == linesPerRun, "every line is in the file");
        writer.reset();
    }
}

template <typename SomeWriter>
void add(const std::string &candidate)
{
    const std::string zone = qEnvironmentVariableIsSet("TZ") ? ".tz" : ".notz";
    for (const int threads : {1, 4}) {
        const std::string name =
            "log." + candidate + zone + (threads == 1 ? ".single" : ".threads");
        benchmark::RegisterBenchmark(name.c_str(), run<SomeWriter>)
            ->Threads(threads)
            ->Iterations(linesPerRun / threads)
            ->UseRealTime();
    }
}

const bool registered = [] {
    add<LibraryWriter>("ours");
    add<BareWriter>("bare");
    add<SpdlogWriter>("spdlog");
    return true;
}();

} // namespace
