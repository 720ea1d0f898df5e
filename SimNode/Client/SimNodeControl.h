// SPDX-License-Identifier: MIT
#ifndef SIMNODECONTROL_H
#define SIMNODECONTROL_H

#include <chrono>
#include <string>

/// Sends commands to a simulated node's control socket. Not thread-safe: one object for each
/// thread.
class SimNodeControl
{
public:
    /// Connects to DIRECTORY/control. Throws std::runtime_error with a text for the user if no
    /// daemon answers there.
    explicit SimNodeControl(const std::string &directory,
                            std::chrono::milliseconds timeout = std::chrono::seconds(5));
    ~SimNodeControl();
    SimNodeControl(const SimNodeControl &) = delete;
    SimNodeControl &operator=(const SimNodeControl &) = delete;

    /// Sends one command, such as "read fail EIO 3", and returns the daemon's answer: "ok",
    /// "ok <text>" or "error: <why>". A daemon that is gone or silent beyond the time-out is an
    /// answer beginning with "error: ", too.
    std::string command(const std::string &text);

    /// The value of `key` in the answer to "status", for example statusValue("reads"). Throws
    /// std::runtime_error if the daemon does not answer or knows no such key.
    std::string statusValue(const std::string &key);

    /// $SIMNODE_DIR: the folder of the daemon that serves this process; empty without one.
    static std::string directoryFromEnvironment();

private:
    bool waitForAnswer() const;

    std::chrono::milliseconds _timeout;
    int _socket;
};

#endif
