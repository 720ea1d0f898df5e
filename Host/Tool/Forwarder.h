// SPDX-License-Identifier: MIT
#ifndef USBHAL_FORWARDER_H
#define USBHAL_FORWARDER_H

#include "ControlSocket.h"
#include "DeviceLink.h"
#include "ForwardedPort.h"
#include "Options.h"
#include "ReaderWait.h"
#include "ServiceNotice.h"

#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>

/**
 * Connects clients on this machine to ports of the device. All is done between two turns of the
 * session, so nothing but the device sets the pace.
 */
class Forwarder
{
public:
    /** Listens. Failure when that cannot be done. */
    Forwarder(const LinkOptions &link, ForwardOptions options);

    /** Prints where clients may connect, and runs until a signal. Failure when waiting cannot help.
     */
    void run();

private:
    using Clock = std::chrono::steady_clock;

    void _listen();
    void _listenForCommands();
    void _announce() const;
    void _findDevice();
    void _turn();
    bool _waitForReader();
    void _serve();
    void _welcome();
    void _feedMonitors();
    void _answer(const ControlRequest &request, std::unique_ptr<FramedStream> &stream);
    void _receive(int port, const std::string &bytes);
    void _noteDelivered(int port, std::size_t bytes);
    void _noteSilence();
    void _handleLoss();
    void _finish();
    void _tellSparingly(const std::string &text);

    ForwardOptions _options;
    DeviceLink _link;
    ServiceNotice _service;
    std::map<int, ForwardedPort> _ports;
    std::optional<ControlSocket> _control;
    ReaderWait _readerWait;
    std::list<std::unique_ptr<FramedStream>> _monitors;
    Clock::time_point _lastTold;
    Clock::time_point _nextCounters;
    bool _linked = false;
};

#endif
