// SPDX-License-Identifier: MIT
#include "Outbox.h"

#include <utility>

// Two transfers ahead, so that each is full.
std::size_t Outbox::room(std::size_t largestTransfer) const
{
    const std::size_t wanted = 2 * largestTransfer;
    return wanted > _undelivered.size() ? wanted - _undelivered.size() : 0;
}

void Outbox::add(const std::string &bytes)
{
    _undelivered += bytes;
}

void Outbox::noteDelivered(std::size_t bytes)
{
    _undelivered.erase(0, bytes);
}

std::size_t Outbox::takeLoss(std::size_t unsent)
{
    const std::size_t inFlight = _undelivered.size() - unsent;
    _undelivered.erase(0, inFlight);
    return inFlight;
}

std::size_t Outbox::clear()
{
    return std::exchange(_undelivered, {}).size();
}
