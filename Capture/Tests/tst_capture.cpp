// SPDX-License-Identifier: MIT
#include "CaptureReader.h"
#include "UsbCapture.h"

#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace capture;

namespace {

constexpr qint64 fileHeaderSize = 24;
constexpr qint64 recordSize = 16 + 64; // without the bytes of a transfer

std::int64_t microseconds(std::int64_t seconds, std::int64_t rest)
{
    return seconds * 1000000 + rest;
}

std::int64_t now()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

/// No file of this process grows beyond a size while this lives.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes) : _handler(std::signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &_before);
        const rlimit limit = {bytes, _before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &_before);
        std::signal(SIGXFSZ, _handler);
    }
    Q_DISABLE_COPY(FileSizeLimit)

private:
    rlimit _before = {};
    sighandler_t _handler;
};

} // namespace

/// Captures as libpcap reads them back.
class CaptureTest : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void aTransferToTheDeviceIsInTheRecordOfItsBegin();
    void aTransferOfTheDeviceIsInTheRecordOfItsEnd();
    void recordsHaveTheTimeOfTheirCall();
    void failuresAreToldByTheStatus();
    void recordsNameTheirPlace();
    void whatUsbmonLeavesEmptyIsEmpty();
    void theLargestTransferIsWhole();
    void withoutAFileRequestsAreCountedOn();
    void aFileIsBegunAnew();
    void aFullFileIsKeptBesideTheNextOne();
    void aFileHoldsAtLeastOneRecord();
    void whatCannotBeOpenedIsSaid_data();
    void whatCannotBeOpenedIsSaid();
    void aFullDiskIsSaidOnceAndLeavesWholeRecords();
    void aFileThatCannotBeKeptIsSaid();

private:
    QString _path() const { return _folder->filePath("bus.pcap"); }
    std::string _start(std::uint64_t maxSize = 0)
    {
        return _capture->start(_path().toStdString(), maxSize);
    }

    QScopedPointer<QTemporaryDir> _folder;
    QScopedPointer<UsbCapture> _capture;
    QStringList _told;
};

void CaptureTest::init()
{
    _folder.reset(new QTemporaryDir);
    _told.clear();
    _capture.reset(new UsbCapture(
        [this](const std::string &text) { _told.append(QString::fromStdString(text)); }));
}

void CaptureTest::aTransferToTheDeviceIsInTheRecordOfItsBegin()
{
    QCOMPARE(_start(), std::string());
    const UsbRequest request = _capture->submitOut("hello");
    _capture->completeOut(request, 0, request.size);
    QCOMPARE(toldOf(_path()), (QStringList{"S out -115 5 hello", "C out 0 5"}));
    const std::vector<Record> records = recordsOf(_path());
    QCOMPARE(records[0].header.id, records[1].header.id);
    QCOMPARE(records[0].header.data_flag, char(0));
    QCOMPARE(records[1].header.data_flag, '>');
    QCOMPARE(records[0].header.data_len, 5u);
    QCOMPARE(records[1].header.data_len, 0u);
}

void CaptureTest::aTransferOfTheDeviceIsInTheRecordOfItsEnd()
{
    QCOMPARE(_start(), std::string());
    const UsbRequest request = _capture->submitIn(16384);
    _capture->completeIn(request, 0, "hello");
    QCOMPARE(toldOf(_path()), (QStringList{"S in -115 16384", "C in 0 5 hello"}));
    const std::vector<Record> records = recordsOf(_path());
    QCOMPARE(records[0].header.id, records[1].header.id);
    QCOMPARE(records[0].header.data_flag, '<');
    QCOMPARE(records[1].header.data_flag, char(0));
}

void CaptureTest::recordsHaveTheTimeOfTheirCall()
{
    QCOMPARE(_start(), std::string());
    const std::int64_t before = now();
    _capture->submitOut("x");
    const std::int64_t between = now();
    _capture->submitOut("x");
    const std::int64_t after = now();
    const std::vector<Record> records = recordsOf(_path());
    for (const Record &record : records)
        QCOMPARE(microseconds(record.header.ts_sec, record.header.ts_usec),
                 microseconds(record.time.tv_sec, record.time.tv_usec));
    const std::int64_t first = microseconds(records[0].time.tv_sec, records[0].time.tv_usec);
    const std::int64_t second = microseconds(records[1].time.tv_sec, records[1].time.tv_usec);
    QVERIFY(before <= first && first <= between && between <= second && second <= after);
}

void CaptureTest::failuresAreToldByTheStatus()
{
    QCOMPARE(_start(), std::string());
    _capture->completeOut(_capture->submitOut("hello"), ESHUTDOWN, 0);
    _capture->completeIn(_capture->submitIn(100), ETIMEDOUT, {});
    QCOMPARE(toldOf(_path()),
             (QStringList{"S out -115 5 hello", "C out -108 0", "S in -115 100", "C in -110 0"}));
}

void CaptureTest::recordsNameTheirPlace()
{
    QCOMPARE(_start(), std::string());
    _capture->setPlace({300, 77, 0x85, 0x04});
    _capture->submitOut("x");
    _capture->submitIn(1);
    const std::vector<Record> records = recordsOf(_path());
    QCOMPARE(records[0].header.endpoint_number, std::uint8_t(0x04));
    QCOMPARE(records[1].header.endpoint_number, std::uint8_t(0x85));
    for (const Record &record : records) {
        QCOMPARE(record.header.bus_id, std::uint16_t(300));
        QCOMPARE(record.header.device_address, std::uint8_t(77));
        QCOMPARE(record.header.transfer_type, std::uint8_t(URB_BULK));
    }
}

void CaptureTest::whatUsbmonLeavesEmptyIsEmpty()
{
    QCOMPARE(_start(), std::string());
    _capture->submitOut("x");
    const Record record = recordsOf(_path()).at(0);
    QCOMPARE(record.header.setup_flag, '-');
    QCOMPARE(record.header.interval, 0);
    QCOMPARE(record.header.start_frame, 0);
    QCOMPARE(record.header.ndesc, 0u);
    QCOMPARE(record.header.s.iso.error_count, 0);
    QCOMPARE(record.header.s.iso.numdesc, 0);
}

void CaptureTest::theLargestTransferIsWhole()
{
    QCOMPARE(_start(), std::string());
    std::string largest(65536, 'x');
    largest.front() = '\0';
    _capture->submitOut(largest);
    QCOMPARE(recordsOf(_path()).at(0).bytes, largest);
}

void CaptureTest::withoutAFileRequestsAreCountedOn()
{
    const UsbRequest request = _capture->submitOut("before");
    QCOMPARE(_start(), std::string());
    _capture->completeOut(request, 0, request.size);
    _capture->submitOut("during");
    _capture->stop();
    _capture->submitOut("after");
    QCOMPARE(toldOf(_path()), (QStringList{"C out 0 6", "S out -115 6 during"}));
    const std::vector<Record> records = recordsOf(_path());
    QCOMPARE(records[1].header.id, records[0].header.id + 1);
}

void CaptureTest::aFileIsBegunAnew()
{
    QCOMPARE(_start(), std::string());
    _capture->submitOut("old");
    QCOMPARE(_start(), std::string());
    _capture->submitOut("new");
    QCOMPARE(toldOf(_path()), QStringList("S out -115 3 new"));
}

void CaptureTest::aFullFileIsKeptBesideTheNextOne()
{
    const qint64 size = fileHeaderSize + 2 * (recordSize + 5);
    QCOMPARE(_start(static_cast<std::uint64_t>(size)), std::string());
    for (const char *transfer : {"a____", "b____", "c____", "d____", "e____"})
        _capture->submitOut(transfer);
    QCOMPARE(toldOf(_path() + ".1"), (QStringList{"S out -115 5 c____", "S out -115 5 d____"}));
    QCOMPARE(toldOf(_path()), QStringList("S out -115 5 e____"));
    QCOMPARE(QFile(_path() + ".1").size(), size);
    QCOMPARE(_told, QStringList());
}

void CaptureTest::aFileHoldsAtLeastOneRecord()
{
    QCOMPARE(_start(1), std::string());
    _capture->submitOut("one");
    _capture->submitOut("two");
    QCOMPARE(toldOf(_path() + ".1"), QStringList("S out -115 3 one"));
    QCOMPARE(toldOf(_path()), QStringList("S out -115 3 two"));
}

void CaptureTest::whatCannotBeOpenedIsSaid_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("reason");
    QTest::newRow("folder missing") << "none/bus.pcap"
                                    << "No such file or directory";
    QTest::newRow("folder") << "."
                            << "Is a directory";
    QTest::newRow("full disk") << "/dev/full"
                               << "No space left on device";
    QTest::newRow("pipe without a reader") << "pipe"
                                           << "No such device or address";
    QTest::newRow("pipe") << "/proc/self/fd/%1"
                          << "Illegal seek";
}

void CaptureTest::whatCannotBeOpenedIsSaid()
{
    QFETCH(QString, path);
    QFETCH(QString, reason);
    mkfifo(qPrintable(_folder->filePath("pipe")), 0600);
    int ends[2] = {-1, -1};
    QCOMPARE(pipe(ends), 0);
    const QString whole =
        QDir(_folder->path()).absoluteFilePath(path.replace("%1", QString::number(ends[1])));
    const QString error = QString::fromStdString(_capture->start(whole.toStdString(), 0));
    QCOMPARE(error, "cannot write the capture " + whole + ": " + reason);
    _capture->submitOut("goes on");
    QCOMPARE(_told, QStringList());
    close(ends[0]);
    close(ends[1]);
}

void CaptureTest::aFullDiskIsSaidOnceAndLeavesWholeRecords()
{
    QCOMPARE(_start(), std::string());
    {
        const FileSizeLimit limit(static_cast<rlim_t>(fileHeaderSize + recordSize + 40));
        for (const char *transfer : {"fits", "does not", "nor does"})
            _capture->submitOut(transfer);
    }
    QCOMPARE(_told, QStringList("cannot write the capture " + _path() + ": File too large"));
    QCOMPARE(toldOf(_path()), QStringList("S out -115 4 fits"));
}

void CaptureTest::aFileThatCannotBeKeptIsSaid()
{
    QVERIFY(QDir(_folder->path()).mkpath("bus.pcap.1/not-empty"));
    QCOMPARE(_start(1), std::string());
    _capture->submitOut("one");
    _capture->submitOut("two");
    QCOMPARE(_told, QStringList("cannot write the capture " + _path() + ": Is a directory"));
    QCOMPARE(toldOf(_path()), QStringList("S out -115 3 one"));
}

QTEST_APPLESS_MAIN(CaptureTest)
#include "tst_capture.moc"
