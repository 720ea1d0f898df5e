// SPDX-License-Identifier: MIT
#ifndef USBHAL_OUTBOX_H
#define USBHAL_OUTBOX_H

#include <cstddef>
#include <string>

/** The bytes for one port that were handed on and are not answered yet, so that a loss can be
 * counted. */
class Outbox
{
public:
    /** How many bytes more keep the next transfers full. */
    std::size_t room(std::size_t largestTransfer) const;
    /** Bytes that are handed on now. */
    void add(const std::string &bytes);
    /** The device has answered so many bytes. */
    void noteDelivered(std::size_t bytes);
    /** How many bytes were on their way and are lost, when so many were not sent; those stay. */
    std::size_t takeLoss(std::size_t unsent);
    /** Forgets what stays. Returns how many bytes that were. */
    std::size_t clear();

    const std::string &bytes() const { return _undelivered; }
    std::size_t size() const { return _undelivered.size(); }
    bool isEmpty() const { return _undelivered.empty(); }

private:
    std::string _undelivered;
};

#endif
