// SPDX-License-Identifier: MIT
#ifndef REQUIRE_H
#define REQUIRE_H

#include <cstdio>
#include <unistd.h>

/** Ends the program with status 1 when a benchmark did not do what it is about to be timed for. */
inline void require(bool holds, const char *what)
{
    if (holds)
        return;
    std::fflush(stdout);
    std::fprintf(stderr, "benchmark: does not hold: %s\n", what);
    // At once: threads may be at work that std::exit() would pull the ground from under.
    ::_exit(1);
}

#endif
