// SPDX-License-Identifier: MIT
#include "ControlChannel.h"

#include "Failure.h"

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using namespace std::chrono_literals;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto answerTime = 5s; // a forward answers between two turns with the device
constexpr auto look = 100ms;
constexpr std::size_t longestLine = 65536;

std::string controlFolder()
{
    const char *folder = std::getenv("XDG_RUNTIME_DIR");
    if (folder != nullptr && *folder != '\0')
        return std::string(folder) + "/usbhal";
    return "/tmp/usbhal-" + std::to_string(::getuid());
}

// Who may write into the folder may put sockets of his own in the place of these.
bool isForThisUserAlone(const std::string &folder)
{
    struct stat status = {};
    return ::lstat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
           status.st_uid == ::getuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

json parsed(const std::optional<std::string> &line)
{
    json value = json::parse(line.value_or(""), nullptr, false);
    return value.is_object() ? value : json::object();
}

std::optional<RunningForward> greetedBy(const std::string &path)
{
    const int fd = connectToPath(path);
    if (fd < 0)
        return std::nullopt;
    RunningForward forward;
    forward.stream = std::make_unique<SocketStream>(Connection{fd, path});
    const json greeting = parsed(nextLine(forward));
    if (!greeting.contains("process"))
        return std::nullopt;
    forward.process = greeting.value("process", 0);
    forward.place = greeting.value("place", "");
    return forward;
}

} // namespace

std::string makeControlFolder()
{
    std::string folder = controlFolder();
    ::mkdir(folder.c_str(), S_IRWXU);
    if (!isForThisUserAlone(folder))
        throw Failure(exitFailed, "the folder " + folder +
                                      " is not for this user alone; name another one's parent in "
                                      "XDG_RUNTIME_DIR");
    return folder;
}

std::vector<RunningForward> findForwards()
{
    std::vector<RunningForward> forwards;
    if (!isForThisUserAlone(controlFolder()))
        return forwards;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(controlFolder(), error)) {
        auto forward = greetedBy(entry.path());
        if (forward)
            forwards.push_back(std::move(*forward));
    }
    return forwards;
}

std::optional<RunningForward> findForward(const std::string &place)
{
    for (RunningForward &forward : findForwards()) {
        if (!place.empty() && forward.place == place)
            return std::move(forward);
    }
    return std::nullopt;
}

std::optional<std::string> nextLine(RunningForward &forward)
{
    const auto end = Clock::now() + answerTime;
    std::string line;
    while (!forward.cutter.takeLine(line)) {
        const SocketStream &stream = *forward.stream;
        if (stream.hasEnded() || stream.isBroken() || Clock::now() >= end ||
            forward.cutter.size() > longestLine)
            return std::nullopt;
        forward.stream->flush();
        forward.stream->waitForBytes(look);
        forward.cutter.append(forward.stream->take(longestLine));
    }
    return line;
}

std::size_t ask(RunningForward &forward, const std::string &request)
{
    forward.stream->put(request + '\n');
    const json answer = parsed(nextLine(forward));
    const std::string refusal = answer.value("error", "");
    if (!refusal.empty())
        throw Failure(exitFailed, refusal);
    const json largest = answer.value("largest", json());
    if (!largest.is_number_unsigned() || largest == 0U)
        throw Failure(exitFailed,
                      "usbhal forward (process " + std::to_string(forward.process) +
                          "), which has the device, does not answer: try again, or end it");
    return largest;
}
