// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_DEVICETHREAD_H
#define USBHALHOST_DEVICETHREAD_H

#include "DeviceTransport.h"
#include "HostSession.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace usbhalhost {

/**
 * A device that comes and goes, and a thread that takes the turns with it. All functions may be
 * called from any thread, but for the destructor, which no other call may run beside.
 */
class DeviceThread
{
public:
    using Clock = std::chrono::steady_clock;
    enum class Outcome {
        Done,
        TimedOut,
        Lost, ///< the link, and what was on its way
        NotOpen,
        Failed ///< the device cannot be reached, and waiting does not help
    };

    /** Begins to look for the device. */
    explicit DeviceThread(std::unique_ptr<DeviceTransport> transport);
    /** Closes the link and waits for the thread, half a second at most. */
    ~DeviceThread();
    DeviceThread(const DeviceThread &) = delete;
    DeviceThread &operator=(const DeviceThread &) = delete;

    /** Waits until the device answers, or does not any more. */
    Outcome waitConnected(bool connected, Clock::time_point end);
    bool isConnected();

    /** From now on what the device sends to this port is kept. */
    void openPort(int port);
    /** Throws away what was not read, and ends the waits for the port. */
    void closePort(int port);
    /** Sends bytes and waits until the device has answered the last. Late bytes may still reach it.
     */
    Outcome write(int port, std::string_view bytes, Clock::time_point end);
    /**
     * Waits for bytes of the port, and takes as many as there are, up to most; 0 are there at once.
     * What came before a loss is there until the next link. After each, one read fails as lost.
     */
    Outcome read(int port, std::size_t most, Clock::time_point end, std::string &bytes);

    /** Why there is no link. */
    std::string reason();

private:
    // Stays when it is closed: what was sent may still be delivered, and is no later writer's.
    struct Port
    {
        bool isOpen = false;
        bool isCut = false;        // the link was lost, and no read has said so
        bool isAnew = false;       // and what comes now is of another link
        std::string outgoing = {}; // not handed to the session yet
        std::string incoming = {};
        std::uint64_t queued = 0;
        std::uint64_t delivered = 0;
    };
    using Lock = std::unique_lock<std::mutex>;

    void _run();
    bool _connect();
    void _resetPorts();
    void _exchange();
    bool _turn();
    bool _isHeldBack();
    bool _handOver();
    bool _noteTurn();
    void _noteLoss();
    void _receive(int port);
    void _noteDelivered(int port, std::size_t bytes);
    bool _isFull() const;
    Port *_findOpen(int port);

    std::unique_ptr<DeviceTransport> _transport;
    HostSession _session; // of the thread alone
    std::mutex _mutex;
    std::condition_variable _changed;
    std::map<int, Port> _ports;
    std::string _reason;
    std::uint64_t _losses = 0;
    bool _connected = false;
    bool _hopeless = false;
    bool _ending = false;
    std::thread _thread;
};

} // namespace usbhalhost

#endif
