// SPDX-License-Identifier: MIT
#include "Signals.h"

#include <csignal>

namespace {

volatile std::sig_atomic_t asked = 0;

void ask(int)
{
    asked = 1;
}

} // namespace

void watchSignals()
{
    struct sigaction action = {};
    action.sa_handler = ask;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

bool endIsAsked()
{
    return asked != 0;
}
