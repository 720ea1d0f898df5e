// SPDX-License-Identifier: MIT
#include "HostProgram.h"

#include <ProgramOptions.h>

#include <cstdlib>
#include <iostream>

namespace {

constexpr double longestLinger = 86400; // seconds

void declareOptions(CLI::App &application, hostpeer::HostOptions &options)
{
    application.add_option("--node", options.node, "Folder of the simulated node's sockets")
        ->required()
        ->type_name("DIR");
    programoptions::addNumber(application, "--port", options.port, 0, hostpeer::maxPort,
                              "The port to speak with");
    programoptions::addSeconds(
        application, "--linger", options.linger, longestLinger,
        "How long to wait for more from the device, once it has taken all input");
}

} // namespace

int main(int argc, char **argv)
{
    try {
        hostpeer::HostOptions options;
        CLI::App application("A USB host for the shell: sends its input to one port of the device "
                             "behind a simulated node, and prints what the device sends on it",
                             "usbhal-host");
        programoptions::prepare(application);
        declareOptions(application, options);
        if (const auto ending = programoptions::parse(application, {argv, argv + argc})) {
            ending->print();
            return ending->status;
        }
        return hostpeer::HostProgram(options).run() ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception &error) {
        std::cerr << "usbhal-host: " << error.what() << std::endl;
        return EXIT_FAILURE;
    }
}
