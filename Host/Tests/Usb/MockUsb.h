// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_MOCKUSB_H
#define USBHALHOST_MOCKUSB_H

#include <memory>
#include <string>
#include <vector>

/**
 * A bus with devices that exist for this process alone, played by umockdev: what libusb finds below
 * /sys and /dev is a folder of the test, and its requests to a device come to this class. There can
 * be one at a time; its functions may be called from any thread.
 */
class MockUsb
{
public:
    struct Device
    {
        int port = 2; ///< the device's place is 1-PORT
        std::string id = "1d6b0104";
        std::string serial = "SN1";
        std::string interfaceClass = "ff";
        std::string driver = {}; ///< the kernel's driver that has the interface, if any
    };

    /** What the device was sent in one transfer. */
    struct Taken
    {
        std::string bytes;
        bool endShown; ///< an empty packet was asked for where the last one is full
    };

    MockUsb();
    ~MockUsb();
    MockUsb(const MockUsb &) = delete;
    MockUsb &operator=(const MockUsb &) = delete;

    void plug(const Device &device);
    /** Takes the device away; what is under way ends as the kernel ends it. */
    void unplug(int port = 2);
    /** The file of the device, as the process under test would open it. */
    std::string nodeFile(int port = 2) const;

    /** The next read that is under way brings these bytes. */
    void answer(const std::string &bytes);
    /** The next read that is under way ends with this errno, such as EPIPE for a stall. */
    void endReadWith(int error);
    /** Every write ends with this errno from now on; 0 for none. */
    void endWritesWith(int error);
    /** The device takes no write from now on, or, told false, those of now and then again. */
    void takeNothing(bool nothing);
    /** Of each write the device takes this many bytes at most before it takes no more. */
    void takeOnly(std::size_t bytes);
    /** A request (USBDEVFS_...) fails with this errno from now on. */
    void refuse(unsigned long request, int error);

    std::vector<Taken> taken() const;
    /** How often a request was made. */
    int count(unsigned long request) const;
    /** Reads and writes that libusb has begun and not seen the end of. */
    std::size_t underWay() const;

private:
    struct Private;
    std::unique_ptr<Private> _private;
};

#endif
