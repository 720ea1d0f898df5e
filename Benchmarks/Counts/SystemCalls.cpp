// SPDX-License-Identifier: MIT
#include "SystemCalls.h"

#include "Require.h"

#include <csignal>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int marker = SYS_getppid; // around the function, which does not ask for it

[[noreturn]] void runTraced(const std::function<void()> &function)
{
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    syscall(marker);
    function();
    syscall(marker);
    _exit(0);
}

// The number of the system call that the child enters next; -1 when it has ended.
int nextCall(pid_t child)
{
    for (;;) {
        int status = 0;
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status))
            return -1;
        __ptrace_syscall_info info = {};
        ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY)
            return static_cast<int>(info.entry.nr);
    }
}

void skipToMarker(pid_t child)
{
    for (int call; (call = nextCall(child)) != marker;)
        require(call >= 0, "the traced process reaches its marker");
}

} // namespace

int countSystemCalls(const std::function<void()> &function)
{
    const pid_t child = fork();
    require(child >= 0, "a process can be traced");
    if (child == 0)
        runTraced(function);
    waitpid(child, nullptr, 0);
    // Else the entry into a system call could not be told from another stop.
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD);
    skipToMarker(child);
    int calls = 0;
    for (int call; (call = nextCall(child)) != marker; ++calls)
        require(call >= 0, "the traced process reaches its second marker");
    ptrace(PTRACE_DETACH, child, nullptr, nullptr);
    waitpid(child, nullptr, 0);
    return calls;
}
