// SPDX-License-Identifier: MIT
#ifndef USBHAL_FORWARDEDPORT_H
#define USBHAL_FORWARDEDPORT_H

#include "HostSession.h"
#include "ListeningSocket.h"
#include "Outbox.h"
#include "SocketStream.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>

/** One port of the device: where its clients connect, and the one that it has now. */
class ForwardedPort
{
public:
    /** A port whose clients come by control sockets alone. */
    ForwardedPort(int number, double linger);

    /** Listens for clients. Failure when that cannot be done. */
    void listen(const ForwardAddress &address);
    /** Where clients may connect; empty for nowhere. */
    std::string localName() const { return _listener ? _listener->name() : std::string(); }
    int number() const { return _number; }

    /**
     * Takes the next client. One that finds another here, or whose reason to be refused is not
     * empty, is let go; what is to be said of that is returned.
     */
    std::string welcome(const std::string &reason);
    /**
     * Whether a client that another way has led here may come now; false when it has to wait until
     * the one before it is gone. Failure when the port is in use.
     */
    bool isFree() const;
    /** Takes such a client. */
    void adopt(std::unique_ptr<SocketStream> client, const std::string &user);
    /** Writes to the client and lets go of one that is done. Returns what is to be said of that. */
    std::string tend();

    /** Hands what the client has sent to the session. */
    void feed(usbhalhost::HostSession &session);
    /** Hands what the device has sent to the client; without one it is thrown away. */
    void receive(const std::string &bytes);
    void noteDelivered(std::size_t bytes);

    /** The link is lost. Returns how many bytes are lost; those that are held are not. */
    std::size_t noteLostLink(const usbhalhost::HostSession &session, bool hold);
    /** The device has not answered. Returns how many bytes are lost. */
    std::size_t noteSilence(const usbhalhost::HostSession &session, bool hold);
    /** Hands what was held to a session that has begun anew. */
    void resume(usbhalhost::HostSession &session) const { session.send(_number, _outbox.bytes()); }
    /** Bytes that the device has not answered. */
    std::size_t undelivered() const { return _outbox.size(); }

    /** The client keeps so much waiting that no more may come for it. */
    bool isFull() const;
    /** Waits for the client to read. */
    void waitForClient(ReaderWait &wait) { _client->waitFor(wait); }

private:
    using Clock = std::chrono::steady_clock;

    bool _takesNextClient() const;
    bool _isDone() const;
    bool _holds(bool hold) const;
    std::string _inUse() const;

    int _number;
    std::chrono::duration<double> _linger;
    std::optional<ListeningSocket> _listener;
    Outbox _outbox;
    std::unique_ptr<SocketStream> _client;
    std::string _user;
    Clock::time_point _lastMoved;
    bool _leaving = false; // the client gets what is kept for it, and then its end
};

#endif
