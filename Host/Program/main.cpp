// SPDX-License-Identifier: MIT
#include "HostProgram.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <iostream>

namespace {

constexpr int exitUsage = 2;

void declareOptions(CLI::App &application, usbhalhost::HostOptions &options)
{
    application.failure_message(CLI::FailureMessage::help);
    application.add_option("--node", options.node, "Folder of the simulated node's sockets")
        ->required()
        ->type_name("DIR");
    application.add_option("--port", options.port, "The port to speak with")
        ->check(CLI::Range(0, usbhalhost::maxPort))
        ->capture_default_str()
        ->type_name("N");
    application
        .add_option("--linger", options.linger,
                    "How long to wait for more from the device, once it has taken all input")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str()
        ->type_name("SECONDS");
}

} // namespace

int main(int argc, char **argv)
{
    try {
        usbhalhost::HostOptions options;
        CLI::App application("A USB host for the shell: sends its input to one port of the device "
                             "behind a simulated node, and prints what the device sends on it",
                             "usbhal-host");
        declareOptions(application, options);
        try {
            application.parse(argc, argv);
        } catch (const CLI::ParseError &error) {
            return application.exit(error) == 0 ? EXIT_SUCCESS : exitUsage;
        }
        return usbhalhost::HostProgram(options).run() ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception &error) {
        std::cerr << "usbhal-host: " << error.what() << std::endl;
        return EXIT_FAILURE;
    }
}
