// SPDX-License-Identifier: MIT
#ifndef SYSTEMCALLS_H
#define SYSTEMCALLS_H

#include <functional>

/** The system calls that a function makes, counted in a child process that is traced. */
int countSystemCalls(const std::function<void()> &function);

#endif
