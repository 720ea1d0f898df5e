// SPDX-License-Identifier: MIT
#include "Command.h"
#include "LinkCapture.h"
#include "Node.h"
#include "NodeDirectory.h"
#include "Program.h"
#include "ScriptRunner.h"
#include "Server.h"
#include "SimNodeControl.h"

#include <ProgramOptions.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <sys/signalfd.h>
#include <sys/wait.h>

namespace {

using namespace simnode;
using programoptions::exitUsage;

constexpr int exitFailure = 1;
constexpr int exitCannotRun = 127; // as a shell

struct Options
{
    std::string directory;
    std::string scriptPath;
    std::string timeoutResult = "zero";
    std::string pcapPath;
    std::uint64_t pcapSize = 0;
    std::vector<std::string> words;
};

// Text for the user about a script that cannot be used.
struct ScriptError : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

std::vector<Command> loadScript(const std::string &path)
{
    if (path.empty())
        return {};
    std::ifstream file(path, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    if (!file)
        throw ScriptError("cannot read the script " + path);
    ParsedScript script = parseScript(text);
    if (!script.error.empty())
        throw ScriptError(path + ", " + script.error);
    return std::move(script.commands);
}

/// Takes the signals that end the daemon, or that tell of its child, as data.
class Signals
{
public:
    Signals()
    {
        sigset_t set;
        sigemptyset(&set);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
            sigaddset(&set, number);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        _descriptor = FileDescriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    }

    int descriptor() const { return _descriptor.get(); }

    std::optional<signalfd_siginfo> next() const
    {
        signalfd_siginfo info;
        if (read(_descriptor.get(), &info, sizeof(info)) != sizeof(info))
            return std::nullopt;
        return info;
    }

private:
    FileDescriptor _descriptor;
};

/// Everything that a daemon consists of, from its folder to its sockets.
struct Daemon
{
    explicit Daemon(const Options &options)
        : script(loadScript(options.scriptPath)),
          directory(options.directory),
          capture(options.pcapPath, options.pcapSize),
          node(options.timeoutResult == "error", &capture),
          server(directory, node, script)
    {
    }

    Signals signals;
    ScriptRunner script;
    NodeDirectory directory;
    LinkCapture capture;
    Node node;
    Server server;
};

int serve(const Options &options)
{
    Daemon daemon(options);
    daemon.directory.keep();
    std::cout << "simnode ready in " << daemon.directory.path() << std::endl;
    for (;;) {
        if (!daemon.server.serveOnce(daemon.signals.descriptor()))
            continue;
        while (const std::optional<signalfd_siginfo> signal = daemon.signals.next()) {
            if (signal->ssi_signo != SIGCHLD)
                return EXIT_SUCCESS;
        }
    }
}

// The terminal's own signals reach the program without help.
void passOn(const signalfd_siginfo &signal, pid_t program)
{
    if (signal.ssi_code != SI_KERNEL)
        kill(program, static_cast<int>(signal.ssi_signo));
}

std::optional<int> exitStatus(pid_t program)
{
    int status = 0;
    if (waitpid(program, &status, WNOHANG) != program)
        return std::nullopt;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int run(const Options &options)
{
    const PreloadPath preloadLibrary(findPreloadLibrary());
    Daemon daemon(options);
    const pid_t program =
        startProgram(options.words, daemon.directory.path(), preloadLibrary.get());
    daemon.directory.keep();
    for (;;) {
        if (!daemon.server.serveOnce(daemon.signals.descriptor()))
            continue;
        while (const std::optional<signalfd_siginfo> signal = daemon.signals.next()) {
            if (signal->ssi_signo != SIGCHLD)
                passOn(*signal, program);
            else if (const std::optional<int> status = exitStatus(program))
                return *status;
        }
    }
}

int control(const Options &options)
{
    std::string text;
    for (const std::string &word : options.words)
        text += (text.empty() ? "" : " ") + word;
    const std::string answer = SimNodeControl(options.directory).command(text);
    std::cout << answer << std::endl;
    return answer.compare(0, 2, "ok") == 0 ? EXIT_SUCCESS : exitFailure;
}

void addNodeOptions(CLI::App *command, Options &options)
{
    command->add_option("--script", options.scriptPath, "Commands to execute from the start")
        ->type_name("FILE");
    programoptions::addChoice(*command, "--timeout-result", options.timeoutResult,
                              {"zero", "error"},
                              "What a read returns after its time-out: 0, or -1 with ETIMEDOUT");
    command
        ->add_option("--pcap", options.pcapPath,
                     "Capture of the cable, for Wireshark; begun anew if it is there")
        ->type_name("FILE");
    programoptions::addNumber(*command, "--pcap-size", options.pcapSize, 0,
                              std::numeric_limits<std::int64_t>::max(),
                              "Bytes that a capture may have before it becomes FILE.1 and another "
                              "one begins; 0: as many as come");
}

CLI::Option *addDirectoryOption(CLI::App *command, Options &options, const std::string &help)
{
    const auto take = [&options](const std::string &text) {
        if (text.empty())
            programoptions::refuse("--dir", "the path of a folder", text);
        options.directory = text;
    };
    return command->add_option_function<std::string>("--dir", take, help)->type_name("DIR");
}

void addServe(CLI::App &application, Options &options)
{
    CLI::App *command = application.add_subcommand("serve", "Run the node until SIGINT or SIGTERM");
    addDirectoryOption(command, options, "Folder of the node's sockets")->required();
    addNodeOptions(command, options);
}

void addRun(CLI::App &application, Options &options)
{
    CLI::App *command = application.add_subcommand(
        "run", "Run a program with a node of its own: run [OPTIONS] -- PROGRAM ARG...");
    addDirectoryOption(command, options, "Folder of the node's sockets")
        ->default_str("a new one, removed at the end");
    addNodeOptions(command, options);
    command->add_option("PROGRAM", options.words, "The program and its arguments, after --")
        ->required();
}

void addControl(CLI::App &application, Options &options)
{
    CLI::App *command = application.add_subcommand("control", "Send one command to a running node");
    addDirectoryOption(command, options, "Folder of the node's sockets")->required();
    command->add_option("COMMAND", options.words, "The command's words, for example: read fail EIO")
        ->required();
    command->footer("Commands, which man simnode explains:\n" + commandUsages());
}

int dispatch(const CLI::App &application, const Options &options)
{
    if (application.got_subcommand("serve"))
        return serve(options);
    if (application.got_subcommand("run"))
        return run(options);
    return control(options);
}

int parseAndDispatch(int argc, char **argv)
{
    Options options;
    CLI::App application("A simulated /dev/brn7200 for machines without the hardware", "simnode");
    programoptions::prepare(application);
    addServe(application, options);
    addRun(application, options);
    addControl(application, options);
    if (const auto ending = programoptions::parse(application, {argv, argv + argc})) {
        ending->print();
        return ending->status;
    }
    return dispatch(application, options);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return parseAndDispatch(argc, argv);
    } catch (const ScriptError &error) {
        std::cerr << "simnode: " << error.what() << std::endl;
        return exitUsage;
    } catch (const CannotRun &error) {
        std::cerr << "simnode: " << error.what() << std::endl;
        return exitCannotRun;
    } catch (const std::exception &error) {
        std::cerr << "simnode: " << error.what() << std::endl;
        return exitFailure;
    }
}
