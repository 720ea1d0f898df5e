// SPDX-License-Identifier: MIT
#include "LogFixture.h"
#include "LogStorm.h"

#include <Background.h>
#include <Campaign.h>
#include <ConsoleCapture.h>

#include <QDir>
#include <QtTest>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/** Lines of each thread of a storm that need not be long; enough for some files. */
constexpr int linesEach = 2000;

// What the logger writes while it is watched: each write must be one whole line.
StormLines *watcher = nullptr;
std::atomic<int> writesUnderWay{0};
std::atomic<int> faultyWrites{0};
// Every descriptor that is closed is taken at once, as by another thread that waits for one.
std::atomic<bool> takesDescriptors{false};
std::atomic<int> takenDescriptor{-1};

void watchWrite(const void *data, size_t size)
{
    if (writesUnderWay.fetch_add(1) != 0)
        ++faultyWrites;
    const QByteArray bytes(static_cast<const char *>(data), static_cast<int>(size));
    if (!bytes.endsWith('\n') || !watcher->take({QString::fromUtf8(bytes).chopped(1)}))
        ++faultyWrites;
    --writesUnderWay;
}

/** The numbered files, while no line is being written. */
QStringList numberedFiles(UsbHalLog &log, const LogFolder &folder)
{
    const QMutexLocker locker(log.getLogMutex());
    return stormFiles(folder.path());
}

/** Whether another thread could take the logger's lock now. */
bool isUnlocked(UsbHalLog &log)
{
    return inBackground([&log] {
               const bool taken = log.getLogMutex()->tryLock(10000);
               if (taken)
                   log.getLogMutex()->unlock();
               return taken;
           })
        .get();
}

int consoleLines(ConsoleCapture &console)
{
    return console.finish().count('\n');
}

/** Whether the line that wanted a new file is the only one that is in neither file nor console. */
void expectStoppedLog(UsbHalLog &log, const StormLines &lines, ConsoleCapture &console)
{
    watcher = nullptr;
    const qint64 shown = consoleLines(console);
    QVERIFY(!log.isLogCreated());
    QVERIFY(isUnlocked(log));
    QVERIFY2(faultyWrites == 0, qPrintable(lines.fault()));
    QVERIFY(shown > 0);
    QCOMPARE(lines.whole() + 1 + shown, qint64(linesEach) * LogStorm::threadCount);
}

/** Waits until the pipe is full, or the storm is over. Returns whether it is full. */
bool waitForStandstill(int pipe, const LogStorm &storm)
{
    pollfd room = {pipe, POLLOUT, 0};
    while (storm.lines() < linesEach) {
        if (::poll(&room, 1, 0) == 0)
            return true;
        QThread::yieldCurrentThread();
    }
    return false;
}

/** Takes what is in the pipe. */
QByteArray readSome(int pipe)
{
    QByteArray bytes(16384, Qt::Uninitialized);
    const ssize_t size = ::read(pipe, bytes.data(), static_cast<size_t>(bytes.size()));
    return bytes.left(qMax(static_cast<int>(size), 0));
}

/** Leaves the process no descriptor but those that it has. */
class DescriptorLimit
{
public:
    DescriptorLimit()
    {
        ::getrlimit(RLIMIT_NOFILE, &_former);
        rlimit limit = _former;
        limit.rlim_cur = lowestFree();
        if (::setrlimit(RLIMIT_NOFILE, &limit) != 0)
            qFatal("the number of descriptors cannot be limited");
    }
    ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &_former); }
    Q_DISABLE_COPY(DescriptorLimit)

private:
    static rlim_t lowestFree()
    {
        const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ::close(descriptor);
        return static_cast<rlim_t>(descriptor);
    }

    rlimit _former = {};
};

// A rotation may put a file into the folder while it is removed.
bool removeWhole(const LogFolder &folder)
{
    return QTest::qWaitFor([&folder] { return QDir(folder.path()).removeRecursively(); });
}

} // namespace

// These stand before the C library's functions for every library in this process.
extern "C" Q_DECL_EXPORT ssize_t write(int fd, const void *data, size_t size)
{
    if (watcher && fd != STDOUT_FILENO)
        watchWrite(data, size);
    return ::syscall(SYS_write, fd, data, size);
}

extern "C" Q_DECL_EXPORT int close(int fd)
{
    const long result = ::syscall(SYS_close, fd);
    if (takesDescriptors)
        takenDescriptor =
            static_cast<int>(::syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDONLY | O_CLOEXEC));
    return static_cast<int>(result);
}

/** Eight threads that log without a pause, whatever the disk does. */
class LogStormsTest : public LogFixture
{
    Q_OBJECT

private slots:
    void cleanup();
    void eightThreadsRotateInOrder();
    void theIndexWrapsUnderEightThreads();
    void aRemovedFolderStopsTheLogAtTheNextFile();
    void aRemovedFolderIsMadeAnewByTheNextOpen();
    void rotationsNeedNoMoreDescriptorsThanTheLogHas();
    void aDescriptorLostAmidARotationStopsTheLog();
    void aLogThatFindsNoDescriptorAtItsOpenGoesToTheConsole();
    void aSlowDiskHoldsUpTheThreadsButLosesNothing();
};

void LogStormsTest::cleanup()
{
    watcher = nullptr;
    takesDescriptors = false;
    faultyWrites = 0;
}

void LogStormsTest::eightThreadsRotateInOrder()
{
    QVERIFY(folder->write("UsbHal7.log", "of the run before\n"));
    QVERIFY(openLog(500));
    StormLines lines;
    watcher = &lines;
    const qint64 count = qint64(Campaign::scaled(1250000)) * LogStorm::threadCount;
    LogStorm storm(*log, count / LogStorm::threadCount);
    QVERIFY(storm.waitForLines(count / 10, 600000));
    const long memory = Campaign::residentMemory();
    const int descriptors = Campaign::openDescriptors();
    int looks = 0;
    for (; storm.lines() < count; ++looks)
        QVERIFY(numberedFiles(*log, *folder).size() <= 2);
    storm.join();
    watcher = nullptr;
    QVERIFY2(faultyWrites == 0, qPrintable(lines.fault()));
    QCOMPARE(lines.whole(), count);
    QVERIFY(lines.isGapless());
    QCOMPARE(lines.others() + lines.cut(), qint64(0));
    const int files = static_cast<int>((lines.whole() + 499) / 500);
    QStringList names = {"UsbHal7.log.keep", LogFolder::name((files - 1) % 30000 + 1)};
    if (files > 1)
        names.append(LogFolder::name((files - 2) % 30000 + 1));
    names.sort();
    QCOMPARE(folder->names(), names);
    QCOMPARE(Campaign::openDescriptors(), descriptors);
    Campaign::printFigure("log lines of eight threads", lines.whole());
    Campaign::printFigure("log rotations of eight threads", files - 1);
    Campaign::printFigure("looks at the number of log files", looks);
    Campaign::printFigure("log storm, resident memory after a tenth, kB", memory);
    Campaign::printFigure("log storm, resident memory at the end, kB", Campaign::residentMemory());
    QVERIFY(Campaign::residentMemory() < memory + memorySlack);
}

void LogStormsTest::theIndexWrapsUnderEightThreads()
{
    QVERIFY(openLog(1));
    StormLines lines;
    watcher = &lines;
    LogStorm storm(*log, 30800 / LogStorm::threadCount);
    storm.join();
    watcher = nullptr;
    QVERIFY2(faultyWrites == 0, qPrintable(lines.fault()));
    QCOMPARE(lines.whole(), qint64(30800));
    QVERIFY(lines.isGapless());
    // The file with the highest number stays, beside the two that a rotation leaves.
    QCOMPARE(folder->names(), QStringList({"UsbHal30000.log", "UsbHal799.log", "UsbHal800.log"}));
    Campaign::printFigure("log files begun up to the wrap and behind it", lines.whole());
}

void LogStormsTest::aRemovedFolderStopsTheLogAtTheNextFile()
{
    QVERIFY(openLog(500));
    ConsoleCapture console;
    StormLines lines;
    watcher = &lines;
    LogStorm storm(*log, linesEach);
    QVERIFY(storm.waitForLines(2000));
    {
        const QMutexLocker locker(log->getLogMutex());
        QVERIFY(removeWhole(*folder));
    }
    storm.join();
    expectStoppedLog(*log, lines, console);
    QVERIFY(!QDir(folder->path()).exists());
}

void LogStormsTest::aRemovedFolderIsMadeAnewByTheNextOpen()
{
    QVERIFY(openLog(500));
    ConsoleCapture console;
    {
        LogStorm storm(*log);
        for (int i = 0; i < 10; ++i) {
            QVERIFY(removeWhole(*folder));
            QVERIFY(storm.waitForLines(1000));
            QVERIFY(openLog());
            QVERIFY(storm.waitForLines(1000));
            QVERIFY(log->isLogCreated());
            QVERIFY(numberedFiles(*log, *folder).size() <= 2);
        }
    }
    console.finish();
    StormLines lines;
    const QStringList names = stormFiles(folder->path());
    for (const QString &name : names)
        QVERIFY2(lines.take(folder->lines(name)), qPrintable(lines.fault()));
    QVERIFY(lines.isGapless());
    QVERIFY(isUnlocked(*log));
}

void LogStormsTest::rotationsNeedNoMoreDescriptorsThanTheLogHas()
{
    QVERIFY(openLog(500));
    StormLines lines;
    watcher = &lines;
    {
        const DescriptorLimit limit;
        LogStorm storm(*log, linesEach);
        storm.join();
    }
    QVERIFY2(faultyWrites == 0, qPrintable(lines.fault()));
    QCOMPARE(lines.whole(), qint64(linesEach) * LogStorm::threadCount);
    QVERIFY(lines.isGapless());
    QVERIFY(log->isLogCreated());
}

void LogStormsTest::aDescriptorLostAmidARotationStopsTheLog()
{
    QVERIFY(openLog(500));
    ConsoleCapture console;
    StormLines lines;
    watcher = &lines;
    {
        const DescriptorLimit limit;
        takesDescriptors = true;
        LogStorm storm(*log, linesEach);
        storm.join();
        takesDescriptors = false;
    }
    QVERIFY(takenDescriptor >= 0);
    QCOMPARE(::close(takenDescriptor), 0);
    expectStoppedLog(*log, lines, console);
    QCOMPARE(lines.whole(), qint64(500));
    QCOMPARE(folder->names(), QStringList("UsbHal1.log"));
    // With a descriptor at hand the next open succeeds.
    QVERIFY(openLog());
    logNumbers(*log, 1, 1);
    QCOMPARE(folder->names(), QStringList({"UsbHal1.log.keep", "UsbHal2.log", "UsbHal3.log"}));
}

void LogStormsTest::aLogThatFindsNoDescriptorAtItsOpenGoesToTheConsole()
{
    ConsoleCapture console;
    {
        const DescriptorLimit limit;
        QVERIFY(!openLog());
        LogStorm storm(*log, 100);
        storm.join();
    }
    QCOMPARE(consoleLines(console), 100 * LogStorm::threadCount);
    QVERIFY(isUnlocked(*log));
    QCOMPARE(folder->names(), QStringList());
}

void LogStormsTest::aSlowDiskHoldsUpTheThreadsButLosesNothing()
{
    QVERIFY(openLog(linesEach));
    // A pipe is a disk that takes bytes as fast as it is read, and in the meantime none.
    QCOMPARE(::mkfifo(folder->file(2).toUtf8(), 0600), 0);
    const int pipe = ::open(folder->file(2).toUtf8(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    QVERIFY(pipe >= 0);
    logNumbers(*log, 1, linesEach);
    LogStorm storm(*log, linesEach / LogStorm::threadCount);
    const long memory = Campaign::residentMemory();
    QByteArray taken;
    int standstills = 0;
    while (storm.lines() < linesEach) {
        // The storm stands still, with a lock that one thread holds in its write.
        standstills += waitForStandstill(pipe, storm) ? 1 : 0;
        taken += readSome(pipe);
    }
    storm.join();
    for (QByteArray rest = readSome(pipe); !rest.isEmpty(); rest = readSome(pipe))
        taken += rest;
    ::close(pipe);
    QVERIFY(standstills > 0);
    StormLines lines;
    QStringList texts = QString::fromUtf8(taken).split('\n');
    texts.removeLast();
    QVERIFY2(lines.take(texts), qPrintable(lines.fault()));
    QCOMPARE(lines.whole(), qint64(linesEach));
    QVERIFY(lines.isGapless());
    QVERIFY(isUnlocked(*log));
    QVERIFY(Campaign::residentMemory() < memory + memorySlack);
    Campaign::printFigure("standstills of a slow log disk", standstills);
}

QTEST_GUILESS_MAIN(LogStormsTest)
#include "tst_log_storms.moc"
