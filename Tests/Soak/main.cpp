// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include <QCoreApplication>

#include <atomic>
#include <csignal>
#include <iostream>

namespace {

std::atomic<bool> stopRequested{false};

void requestStop(int)
{
    stopRequested = true;
}

void installStopHandler()
{
    struct sigaction action = {};
    action.sa_handler = requestStop;
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int runSoak(const SoakOptions &options)
{
    std::cout << "usbhal-soak: seed " << options.seed << std::endl;
    try {
        Soak soak(options);
        soak.run([] { return stopRequested.load(); });
    } catch (const std::exception &failure) {
        std::cerr << "usbhal-soak: seed " << options.seed << ", " << failure.what() << std::endl;
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const CommandLine commandLine = parseCommandLine(argc, argv);
    if (!commandLine.options)
        return commandLine.exitStatus;
    installStopHandler();
    return runSoak(*commandLine.options);
}
