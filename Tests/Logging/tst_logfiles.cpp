// SPDX-License-Identifier: MIT
#include "LogFixture.h"

#include <Background.h>
#include <ConsoleCapture.h>

#include <QDateTime>
#include <QDir>
#include <QRegularExpression>
#include <QThread>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>

namespace {

int qtMessages = 0;

void countQtMessage(QtMsgType, const QMessageLogContext &, const QString &)
{
    ++qtMessages;
}

unsigned kindOf(const QString &path)
{
    struct stat entry = {};
    return lstat(qPrintable(path), &entry) == 0 ? entry.st_mode & S_IFMT : 0;
}

qint32 reducedThreadId()
{
    return static_cast<qint32>(reinterpret_cast<quintptr>(QThread::currentThreadId()));
}

// To the nearest half hour, of the line that it logs.
double hoursAheadOfUtc(UsbHalLog &log, const LogFolder &folder)
{
    log.log(QStringLiteral("a"), 1, QStringLiteral("text"));
    const QString text = folder.lines(1).last().section(" [THREAD", 0, 0);
    QDateTime date = QDateTime::fromString(text, "dd-MM-yyyy hh:mm:ss:zzz");
    date.setTimeSpec(Qt::UTC);
    return std::round(static_cast<double>(QDateTime::currentDateTimeUtc().secsTo(date)) / 1800) / 2;
}

} // namespace

/** Opening log files, keeping those of the run before, and the form of a line. */
class LogFilesTest : public LogFixture
{
    Q_OBJECT

private slots:
    void aLineIsDateThreadFunctionNumberAndMessage();
    void aLineCarriesTheDateOfTheCall();
    void theDateFollowsTheTimeZoneWithinASecond();
    void aLineNamesTheThreadThatLogs();
    void aLineIsInUtf8();
    void aLineIsInTheFileWhenLogReturns();
    void theFirstFileHasNumberOne();
    void theBaseNameIsTheOneGiven();
    void theFolderIsTakenInAnySpelling_data();
    void theFolderIsTakenInAnySpelling();
    void missingFoldersAreCreatedWithTheirParents();
    void aFolderThatCannotBeCreatedIsReplacedByTheWorkingFolder();
    void filesOfTheRunBeforeAreKept();
    void filesKeptBeforeAreRemoved();
    void filesOfOthersStay();
    void whatIsNoFileOrLeadsNowhereStays();
    void aKeptFileThatCannotBeRemovedIsIgnored();
    void aFileThatCannotBeKeptIsIgnored();
    void aFileInTheWayIsTruncated();
    void aFailedOpenLeavesTheStateOfBefore();
    void aSecondOpenGoesOnWithNumberAndCount();
    void aSecondOpenClosesTheFileOfTheFirst();
    void aSecondOpenMayMoveToAnotherFolder();
    void theFileIsClosedWithTheLogger();
    void theInstanceIsAlwaysTheSame();
    void theMutexMayBeTakenTwiceByOneThread();
    void aLineWaitsForTheMutex();
    void theStateIsReadUnderTheMutex();
};

void LogFilesTest::aLineIsDateThreadFunctionNumberAndMessage()
{
    QVERIFY(openLog());
    log->log(QStringLiteral("_openDrvInstance"), 74,
             QStringLiteral("/dev/brn7200 successfully opened"));
    const QStringList lines = folder->lines(1);
    QCOMPARE(lines.size(), 1);
    const QRegularExpression form(
        "^\\d\\d-\\d\\d-\\d{4} \\d\\d:\\d\\d:\\d\\d:\\d{3} \\[THREAD -?\\d+\\] "
        "\\[_openDrvInstance:74\\] /dev/brn7200 successfully opened$");
    QVERIFY2(form.match(lines.first()).hasMatch(), qPrintable(lines.first()));
}

void LogFilesTest::aLineCarriesTheDateOfTheCall()
{
    QVERIFY(openLog());
    const QDateTime before = QDateTime::currentDateTime();
    log->log(QStringLiteral("a"), 1, QStringLiteral("text"));
    const QDateTime after = QDateTime::currentDateTime();
    const QString text = folder->lines(1).value(0).section(" [THREAD", 0, 0);
    const QDateTime date = QDateTime::fromString(text, "dd-MM-yyyy hh:mm:ss:zzz");
    QVERIFY2(date.isValid(), qPrintable(text));
    QVERIFY(date >= before && date <= after);
}

void LogFilesTest::theDateFollowsTheTimeZoneWithinASecond()
{
    QVERIFY(openLog());
    const QByteArray formerZone = qgetenv("TZ");
    const bool wasSet = qEnvironmentVariableIsSet("TZ");
    qputenv("TZ", "AAA-5:30");
    QVERIFY(QTest::qWaitFor([&] { return hoursAheadOfUtc(*log, *folder) == 5.5; }, 3000));
    qputenv("TZ", "BBB+3");
    QVERIFY(QTest::qWaitFor([&] { return hoursAheadOfUtc(*log, *folder) == -3; }, 3000));
    if (wasSet)
        qputenv("TZ", formerZone);
    else
        qunsetenv("TZ");
}

void LogFilesTest::aLineNamesTheThreadThatLogs()
{
    QVERIFY(openLog());
    log->log(QStringLiteral("a"), 1, QStringLiteral("main"));
    const qint32 otherId = inBackground([&] {
                               log->log(QStringLiteral("a"), 1, QStringLiteral("other"));
                               return reducedThreadId();
                           }).get();
    QVERIFY(otherId != reducedThreadId());
    const QStringList lines = folder->lines(1);
    QCOMPARE(lines.size(), 2);
    const QString tag = QStringLiteral(" [THREAD %1] [a:1] ");
    QVERIFY2(lines.at(0).endsWith(tag.arg(reducedThreadId()) + "main"), qPrintable(lines.at(0)));
    QVERIFY2(lines.at(1).endsWith(tag.arg(otherId) + "other"), qPrintable(lines.at(1)));
}

void LogFilesTest::aLineIsInUtf8()
{
    QVERIFY(openLog());
    log->log(QString::fromUtf8("fünc"), 4294967295U, QString::fromUtf8("größe €"));
    QVERIFY(folder->content("UsbHal1.log").endsWith("] [fünc:4294967295] größe €\n"));
}

void LogFilesTest::aLineIsInTheFileWhenLogReturns()
{
    QVERIFY(openLog());
    QStringList expected;
    for (int i = 0; i < 50; ++i) {
        expected.append(QString::number(i));
        log->log(QStringLiteral("a"), 1, expected.last());
        QCOMPARE(folder->messages(1), expected);
    }
}

void LogFilesTest::theFirstFileHasNumberOne()
{
    QVERIFY(openLog());
    QVERIFY(log->isLogCreated());
    QCOMPARE(folder->names(), QStringList("UsbHal1.log"));
    QCOMPARE(folder->content("UsbHal1.log"), QByteArray());
}

void LogFilesTest::theBaseNameIsTheOneGiven()
{
    QVERIFY(folder->write("Trace4.log", "before"));
    QVERIFY(log->open(folder->path(), QStringLiteral("Trace")));
    QCOMPARE(folder->names(), QStringList({"Trace1.log", "Trace4.log.keep"}));
}

void LogFilesTest::theFolderIsTakenInAnySpelling_data()
{
    QTest::addColumn<QString>("spelling");
    QTest::addColumn<QString>("file");
    QTest::newRow("no end") << "logs"
                            << "logs/UsbHal1.log";
    QTest::newRow("a slash at its end") << "logs/"
                                        << "logs/UsbHal1.log";
    QTest::newRow("a backslash at its end") << "logs\\"
                                            << "logs/UsbHal1.log";
    QTest::newRow("backslashes") << "C:\\logs\\x"
                                 << "C:/logs/x/UsbHal1.log";
    QTest::newRow("both") << "one\\two/three"
                          << "one/two/three/UsbHal1.log";
    QTest::newRow("the working folder") << "."
                                        << "UsbHal1.log";
    QTest::newRow("empty") << ""
                           << "UsbHal1.log";
}

void LogFilesTest::theFolderIsTakenInAnySpelling()
{
    QFETCH(QString, spelling);
    QFETCH(QString, file);
    const WorkingDirectory directory(folder->path());
    QVERIFY(log->open(spelling, logName));
    log->log(QStringLiteral("a"), 1, QStringLiteral("text"));
    QCOMPARE(folder->messages(file), QStringList("text"));
}

void LogFilesTest::missingFoldersAreCreatedWithTheirParents()
{
    QVERIFY(log->open(folder->file("one/two/three"), logName));
    QVERIFY(QFile::exists(folder->file("one/two/three/UsbHal1.log")));
}

void LogFilesTest::aFolderThatCannotBeCreatedIsReplacedByTheWorkingFolder()
{
    const LogFolder working;
    const WorkingDirectory directory(working.path());
    QVERIFY(folder->write("file", "not a folder"));
    QVERIFY(working.write("UsbHal3.log", "before"));
    ConsoleCapture console;
    const bool opened = log->open(folder->file("file/logs"), logName);
    log->log(QStringLiteral("a"), 1, QStringLiteral("text"));
    QCOMPARE(console.finish(), QByteArray());
    QVERIFY(opened);
    QCOMPARE(working.names(), QStringList({"UsbHal1.log", "UsbHal3.log.keep"}));
    QCOMPARE(working.messages(1), QStringList("text"));
    QCOMPARE(folder->content("file"), QByteArray("not a folder"));
}

void LogFilesTest::filesOfTheRunBeforeAreKept()
{
    QVERIFY(folder->write("UsbHal1.log", "first"));
    QVERIFY(folder->write("UsbHal2.log", "second"));
    QVERIFY(folder->write("UsbHal30000.log", "last"));
    QVERIFY(openLog());
    QCOMPARE(folder->names(), QStringList({"UsbHal1.log", "UsbHal1.log.keep", "UsbHal2.log.keep",
                                           "UsbHal30000.log.keep"}));
    QCOMPARE(folder->content("UsbHal1.log"), QByteArray());
    QCOMPARE(folder->content("UsbHal1.log.keep"), QByteArray("first"));
    QCOMPARE(folder->content("UsbHal2.log.keep"), QByteArray("second"));
    QCOMPARE(folder->content("UsbHal30000.log.keep"), QByteArray("last"));
}

void LogFilesTest::filesKeptBeforeAreRemoved()
{
    QVERIFY(folder->write("UsbHal1.log", "new"));
    QVERIFY(folder->write("UsbHal1.log.keep", "old"));
    QVERIFY(folder->write("UsbHal7.log.keep", "old"));
    QVERIFY(openLog());
    QCOMPARE(folder->names(), QStringList({"UsbHal1.log", "UsbHal1.log.keep"}));
    QCOMPARE(folder->content("UsbHal1.log.keep"), QByteArray("new"));
}

void LogFilesTest::filesOfOthersStay()
{
    const QStringList others = {"Other1.log", "Other1.log.keep", "UsbHal1.txt", "UsbHal1.log.old",
                                "notes"};
    for (const QString &name : others)
        QVERIFY(folder->write(name, name.toUtf8()));
    QVERIFY(openLog());
    for (const QString &name : others)
        QCOMPARE(folder->content(name), name.toUtf8());
    QCOMPARE(folder->names().size(), others.size() + 1);
}

void LogFilesTest::whatIsNoFileOrLeadsNowhereStays()
{
    const QStringList names = {"UsbHal7.log", "UsbHal8.log.keep"};
    for (const QString &name : names) {
        QCOMPARE(mkfifo(qPrintable(folder->file("usbhal" + name)), 0600), 0);
        QCOMPARE(symlink("nowhere", qPrintable(folder->file(name))), 0);
    }
    QVERIFY(openLog());
    for (const QString &name : names) {
        QCOMPARE(kindOf(folder->file("usbhal" + name)), unsigned(S_IFIFO));
        QCOMPARE(kindOf(folder->file(name)), unsigned(S_IFLNK));
    }
}

void LogFilesTest::aKeptFileThatCannotBeRemovedIsIgnored()
{
    QVERIFY(folder->obstruct("UsbHal5.log.keep"));
    QVERIFY(folder->write("UsbHal6.log.keep", "old"));
    ConsoleCapture console;
    const bool opened = openLog();
    QCOMPARE(console.finish(), QByteArray());
    QVERIFY(opened);
    QCOMPARE(folder->names(), QStringList({"UsbHal1.log", "UsbHal5.log.keep"}));
    QCOMPARE(folder->content("UsbHal1.log"), QByteArray());
}

void LogFilesTest::aFileThatCannotBeKeptIsIgnored()
{
    QVERIFY(folder->obstruct("UsbHal5.log.keep"));
    QVERIFY(folder->write("UsbHal5.log", "before"));
    QVERIFY(folder->write("UsbHal6.log", "before"));
    ConsoleCapture console;
    const bool opened = openLog();
    QCOMPARE(console.finish(), QByteArray());
    QVERIFY(opened);
    QCOMPARE(folder->names(),
             QStringList({"UsbHal1.log", "UsbHal5.log", "UsbHal5.log.keep", "UsbHal6.log.keep"}));
    QCOMPARE(folder->content("UsbHal5.log"), QByteArray("before"));
}

void LogFilesTest::aFileInTheWayIsTruncated()
{
    QVERIFY(folder->obstruct("UsbHal1.log.keep"));
    QVERIFY(folder->write("UsbHal1.log", "of the run before\n"));
    QVERIFY(openLog());
    log->log(QStringLiteral("a"), 1, QStringLiteral("text"));
    QCOMPARE(folder->messages(1), QStringList("text"));
}

void LogFilesTest::aFailedOpenLeavesTheStateOfBefore()
{
    const LogFolder good;
    const LogFolder bad;
    QVERIFY(bad.obstruct("UsbHal1.log"));
    QVERIFY(bad.obstruct("UsbHal1.log.keep"));
    QVERIFY(!log->open(bad.path(), logName));
    QVERIFY(!log->isLogCreated());
    QVERIFY(log->open(good.path(), logName));
    log->log(QStringLiteral("a"), 1, QStringLiteral("good"));
    QVERIFY(log->open(bad.path(), logName));
    QVERIFY(log->isLogCreated());
    log->log(QStringLiteral("a"), 1, QStringLiteral("nowhere"));
    QVERIFY(log->open(good.path(), logName));
    log->log(QStringLiteral("a"), 1, QStringLiteral("good again"));
    QCOMPARE(good.messages("UsbHal1.log.keep"), QStringList("good"));
    QCOMPARE(good.messages(1), QStringList("good again"));
}

void LogFilesTest::aSecondOpenGoesOnWithNumberAndCount()
{
    QVERIFY(openLog(3));
    for (int i = 1; i <= 5; ++i)
        log->log(QStringLiteral("a"), 1, QString::number(i));
    QCOMPARE(folder->messages(2), QStringList({"4", "5"}));

    QVERIFY(openLog());
    QCOMPARE(folder->names(), QStringList({"UsbHal1.log.keep", "UsbHal2.log", "UsbHal2.log.keep"}));
    log->log(QStringLiteral("a"), 1, QStringLiteral("6"));
    log->log(QStringLiteral("a"), 1, QStringLiteral("7"));
    QCOMPARE(folder->messages("UsbHal2.log.keep"), QStringList({"4", "5"}));
    QCOMPARE(folder->messages(2), QStringList("6"));
    QCOMPARE(folder->messages(3),
             QStringList({"7", "failed to remove log file: " + folder->file(1)}));
}

void LogFilesTest::aSecondOpenClosesTheFileOfTheFirst()
{
    QVERIFY(openLog());
    log->log(QStringLiteral("a"), 1, QStringLiteral("first"));
    QCOMPARE(folder->openDescriptors(), 1);
    qtMessages = 0;
    const QtMessageHandler former = qInstallMessageHandler(countQtMessage);
    const bool opened = openLog();
    qInstallMessageHandler(former);
    QVERIFY(opened);
    // Qt warns of a file that gets a new name while it is open.
    QCOMPARE(qtMessages, 0);
    QCOMPARE(folder->openDescriptors(), 1);
    log->log(QStringLiteral("a"), 1, QStringLiteral("second"));
    QCOMPARE(folder->messages("UsbHal1.log.keep"), QStringList("first"));
    QCOMPARE(folder->messages(1), QStringList("second"));
}

void LogFilesTest::aSecondOpenMayMoveToAnotherFolder()
{
    const LogFolder second;
    QVERIFY(openLog());
    log->log(QStringLiteral("a"), 1, QStringLiteral("first"));
    QVERIFY(log->open(second.path(), QStringLiteral("Trace")));
    log->log(QStringLiteral("a"), 1, QStringLiteral("second"));
    QCOMPARE(folder->names(), QStringList("UsbHal1.log"));
    QCOMPARE(folder->messages(1), QStringList("first"));
    QCOMPARE(second.messages("Trace1.log"), QStringList("second"));
}

void LogFilesTest::theFileIsClosedWithTheLogger()
{
    QVERIFY(openLog());
    QCOMPARE(folder->openDescriptors(), 1);
    log.reset();
    QCOMPARE(folder->openDescriptors(), 0);
}

void LogFilesTest::theInstanceIsAlwaysTheSame()
{
    UsbHalLog *instance = UsbHalLog::getInstance();
    QVERIFY(instance != nullptr);
    QCOMPARE(UsbHalLog::getInstance(), instance);
    const QMetaObject *meta = instance->metaObject();
    QCOMPARE(meta->className(), "UsbHalLog");
    QCOMPARE(meta->methodCount(), QObject::staticMetaObject.methodCount());
    QCOMPARE(meta->propertyCount(), QObject::staticMetaObject.propertyCount());
}

void LogFilesTest::theMutexMayBeTakenTwiceByOneThread()
{
    QVERIFY(openLog());
    QMutex *mutex = log->getLogMutex();
    QVERIFY(mutex->isRecursive());
    mutex->lock();
    log->log(QStringLiteral("a"), 1, QStringLiteral("by the holder"));
    mutex->unlock();
    QCOMPARE(folder->messages(1), QStringList("by the holder"));
}

void LogFilesTest::aLineWaitsForTheMutex()
{
    QVERIFY(openLog());
    log->getLogMutex()->lock();
    const auto line =
        inBackground([&] { log->log(QStringLiteral("a"), 1, QStringLiteral("late")); });
    const bool endedEarly = endsWithin(line, 100);
    const QByteArray early = folder->content("UsbHal1.log");
    log->getLogMutex()->unlock();
    QVERIFY(endsWithin(line, 5000));
    QVERIFY(!endedEarly);
    QCOMPARE(early, QByteArray());
    QCOMPARE(folder->messages(1), QStringList("late"));
}

void LogFilesTest::theStateIsReadUnderTheMutex()
{
    QVERIFY(openLog());
    log->getLogMutex()->lock();
    auto created = inBackground([&] { return log->isLogCreated(); });
    const bool endedEarly = endsWithin(created, 100);
    log->getLogMutex()->unlock();
    QVERIFY(endsWithin(created, 5000));
    QVERIFY(!endedEarly);
    QVERIFY(created.get());
}

QTEST_GUILESS_MAIN(LogFilesTest)
#include "tst_logfiles.moc"
