// SPDX-License-Identifier: MIT
//
// Clients that end while the communication thread is stuck in the device, where it is killed.
#include "ExitScenarios.h"

#include <QThread>

#include <cstdlib>
#include <thread>

namespace {

// Shorter than a read takes: these clients do not wait for their thread.
constexpr quint32 shortStop = 500; // ms

void stickWithTheLinkUp()
{
    configure(shortStop);
    openAndLink();
    holdReads("read stuck");
}

void stickWhileOpening()
{
    configure(shortStop);
    openPort();
    holdReads("read stuck");
}

} // namespace

ExitScenarios stuckScenarios()
{
    return {
        {"stuck in read", stickWithTheLinkUp},
        {"stuck in the drain of an open", stickWhileOpening},
        {"stuck in read and stopped",
         [] {
             stickWithTheLinkUp();
             facade()->stop();
         }},
        {"stuck in read and freed",
         [] {
             stickWithTheLinkUp();
             facade()->freeMem();
         }},
        {"stuck in read, unread bytes",
         [] {
             configure(shortStop);
             leaveBytesUnread();
             holdReads("read stuck");
         }},
        {"stuck in read, exit in another thread",
         [] {
             stickWithTheLinkUp();
             std::thread([] { std::exit(0); }).detach();
             waitForEnd();
         }},
        {"stuck in read, quick exit",
         [] {
             stickWithTheLinkUp();
             std::quick_exit(0);
         }},
        {"stuck in read, exit beside a stop",
         [] {
             stickWithTheLinkUp();
             std::thread([] { facade()->stop(); }).detach();
         }},
        // Nobody waits longer than a read of two seconds takes, and a second behind it.
        {"silent read",
         [] {
             configure(shortStop);
             openAndLink();
             holdReads("read silent");
         }},
    };
}
