// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include <ProgramOptions.h>
#include <SimNodeControl.h>

#include <limits>
#include <random>

namespace {

using programoptions::addNumber;
using programoptions::addSeconds;

constexpr double longestRun = 1e8;
constexpr double longestPeriod = 86400;

const char description[] =
    "Random traffic and random faults over the library and the simulated node, until SIGINT or "
    "SIGTERM. Run it with a node of its own: simnode run -- usbhal-soak [OPTIONS]. Exit status 1 "
    "when something went wrong.";

void addOptions(CLI::App &application, SoakOptions &options)
{
    addSeconds(application, "--seconds", options.seconds, longestRun,
               "End after so many seconds; with 0 by a signal alone");
    addNumber(application, "--seed", options.seed, 0, std::numeric_limits<quint32>::max(),
              "Repeat the choices of an earlier run; also as USBHAL_SEED of the environment")
        ->envname("USBHAL_SEED")
        ->default_str("a new one");
    addSeconds(application, "--status-period", options.statusPeriod, longestPeriod,
               "Seconds between two status lines");
    application.add_flag("--virtual", options.isVirtual,
                         "Let the pauses and time-outs pass in a small part of their time");
    application.add_flag_callback(
        "--without-kills", [&options] { options.withKills = false; },
        "Leave out the faults that make the watchdog kill the thread");
}

CommandLine endWith(const programoptions::Ending &ending)
{
    ending.print();
    return {std::nullopt, ending.status};
}

} // namespace

CommandLine parseCommandLine(int argc, char **argv)
{
    SoakOptions options;
    options.seed = std::random_device()();
    CLI::App application(description, "usbhal-soak");
    programoptions::prepare(application);
    addOptions(application, options);
    if (const auto ending = programoptions::parse(application, {argv, argv + argc}))
        return endWith(*ending);
    if (SimNodeControl::directoryFromEnvironment().empty())
        return endWith(programoptions::wrongUsage(
            application,
            "there is no simulated node; start it by: simnode run -- usbhal-soak [OPTIONS]"));
    return {options, 0};
}
