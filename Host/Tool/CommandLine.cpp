// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include "BenchCommand.h"
#include "Completion.h"
#include "Console.h"
#include "Failure.h"
#include "Forwarder.h"
#include "ListCommand.h"
#include "MonitorCommand.h"
#include "Options.h"
#include "PortPipe.h"
#include "Protocol.h"
#include "WaitCommand.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <limits>

namespace {

constexpr double longestTime = 86400;
constexpr double shortLinger = 1;

/** Everything that the command line sets. */
struct Arguments
{
    LinkOptions link;
    PipeOptions cat;
    PipeOptions send;
    PipeOptions recv;
    ForwardOptions forward;
    BenchOptions bench;
    std::string onLost = "close";
    std::string state;
    std::string shell;
    std::optional<double> timeout;
    bool asJson = false;
};

CLI::Option *addPort(CLI::App &command, int &port)
{
    return command.add_option("PORT", port, "The port of the device")
        ->check(CLI::Range(0, usbhalhost::maxPort))
        ->required();
}

void declareCommon(CLI::App &application, Arguments &arguments)
{
    application
        .add_option("--device", arguments.link.device,
                    "Which device: usb, usb:VID:PID[:SERIAL], usb:BUS-PATH or sim:DIR")
        ->envname("USBHAL_DEVICE")
        ->type_name("NAME");
    application
        .add_option("--wait", arguments.link.wait,
                    "How long to wait for the device, and again for its answer")
        ->check(CLI::Range(0.0, longestTime))
        ->capture_default_str()
        ->type_name("SECONDS");
    application
        .add_option("--pcap", arguments.link.capture,
                    "Write every transfer into a capture for Wireshark")
        ->type_name("FILE");
    application
        .add_option("--pcap-size", arguments.link.captureSize,
                    "Begin another one before it grows beyond, and keep it as FILE.1")
        ->type_name("BYTES");
    application.add_flag("-v,--verbose", arguments.link.trace, "Tell every transfer");
    application
        .add_option_function<std::string>("--log", logTo, "Add all that is told to a file, too")
        ->type_name("FILE");
    application.set_version_flag("--version", "usbhal " USBHAL_VERSION);
}

void declareList(CLI::App &application, Arguments &arguments)
{
    CLI::App *command =
        application.add_subcommand("list", "Show the devices on USB and the simulated nodes");
    command->add_flag("--json", arguments.asJson, "Print an array of JSON");
    command->footer("Examples:\n  usbhal list\n  usbhal list --json | jq -r '.[].name'");
    command->callback([&arguments] { listDevices(arguments.asJson); });
}

void declareWait(CLI::App &application, Arguments &arguments)
{
    CLI::App *command = application.add_subcommand("wait", "Wait for a device to come or to go");
    command->add_option("STATE", arguments.state, "connected or disconnected")
        ->check(CLI::IsMember({"connected", "disconnected"}))
        ->required();
    command->add_option("--timeout", arguments.timeout, "Give up after this time, with status 4")
        ->check(CLI::Range(0.0, longestTime))
        ->type_name("SECONDS");
    command->footer("Example:\n  usbhal --device usb:1d6b:0104 wait connected --timeout 30");
    command->callback([&arguments] {
        waitForDevice(arguments.link.device, arguments.state == "connected", arguments.timeout);
    });
}

void declareCat(CLI::App &application, Arguments &arguments)
{
    PipeOptions &options = arguments.cat;
    options.input = options.output = "-";
    options.linger = shortLinger;
    CLI::App *command =
        application.add_subcommand("cat", "Connect standard input and output to a port");
    addPort(*command, options.port);
    command
        ->add_option("--linger", options.linger,
                     "How long to wait for more from the device, once it has taken all input")
        ->check(CLI::Range(0.0, longestTime))
        ->capture_default_str()
        ->type_name("SECONDS");
    command->add_flag("--reconnect", options.reconnect, "Go on when the device comes back");
    command->footer("Example:\n  echo hello | usbhal --device sim:/tmp/node cat 1");
    command->callback([&arguments] { PortPipe(arguments.link, arguments.cat).run(); });
}

void declareSend(CLI::App &application, Arguments &arguments)
{
    PipeOptions &options = arguments.send;
    CLI::App *command = application.add_subcommand("send", "Send a file to a port");
    addPort(*command, options.port);
    command->add_option("FILE", options.input, "The file, or - for standard input")->required();
    command->footer("Example:\n  usbhal send 2 firmware.bin");
    command->callback([&arguments] { PortPipe(arguments.link, arguments.send).run(); });
}

void declareRecv(CLI::App &application, Arguments &arguments)
{
    PipeOptions &options = arguments.recv;
    options.endsWithInput = false;
    CLI::App *command = application.add_subcommand("recv", "Receive a file from a port");
    addPort(*command, options.port);
    command->add_option("FILE", options.output, "The file, or - for standard output")->required();
    command->add_option("--bytes", options.bytes, "End when this many bytes were received")
        ->type_name("N");
    command->add_option("--idle", options.idle, "End this time after the last byte")
        ->check(CLI::Range(0.0, longestTime))
        ->type_name("SECONDS");
    command->footer("Ends by --bytes, --idle or a signal.\n\nExample:\n"
                    "  usbhal recv 2 log.bin --idle 3");
    command->callback([&arguments] { PortPipe(arguments.link, arguments.recv).run(); });
}

void addForwardOptions(CLI::App *command, Arguments &arguments)
{
    ForwardOptions &options = arguments.forward;
    options.linger = shortLinger;
    command
        ->add_option("FORWARD", options.forwards,
                     "[BIND:]LOCAL:PORT, of which LOCAL 0 is any that is free, or unix:PATH:PORT")
        ->required();
    command
        ->add_option("--on-lost", arguments.onLost,
                     "What a lost device is to clients: close ends them, hold lets them wait")
        ->check(CLI::IsMember({"close", "hold"}))
        ->capture_default_str();
    command
        ->add_option("--linger", options.linger,
                     "How long to wait for more from the device, once a client has sent all")
        ->check(CLI::Range(0.0, longestTime))
        ->capture_default_str()
        ->type_name("SECONDS");
}

void declareForward(CLI::App &application, Arguments &arguments)
{
    CLI::App *command =
        application.add_subcommand("forward", "Connect TCP and UNIX sockets to ports");
    addForwardOptions(command, arguments);
    command->footer("Runs until a signal, and waits for the device as long.\n\nExamples:\n"
                    "  usbhal forward 8022:1 unix:/run/user/1000/log:3\n"
                    "  usbhal forward '[::1]:0:2' --on-lost hold");
    command->callback([&arguments] {
        arguments.forward.hold = arguments.onLost == "hold";
        Forwarder(arguments.link, arguments.forward).run();
    });
}

void declareMonitor(CLI::App &application, Arguments &arguments)
{
    CLI::App *command = application.add_subcommand("monitor", "Show the link and the ports");
    command->add_flag("--json", arguments.asJson, "Print a line of JSON each second");
    command->footer("Runs until a signal. Prints JSON where standard output is no terminal.\n\n"
                    "Example:\n  usbhal monitor --json | jq .cycleMs");
    command->callback([&arguments] { monitorDevice(arguments.link, arguments.asJson); });
}

void declareBench(CLI::App &application, Arguments &arguments)
{
    BenchOptions &options = arguments.bench;
    CLI::App *command =
        application.add_subcommand("bench", "Measure round trip and throughput of an echo");
    addPort(*command, options.port);
    command->add_option("--count", options.count, "How many round trips")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str()
        ->type_name("N");
    command->add_option("--bytes", options.bytes, "How many bytes of throughput")
        ->check(CLI::Range(std::size_t(1), std::numeric_limits<std::size_t>::max()))
        ->capture_default_str()
        ->type_name("N");
    command->add_flag("--json", options.asJson, "Print an object of JSON");
    command->footer("Example:\n  usbhal --device sim:/tmp/node bench 1");
    command->callback([&arguments] { measurePort(arguments.link, arguments.bench); });
}

void declareCompletion(CLI::App &application, Arguments &arguments)
{
    CLI::App *command =
        application.add_subcommand("completion", "Print the completion for a shell");
    command->add_option("SHELL", arguments.shell, "bash or zsh")
        ->check(CLI::IsMember({"bash", "zsh"}))
        ->required();
    command->footer("Example:\n  source <(usbhal completion bash)");
    command->callback([&application, &arguments] {
        std::cout << (arguments.shell == "bash" ? bashCompletionOf(application)
                                                : zshCompletionOf(application))
                  << std::flush;
    });
}

void declareAll(CLI::App &application, Arguments &arguments)
{
    application.failure_message(CLI::FailureMessage::simple);
    application.require_subcommand(1);
    application.fallthrough();
    declareCommon(application, arguments);
    declareList(application, arguments);
    declareWait(application, arguments);
    declareCat(application, arguments);
    declareSend(application, arguments);
    declareRecv(application, arguments);
    declareForward(application, arguments);
    declareMonitor(application, arguments);
    declareBench(application, arguments);
    declareCompletion(application, arguments);
    application.footer(
        "Exit status: 0 done, 1 failed, 2 wrong command line, 3 no device, 4 time-out.\n"
        "'usbhal COMMAND --help' shows a command's options and examples.");
}

} // namespace

int runCommandLine(int argc, char **argv)
{
    Arguments arguments;
    CLI::App application("The USB host's end of UsbHal's ports, for the shell", "usbhal");
    declareAll(application, arguments);
    try {
        application.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return application.exit(error) == 0 ? exitDone : exitUsage;
    }
    return exitDone;
}
