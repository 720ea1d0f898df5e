// SPDX-License-Identifier: MIT
#include "LogFixture.h"

#include <ConsoleCapture.h>

#include <QtTest>

#include <algorithm>
#include <csignal>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

// Bytes of each write(2) that Qt makes for the logger, while it is watched.
std::vector<size_t> writeSizes;
bool watchWrites = false;

/** Keeps files from growing past a size, as a full disk does, for as long as it lives. */
class FileSizeLimit
{
public:
    explicit FileSizeLimit(qint64 bytes)
    {
        ::getrlimit(RLIMIT_FSIZE, &_former);
        rlimit limit = _former;
        limit.rlim_cur = static_cast<rlim_t>(bytes);
        _formerHandler = std::signal(SIGXFSZ, SIG_IGN);
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0)
            qFatal("the size of files cannot be limited");
    }
    ~FileSizeLimit()
    {
        ::setrlimit(RLIMIT_FSIZE, &_former);
        std::signal(SIGXFSZ, _formerHandler);
    }
    Q_DISABLE_COPY(FileSizeLimit)

private:
    rlimit _former = {};
    void (*_formerHandler)(int) = SIG_DFL;
};

void logLines(UsbHalLog &log, int count, const QString &text)
{
    for (int i = 0; i < count; ++i)
        log.log(QStringLiteral("a"), 1, text);
}

} // namespace

// Stands before the C library's function for every library in this process.
extern "C" Q_DECL_EXPORT ssize_t write(int fd, const void *data, size_t size)
{
    if (watchWrites)
        writeSizes.push_back(size);
    return ::syscall(SYS_write, fd, data, size);
}

/** What the logger asks of the disk, and what it does without room. */
class LogFaultsTest : public LogFixture
{
    Q_OBJECT

private slots:
    void cleanup() { watchWrites = false; }
    void aLineIsOneWrite();
    void aLongLineIsOneWrite();
    void aFullDiskLosesLinesAndLaterOnesFlow();
    void aLineThatWasCutIsNotContinued();
    void aLineThatLostItsEndAloneIsNotContinued();
    void aFullDiskLeavesTheLogInUse();
    void lostLinesCountForTheRotation();
    void lostLinesTakeNoMemory();
    void aFullDiskDoesNotSilenceTheConsole();
};

void LogFaultsTest::aLineIsOneWrite()
{
    QVERIFY(openLog());
    writeSizes.clear();
    watchWrites = true;
    logLines(*log, 20, QStringLiteral("text"));
    watchWrites = false;
    QCOMPARE(writeSizes.size(), size_t(20));
    const QStringList lines = folder->lines(1);
    QCOMPARE(lines.size(), 20);
    for (int i = 0; i < 20; ++i)
        QCOMPARE(writeSizes.at(static_cast<size_t>(i)), size_t(lines.at(i).toUtf8().size()) + 1);
}

void LogFaultsTest::aLongLineIsOneWrite()
{
    QVERIFY(openLog());
    writeSizes.clear();
    watchWrites = true;
    logLines(*log, 1, QString(100000, 'x'));
    watchWrites = false;
    QCOMPARE(writeSizes.size(), size_t(1));
    QCOMPARE(writeSizes.front(), size_t(folder->content("UsbHal1.log").size()));
    QCOMPARE(folder->messages(1), QStringList(QString(100000, 'x')));
}

void LogFaultsTest::aFullDiskLosesLinesAndLaterOnesFlow()
{
    QVERIFY(openLog());
    logLines(*log, 10, QStringLiteral("early"));
    const qint64 size = folder->content("UsbHal1.log").size();
    {
        const FileSizeLimit limit(size);
        logLines(*log, 100, QStringLiteral("lost"));
        QCOMPARE(qint64(folder->content("UsbHal1.log").size()), size);
    }
    logLines(*log, 2, QStringLiteral("late"));
    QStringList expected;
    for (int i = 0; i < 12; ++i)
        expected.append(i < 10 ? QStringLiteral("early") : QStringLiteral("late"));
    QCOMPARE(folder->messages(1), expected);
}

void LogFaultsTest::aLineThatWasCutIsNotContinued()
{
    QVERIFY(openLog());
    logLines(*log, 1, QStringLiteral("early"));
    const int size = folder->content("UsbHal1.log").size();
    {
        const FileSizeLimit limit(size + 10);
        logLines(*log, 3, QStringLiteral("lost"));
        QCOMPARE(folder->content("UsbHal1.log").size(), size + 10);
    }
    logLines(*log, 2, QStringLiteral("late"));
    const QStringList messages = folder->messages(1);
    QCOMPARE(messages.size(), 4);
    QCOMPARE(messages.first(), QStringLiteral("early"));
    QCOMPARE(messages.at(1).size(), 10);
    QCOMPARE(messages.mid(2), QStringList({"late", "late"}));
}

void LogFaultsTest::aLineThatLostItsEndAloneIsNotContinued()
{
    QVERIFY(openLog());
    logLines(*log, 1, QStringLiteral("early"));
    const int size = folder->content("UsbHal1.log").size();
    {
        const FileSizeLimit limit(size + 10);
        logLines(*log, 1, QStringLiteral("first"));
    }
    {
        // Room for the end of the line before and for all of the line but its own end.
        const FileSizeLimit limit(size + 10 + size);
        logLines(*log, 1, QStringLiteral("other"));
        QCOMPARE(folder->content("UsbHal1.log").size(), size + 10 + size);
    }
    logLines(*log, 1, QStringLiteral("late"));
    const QStringList messages = folder->messages(1);
    QCOMPARE(messages.size(), 4);
    QCOMPARE(messages.mid(2), QStringList({"other", "late"}));
}

void LogFaultsTest::aFullDiskLeavesTheLogInUse()
{
    QVERIFY(openLog());
    const FileSizeLimit limit(0);
    logLines(*log, 3, QStringLiteral("lost"));
    QVERIFY(log->isLogCreated());
    QCOMPARE(folder->content("UsbHal1.log"), QByteArray());
}

void LogFaultsTest::lostLinesCountForTheRotation()
{
    QVERIFY(openLog(5));
    {
        const FileSizeLimit limit(0);
        logLines(*log, 5, QStringLiteral("lost"));
    }
    logLines(*log, 1, QStringLiteral("late"));
    QCOMPARE(folder->content("UsbHal1.log"), QByteArray());
    QCOMPARE(folder->messages(2), QStringList("late"));
}

void LogFaultsTest::lostLinesTakeNoMemory()
{
    QVERIFY(openLog());
    writeSizes.clear();
    {
        const FileSizeLimit limit(0);
        logLines(*log, 50, QStringLiteral("lost"));
        watchWrites = true;
        logLines(*log, 50, QStringLiteral("lost"));
        watchWrites = false;
    }
    // A line that was refused would show in the size of a later write.
    QCOMPARE(writeSizes.size(), size_t(50));
    const auto [least, most] = std::minmax_element(writeSizes.begin(), writeSizes.end());
    QCOMPARE(*least, *most);
    QVERIFY(*most < 200);
}

void LogFaultsTest::aFullDiskDoesNotSilenceTheConsole()
{
    ConsoleCapture console;
    {
        const FileSizeLimit limit(0);
        logLines(*log, 3, QStringLiteral("lost"));
    }
    logLines(*log, 1, QStringLiteral("late"));
    const QByteArray text = console.finish();
    QVERIFY2(text.endsWith("USBHAL] a - late\n"), text.constData());
}

QTEST_GUILESS_MAIN(LogFaultsTest)
#include "tst_logfaults.moc"
