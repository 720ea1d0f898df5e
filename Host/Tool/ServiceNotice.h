// SPDX-License-Identifier: MIT
#ifndef USBHAL_SERVICENOTICE_H
#define USBHAL_SERVICENOTICE_H

#include <chrono>
#include <optional>
#include <string>

/** Tells the service manager that has started the program how it stands, where there is one. */
class ServiceNotice
{
public:
    /** Reads from the environment who is to be told. */
    ServiceNotice();

    /** Sends assignments such as READY=1, one a line. */
    void send(const std::string &assignments) const;
    /** Shows that the program is alive, when it is time for that. To be called twice a second. */
    void keepAlive();

private:
    using Clock = std::chrono::steady_clock;

    std::string _address;
    std::optional<Clock::duration> _pause; // between two signs of life, where they are asked for
    Clock::time_point _next;
};

#endif
