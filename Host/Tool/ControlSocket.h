// SPDX-License-Identifier: MIT
#ifndef USBHAL_CONTROLSOCKET_H
#define USBHAL_CONTROLSOCKET_H

#include "FramedStream.h"
#include "ListeningSocket.h"

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>

/** What another command asks for. */
struct ControlRequest
{
    int port = 0;
    std::string user; ///< the command and its process
    bool monitors = false;
};

/** Where other commands of this user reach the device that this program has. */
class ControlSocket
{
public:
    /**
     * Takes the connection over when the request can be met, and leaves it when it has to wait.
     * Refuses by a Failure.
     */
    using Answer =
        std::function<void(const ControlRequest &request, std::unique_ptr<FramedStream> &stream)>;

    /** Listens in the user's folder. Failure when that cannot be done. */
    ControlSocket();

    /** Greets who has come, telling the place of the device, and answers who has asked. */
    void serve(const std::string &place, const Answer &answer);

private:
    using Clock = std::chrono::steady_clock;

    struct Caller
    {
        std::unique_ptr<FramedStream> stream;
        FrameCutter cutter;
        Clock::time_point came;
        std::string request;
    };

    void _welcome(const std::string &place);
    static bool _isDone(Caller &caller, const Answer &answer);

    ListeningSocket _listener;
    std::list<Caller> _callers;
};

#endif
