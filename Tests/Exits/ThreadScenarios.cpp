// SPDX-License-Identifier: MIT
//
// Clients with threads that are in the library, or still call it, when the process ends.
#include "ExitScenarios.h"

#include <QFile>
#include <QThread>

#include <atomic>
#include <cstdlib>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int longWait = 600000; // ms
constexpr int callingThreads = 4;

bool isAsleep(int thread)
{
    QFile file(QStringLiteral("/proc/self/task/%1/stat").arg(thread));
    return file.open(QIODevice::ReadOnly) && file.readAll().contains(") S ");
}

/** Makes a call in a thread that nobody waits for, and waits until it blocks. */
void blockInCall(const std::function<void()> &call)
{
    // Outlives this function, as the thread does.
    static std::atomic<int> thread;
    thread = 0;
    std::thread([call] {
        thread = static_cast<int>(::syscall(SYS_gettid));
        call();
    }).detach();
    check(waitUntil([] { return thread != 0 && isAsleep(thread); }), "the call did not block");
}

/** Calls that go on until the process has ended, each thread at a call of its own. */
void callForEver(const std::function<void(int)> &call)
{
    static std::atomic<int> calls[callingThreads];
    for (int i = 0; i < callingThreads; ++i) {
        std::thread([i, call] {
            for (;; ++calls[i])
                call(i);
        }).detach();
    }
    for (const std::atomic<int> &count : calls)
        check(waitUntil([&] { return count > 2; }), "a thread made no calls");
}

void logLines(int /*thread*/)
{
    facade()->closeConnection(77);
}

void callAnything(int thread)
{
    UsbHALIntf *const hal = facade();
    hal->write(1, "from a client");
    hal->peek(1, 100);
    hal->read(1, 100);
    hal->nbBytesReceived(1);
    hal->waitForReadyRead(1, 1);
    hal->openConnection(2 + thread);
    hal->socketStatus(2 + thread);
    hal->closeConnection(2 + thread);
    hal->status();
    hal->driverName();
    hal->flush(1);
    hal->waitForDisconnected(1);
    hal->waitForConnected(1);
}

void silenceWithMessagesQueued()
{
    configure();
    leaveBytesUnread();
    holdReads("read silent");
}

template <typename Call>
std::function<void()> inThreadThatEnds(Call call)
{
    return [call] {
        std::thread(call).join();
        check(facade()->waitForConnected(linkTimeout), "the link did not come up");
    };
}

void link()
{
    configure();
    openAndLink();
}

class FirstCaller : public QThread
{
protected:
    void run() override { link(); }
};

void firstCallInQThreadThatEnds()
{
    FirstCaller caller;
    caller.start();
    check(caller.wait(), "the thread did not end");
    check(facade()->status() == DriverState::CONNECTED, "the link is down");
}

void firstCallInThreadThatGoesOn()
{
    static std::atomic<bool> linked{false};
    std::thread([] {
        link();
        linked = true;
        for (;;)
            ::pause();
    }).detach();
    check(waitUntil([] { return linked.load(); }), "the link did not come up");
}

ExitScenarios ownerScenarios()
{
    return {
        {"first call in a thread that ended", inThreadThatEnds(link)},
        {"first call in a QThread that ended", firstCallInQThreadThatEnds},
        {"first call in a thread that ended, then stopped",
         [] {
             inThreadThatEnds(link)();
             facade()->stop();
         }},
        {"first call in a thread that ended, then freed",
         [] {
             inThreadThatEnds(link)();
             facade()->freeMem();
         }},
        {"first call in a thread that ended, never opened",
         [] { std::thread([] { configure(); }).join(); }},
        {"first call in a thread that goes on", firstCallInThreadThatGoesOn},
        {"exit in the thread of the first call",
         [] {
             std::thread([] {
                 link();
                 std::exit(0);
             }).detach();
             waitForEnd();
         }},
    };
}

ExitScenarios blockedScenarios()
{
    return {
        {"in waitForConnected, without a host",
         [] {
             configure();
             openPort();
             blockInCall([] { facade()->waitForConnected(longWait); });
         }},
        {"in waitForDisconnected",
         [] {
             link();
             blockInCall([] { facade()->waitForDisconnected(longWait); });
         }},
        {"in waitForReadyRead",
         [] {
             link();
             check(facade()->openConnection(2), "the port did not open");
             blockInCall([] { facade()->waitForReadyRead(2, longWait); });
         }},
        {"in flush",
         [] {
             silenceWithMessagesQueued();
             blockInCall([] { facade()->flush(longWait); });
         }},
        {"in closeConnection",
         [] {
             silenceWithMessagesQueued();
             blockInCall([] { facade()->closeConnection(1); });
         }},
        {"in stop",
         [] {
             silenceWithMessagesQueued();
             blockInCall([] { facade()->stop(); });
         }},
        {"in openConnection beside a stop",
         [] {
             silenceWithMessagesQueued();
             blockInCall([] { facade()->stop(); });
             blockInCall([] { facade()->openConnection(2); });
         }},
        {"in waitForReadyRead, exit in another thread",
         [] {
             link();
             std::thread([] {
                 blockInCall([] { facade()->waitForDisconnected(longWait); });
                 std::exit(0);
             }).detach();
             check(facade()->openConnection(2), "the port did not open");
             facade()->waitForReadyRead(2, longWait);
             waitForEnd();
         }},
    };
}

ExitScenarios callingScenarios()
{
    return {
        {"threads log",
         [] {
             configure();
             callForEver(logLines);
         }},
        {"threads log, never configured",
         [] {
             facade();
             callForEver(logLines);
         }},
        {"threads log, link up",
         [] {
             link();
             callForEver(logLines);
         }},
        {"threads call, never opened",
         [] {
             configure();
             callForEver([](int) { facade()->status(); });
         }},
        {"threads call, link up",
         [] {
             link();
             callForEver(callAnything);
         }},
        {"threads call, exit in another thread",
         [] {
             link();
             callForEver(callAnything);
             std::thread([] { std::exit(0); }).detach();
             waitForEnd();
         }},
        {"threads call, quick exit",
         [] {
             link();
             callForEver(callAnything);
             std::quick_exit(0);
         }},
        {"threads call after a stop",
         [] {
             link();
             callForEver([](int thread) {
                 callAnything(thread);
                 if (thread == 0)
                     facade()->stop();
             });
         }},
    };
}

} // namespace

ExitScenarios threadScenarios()
{
    ExitScenarios all = ownerScenarios();
    all.merge(blockedScenarios());
    all.merge(callingScenarios());
    return all;
}
