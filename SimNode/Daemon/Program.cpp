// SPDX-License-Identifier: MIT
#include "Program.h"

#include "DeviceProtocol.h"
#include "FileDescriptor.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace simnode {

namespace {

constexpr const char *preloadFileName = "libsimnode-preload.so";

using Environment = std::map<std::string, std::string>;

Environment currentEnvironment()
{
    Environment environment;
    for (char **entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::size_t separator = text.find('=');
        if (separator != std::string::npos)
            environment[text.substr(0, separator)] = text.substr(separator + 1);
    }
    return environment;
}

void append(std::string &list, const std::string &item)
{
    list += (list.empty() ? "" : ":") + item;
}

Environment programEnvironment(const std::string &directory, const std::string &preloadLibrary)
{
    Environment environment = currentEnvironment();
    environment[directoryVariable] = directory;
    append(environment["LD_PRELOAD"], preloadLibrary);
    // AddressSanitizer else refuses to start behind a preloaded library.
    append(environment["ASAN_OPTIONS"], "verify_asan_link_order=0");
    return environment;
}

// The loader runs a program without a library that it cannot load, and says so in passing.
void requireLoadable(const std::string &library)
{
    void *handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr)
        throw std::runtime_error(std::string("cannot load the preload library: ") + dlerror() +
                                 "; build it anew, or set SIMNODE_PRELOAD to another");
    dlclose(handle);
}

bool isTakenAsOne(const std::string &path)
{
    return path.find_first_of(" :") == std::string::npos;
}

std::filesystem::path makeLinkFolder(const std::string &preloadLibrary)
{
    std::string name = (std::filesystem::temp_directory_path() / "simnode-preload.XXXXXX").string();
    if (!isTakenAsOne(name))
        throw std::runtime_error("the loader takes no path with a blank or a colon, such as " +
                                 preloadLibrary +
                                 "; set TMPDIR to a folder without, for a link to it");
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("cannot make a folder " + name + " for a link to " +
                                 preloadLibrary + ": " + std::strerror(errno));
    return name;
}

std::vector<char *> pointersTo(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string &text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

// In the child, which has one thread and ends with this call. Writes the errno of a program that
// cannot be started.
[[noreturn]] void becomeProgram(char *const *arguments, char *const *environment, pid_t parent,
                                int errorPipe)
{
    // The daemon blocks the signals it waits for; the program starts with none blocked.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    // Without its node the program has nothing left to do, however the daemon ended. One that ended
    // before this call sends no signal any more.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == parent)
        execvpe(arguments[0], arguments, environment);
    const int error = errno;
    [[maybe_unused]] const ssize_t written = write(errorPipe, &error, sizeof(error));
    _exit(EXIT_FAILURE);
}

// Negative, and errno set, if the program cannot be started.
pid_t forkProgram(char *const *arguments, char *const *environment)
{
    std::array<int, 2> ends;
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        return -1;
    const FileDescriptor reader(ends[0]);
    FileDescriptor writer(ends[1]);
    const pid_t parent = getpid();
    const pid_t process = fork();
    if (process == 0)
        becomeProgram(arguments, environment, parent, writer.get());
    writer.reset();
    int error = 0;
    if (process < 0 || read(reader.get(), &error, sizeof(error)) != sizeof(error))
        return process;
    waitpid(process, nullptr, 0);
    errno = error;
    return -1;
}

} // namespace

std::string findPreloadLibrary()
{
    const char *chosen = std::getenv("SIMNODE_PRELOAD");
    if (chosen != nullptr && *chosen != '\0')
        return std::filesystem::absolute(chosen).string();
    const std::filesystem::path here =
        std::filesystem::read_symlink("/proc/self/exe").parent_path();
    for (const std::filesystem::path &folder : {here, here / SIMNODE_PRELOAD_FROM_BINDIR}) {
        const std::filesystem::path candidate = (folder / preloadFileName).lexically_normal();
        if (std::filesystem::exists(candidate))
            return candidate.string();
    }
    throw std::runtime_error(std::string("cannot find ") + preloadFileName + " near " +
                             here.string() + "; set SIMNODE_PRELOAD to its path");
}

PreloadPath::PreloadPath(const std::string &preloadLibrary) : _path(preloadLibrary)
{
    requireLoadable(preloadLibrary);
    if (isTakenAsOne(preloadLibrary))
        return;
    _linkFolder = makeLinkFolder(preloadLibrary);
    _path = _linkFolder / preloadFileName;
    std::filesystem::create_symlink(preloadLibrary, _path);
}

PreloadPath::~PreloadPath()
{
    std::error_code ignored;
    if (!_linkFolder.empty())
        std::filesystem::remove_all(_linkFolder, ignored);
}

pid_t startProgram(const std::vector<std::string> &commandLine, const std::string &directory,
                   const std::string &preloadLibrary)
{
    std::vector<std::string> arguments = commandLine;
    std::vector<std::string> environment;
    for (const auto &[name, value] : programEnvironment(directory, preloadLibrary))
        environment.push_back(std::string(name).append("=").append(value));
    const pid_t process = forkProgram(pointersTo(arguments).data(), pointersTo(environment).data());
    if (process < 0)
        throw CannotRun("cannot run " + commandLine.front() + ": " + std::strerror(errno));
    return process;
}

} // namespace simnode
