// SPDX-License-Identifier: MIT
#include "Disks.h"
#include "LogFixture.h"
#include "LogStorm.h"

#include <Background.h>
#include <Campaign.h>
#include <ConsoleCapture.h>

#include <QDir>
#include <QtTest>

namespace {

constexpr int linesEach = 2000;
constexpr int linesPerFile = 500;
// Room for two files and a file half written.
constexpr int diskSize = 256; // kB
constexpr int diskInodes = 100;

bool mayMount = false;

QStringList linesOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList lines = QString::fromUtf8(file.readAll()).split('\n');
    if (lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

/** Whether every file in a folder holds whole lines in order, but for those that were cut. */
bool areFilesInOrder(const QString &folder)
{
    const QStringList names = stormFiles(folder);
    for (const QString &name : names) {
        StormLines lines;
        if (!lines.take(linesOf(folder + '/' + name))) {
            qWarning("%s: %s", qPrintable(name), qPrintable(lines.fault()));
            return false;
        }
    }
    return true;
}

bool openLog(UsbHalLog &log, const QString &folder)
{
    ParamHal param;
    param.maxLogLines = linesPerFile;
    log.setupConfig(param);
    return log.open(folder, logName);
}

} // namespace

/** A log on disks that run out of room, of files, or of the permission to write. */
class LogDisksTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void cleanupTestCase();
    void aFullDiskTakesLinesAgainWhenThereIsRoom();
    void aDiskWithoutRoomForAFileStopsTheLog();
    void aLogThatBeginsOnAFullDiskFlowsWhenThereIsRoom();
    void aFolderThatTurnsReadOnlyStopsTheLogAtTheNextFile();
    void aReadOnlyFolderLeavesTheLogOnTheConsole();

private:
    int _casesRun = 0;
    int _casesSkipped = 0;
};

void LogDisksTest::init()
{
    if (mayMount)
        return;
    QVERIFY2(!qEnvironmentVariableIsSet("CI"), "no mounts here, and CI is to run these for real");
    ++_casesSkipped;
    // QSKIP itself, whose empty variadic argument clang++ warns of.
    QTest::qSkip("the system permits this process no mounts of its own", __FILE__, __LINE__);
}

void LogDisksTest::cleanup()
{
    if (mayMount && !QTest::currentTestFailed())
        ++_casesRun;
}

void LogDisksTest::cleanupTestCase()
{
    Campaign::printFigure("log disk cases passed", _casesRun);
    Campaign::printFigure("log disk cases skipped", _casesSkipped);
}

void LogDisksTest::aFullDiskTakesLinesAgainWhenThereIsRoom()
{
    Disks::SmallDisk disk(diskSize, diskInodes);
    UsbHalLog log;
    QVERIFY(openLog(log, disk.path()));
    const auto cycles = static_cast<int>(Campaign::scaled(1000));
    long memory = 0;
    LogStorm storm(log);
    for (int cycle = 0; cycle < cycles; ++cycle) {
        // For some files, or within one, which then has a line that was cut.
        const int lines = cycle % 2 == 0 ? 2 * linesPerFile : linesPerFile / 20;
        disk.fill();
        QVERIFY(storm.waitForLines(lines));
        disk.clear();
        QVERIFY(storm.waitForLines(lines));
        const QMutexLocker locker(log.getLogMutex());
        QVERIFY(stormFiles(disk.path()).size() <= 2);
        QVERIFY(areFilesInOrder(disk.path()));
        if (cycle == cycles / 10)
            memory = Campaign::residentMemory();
    }
    Campaign::printFigure("times a log disk was full and had room again", cycles);
    Campaign::printFigure("log lines over a disk full now and then", storm.lines());
    storm.stop();
    QVERIFY(log.isLogCreated());
    // What was logged last, with room again, is there.
    logNumbers(log, 1, 1);
    QVERIFY(linesOf(disk.path() + '/' + stormFiles(disk.path()).last()).last().endsWith("] 1"));
    Campaign::printFigure("log on full disk, resident memory after a tenth, kB", memory);
    Campaign::printFigure("log on full disk, resident memory at the end, kB",
                          Campaign::residentMemory());
    QVERIFY(Campaign::residentMemory() < memory + memorySlack);
}

void LogDisksTest::aDiskWithoutRoomForAFileStopsTheLog()
{
    Disks::SmallDisk disk(10000, diskInodes);
    UsbHalLog log;
    QVERIFY(openLog(log, disk.path()));
    disk.fillInodes();
    ConsoleCapture console;
    LogStorm storm(log, linesEach);
    storm.join();
    const int shown = console.finish().count('\n');
    QVERIFY(!log.isLogCreated());
    QCOMPARE(stormFiles(disk.path()), QStringList("UsbHal1.log"));
    StormLines lines;
    QVERIFY2(lines.take(linesOf(disk.path() + "/UsbHal1.log")), qPrintable(lines.fault()));
    QCOMPARE(lines.whole(), qint64(linesPerFile));
    QCOMPARE(lines.others(), qint64(1));
    QCOMPARE(linesPerFile + 1 + shown, linesEach * LogStorm::threadCount);
    disk.clearInodes();
    QVERIFY(log.open(disk.path(), logName));
    QVERIFY(log.isLogCreated());
}

void LogDisksTest::aLogThatBeginsOnAFullDiskFlowsWhenThereIsRoom()
{
    Disks::SmallDisk disk(diskSize, diskInodes);
    disk.fill();
    UsbHalLog log;
    QVERIFY(openLog(log, disk.path()));
    LogStorm storm(log);
    QVERIFY(storm.waitForLines(2 * linesPerFile));
    disk.clear();
    QVERIFY(storm.waitForLines(2 * linesPerFile));
    storm.stop();
    QVERIFY(areFilesInOrder(disk.path()));
    StormLines lines;
    QVERIFY(lines.take(linesOf(disk.path() + '/' + stormFiles(disk.path()).last())));
    QVERIFY(lines.whole() > 0);
}

void LogDisksTest::aFolderThatTurnsReadOnlyStopsTheLogAtTheNextFile()
{
    Disks::SmallDisk disk(10000, diskInodes);
    UsbHalLog log;
    QVERIFY(openLog(log, disk.path()));
    ConsoleCapture console;
    LogStorm storm(log);
    QVERIFY(storm.waitForLines(linesPerFile + linesPerFile / 2));
    int written = 0;
    {
        // A file that a rotation opened meanwhile would keep the folder writable.
        QMutexLocker locker(log.getLogMutex());
        const Disks::ReadOnlyFolder readOnly(disk.path());
        locker.unlock();
        QVERIFY(QTest::qWaitFor([&log] { return !log.isLogCreated(); }, 60000));
        storm.stop();
        const int file = stormFiles(disk.path()).last().mid(6).chopped(4).toInt();
        written = file * linesPerFile;
        QVERIFY(areFilesInOrder(disk.path()));
        QVERIFY(!log.open(disk.path(), logName));
    }
    QCOMPARE(qint64(written + 1 + console.finish().count('\n')), storm.lines());
    QVERIFY(log.open(disk.path(), logName));
}

void LogDisksTest::aReadOnlyFolderLeavesTheLogOnTheConsole()
{
    const Disks::SmallDisk disk(diskSize, diskInodes);
    QFile former(disk.path() + "/UsbHal1.log");
    QVERIFY(former.open(QIODevice::WriteOnly));
    former.close();
    const Disks::ReadOnlyFolder readOnly(disk.path());
    UsbHalLog log;
    QVERIFY(!openLog(log, disk.path()));
    ConsoleCapture console;
    LogStorm storm(log, 100);
    storm.join();
    QCOMPARE(console.finish().count('\n'), 100 * LogStorm::threadCount);
    QVERIFY(!log.isLogCreated());
    QCOMPARE(QDir(disk.path()).entryList(QDir::Files), QStringList("UsbHal1.log"));
}

int main(int argc, char *argv[])
{
    mayMount = Disks::enterOwnSpace();
    const QCoreApplication application(argc, argv);
    LogDisksTest test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_log_disks.moc"
