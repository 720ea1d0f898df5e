// SPDX-License-Identifier: MIT
#ifndef USBHAL_FAILURE_H
#define USBHAL_FAILURE_H

#include <stdexcept>
#include <string>

/** The exit statuses of the program. */
enum ExitStatus { exitDone = 0, exitFailed = 1, exitUsage = 2, exitNoDevice = 3, exitTimeOut = 4 };

/** Ends the program with a status and one sentence on standard error. */
class Failure : public std::runtime_error
{
public:
    Failure(ExitStatus status, const std::string &text) : std::runtime_error(text), _status(status)
    {
    }
    ExitStatus status() const { return _status; }

private:
    ExitStatus _status;
};

#endif
