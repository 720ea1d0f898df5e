// SPDX-License-Identifier: MIT
#ifndef EXITSCENARIOS_H
#define EXITSCENARIOS_H

#include <UsbHalIntf.h>

#include <functional>
#include <map>
#include <string>

/** What the clients do before they end, by name. A scenario that goes wrong ends the process. */
using ExitScenarios = std::map<std::string, std::function<void()>>;

ExitScenarios plainScenarios();
ExitScenarios handlerScenarios();
ExitScenarios threadScenarios();
ExitScenarios signalScenarios();
ExitScenarios forkScenarios();
ExitScenarios stuckScenarios();

/** Runs the scenario of that name with its log in a folder. */
void runExitScenario(const std::string &name, const QString &folder);

QString logFolder();
/** What the log holds, of the one file that these clients fill. */
QByteArray logText();

constexpr int linkTimeout = 20000; // ms

UsbHALIntf *facade();

/** Ends the process with status 1 and says what went wrong. */
[[noreturn]] void fail(const char *what);
void check(bool condition, const char *what);

/** Configures the facade with that time for a stop; the default is more than a silent read takes,
 * so that no thread is killed. */
void configure(quint32 threadStopTimeout = 8000);
void openPort();
/** Opens a port and waits for the link. */
void openAndLink();
/** Waits for what the host sends, and queues more than the link can take at once. */
void leaveBytesUnread();

/** Polls until the condition holds, at most that many ms; by default as long as the link may take.
 */
bool waitUntil(const std::function<bool()> &condition, int timeout = linkTimeout);
/** For main threads that something else is to end. */
[[noreturn]] void waitForEnd();

/** Gives the node a command that holds up its reads, and waits for the next read to begin. */
void holdReads(const std::string &command);

#endif
