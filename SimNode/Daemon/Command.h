// SPDX-License-Identifier: MIT
#ifndef SIMNODE_COMMAND_H
#define SIMNODE_COMMAND_H

#include "DeviceProtocol.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace simnode {

enum class Subject {
    Node,
    Open,
    Read,
    Write,
    Ioctl,
    Close,
    Latency,
    Timeout,
    Cable,
    Merge,
    Split,
    Inject,
    Pcap,
    On,
    Wait,
    Status,
    Reset
};

enum class Verb {
    None,
    Ok,
    Missing,
    Present,
    Fail,
    Stuck,
    Silent,
    Short,
    Zero,
    Error,
    Out,
    In,
    Off
};

struct Command
{
    Subject subject = Subject::Status;
    Verb verb = Verb::None;
    int error = 0;                       // errno of `fail`
    std::uint32_t calls = 0;             // N of a fault, 0: until further notice; K of `on`
    std::uint32_t quantity = 0;          // bytes, transfers or milliseconds, as the subject says
    std::string data;                    // of `inject`, or the path of `pcap`
    Call call = Call::Read;              // of `on`
    std::shared_ptr<const Command> then; // of `on`
};

struct ParsedCommand
{
    std::optional<Command> command;
    std::string error; // why there is no command, and how it should be
};

struct ParsedScript
{
    std::vector<Command> commands;
    std::string error; // empty, or the first faulty line's number, why, and how it should be
};

/// Parses one control command. Any bytes may be given; a faulty command yields an error text.
ParsedCommand parseCommand(std::string_view line);

/// How each command is written, one a line.
std::string commandUsages();

/// Parses a script: one command a line, the rest of a line after '#' is a comment.
ParsedScript parseScript(std::string_view text);

} // namespace simnode

#endif
