// SPDX-License-Identifier: MIT
#ifndef LOGSTORM_H
#define LOGSTORM_H

#include <Campaign.h>
#include <UsbHalLog.h>

#include <QHash>
#include <QStringList>

#include <array>
#include <atomic>
#include <limits>
#include <thread>
#include <vector>

/** What the resident memory may gain when nothing grows, kB. */
constexpr long memorySlack = Campaign::memoryLimit(4000);

/** Threads that log lines with rising numbers until they are told to stop. */
class LogStorm
{
public:
    static constexpr int threadCount = 8;

    /** Each thread logs that many lines at most. */
    explicit LogStorm(UsbHalLog &log, qint64 linesEach = std::numeric_limits<qint64>::max());
    ~LogStorm();
    Q_DISABLE_COPY(LogStorm)

    /** Lines that were logged up to now, of all threads. */
    qint64 lines() const;
    /** Waits until so many more lines have been logged; false when they do not come. */
    bool waitForLines(qint64 more, int msecs = 60000) const;
    /** Lets each thread end its line and end. */
    void stop();
    /** Waits for the end of threads that have a number of lines. */
    void join();
    /** The number of the last line of a thread. */
    qint64 last(int thread) const { return _numbers.at(static_cast<size_t>(thread)); }

private:
    void run(UsbHalLog &log, size_t thread, qint64 count);

    std::array<std::atomic<qint64>, threadCount> _numbers = {};
    std::atomic<bool> _stopping{false};
    std::vector<std::thread> _threads;
};

/** The numbered files in a folder, in the order of their numbers. */
QStringList stormFiles(const QString &folder);

/** Looks through the lines of a storm, file by file. */
class StormLines
{
public:
    /**
     * Takes the lines of a file or of the console. Each must be whole, but for those cut when the
     * disk was full, and each thread's numbers must rise.
     */
    bool take(const QStringList &lines);

    /** Whole lines of threads. */
    qint64 whole() const { return _whole; }
    /** Other lines that are in place: those of the logger itself. */
    qint64 others() const { return _others; }
    qint64 cut() const { return _cut; }
    /** The highest number of a thread. */
    qint64 last(int thread) const { return _last.value(thread); }
    /** Whether no number is missing between a thread's first line and its last. */
    bool isGapless() const { return _gapless; }
    QString fault() const { return _fault; }

private:
    bool takeNumber(int thread, qint64 number);

    QHash<int, qint64> _last;
    qint64 _whole = 0;
    qint64 _others = 0;
    qint64 _cut = 0;
    bool _gapless = true;
    QString _fault;
};

#endif
