// SPDX-License-Identifier: MIT
#include "HostSession.h"
#include "MockUsb.h"
#include "UsbTransport.h"

#include <QtTest>

#include <cerrno>
#include <filesystem>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace usbhalhost;
using namespace std::chrono_literals;
using Status = TransferResult::Status;

namespace {

constexpr auto longTime = 10s; // more than a test ever waits for

// For a process that is somebody else than the one that made the files.
void openToAll(const std::string &folder)
{
    namespace fs = std::filesystem;
    fs::permissions(folder, fs::perms::all);
    for (const auto &entry : fs::recursive_directory_iterator(folder)) {
        if (!entry.is_symlink())
            fs::permissions(entry.path(), fs::perms::all);
    }
}

} // namespace

/// The transport over a device on USB that this process plays itself.
class HostUsbTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void aDeviceIsFoundByItsInterfaceAndShownAsTheSystemKnowsIt();
    void aDeviceWithoutTheInterfaceIsNone();
    void aDeviceIsChosenBy_data();
    void aDeviceIsChosenBy();
    void withoutADeviceItMayComeLater();
    void severalDevicesAreAChoiceOfTheUser();
    void withoutPermissionTheMissingRuleIsSaid();
    void whoHoldsTheInterfaceIsSaid_data();
    void whoHoldsTheInterfaceIsSaid();

    void transfersKeepTheirBoundsInBothDirections();
    void theLargestTransferIsReceivedWhole();
    void anEmptyTransferIsTheEndOfTheOneBefore();
    void everyWriteAsksForAnEmptyPacketWhereItsEndWouldNotShow();
    void silenceEndsWithTheTimeOutAndNothingIsLost();
    void aDeviceThatTakesNothingEndsTheWriteWithTheTimeOut();
    void aTransferTakenInPartClosesTheConnection();

    void anUnplugIsSeenByAReadThatWaits();
    void anUnplugIsSeenByAWriteThatWaits();
    void aReplugIsFoundAndStaleBytesAreThrownAway();
    void aFailedReadClosesTheConnection_data();
    void aFailedReadClosesTheConnection();
    void aFailedWriteClosesTheConnection();
    void aStallIsClearedByTheNextConnect();
    void closingWithdrawsWhatIsUnderWay();
    void withoutAConnectionNothingIsMoved();
    void aSessionRunsOverIt();

private:
    QScopedPointer<MockUsb> _usb;
    QScopedPointer<UsbTransport> _host;
};

void HostUsbTest::init()
{
    _usb.reset(new MockUsb);
    _host.reset(new UsbTransport({}));
}

void HostUsbTest::cleanup()
{
    _host.reset();
    QCOMPARE(_usb->underWay(), std::size_t(0));
    _usb.reset();
}

void HostUsbTest::aDeviceIsFoundByItsInterfaceAndShownAsTheSystemKnowsIt()
{
    _usb->plug({});
    const std::vector<UsbDevice> devices = findUsbDevices();
    QCOMPARE(devices.size(), std::size_t(1));
    QCOMPARE(devices[0].busPath, std::string("1-2"));
    QCOMPARE(devices[0].vendor, std::uint16_t(0x1d6b));
    QCOMPARE(devices[0].product, std::uint16_t(0x0104));
    QCOMPARE(devices[0].serial, std::string("SN1"));
    QCOMPARE(devices[0].description, std::string("Ports"));
    QCOMPARE(devices[0].speed, std::string("480"));
    QCOMPARE(devices[0].holder, std::string());
    QCOMPARE(devices[0].bus, std::uint8_t(1));
    QCOMPARE(devices[0].address, std::uint8_t(2));
    QCOMPARE(devices[0].endpointIn, std::uint8_t(0x81));
    QCOMPARE(devices[0].endpointOut, std::uint8_t(0x01));
}

void HostUsbTest::aDeviceWithoutTheInterfaceIsNone()
{
    MockUsb::Device device;
    device.interfaceClass = "08";
    _usb->plug(device);
    QVERIFY(findUsbDevices().empty());
}

void HostUsbTest::aDeviceIsChosenBy_data()
{
    QTest::addColumn<int>("vendor");
    QTest::addColumn<int>("product");
    QTest::addColumn<QString>("serial");
    QTest::addColumn<QString>("busPath");
    QTest::newRow("vendor and product") << 0x1234 << 0x5678 << ""
                                        << "";
    QTest::newRow("serial number") << -1 << -1 << "SN7"
                                   << "";
    QTest::newRow("place") << -1 << -1 << ""
                           << "1-3";
}

void HostUsbTest::aDeviceIsChosenBy()
{
    QFETCH(int, vendor);
    QFETCH(int, product);
    QFETCH(QString, serial);
    QFETCH(QString, busPath);
    _usb->plug({});
    MockUsb::Device meant;
    meant.port = 3;
    meant.id = "12345678";
    meant.serial = "SN7";
    _usb->plug(meant);
    UsbSelector selector;
    if (vendor >= 0)
        selector.vendor = static_cast<std::uint16_t>(vendor);
    if (product >= 0)
        selector.product = static_cast<std::uint16_t>(product);
    selector.serial = serial.toStdString();
    selector.busPath = busPath.toStdString();
    const std::vector<UsbDevice> devices = findUsbDevices(selector);
    QCOMPARE(devices.size(), std::size_t(1));
    QCOMPARE(devices[0].busPath, std::string("1-3"));
}

void HostUsbTest::withoutADeviceItMayComeLater()
{
    const TransferResult result = UsbTransport({0x1234, 0x5678, "SN7", "1-3"}).connect();
    QCOMPARE(result.status, Status::Closed);
    QVERIFY(result.mayComeLater);
    QCOMPARE(QString::fromStdString(result.text),
             QString("there is no such thing as a device 1234:5678 with the serial number SN7 on "
                     "USB at 1-3 now: plug it in"));
}

void HostUsbTest::severalDevicesAreAChoiceOfTheUser()
{
    _usb->plug({});
    MockUsb::Device other;
    other.port = 3;
    _usb->plug(other);
    const TransferResult result = _host->connect();
    QCOMPARE(result.status, Status::Closed);
    QVERIFY(!result.mayComeLater);
    QCOMPARE(QString::fromStdString(result.text),
             QString("several devices could be meant: name one of usb:1-2, usb:1-3"));
}

// Root may open everything, so the process is somebody else for the time of the attempt.
void HostUsbTest::withoutPermissionTheMissingRuleIsSaid()
{
    _usb->plug({});
    const std::string file = _usb->nodeFile();
    const uid_t user = ::geteuid();
    openToAll(file.substr(0, file.find("/dev/bus")));
    QCOMPARE(::chmod(file.c_str(), 0), 0);
    if (user == 0)
        QCOMPARE(::seteuid(65534), 0);
    const TransferResult result = _host->connect();
    QCOMPARE(::seteuid(user), 0);
    QCOMPARE(result.status, Status::Closed);
    QVERIFY(!result.mayComeLater);
    QCOMPARE(QString::fromStdString(result.text),
             QString("no permission to open /dev/bus/usb/001/002 (usb:1-2): add the udev rule "
                     "'SUBSYSTEM==\"usb\", ATTR{idVendor}==\"1d6b\", ATTR{idProduct}==\"0104\", "
                     "TAG+=\"uaccess\"' and plug the device in again"));
}

void HostUsbTest::whoHoldsTheInterfaceIsSaid_data()
{
    QTest::addColumn<QString>("driver");
    QTest::addColumn<QString>("holder");
    QTest::newRow("unknown") << ""
                             << "another program";
    QTest::newRow("kernel") << "usb-storage"
                            << "the kernel's driver usb-storage";
    QTest::newRow("process") << "usbfs"
                             << "a process of another user";
}

void HostUsbTest::whoHoldsTheInterfaceIsSaid()
{
    QFETCH(QString, driver);
    QFETCH(QString, holder);
    MockUsb::Device device;
    device.driver = driver.toStdString();
    _usb->plug(device);
    _usb->refuse(USBDEVFS_CLAIMINTERFACE, EBUSY);
    const TransferResult result = _host->connect();
    QCOMPARE(result.status, Status::Closed);
    QVERIFY(!result.mayComeLater);
    QCOMPARE(QString::fromStdString(result.text),
             "interface 0 of usb:1-2 is held by " + holder + ": end that, or use another device");
    if (!driver.isEmpty())
        QCOMPARE(QString::fromStdString(findUsbDevices().at(0).holder), holder);
}

void HostUsbTest::transfersKeepTheirBoundsInBothDirections()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    _usb->answer("one");
    _usb->answer("two");
    std::string transfer;
    QCOMPARE(_host->receive(transfer, longTime).status, Status::Done);
    QCOMPARE(transfer, std::string("one"));
    QCOMPARE(_host->receive(transfer, longTime).status, Status::Done);
    QCOMPARE(transfer, std::string("two"));
    QCOMPARE(_host->send("three", longTime).status, Status::Done);
    QCOMPARE(_host->send("four", longTime).status, Status::Done);
    QCOMPARE(_usb->taken().size(), std::size_t(2));
    QCOMPARE(_usb->taken()[0].bytes, std::string("three"));
    QCOMPARE(_usb->taken()[1].bytes, std::string("four"));
}

void HostUsbTest::theLargestTransferIsReceivedWhole()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    std::string large(65536, 'x');
    large.back() = 'y';
    _usb->answer(large);
    std::string transfer;
    QCOMPARE(_host->receive(transfer, longTime).status, Status::Done);
    QVERIFY(transfer == large);
}

void HostUsbTest::anEmptyTransferIsTheEndOfTheOneBefore()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    _usb->answer(std::string(512, 'x'));
    _usb->answer("");
    _usb->answer("next");
    std::string transfer;
    QCOMPARE(_host->receive(transfer, longTime).status, Status::Done);
    QCOMPARE(transfer.size(), std::size_t(512));
    QCOMPARE(_host->receive(transfer, longTime).status, Status::Done);
    QCOMPARE(transfer, std::string("next"));
}

void HostUsbTest::everyWriteAsksForAnEmptyPacketWhereItsEndWouldNotShow()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    QCOMPARE(_host->send(std::string(512, 'x'), longTime).status, Status::Done);
    QCOMPARE(_usb->taken().size(), std::size_t(1));
    QVERIFY(_usb->taken()[0].endShown);
}

void HostUsbTest::silenceEndsWithTheTimeOutAndNothingIsLost()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    std::string transfer = "as before";
    QCOMPARE(_host->receive(transfer, 20ms).status, Status::TimedOut);
    QCOMPARE(transfer, std::string("as before"));
    _usb->answer("late");
    QCOMPARE(_host->receive(transfer, longTime).status, Status::Done);
    QCOMPARE(transfer, std::string("late"));
}

void HostUsbTest::aDeviceThatTakesNothingEndsTheWriteWithTheTimeOut()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    _usb->takeNothing(true);
    QCOMPARE(_host->send("hello", 20ms).status, Status::TimedOut);
    QVERIFY(_host->isConnected());
    _usb->takeNothing(false);
    QCOMPARE(_host->send("again", longTime).status, Status::Done);
    QCOMPARE(_usb->taken().size(), std::size_t(1));
    QCOMPARE(_usb->taken()[0].bytes, std::string("again"));
}

void HostUsbTest::aTransferTakenInPartClosesTheConnection()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    _usb->takeOnly(512);
    const TransferResult result = _host->send(std::string(1000, 'x'), 20ms);
    QCOMPARE(result.status, Status::Closed);
    QCOMPARE(QString::fromStdString(result.text),
             QString("the device took only 512 of 1000 bytes"));
    QVERIFY(!_host->isConnected());
}

void HostUsbTest::anUnplugIsSeenByAReadThatWaits()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    std::thread cable([this] { _usb->unplug(); });
    std::string transfer;
    const TransferResult result = _host->receive(transfer, longTime);
    cable.join();
    QCOMPARE(result.status, Status::Closed);
    QCOMPARE(QString::fromStdString(result.text), QString("the device was unplugged"));
    QVERIFY(!_host->isConnected());
}

void HostUsbTest::anUnplugIsSeenByAWriteThatWaits()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    _usb->takeNothing(true);
    std::thread cable([this] { _usb->unplug(); });
    const TransferResult result = _host->send("hello", longTime);
    cable.join();
    QCOMPARE(result.status, Status::Closed);
    QVERIFY(QString::fromStdString(result.text).contains("the device was unplugged"));
}

void HostUsbTest::aReplugIsFoundAndStaleBytesAreThrownAway()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    _usb->unplug();
    std::string transfer;
    QCOMPARE(_host->receive(transfer, longTime).status, Status::Closed);
    QVERIFY(_host->connect().mayComeLater);
    MockUsb::Device elsewhere;
    elsewhere.port = 3;
    _usb->plug(elsewhere);
    _usb->answer("stale");
    QCOMPARE(_host->connect().status, Status::Done);
    _usb->answer("fresh");
    QCOMPARE(_host->receive(transfer, longTime).status, Status::Done);
    QCOMPARE(transfer, std::string("fresh"));
}

void HostUsbTest::aFailedReadClosesTheConnection_data()
{
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("text");
    QTest::newRow("stall") << EPIPE << "the device has stopped its endpoint (stall)";
    QTest::newRow("babble") << EOVERFLOW << "the device sent more than 65536 bytes in one transfer";
    QTest::newRow("bus") << EPROTO << "the transfer failed on the bus (libusb status 1)";
}

void HostUsbTest::aFailedReadClosesTheConnection()
{
    QFETCH(int, error);
    QFETCH(QString, text);
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    _usb->endReadWith(error);
    std::string transfer;
    const TransferResult result = _host->receive(transfer, longTime);
    QCOMPARE(result.status, Status::Closed);
    QCOMPARE(QString::fromStdString(result.text), text);
    QCOMPARE(_host->send("hello", longTime).status, Status::Closed);
}

void HostUsbTest::aFailedWriteClosesTheConnection()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    _usb->endWritesWith(EPIPE);
    const TransferResult result = _host->send("hello", longTime);
    QCOMPARE(result.status, Status::Closed);
    QCOMPARE(QString::fromStdString(result.text),
             QString("the device has stopped its endpoint (stall)"));
}

void HostUsbTest::aStallIsClearedByTheNextConnect()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    QCOMPARE(_usb->count(USBDEVFS_CLEAR_HALT), 0);
    _usb->endReadWith(EPIPE);
    std::string transfer;
    QCOMPARE(_host->receive(transfer, longTime).status, Status::Closed);
    QCOMPARE(_host->connect().status, Status::Done);
    QCOMPARE(_usb->count(USBDEVFS_CLEAR_HALT), 2);
}

void HostUsbTest::closingWithdrawsWhatIsUnderWay()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    QCOMPARE(_usb->underWay(), std::size_t(1));
    _host->close();
    QCOMPARE(_usb->underWay(), std::size_t(0));
    QVERIFY(!_host->isConnected());
    QCOMPARE(_usb->count(USBDEVFS_RELEASEINTERFACE), 1);
}

void HostUsbTest::withoutAConnectionNothingIsMoved()
{
    std::string transfer;
    QCOMPARE(_host->send("hello", longTime).status, Status::Closed);
    QCOMPARE(_host->receive(transfer, longTime).status, Status::Closed);
    QCOMPARE(_host->receive(transfer, longTime).text, std::string("not connected"));
}

void HostUsbTest::aSessionRunsOverIt()
{
    _usb->plug({});
    QCOMPARE(_host->connect().status, Status::Done);
    HostSession session(*_host);
    session.send(3, "abc");
    _usb->answer("DEVICE_NODATA10000");
    QCOMPARE(session.step(), HostSession::StepResult::Exchanged);
    _usb->answer("FADA000060003hi");
    QCOMPARE(session.step(), HostSession::StepResult::Exchanged);
    QCOMPARE(session.received(3), std::string("hi"));
    QCOMPARE(_usb->taken().size(), std::size_t(2));
    QCOMPARE(_usb->taken()[0].bytes, std::string("DEVICE_NODATA"));
    QCOMPARE(_usb->taken()[1].bytes, std::string("FADA000070003abc"));
}

QTEST_GUILESS_MAIN(HostUsbTest)
#include "tst_host_usb.moc"
