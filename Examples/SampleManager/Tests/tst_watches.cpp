// SPDX-License-Identifier: MIT
#include "LogFolder.h"
#include "NodeWatch.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

namespace {

constexpr int patience = 20000; // ms, for anything that has to happen

bool makeFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly);
}

// For root there is no file that may not be used.
class WithoutPrivileges
{
public:
    WithoutPrivileges() : _former(::geteuid())
    {
        if (_former == 0 && ::setresuid(nobody, nobody, 0) != 0)
            qFatal("root cannot become somebody else");
    }
    ~WithoutPrivileges()
    {
        if (_former == 0 && ::setresuid(0, 0, 0) != 0)
            qFatal("the former user cannot come back");
    }
    Q_DISABLE_COPY(WithoutPrivileges)

private:
    static constexpr uid_t nobody = 65534;
    uid_t _former;
};

} // namespace

// What the manager watches beside the library: its node and the folder of its log.
class WatchesTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { _folder.reset(); }

    void aNodeThatIsMissingHasTheSystemsReason();
    void inotifyTellsOfANodeThatComesAndGoes();
    void anotherNodeInItsPlaceIsNews();
    void otherFilesOfTheFolderAreNoNews();
    void aNodeThatMayNotBeUsedIsMissing();

    void aFolderIsMadeWithItsParents();
    void aFolderHasOneUserAtATime();
    void aFolderThatCannotBeMadeHasTheSystemsReason();
    void aFolderThatVanishedCannotBeWritten();

private:
    QString _path(const char *name) const { return _folder->filePath(name); }

    QScopedPointer<QTemporaryDir> _folder;
};

void WatchesTest::init()
{
    _folder.reset(new QTemporaryDir);
    QVERIFY(_folder->isValid());
}

void WatchesTest::aNodeThatIsMissingHasTheSystemsReason()
{
    const NodeWatch node(_path("node"));
    QVERIFY(!node.isPresent());
    QCOMPARE(node.whyMissing(), QString("No such file or directory"));
}

// Nobody calls look() here.
void WatchesTest::inotifyTellsOfANodeThatComesAndGoes()
{
    NodeWatch node(_path("node"));
    QSignalSpy appeared(&node, &NodeWatch::appeared);
    QSignalSpy vanished(&node, &NodeWatch::vanished);
    QVERIFY(makeFile(_path("node")));
    QVERIFY(appeared.wait(patience));
    QVERIFY(node.isPresent());
    QCOMPARE(vanished.count(), 0);
    QVERIFY(QFile::remove(_path("node")));
    QVERIFY(vanished.wait(patience));
    QVERIFY(!node.isPresent());
    QCOMPARE(appeared.count(), 1);
}

void WatchesTest::anotherNodeInItsPlaceIsNews()
{
    QVERIFY(makeFile(_path("node")));
    QVERIFY(makeFile(_path("other")));
    NodeWatch node(_path("node"));
    QSignalSpy appeared(&node, &NodeWatch::appeared);
    QSignalSpy vanished(&node, &NodeWatch::vanished);
    QCOMPARE(::rename(qPrintable(_path("other")), qPrintable(_path("node"))), 0);
    QVERIFY(appeared.wait(patience));
    QCOMPARE(vanished.count(), 1);
    QVERIFY(node.isPresent());
}

void WatchesTest::otherFilesOfTheFolderAreNoNews()
{
    QVERIFY(makeFile(_path("node")));
    NodeWatch node(_path("node"));
    QSignalSpy appeared(&node, &NodeWatch::appeared);
    QSignalSpy vanished(&node, &NodeWatch::vanished);
    QVERIFY(makeFile(_path("other")));
    node.look();
    QCOMPARE(appeared.count() + vanished.count(), 0);
}

void WatchesTest::aNodeThatMayNotBeUsedIsMissing()
{
    QVERIFY(QFile::setPermissions(_folder->path(), QFile::Permissions(0x7755)));
    QVERIFY(makeFile(_path("node")));
    QVERIFY(QFile::setPermissions(_path("node"), QFile::Permissions(0x4444)));
    NodeWatch node(_path("node"));
    {
        const WithoutPrivileges nobody;
        node.look();
    }
    QCOMPARE(node.whyMissing(), QString("Permission denied"));
    QVERIFY(QFile::setPermissions(_path("node"), QFile::Permissions(0x6666)));
    const WithoutPrivileges nobody;
    node.look();
    QCOMPARE(node.whyMissing(), QString());
}

void WatchesTest::aFolderIsMadeWithItsParents()
{
    LogFolder log(_path("a/b"));
    QCOMPARE(log.claim(), LogFolder::Claim::Done);
    QCOMPARE(log.whyNotWritable(), QString());
    QCOMPARE(QDir(_path("a/b")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList{"usbhal-sample-manager.lock"});
}

void WatchesTest::aFolderHasOneUserAtATime()
{
    auto first = std::make_unique<LogFolder>(_path("log"));
    QCOMPARE(first->claim(), LogFolder::Claim::Done);
    LogFolder second(_path("log"));
    QCOMPARE(second.claim(), LogFolder::Claim::TakenByAnother);
    QCOMPARE(second.error(), QString("process %1").arg(::getpid()));
    first.reset();
    LogFolder third(_path("log"));
    QCOMPARE(third.claim(), LogFolder::Claim::Done);
}

void WatchesTest::aFolderThatCannotBeMadeHasTheSystemsReason()
{
    QVERIFY(makeFile(_path("file")));
    LogFolder log(_path("file/log"));
    QCOMPARE(log.claim(), LogFolder::Claim::Failed);
    QCOMPARE(log.error(), QString("Not a directory"));
    QCOMPARE(log.whyNotWritable(), QString("Not a directory"));
}

void WatchesTest::aFolderThatVanishedCannotBeWritten()
{
    LogFolder log(_path("log"));
    QCOMPARE(log.claim(), LogFolder::Claim::Done);
    QVERIFY(QDir().rename(_path("log"), _path("moved")));
    QCOMPARE(log.whyNotWritable(), QString("No such file or directory"));
}

QTEST_GUILESS_MAIN(WatchesTest)
#include "tst_watches.moc"
