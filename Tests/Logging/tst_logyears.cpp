// SPDX-License-Identifier: MIT
#include "LogFixture.h"

#include <QtTest>

#include <ctime>

namespace {

constexpr qint64 shownSecond = 2215600496; // 2040-03-17 12:34:56 UTC

// What the library's clock fills, whatever the width of a word.
struct LongTime
{
    qint64 seconds;
    qint64 nanoseconds;
};

using Clock = int (*)(clockid_t, LongTime *);

int showLateYear(Clock realClock, clockid_t clock, LongTime *time)
{
    if (clock != CLOCK_REALTIME)
        return realClock(clock, time);
    *time = {shownSecond, 789000000};
    return 0;
}

} // namespace

extern "C" {
#if __TIMESIZE == 32
int __real___clock_gettime64(clockid_t clock, LongTime *time);
int __wrap___clock_gettime64(clockid_t clock, LongTime *time);
int __wrap___clock_gettime64(clockid_t clock, LongTime *time)
{
    return showLateYear(__real___clock_gettime64, clock, time);
}
#else
int __real_clock_gettime(clockid_t clock, LongTime *time);
int __wrap_clock_gettime(clockid_t clock, LongTime *time);
int __wrap_clock_gettime(clockid_t clock, LongTime *time)
{
    return showLateYear(__real_clock_gettime, clock, time);
}
#endif
}

/** What the log shows after 2038, when a time of 32 bits has ended. */
class LogYearsTest : public LogFixture
{
    Q_OBJECT

private slots:
    void aLineOfTheYear2040BearsItsDate();
};

void LogYearsTest::aLineOfTheYear2040BearsItsDate()
{
    qputenv("TZ", "UTC");
    QVERIFY(openLog());
    logNumbers(*log, 1, 1);
    const QString line = folder->lines(1).value(0);
    QVERIFY2(line.startsWith("17-03-2040 12:34:56:789 ["), qPrintable(line));
}

QTEST_GUILESS_MAIN(LogYearsTest)
#include "tst_logyears.moc"
