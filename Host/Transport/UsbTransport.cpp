// SPDX-License-Identifier: MIT
#include "UsbTransport.h"

#include "Holders.h"
#include "UsbMatching.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace usbhalhost {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Status = TransferResult::Status;

// A multiple of every packet size, and more than a device writes at once.
constexpr int largestTransfer = 65536;
constexpr unsigned quietTime = 50; // ms
constexpr auto longestDrain = 500ms;
constexpr auto cancelPause = 1s;

std::string textFor(libusb_transfer_status status)
{
    switch (status) {
    case LIBUSB_TRANSFER_NO_DEVICE:
        return "the device was unplugged";
    case LIBUSB_TRANSFER_STALL:
        return "the device has stopped its endpoint (stall)";
    case LIBUSB_TRANSFER_OVERFLOW:
        return "the device sent more than " + std::to_string(largestTransfer) +
               " bytes in one transfer";
    default:
        return "the transfer failed on the bus (libusb status " + std::to_string(status) + ")";
    }
}

std::string textFor(int error)
{
    return error == LIBUSB_ERROR_NO_DEVICE ? textFor(LIBUSB_TRANSFER_NO_DEVICE)
                                           : libusb_strerror(error);
}

std::string udevRuleFor(const UsbDevice &device)
{
    std::array<char, 160> rule{};
    std::snprintf(rule.data(), rule.size(),
                  "SUBSYSTEM==\"usb\", ATTR{idVendor}==\"%04x\", ATTR{idProduct}==\"%04x\", "
                  "TAG+=\"uaccess\"",
                  unsigned{device.vendor}, unsigned{device.product});
    return rule.data();
}

TransferResult absent(const std::string &text)
{
    TransferResult result{Status::Closed, text};
    result.mayComeLater = true;
    return result;
}

} // namespace

struct UsbTransport::Private
{
    explicit Private(UsbSelector selector) : _selector(std::move(selector)) {}

    TransferResult _open();
    TransferResult _openDevice(const usb::Match &match);
    TransferResult _claim(const usb::Match &match);
    void _drain();
    TransferResult _start();
    TransferResult _failed(const TransferResult &result);
    void _close();

    void _handleEvents();
    void _lost(const std::string &reason);
    bool _submitRead();
    bool _beginWrite(std::string_view bytes);
    TransferResult _endWrite(std::unique_lock<std::mutex> &lock);

    static void LIBUSB_CALL _onRead(libusb_transfer *transfer);
    static void LIBUSB_CALL _onWritten(libusb_transfer *transfer);

    const UsbSelector _selector;
    usb::Context _context;
    usb::Handle _handle;
    usb::Interface _interface;
    usb::Transfer _read;
    usb::Transfer _write;
    std::string _readBuffer;
    std::string _writeBuffer;
    std::thread _thread;
    std::atomic<bool> _stopping{false};
    bool _stalled = false;

    // Between the callers and the thread.
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::deque<std::string> _received;
    std::string _lostReason = "not connected";
    bool _connected = false;
    bool _reading = false;
    bool _writing = false;
};

TransferResult UsbTransport::Private::_open()
{
    _context = usb::newContext();
    if (!_context)
        return {Status::Closed, "libusb cannot begin: is /dev/bus/usb there?"};
    const std::vector<usb::Match> matches = usb::matchesOf(_context.get(), _selector);
    if (matches.empty())
        return absent("there is no such thing as " + usb::wordsFor(_selector) + " now: plug it in");
    if (matches.size() > 1) {
        std::string names;
        for (const usb::Match &match : matches)
            names += (names.empty() ? "usb:" : ", usb:") + match.shown.busPath;
        return {Status::Closed, "several devices could be meant: name one of " + names};
    }
    TransferResult result = _openDevice(matches.front());
    return result.status == Status::Done ? _claim(matches.front()) : result;
}

TransferResult UsbTransport::Private::_openDevice(const usb::Match &match)
{
    libusb_device_handle *handle = nullptr;
    const int error = libusb_open(match.device.get(), &handle);
    _handle.reset(handle);
    const std::string node = usb::nodeOf(match.device.get());
    if (error == LIBUSB_ERROR_ACCESS)
        return {Status::Closed, "no permission to open " + node + " (usb:" + match.shown.busPath +
                                    "): add the udev rule '" + udevRuleFor(match.shown) +
                                    "' and plug the device in again"};
    if (error == LIBUSB_ERROR_NO_DEVICE)
        return absent("the device at usb:" + match.shown.busPath +
                      " was unplugged while it was opened: plug it in");
    if (error != LIBUSB_SUCCESS)
        return {Status::Closed, "cannot open " + node + ": " + libusb_strerror(error)};
    return {};
}

TransferResult UsbTransport::Private::_claim(const usb::Match &match)
{
    _interface = match.interface;
    const int error = libusb_claim_interface(_handle.get(), _interface.number);
    if (error == LIBUSB_SUCCESS)
        return {};
    const std::string place =
        "interface " + std::to_string(_interface.number) + " of usb:" + match.shown.busPath;
    if (error == LIBUSB_ERROR_NO_DEVICE)
        return absent("the device at usb:" + match.shown.busPath +
                      " was unplugged while it was opened: plug it in");
    if (error != LIBUSB_ERROR_BUSY)
        return {Status::Closed, "cannot claim " + place + ": " + libusb_strerror(error)};
    const std::string holder =
        usb::holderOf(match.shown.busPath, _interface.number, usb::nodeOf(match.device.get()));
    return {Status::Closed, place + " is held by " + (holder.empty() ? "another program" : holder) +
                                ": end that, or use another device"};
}

// What the device had ready for the connection before belongs to nobody. A stalled endpoint stays
// so until it is told otherwise.
void UsbTransport::Private::_drain()
{
    if (std::exchange(_stalled, false)) {
        libusb_clear_halt(_handle.get(), _interface.in);
        libusb_clear_halt(_handle.get(), _interface.out);
    }
    auto *const bytes = reinterpret_cast<unsigned char *>(_readBuffer.data());
    const auto limit = Clock::now() + longestDrain;
    int size = 0;
    while (libusb_bulk_transfer(_handle.get(), _interface.in, bytes, largestTransfer, &size,
                                quietTime) == LIBUSB_SUCCESS &&
           Clock::now() < limit) {
    }
}

TransferResult UsbTransport::Private::_start()
{
    _read.reset(libusb_alloc_transfer(0));
    _write.reset(libusb_alloc_transfer(0));
    if (!_read || !_write)
        return {Status::Closed, "no memory for transfers"};
    _received.clear();
    _connected = true;
    _reading = _submitRead();
    if (!_reading)
        return absent(_lostReason);
    _stopping = false;
    _thread = std::thread([this] { _handleEvents(); });
    return {};
}

TransferResult UsbTransport::Private::_failed(const TransferResult &result)
{
    _close();
    return result;
}

// libusb reports the end of each transfer, also of one that was withdrawn; until then it is its
// own.
void UsbTransport::Private::_close()
{
    if (_thread.joinable()) {
        std::unique_lock<std::mutex> lock(_mutex);
        while (_reading || _writing) {
            _stopping = true; // a read that ends now is not begun again
            if (_reading)
                libusb_cancel_transfer(_read.get());
            if (_writing)
                libusb_cancel_transfer(_write.get());
            _changed.wait_for(lock, cancelPause, [this] { return !_reading && !_writing; });
        }
        lock.unlock();
        _stopping = true;
        libusb_interrupt_event_handler(_context.get());
        _thread.join();
    }
    if (_handle)
        libusb_release_interface(_handle.get(), _interface.number);
    _read.reset();
    _write.reset();
    _handle.reset();
    _context.reset();
    _connected = false;
    _received.clear();
    _lostReason = "not connected";
}

void UsbTransport::Private::_handleEvents()
{
    const auto isOver = [this] {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _stopping && !_reading && !_writing;
    };
    while (!isOver())
        libusb_handle_events_completed(_context.get(), nullptr);
}

// Called with the mutex held. The first reason is the one that counts.
void UsbTransport::Private::_lost(const std::string &reason)
{
    if (!std::exchange(_connected, false))
        return;
    _lostReason = reason;
    _changed.notify_all();
}

bool UsbTransport::Private::_submitRead()
{
    libusb_fill_bulk_transfer(_read.get(), _handle.get(), _interface.in,
                              reinterpret_cast<unsigned char *>(_readBuffer.data()),
                              largestTransfer, &_onRead, this, 0);
    const int error = libusb_submit_transfer(_read.get());
    if (error != LIBUSB_SUCCESS)
        _lost("cannot read from the device: " + textFor(error));
    return error == LIBUSB_SUCCESS;
}

void LIBUSB_CALL UsbTransport::Private::_onRead(libusb_transfer *transfer)
{
    auto &self = *static_cast<Private *>(transfer->user_data);
    const std::lock_guard<std::mutex> lock(self._mutex);
    self._reading = false;
    if (transfer->status == LIBUSB_TRANSFER_COMPLETED) {
        // An empty transfer is the end of the one before, which had filled its last packet.
        if (transfer->actual_length > 0)
            self._received.emplace_back(self._readBuffer, 0,
                                        static_cast<std::size_t>(transfer->actual_length));
        self._reading = !self._stopping && self._submitRead();
    } else if (transfer->status != LIBUSB_TRANSFER_CANCELLED) {
        self._stalled = transfer->status == LIBUSB_TRANSFER_STALL;
        self._lost(textFor(transfer->status));
    }
    self._changed.notify_all();
}

void LIBUSB_CALL UsbTransport::Private::_onWritten(libusb_transfer *transfer)
{
    auto &self = *static_cast<Private *>(transfer->user_data);
    const std::lock_guard<std::mutex> lock(self._mutex);
    self._writing = false;
    self._changed.notify_all();
}

bool UsbTransport::Private::_beginWrite(std::string_view bytes)
{
    _writeBuffer = bytes;
    libusb_fill_bulk_transfer(_write.get(), _handle.get(), _interface.out,
                              reinterpret_cast<unsigned char *>(_writeBuffer.data()),
                              static_cast<int>(_writeBuffer.size()), &_onWritten, this, 0);
    _write->flags = LIBUSB_TRANSFER_ADD_ZERO_PACKET;
    const int error = libusb_submit_transfer(_write.get());
    if (error != LIBUSB_SUCCESS)
        _lost("cannot write to the device: " + textFor(error));
    _writing = error == LIBUSB_SUCCESS;
    return _writing;
}

TransferResult UsbTransport::Private::_endWrite(std::unique_lock<std::mutex> &lock)
{
    while (_writing) {
        libusb_cancel_transfer(_write.get());
        _changed.wait_for(lock, cancelPause, [this] { return !_writing; });
    }
    if (_write->status == LIBUSB_TRANSFER_COMPLETED)
        return {};
    if (_write->status == LIBUSB_TRANSFER_CANCELLED && _write->actual_length == 0 && _connected)
        return {Status::TimedOut, {}};
    _stalled = _stalled || _write->status == LIBUSB_TRANSFER_STALL;
    _lost(_write->status == LIBUSB_TRANSFER_CANCELLED
              ? "the device took only " + std::to_string(_write->actual_length) + " of " +
                    std::to_string(_writeBuffer.size()) + " bytes"
              : textFor(_write->status));
    return {Status::Closed, _lostReason};
}

UsbTransport::UsbTransport(UsbSelector selector)
    : _private(std::make_unique<Private>(std::move(selector)))
{
    _private->_readBuffer.resize(largestTransfer);
}

UsbTransport::~UsbTransport()
{
    UsbTransport::close();
}

TransferResult UsbTransport::connect()
{
    close();
    const TransferResult opened = _private->_open();
    if (opened.status != Status::Done)
        return _private->_failed(opened);
    _private->_drain();
    const TransferResult started = _private->_start();
    return started.status == Status::Done ? started : _private->_failed(started);
}

void UsbTransport::close()
{
    _private->_close();
}

bool UsbTransport::isConnected() const
{
    const std::lock_guard<std::mutex> lock(_private->_mutex);
    return _private->_connected;
}

std::size_t UsbTransport::maxTransferSize() const
{
    return largestTransfer;
}

TransferResult UsbTransport::send(std::string_view transfer, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(_private->_mutex);
    if (!_private->_connected || !_private->_beginWrite(transfer))
        return {Status::Closed, _private->_lostReason};
    _private->_changed.wait_for(lock, timeout,
                                [this] { return !_private->_writing || !_private->_connected; });
    return _private->_endWrite(lock);
}

TransferResult UsbTransport::receive(std::string &transfer, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(_private->_mutex);
    auto &received = _private->_received;
    _private->_changed.wait_for(lock, timeout,
                                [&] { return !received.empty() || !_private->_connected; });
    if (!received.empty()) {
        transfer = std::move(received.front());
        received.pop_front();
        return {};
    }
    if (!_private->_connected)
        return {Status::Closed, _private->_lostReason};
    return {Status::TimedOut, {}};
}

} // namespace usbhalhost
