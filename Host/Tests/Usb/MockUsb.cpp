// SPDX-License-Identifier: MIT
#include "MockUsb.h"

#include <umockdev.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <linux/usbdevice_fs.h>
#include <map>
#include <mutex>
#include <optional>
#include <sys/ioctl.h>

namespace {

constexpr gulong pollPause = 500; // µs; a file can always be polled, so libusb asks without end
constexpr unsigned char endpointIn = 0x81;

using Data = std::unique_ptr<UMockdevIoctlData, decltype(&g_object_unref)>;

Data resolve(UMockdevIoctlData *data, std::size_t offset, std::size_t size)
{
    return Data(umockdev_ioctl_data_resolve(data, offset, size, nullptr), &g_object_unref);
}

std::string place(int port)
{
    return "1-" + std::to_string(port);
}

std::string node(int port)
{
    return "bus/usb/001/00" + std::to_string(port);
}

std::string swapped(const std::string &field)
{
    return field.substr(2, 2) + field.substr(0, 2);
}

// A device with one configuration and one interface of two bulk endpoints of 512 bytes.
std::string descriptors(const MockUsb::Device &device)
{
    return "1201000200000040" + swapped(device.id.substr(0, 4)) + swapped(device.id.substr(4)) +
           "000101020301" + "09022000010100c032" + "0904000002" + device.interfaceClass + "000000" +
           "0705810200020007050102000200";
}

std::string record(const MockUsb::Device &device)
{
    const std::string path = "/devices/usb1/" + place(device.port);
    const std::string number = std::to_string(device.port);
    return "P: " + path + "\nN: " + node(device.port) +
           "\nE: SUBSYSTEM=usb\nE: DRIVER=usb\nE: BUSNUM=001\nE: DEVNUM=00" + number +
           "\nE: DEVNAME=/dev/" + node(device.port) +
           "\nE: DEVTYPE=usb_device\nA: bConfigurationValue=1\\n\nA: busnum=1\\n\nA: devnum=" +
           number + "\\n\nA: speed=480\\n\nA: serial=" + device.serial +
           "\\n\nA: product=Ports\\n\nH: descriptors=" + descriptors(device) + "\n";
}

const char rootHub[] = "P: /devices/usb1\nN: bus/usb/001/001\nE: SUBSYSTEM=usb\nE: DRIVER=usb\n"
                       "E: BUSNUM=001\nE: DEVNUM=001\nE: DEVNAME=/dev/bus/usb/001/001\n"
                       "E: DEVTYPE=usb_device\nA: bConfigurationValue=1\\n\nA: busnum=1\\n\n"
                       "A: devnum=1\\n\nA: speed=480\\n\n"
                       "H: descriptors=12010002090001406b1d020015050302010109021900010100e0000904"
                       "000001090000000705810304000c\n";

} // namespace

struct MockUsb::Private
{
    struct Urb
    {
        Data data;
        bool discarded = false;

        usbdevfs_urb &fields() const { return *reinterpret_cast<usbdevfs_urb *>(data->data); }
        bool isRead() const { return fields().endpoint == endpointIn; }
    };

    struct ReadEnd
    {
        std::string bytes;
        int error;
    };

    static gboolean handle(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self);
    long answerTo(unsigned long request, UMockdevIoctlData *argument, int &error);
    long submit(UMockdevIoctlData *argument, int &error);
    long discard(UMockdevIoctlData *argument, int &error);
    long reap(UMockdevIoctlData *argument, int &error);
    bool isOver(Urb &urb);
    bool endRead(Urb &urb);
    bool endWrite(Urb &urb);
    static void end(Urb &urb, int error, std::size_t bytes);

    UMockdevTestbed *testbed = nullptr;
    UMockdevIoctlBase *handler = nullptr;
    mutable std::mutex mutex;
    std::deque<Urb> urbs;
    std::deque<ReadEnd> readEnds;
    std::vector<Taken> taken;
    std::map<unsigned long, int> refused;
    std::map<unsigned long, int> counts;
    std::optional<std::size_t> mostTaken;
    int writeError = 0;
    bool takesNothing = false;
    bool gone = false;
};

gboolean MockUsb::Private::handle(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self)
{
    auto &mock = *static_cast<Private *>(self);
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData *const argument = umockdev_ioctl_client_get_arg(client);
    int error = 0;
    long result = 0;
    {
        const std::lock_guard<std::mutex> lock(mock.mutex);
        ++mock.counts[request];
        result = mock.answerTo(request, argument, error);
    }
    if (error == EAGAIN)
        g_usleep(pollPause);
    umockdev_ioctl_client_complete(client, result, error);
    return TRUE;
}

long MockUsb::Private::answerTo(unsigned long request, UMockdevIoctlData *argument, int &error)
{
    const auto refusal = refused.find(request);
    if (refusal != refused.end()) {
        error = refusal->second;
        return -1;
    }
    switch (request) {
    case USBDEVFS_GET_CAPABILITIES: {
        const Data value = resolve(argument, 0, sizeof(std::uint32_t));
        const std::uint32_t capabilities = USBDEVFS_CAP_ZERO_PACKET |
                                           USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                           USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
        std::memcpy(value->data, &capabilities, sizeof capabilities);
        return 0;
    }
    case USBDEVFS_SUBMITURB:
        return submit(argument, error);
    case USBDEVFS_DISCARDURB:
        return discard(argument, error);
    case USBDEVFS_REAPURBNDELAY:
    case USBDEVFS_REAPURB:
        return reap(argument, error);
    default:
        return 0;
    }
}

long MockUsb::Private::submit(UMockdevIoctlData *argument, int &error)
{
    if (gone) {
        error = ENODEV;
        return -1;
    }
    Urb urb{resolve(argument, 0, sizeof(usbdevfs_urb))};
    const std::size_t size = static_cast<std::size_t>(urb.fields().buffer_length);
    if (size > 0)
        resolve(urb.data.get(), offsetof(usbdevfs_urb, buffer), size);
    urbs.push_back(std::move(urb));
    return 0;
}

long MockUsb::Private::discard(UMockdevIoctlData *argument, int &error)
{
    const Data asked = resolve(argument, 0, sizeof(usbdevfs_urb));
    for (Urb &urb : urbs) {
        if (urb.data->client_addr == asked->client_addr) {
            urb.discarded = true;
            return 0;
        }
    }
    error = EINVAL;
    return -1;
}

long MockUsb::Private::reap(UMockdevIoctlData *argument, int &error)
{
    const auto over =
        std::find_if(urbs.begin(), urbs.end(), [this](Urb &urb) { return isOver(urb); });
    if (over == urbs.end()) {
        error = gone ? ENODEV : EAGAIN;
        return -1;
    }
    const Data pointer = resolve(argument, 0, sizeof(void *));
    umockdev_ioctl_data_set_ptr(pointer.get(), 0, over->data.get());
    urbs.erase(over);
    return 0;
}

void MockUsb::Private::end(Urb &urb, int error, std::size_t bytes)
{
    urb.fields().status = -error;
    urb.fields().actual_length = static_cast<int>(bytes);
}

bool MockUsb::Private::isOver(Urb &urb)
{
    if (gone) {
        end(urb, ESHUTDOWN, 0);
        return true;
    }
    if (urb.discarded) {
        end(urb, ENOENT, urb.isRead() ? 0 : mostTaken.value_or(0));
        return true;
    }
    return urb.isRead() ? endRead(urb) : endWrite(urb);
}

bool MockUsb::Private::endRead(Urb &urb)
{
    if (readEnds.empty())
        return false;
    const ReadEnd next = readEnds.front();
    readEnds.pop_front();
    const Data buffer = resolve(urb.data.get(), offsetof(usbdevfs_urb, buffer),
                                static_cast<std::size_t>(urb.fields().buffer_length));
    std::memcpy(buffer->data, next.bytes.data(), next.bytes.size());
    end(urb, next.error, next.bytes.size());
    return true;
}

bool MockUsb::Private::endWrite(Urb &urb)
{
    if (takesNothing || mostTaken)
        return false;
    if (writeError != 0) {
        end(urb, writeError, 0);
        return true;
    }
    const auto size = static_cast<std::size_t>(urb.fields().buffer_length);
    const Data buffer = resolve(urb.data.get(), offsetof(usbdevfs_urb, buffer), size);
    taken.push_back({std::string(reinterpret_cast<char *>(buffer->data), size),
                     (urb.fields().flags & USBDEVFS_URB_ZERO_PACKET) != 0});
    end(urb, 0, size);
    return true;
}

MockUsb::MockUsb() : _private(std::make_unique<Private>())
{
    _private->testbed = umockdev_testbed_new();
    _private->handler = umockdev_ioctl_base_new();
    g_signal_connect(_private->handler, "handle-ioctl", G_CALLBACK(&Private::handle),
                     _private.get());
    umockdev_testbed_add_from_string(_private->testbed, rootHub, nullptr);
}

MockUsb::~MockUsb()
{
    g_object_unref(_private->handler);
    g_object_unref(_private->testbed);
}

void MockUsb::plug(const Device &device)
{
    {
        const std::lock_guard<std::mutex> lock(_private->mutex);
        _private->gone = false;
    }
    const std::string path = "/sys/devices/usb1/" + place(device.port);
    umockdev_testbed_add_from_string(_private->testbed, record(device).c_str(), nullptr);
    const std::string name = place(device.port) + ":1.0";
    if (!device.driver.empty()) {
        g_free(umockdev_testbed_add_device(_private->testbed, "usb", name.c_str(), path.c_str(),
                                           nullptr, "DEVTYPE", "usb_interface", nullptr));
        umockdev_testbed_set_attribute_link(
            _private->testbed, (path + "/" + name).c_str(), "driver",
            ("../../../../bus/usb/drivers/" + device.driver).c_str());
    }
    umockdev_testbed_attach_ioctl(_private->testbed, ("/dev/" + node(device.port)).c_str(),
                                  _private->handler, nullptr);
    umockdev_testbed_uevent(_private->testbed, path.c_str(), "add");
}

void MockUsb::unplug(int port)
{
    const std::string path = "/sys/devices/usb1/" + place(port);
    umockdev_testbed_uevent(_private->testbed, path.c_str(), "remove");
    umockdev_testbed_detach_ioctl(_private->testbed, ("/dev/" + node(port)).c_str(), nullptr);
    umockdev_testbed_remove_device(_private->testbed, path.c_str());
    const std::lock_guard<std::mutex> lock(_private->mutex);
    _private->gone = true;
}

std::string MockUsb::nodeFile(int port) const
{
    gchar *const root = umockdev_testbed_get_root_dir(_private->testbed);
    const std::string file = std::string(root) + "/dev/" + node(port);
    g_free(root);
    return file;
}

void MockUsb::answer(const std::string &bytes)
{
    const std::lock_guard<std::mutex> lock(_private->mutex);
    _private->readEnds.push_back({bytes, 0});
}

void MockUsb::endReadWith(int error)
{
    const std::lock_guard<std::mutex> lock(_private->mutex);
    _private->readEnds.push_back({{}, error});
}

void MockUsb::endWritesWith(int error)
{
    const std::lock_guard<std::mutex> lock(_private->mutex);
    _private->writeError = error;
}

void MockUsb::takeNothing(bool nothing)
{
    const std::lock_guard<std::mutex> lock(_private->mutex);
    _private->takesNothing = nothing;
}

void MockUsb::takeOnly(std::size_t bytes)
{
    const std::lock_guard<std::mutex> lock(_private->mutex);
    _private->mostTaken = bytes;
}

void MockUsb::refuse(unsigned long request, int error)
{
    const std::lock_guard<std::mutex> lock(_private->mutex);
    _private->refused[request] = error;
}

std::vector<MockUsb::Taken> MockUsb::taken() const
{
    const std::lock_guard<std::mutex> lock(_private->mutex);
    return _private->taken;
}

int MockUsb::count(unsigned long request) const
{
    const std::lock_guard<std::mutex> lock(_private->mutex);
    const auto entry = _private->counts.find(request);
    return entry == _private->counts.end() ? 0 : entry->second;
}

std::size_t MockUsb::underWay() const
{
    const std::lock_guard<std::mutex> lock(_private->mutex);
    return _private->urbs.size();
}
