// SPDX-License-Identifier: MIT
//
// A program for the daemon's tests: opens the node, reads and goes on as its arguments say, and
// tells on its standard output what it sees.

#include "DeviceProtocol.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr const char *inheritedNode = "SIMNODE_PROBE_NODE";

int node = -1;

void tell(const char *what, long result)
{
    std::printf("%s %ld %s\n", what, result, result == -1 ? strerrorname_np(errno) : "-");
    std::fflush(stdout);
}

void perform(const char *call)
{
    std::array<char, 64> buffer = {};
    if (std::strcmp(call, "open") == 0)
        tell(call, (node = open(simnode::nodePath, O_RDWR)) < 0 ? -1 : 0);
    else if (std::strcmp(call, "read") == 0)
        tell(call, read(node, buffer.data(), buffer.size()));
    else if (std::strcmp(call, "write") == 0)
        tell(call, write(node, "x", 1));
    else if (std::strcmp(call, "close") == 0)
        tell(call, close(node));
    else if (std::strcmp(call, "inherit") == 0)
        node = std::atoi(std::getenv(inheritedNode));
    else
        tell("timeout", ioctl(node, simnode::setReadTimeoutRequest, std::atoi(call)));
}

// Keeps the node open for the program that it becomes.
void becomeOther(char **commandLine)
{
    setenv(inheritedNode, std::to_string(node).c_str(), 1);
    execvp(commandLine[0], commandLine);
    tell("exec", -1);
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "exec") == 0)
            becomeOther(argv + i + 1);
        perform(argv[i]);
    }
}
