// SPDX-License-Identifier: MIT
//
// Clients that fork without exec. The child has the library's objects, but none of its threads.
#include "ExitScenarios.h"

#include <atomic>
#include <cstdlib>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int forksBesideCalls = 20;

void expectCleanEnd(pid_t child)
{
    int status = 0;
    if (!waitUntil([&] { return ::waitpid(child, &status, WNOHANG) == child; })) {
        ::kill(child, SIGKILL);
        fail("the child did not end");
    }
    check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "the child did not end cleanly");
}

void forkChild(const std::function<void()> &child)
{
    const pid_t process = ::fork();
    check(process >= 0, "no process");
    if (process != 0) {
        expectCleanEnd(process);
        return;
    }
    child();
    std::_Exit(0);
}

void expectLinkToGoOn()
{
    check(facade()->write(1, "after the fork") == 14, "nothing was queued");
    check(waitUntil([] { return facade()->bytesToWrite() == 0; }), "nothing was written");
    check(facade()->status() == DriverState::CONNECTED, "the link is down");
}

void exitCleanly()
{
    std::exit(0);
}

// The log is the parent's, and says nothing of a child's end.
void expectNoStopInLog()
{
    const QByteArray lines = logText();
    check(!lines.contains("[stop:") && !lines.contains("[~UsbHAL:"), "a child wrote into the log");
}

void linkAndFork(const std::function<void()> &child)
{
    configure();
    openAndLink();
    forkChild(child);
    expectLinkToGoOn();
    expectNoStopInLog();
}

// A child may be born while a thread that it does not have holds the library's locks.
void forkBesideCalls()
{
    configure();
    openAndLink();
    for (int i = 0; i < 2; ++i) {
        std::thread([] {
            for (;;) {
                facade()->closeConnection(77);
                facade()->bytesToWrite();
            }
        }).detach();
    }
    for (int i = 0; i < forksBesideCalls; ++i)
        forkChild(exitCleanly);
    expectLinkToGoOn();
    std::_Exit(0);
}

void forkInHandler()
{
    static std::atomic<bool> forked{false};
    configure();
    QObject::connect(facade(), QOverload<int>::of(&UsbHALIntf::readyRead), [] {
        forkChild(exitCleanly);
        forked = true;
    });
    openAndLink();
    check(waitUntil([] { return forked.load(); }), "the handler did not run");
    expectLinkToGoOn();
    expectNoStopInLog();
}

} // namespace

ExitScenarios forkScenarios()
{
    return {
        {"fork, never configured",
         [] {
             facade();
             forkChild(exitCleanly);
         }},
        {"fork, configured",
         [] {
             configure();
             forkChild(exitCleanly);
         }},
        {"fork, link up, exit", [] { linkAndFork(exitCleanly); }},
        {"fork, link up, immediate exit", [] { linkAndFork([] { std::_Exit(0); }); }},
        {"fork, link up, quick exit", [] { linkAndFork([] { std::quick_exit(0); }); }},
        {"fork, stopped, exit",
         [] {
             configure();
             openAndLink();
             facade()->stop();
             forkChild(exitCleanly);
         }},
        {"fork beside calls", forkBesideCalls},
        {"fork in a handler", forkInHandler},
        {"fork before the first open",
         [] {
             facade();
             forkChild([] {
                 configure();
                 openAndLink();
                 std::exit(0);
             });
             check(logText().contains("communication thread stopped"), "the child did not stop");
         }},
        {"fork before the first call",
         [] {
             forkChild([] {
                 configure();
                 openAndLink();
                 std::exit(0);
             });
         }},
    };
}
