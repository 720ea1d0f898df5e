// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_MESSAGETRANSPORT_H
#define USBHALHOST_MESSAGETRANSPORT_H

#include "UsbHalHostExport.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace usbhalhost {

/** Outcome of one attempt to move a transfer. */
struct TransferResult
{
    enum class Status {
        Done,     ///< the transfer was moved as a whole
        TimedOut, ///< nothing was moved; the link still stands
        Closed    ///< nothing was moved and nothing will be; text says why
    };

    Status status = Status::Done;
    std::string text = {};
    /** Of a connect() that failed: there is no device yet, and trying again may find one. */
    bool mayComeLater = false;
};

/**
 * Carries whole transfers to and from one device, keeping their bounds. A transport is used by one
 * thread at a time.
 */
class USBHALHOST_EXPORT MessageTransport
{
public:
    virtual ~MessageTransport();

    /**
     * Largest transfer in bytes that this transport carries in either direction. Receiving a longer
     * one closes the connection.
     */
    virtual std::size_t maxTransferSize() const = 0;

    /**
     * Sends one transfer, which must not be empty. TimedOut when the device takes nothing of it
     * within the time-out; Closed, with a text, when there is no connection, it breaks or the
     * device takes only a part.
     */
    virtual TransferResult send(std::string_view transfer, std::chrono::milliseconds timeout) = 0;

    /**
     * Replaces transfer by the next one of the device. TimedOut when none comes within the
     * time-out; Closed, with a text, when there is no connection, it breaks or the device leaves.
     * Without a transfer, transfer stays as it is.
     */
    virtual TransferResult receive(std::string &transfer, std::chrono::milliseconds timeout) = 0;
};

} // namespace usbhalhost

#endif
