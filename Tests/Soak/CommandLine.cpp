// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include <SimNodeControl.h>

#include <CLI/CLI.hpp>

#include <iostream>
#include <random>

namespace {

constexpr int exitUsage = 2;
constexpr double longestRun = 1e6; // minutes
constexpr double longestPeriod = 86400;

const char description[] =
    "Random traffic and random faults over the library and the simulated node, until SIGINT or "
    "SIGTERM. Run it with a node of its own: simnode run -- usbhal-soak [OPTIONS]. Exit status 1 "
    "when something went wrong.";

void addOptions(CLI::App &application, SoakOptions &options)
{
    application.add_option("--minutes", options.minutes, "End after so many minutes")
        ->check(CLI::Range(0.0, longestRun));
    application.add_option("--seed", options.seed, "Repeat the choices of an earlier run")
        ->envname("USBHAL_SEED");
    application
        .add_option("--status-period", options.statusPeriod, "Seconds between two status lines")
        ->check(CLI::Range(0.1, longestPeriod))
        ->capture_default_str();
    application.add_flag("--virtual", options.isVirtual,
                         "Let the pauses and time-outs pass in a small part of their time");
    application.add_flag("!--without-kills", options.withKills,
                         "Leave out the faults that make the watchdog kill the thread");
}

} // namespace

CommandLine parseCommandLine(int argc, char **argv)
{
    SoakOptions options;
    options.seed = std::random_device()();
    CLI::App application(description, "usbhal-soak");
    application.failure_message(CLI::FailureMessage::help);
    addOptions(application, options);
    CommandLine result;
    try {
        application.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        result.exitStatus = application.exit(error) == 0 ? 0 : exitUsage;
        return result;
    }
    if (SimNodeControl::directoryFromEnvironment().empty()) {
        std::cerr << "usbhal-soak: there is no simulated node; start it by: simnode run -- "
                     "usbhal-soak [OPTIONS]\n";
        result.exitStatus = exitUsage;
        return result;
    }
    result.options = options;
    return result;
}
