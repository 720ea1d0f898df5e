// SPDX-License-Identifier: MIT
//
// Clients of one thread.
#include "ExitScenarios.h"

#include <cstdlib>

namespace {

void linkAndStop()
{
    configure();
    openAndLink();
    facade()->stop();
}

void link()
{
    configure();
    openAndLink();
}

void linkWithUnreadBytes()
{
    configure();
    leaveBytesUnread();
}

void freeAfter(void (*scenario)())
{
    scenario();
    facade()->freeMem();
}

void freeWhileLinked()
{
    freeAfter(link);
    const QByteArray lines = logText();
    check(lines.count("[stop:") == 2, "freeing is not one stop");
    check(lines.indexOf("[~UsbHAL:") < lines.indexOf("[stop:"), "the end is not told first");
}

} // namespace

ExitScenarios plainScenarios()
{
    return {
        {"never used", [] {}},
        {"never configured", [] { facade(); }},
        {"configured", [] { configure(); }},
        {"opened and stopped", linkAndStop},
        {"opened and not stopped", link},
        {"opened and closed",
         [] {
             link();
             check(facade()->closeConnection(1), "the port did not close");
             facade()->stop();
         }},
        {"opened without a host",
         [] {
             configure();
             openPort();
         }},
        {"unread bytes", linkWithUnreadBytes},
        {"never configured and freed", [] { facade()->freeMem(); }},
        {"freed", [] { freeAfter([] { configure(); }); }},
        {"opened and freed", freeWhileLinked},
        {"stopped and freed", [] { freeAfter(linkAndStop); }},
        {"unread bytes and freed", [] { freeAfter(linkWithUnreadBytes); }},
        {"quick exit, never configured",
         [] {
             facade();
             std::quick_exit(0);
         }},
        {"quick exit, configured",
         [] {
             configure();
             std::quick_exit(0);
         }},
        {"quick exit, link up",
         [] {
             linkWithUnreadBytes();
             std::quick_exit(0);
         }},
        {"immediate exit, link up",
         [] {
             linkWithUnreadBytes();
             std::_Exit(0);
         }},
        {"exit with another status",
         [] {
             link();
             std::exit(3);
         }},
    };
}
