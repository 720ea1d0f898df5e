// SPDX-License-Identifier: MIT
#include "FileService.h"
#include "Service.h"

#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <sys/resource.h>

namespace {

constexpr qint64 largestFile = 1000000;

// Keeps files from growing past a size, as a full disk does, for as long as it lives.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes) : _formerHandler(std::signal(SIGXFSZ, SIG_IGN))
    {
        ::getrlimit(RLIMIT_FSIZE, &_former);
        rlimit limit = _former;
        limit.rlim_cur = bytes;
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
    void (*_formerHandler)(int);
};

// Takes all bytes that a service has to send, in pieces of at most limit.
QByteArray takeAll(Service &service, int limit = 1000)
{
    QByteArray all;
    for (QByteArray piece; !(piece = service.nextBytes(limit)).isEmpty();) {
        all += piece;
        service.bytesSent(piece.size());
    }
    return all;
}

void writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), qint64(content.size()));
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("unreadable");
}

} // namespace

class ServicesTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { _folder.reset(); }

    void echoSendsBackWhatItReceives();
    void bytesStayUntilTheyAreSent();
    void restartDropsWhatWaitsToBeSent();
    void tooMuchWaitingStopsTheReceiving();
    void sinkSendsNothing();
    void sourceSendsAsManyBytesAsItIsAskedFor();
    void sourceGoesOnWithItsSequence();
    void sourceIgnoresWhatIsNoRequest_data();
    void sourceIgnoresWhatIsNoRequest();
    void aRequestMayComeInPieces();

    void sendIsAnsweredWithTheFile();
    void anEmptyFileIsSentAsAHeaderAlone();
    void aFileIsStoredAndAcknowledged();
    void anEmptyFileIsStored();
    void aFileMayComeByteByByte();
    void requestsAreAnsweredInTheirOrder();
    void aHeaderAndTheFileFillOnePiece();
    void aHalfReceivedFileLeavesTheOldOneAlone();
    void afterARestartTransfersBeginAfresh();
    void aWrongLineIsAnsweredByAnErrorAndTheServiceGoesOn_data();
    void aWrongLineIsAnsweredByAnErrorAndTheServiceGoesOn();
    void aLongLineIsOneErrorHoweverItComes();
    void aWrongLineDoesNotCutAFileThatIsBeingSent();
    void aMissingFileIsAnErrorAndTheServiceGoesOn();
    void aFolderThatCannotBeWrittenIsAnErrorAndTheServiceGoesOn();
    void aFileBeyondTheBoundIsRefusedBeforeItsBytesComeAndSkipped();
    void aFullDiskIsAnErrorWithTheSystemsReasonAndTheServiceGoesOn();
    void aFileThatShrinksIsFilledUpAndAnErrorFollows();
    void manyUnansweredRequestsStopTheReceiving();

private:
    QString _path(const char *name) const { return _folder->filePath(name); }

    QScopedPointer<QTemporaryDir> _folder;
    QScopedPointer<FileService> _files;
    QStringList _reports;
};

void ServicesTest::init()
{
    _folder.reset(new QTemporaryDir);
    QVERIFY(_folder->isValid());
    writeFile(_path("send"), "content");
    _reports.clear();
    _files.reset(new FileService(_path("send"), _path("received"), largestFile,
                                 [this](const QString &text) { _reports << text; }));
}

void ServicesTest::echoSendsBackWhatItReceives()
{
    EchoService echo;
    echo.receive("ab");
    echo.receive(QByteArray("\0c", 2));
    QCOMPARE(takeAll(echo, 3), QByteArray("ab\0c", 4));
}

void ServicesTest::bytesStayUntilTheyAreSent()
{
    EchoService echo;
    echo.receive("abcd");
    QCOMPARE(echo.nextBytes(3), QByteArray("abc"));
    QCOMPARE(echo.nextBytes(3), QByteArray("abc"));
    echo.bytesSent(1);
    QCOMPARE(echo.nextBytes(3), QByteArray("bcd"));
}

void ServicesTest::restartDropsWhatWaitsToBeSent()
{
    EchoService echo;
    echo.receive("abc");
    echo.restart();
    QCOMPARE(takeAll(echo), QByteArray());
}

void ServicesTest::tooMuchWaitingStopsTheReceiving()
{
    EchoService echo;
    QVERIFY(echo.takesBytes());
    echo.receive(QByteArray(300 * 1024, 'x'));
    QVERIFY(!echo.takesBytes());
    echo.bytesSent(100 * 1024);
    QVERIFY(echo.takesBytes());
}

void ServicesTest::sinkSendsNothing()
{
    SinkService sink;
    sink.receive("abc");
    QCOMPARE(takeAll(sink), QByteArray());
    QVERIFY(sink.takesBytes());
}

void ServicesTest::sourceSendsAsManyBytesAsItIsAskedFor()
{
    SourceService source;
    QCOMPARE(takeAll(source), QByteArray());
    source.receive("GIVE 600\n");
    const QByteArray bytes = takeAll(source, 100);
    QCOMPARE(bytes.size(), 600);
    for (int i = 0; i < bytes.size(); ++i)
        QCOMPARE(static_cast<unsigned char>(bytes[i]), static_cast<unsigned char>(i % 256));
}

void ServicesTest::sourceGoesOnWithItsSequence()
{
    SourceService source;
    source.receive("GIVE 2\nGIVE 1\n");
    QCOMPARE(takeAll(source), QByteArray("\0\1\2", 3));
    source.receive("GIVE 1\n");
    QCOMPARE(takeAll(source), QByteArray("\3"));
    source.restart();
    source.receive("GIVE 1\n");
    QCOMPARE(takeAll(source), QByteArray("\0", 1));
}

void ServicesTest::sourceIgnoresWhatIsNoRequest_data()
{
    QTest::addColumn<QByteArray>("line");
    for (const char *line : {"", "GIVE", "GIVE ", "GIVE x", "GIVE -1", "GIVE +1", "GIVE 1 ",
                             "GIVE 99999999999999999999", "give 1", "TAKE 1"})
        QTest::newRow(line) << QByteArray(line);
    QTest::newRow("long line") << QByteArray(1000, 'G');
}

void ServicesTest::sourceIgnoresWhatIsNoRequest()
{
    QFETCH(QByteArray, line);
    SourceService source;
    source.receive(line + "\nGIVE 1\n");
    QCOMPARE(takeAll(source).size(), 1);
}

void ServicesTest::aRequestMayComeInPieces()
{
    SourceService source;
    source.receive("GI");
    source.receive("VE 1");
    source.receive("0\n");
    QCOMPARE(takeAll(source).size(), 10);
}

void ServicesTest::sendIsAnsweredWithTheFile()
{
    _files->receive("SEND\n");
    QCOMPARE(takeAll(*_files, 4), QByteArray("FILE 7\ncontent"));
    QCOMPARE(_reports, QStringList{"sent 7 bytes of " + _path("send")});
}

void ServicesTest::anEmptyFileIsSentAsAHeaderAlone()
{
    writeFile(_path("send"), "");
    _files->receive("SEND\nSEND\n");
    QCOMPARE(takeAll(*_files), QByteArray("FILE 0\nFILE 0\n"));
}

void ServicesTest::aFileIsStoredAndAcknowledged()
{
    _files->receive("FILE 3\na\nb");
    QCOMPARE(takeAll(*_files), QByteArray("STORED 3\n"));
    QCOMPARE(contentOf(_path("received")), QByteArray("a\nb"));
    QCOMPARE(_reports, QStringList{"stored 3 bytes in " + _path("received")});
}

void ServicesTest::anEmptyFileIsStored()
{
    _files->receive("FILE 0\n");
    QCOMPARE(takeAll(*_files), QByteArray("STORED 0\n"));
    QCOMPARE(contentOf(_path("received")), QByteArray());
}

void ServicesTest::aFileMayComeByteByByte()
{
    for (const char c : QByteArray("FILE 3\nabcSEND\n"))
        _files->receive(QByteArray(1, c));
    QCOMPARE(takeAll(*_files), QByteArray("STORED 3\nFILE 7\ncontent"));
    QCOMPARE(contentOf(_path("received")), QByteArray("abc"));
}

void ServicesTest::requestsAreAnsweredInTheirOrder()
{
    _files->receive("SEND\nFILE 1\naSEND\n");
    QCOMPARE(takeAll(*_files), QByteArray("FILE 7\ncontentSTORED 1\nFILE 7\ncontent"));
}

void ServicesTest::aHeaderAndTheFileFillOnePiece()
{
    _files->receive("SEND\n");
    QCOMPARE(_files->nextBytes(10), QByteArray("FILE 7\ncon"));
}

void ServicesTest::aHalfReceivedFileLeavesTheOldOneAlone()
{
    writeFile(_path("received"), "old");
    _files->receive("FILE 5\nabc");
    QCOMPARE(contentOf(_path("received")), QByteArray("old"));
    _files->restart();
    QCOMPARE(contentOf(_path("received")), QByteArray("old"));
    QCOMPARE(QDir(_folder->path()).entryList(QDir::Files), (QStringList{"received", "send"}));
}

void ServicesTest::afterARestartTransfersBeginAfresh()
{
    _files->receive("SEND\nFILE 5\nabc");
    QCOMPARE(_files->nextBytes(9), QByteArray("FILE 7\nco"));
    _files->restart();
    QCOMPARE(takeAll(*_files), QByteArray());
    _files->receive("SEND\nFILE 1\nx");
    QCOMPARE(takeAll(*_files), QByteArray("FILE 7\ncontentSTORED 1\n"));
    QCOMPARE(contentOf(_path("received")), QByteArray("x"));
}

void ServicesTest::aWrongLineIsAnsweredByAnErrorAndTheServiceGoesOn_data()
{
    QTest::addColumn<QByteArray>("line");
    for (const char *line : {"", "send", "SEND ", "FILE", "FILE ", "FILE x", "FILE -1", "FILE 1 ",
                             "FILE 99999999999999999999"})
        QTest::newRow(line) << QByteArray(line);
    QTest::newRow("long line") << QByteArray(81, 'x');
    QTest::newRow("zero byte") << QByteArray("SEND\0", 5);
}

void ServicesTest::aWrongLineIsAnsweredByAnErrorAndTheServiceGoesOn()
{
    QFETCH(QByteArray, line);
    _files->receive(line + "\nFILE 1\nx");
    _files->receive("SEND\n");
    const QByteArray answer = takeAll(*_files);
    QVERIFY2(answer.startsWith("ERROR "), answer);
    QVERIFY2(answer.endsWith("\nSTORED 1\nFILE 7\ncontent"), answer);
    QCOMPARE(answer.count('\n'), 3);
    QCOMPARE(_reports.size(), 3);
}

void ServicesTest::aLongLineIsOneErrorHoweverItComes()
{
    for (int i = 0; i < 50; ++i)
        _files->receive("0123456789");
    _files->receive("\nSEND\n");
    QCOMPARE(takeAll(*_files), QByteArray("ERROR a line is longer than 80 bytes\nFILE 7\ncontent"));
}

void ServicesTest::aWrongLineDoesNotCutAFileThatIsBeingSent()
{
    _files->receive("SEND\n");
    QCOMPARE(_files->nextBytes(9), QByteArray("FILE 7\nco"));
    _files->receive("nonsense\n");
    QCOMPARE(takeAll(*_files),
             QByteArray("FILE 7\ncontentERROR expected \"SEND\" or \"FILE <bytes>\"\n"));
}

void ServicesTest::aMissingFileIsAnErrorAndTheServiceGoesOn()
{
    QVERIFY(QFile::remove(_path("send")));
    _files->receive("SEND\n");
    QCOMPARE(takeAll(*_files),
             ("ERROR " + _path("send") + ": No such file or directory\n").toUtf8());
    writeFile(_path("send"), "new");
    _files->receive("SEND\n");
    QCOMPARE(takeAll(*_files), QByteArray("FILE 3\nnew"));
}

void ServicesTest::aFolderThatCannotBeWrittenIsAnErrorAndTheServiceGoesOn()
{
    FileService files(_path("send"), _path("missing/received"), largestFile,
                      [](const QString &) {});
    files.receive("FILE 1\na");
    QCOMPARE(takeAll(files),
             ("ERROR " + _path("missing/received") + ": No such file or directory\n").toUtf8());
    QVERIFY(QDir(_folder->path()).mkdir("missing"));
    files.receive("FILE 1\na");
    QCOMPARE(takeAll(files), QByteArray("STORED 1\n"));
}

void ServicesTest::aFileBeyondTheBoundIsRefusedBeforeItsBytesComeAndSkipped()
{
    _files->receive("FILE 1000001\n");
    QCOMPARE(takeAll(*_files),
             QByteArray("ERROR 1000001 bytes are more than the 1000000 that may be stored\n"));
    _files->receive(QByteArray(1000000, '\n'));
    _files->receive("xFILE 1000000\n");
    _files->receive(QByteArray(1000000, 'y'));
    QCOMPARE(takeAll(*_files), QByteArray("STORED 1000000\n"));
    QCOMPARE(contentOf(_path("received")), QByteArray(1000000, 'y'));
}

void ServicesTest::aFullDiskIsAnErrorWithTheSystemsReasonAndTheServiceGoesOn()
{
    writeFile(_path("received"), "old");
    {
        const FileSizeLimit limit(100);
        _files->receive("FILE 200\n" + QByteArray(90, 'a'));
        QCOMPARE(takeAll(*_files), QByteArray());
        _files->receive(QByteArray(90, 'a'));
        QCOMPARE(takeAll(*_files), ("ERROR " + _path("received") + ": File too large\n").toUtf8());
    }
    QCOMPARE(contentOf(_path("received")), QByteArray("old"));
    _files->receive(QByteArray(20, 'a') + "FILE 1\nb");
    QCOMPARE(takeAll(*_files), QByteArray("STORED 1\n"));
    QCOMPARE(contentOf(_path("received")), QByteArray("b"));
}

void ServicesTest::aFileThatShrinksIsFilledUpAndAnErrorFollows()
{
    writeFile(_path("send"), QByteArray(100000, 'x'));
    _files->receive("SEND\nSEND\n");
    QCOMPARE(_files->nextBytes(20), "FILE 100000\n" + QByteArray(8, 'x'));
    QVERIFY(QFile::resize(_path("send"), 50000));
    const QByteArray answer = takeAll(*_files);
    const QByteArray header("FILE 100000\n");
    const QByteArray rest = answer.mid(header.size() + 100000);
    QCOMPARE(answer.mid(header.size() + 99990, 10), QByteArray(10, '\0'));
    QVERIFY2(rest.startsWith("ERROR " + _path("send").toUtf8() +
                             ": shorter than its announced size\nFILE 50000\n"),
             rest.left(200));
}

void ServicesTest::manyUnansweredRequestsStopTheReceiving()
{
    for (int i = 0; i < 16; ++i) {
        QVERIFY(_files->takesBytes());
        _files->receive("SEND\n");
    }
    QVERIFY(!_files->takesBytes());
    QCOMPARE(takeAll(*_files).count("content"), 16);
    QVERIFY(_files->takesBytes());
}

QTEST_GUILESS_MAIN(ServicesTest)
#include "tst_services.moc"
