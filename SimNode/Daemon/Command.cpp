// SPDX-License-Identifier: MIT
#include "Command.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

namespace simnode {

namespace {

using Words = std::vector<std::string_view>;

constexpr std::uint32_t maxMergedTransfers = 1000;
constexpr int maxNesting = 8; // of `on ... on ...`

enum class Argument {
    None,
    Error,
    OptionalCalls,
    Bytes,
    PieceBytes,
    Transfers,
    Hex,
    File,
    Milliseconds
};

struct Rule
{
    const char *subjectWord;
    const char *verbWord;
    Subject subject;
    Verb verb;
    Argument first = Argument::None;
    Argument second = Argument::None;
};

constexpr Rule rules[] = {
    {"node", "missing", Subject::Node, Verb::Missing},
    {"node", "present", Subject::Node, Verb::Present},
    {"open", "stuck", Subject::Open, Verb::Stuck, Argument::OptionalCalls},
    {"open", "fail", Subject::Open, Verb::Fail, Argument::Error, Argument::OptionalCalls},
    {"open", "ok", Subject::Open, Verb::Ok},
    {"read", "stuck", Subject::Read, Verb::Stuck, Argument::OptionalCalls},
    {"read", "silent", Subject::Read, Verb::Silent, Argument::OptionalCalls},
    {"read", "fail", Subject::Read, Verb::Fail, Argument::Error, Argument::OptionalCalls},
    {"read", "ok", Subject::Read, Verb::Ok},
    {"write", "stuck", Subject::Write, Verb::Stuck, Argument::OptionalCalls},
    {"write", "fail", Subject::Write, Verb::Fail, Argument::Error, Argument::OptionalCalls},
    {"write", "short", Subject::Write, Verb::Short, Argument::Bytes, Argument::OptionalCalls},
    {"write", "zero", Subject::Write, Verb::Zero, Argument::OptionalCalls},
    {"write", "ok", Subject::Write, Verb::Ok},
    {"ioctl", "fail", Subject::Ioctl, Verb::Fail, Argument::Error, Argument::OptionalCalls},
    {"ioctl", "ok", Subject::Ioctl, Verb::Ok},
    {"close", "fail", Subject::Close, Verb::Fail, Argument::Error, Argument::OptionalCalls},
    {"close", "ok", Subject::Close, Verb::Ok},
    {"latency", "", Subject::Latency, Verb::None, Argument::Milliseconds},
    {"timeout", "zero", Subject::Timeout, Verb::Zero},
    {"timeout", "error", Subject::Timeout, Verb::Error},
    {"cable", "out", Subject::Cable, Verb::Out},
    {"cable", "in", Subject::Cable, Verb::In},
    {"merge", "", Subject::Merge, Verb::None, Argument::Transfers},
    {"split", "", Subject::Split, Verb::None, Argument::PieceBytes},
    {"inject", "", Subject::Inject, Verb::None, Argument::Hex},
    {"pcap", "off", Subject::Pcap, Verb::Off},
    {"pcap", "", Subject::Pcap, Verb::None, Argument::File},
    {"wait", "", Subject::Wait, Verb::None, Argument::Milliseconds},
    {"status", "", Subject::Status, Verb::None},
    {"reset", "", Subject::Reset, Verb::None},
};

constexpr const char *onUsage = "on open|read|write|ioctl|close K COMMAND...";
constexpr const char *allSubjects = "node, open, read, write, ioctl, close, latency, timeout, "
                                    "cable, merge, split, inject, pcap, on, wait, "
                                    "status, reset";

const char *describe(Argument argument)
{
    switch (argument) {
    case Argument::None:
        return "";
    case Argument::Error:
        return " ERRNO";
    case Argument::OptionalCalls:
        return " [N]";
    case Argument::Bytes:
    case Argument::PieceBytes:
        return " BYTES";
    case Argument::Transfers:
        return " N";
    case Argument::Hex:
        return " HEX";
    case Argument::File:
        return " FILE";
    case Argument::Milliseconds:
        return " MS";
    }
    return "";
}

std::string usage(const Rule &rule)
{
    std::string text = rule.subjectWord;
    if (rule.verbWord[0] != '\0')
        text.append(" ").append(rule.verbWord);
    return text.append(describe(rule.first)).append(describe(rule.second));
}

std::string usagesOf(std::string_view subject)
{
    std::string text;
    for (const Rule &rule : rules) {
        if (subject == rule.subjectWord)
            text.append(text.empty() ? "" : " | ").append(usage(rule));
    }
    return text;
}

ParsedCommand failure(const std::string &why, const std::string &howItShouldBe)
{
    return {std::nullopt, why + "; it should be: " + howItShouldBe};
}

std::string quoted(std::string_view word)
{
    constexpr std::size_t longest = 40;
    std::string text(word.substr(0, longest));
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return "'" + text + (word.size() > longest ? "...'" : "'");
}

std::string parseNumber(std::string_view word, std::uint32_t least, std::uint32_t most,
                        std::uint32_t &number)
{
    const char *end = word.data() + word.size();
    const std::from_chars_result result = std::from_chars(word.data(), end, number);
    if (result.ec == std::errc() && result.ptr == end && number >= least && number <= most)
        return {};
    return quoted(word) + " is no number from " + std::to_string(least) + " to " +
           std::to_string(most);
}

std::string parseErrorName(std::string_view word, int &error)
{
    constexpr int highestErrno = 133;
    for (int candidate = 1; candidate <= highestErrno; ++candidate) {
        const char *name = strerrorname_np(candidate);
        if (name != nullptr && word == name) {
            error = candidate;
            return {};
        }
    }
    return quoted(word) + " is no errno name, such as EBUSY";
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::string parseHex(std::string_view word, std::string &data)
{
    if (word.size() % 2 != 0 || word.size() / 2 > maxTransferSize)
        return "a transfer has two hexadecimal digits for each of 1 to " +
               std::to_string(maxTransferSize) + " bytes, not " + std::to_string(word.size()) +
               " digits";
    data.clear();
    for (std::size_t i = 0; i < word.size(); i += 2) {
        const int high = hexDigit(word[i]);
        const int low = hexDigit(word[i + 1]);
        if (high < 0 || low < 0)
            return quoted(word.substr(i, 2)) + " is no hexadecimal byte";
        data.push_back(static_cast<char>(high * 16 + low));
    }
    return {};
}

std::string parseArgument(Argument argument, std::string_view word, Command &command)
{
    constexpr std::uint32_t unlimited = std::numeric_limits<std::uint32_t>::max();
    switch (argument) {
    case Argument::None:
        break;
    case Argument::Error:
        return parseErrorName(word, command.error);
    case Argument::OptionalCalls:
        return parseNumber(word, 1, unlimited, command.calls);
    case Argument::Bytes:
        return parseNumber(word, 1, maxTransferSize, command.quantity);
    case Argument::PieceBytes:
        return parseNumber(word, 0, maxTransferSize, command.quantity);
    case Argument::Transfers:
        return parseNumber(word, 0, maxMergedTransfers, command.quantity);
    case Argument::Hex:
        return parseHex(word, command.data);
    case Argument::File:
        command.data = word;
        return {};
    case Argument::Milliseconds:
        return parseNumber(word, 0, unlimited, command.quantity);
    }
    return "too many words";
}

ParsedCommand parseArguments(const Rule &rule, const Words &words, std::size_t next)
{
    Command command;
    command.subject = rule.subject;
    command.verb = rule.verb;
    for (const Argument argument : {rule.first, rule.second}) {
        if (argument == Argument::None ||
            (argument == Argument::OptionalCalls && next == words.size()))
            continue;
        if (next == words.size())
            return failure("a word is missing", usage(rule));
        const std::string error = parseArgument(argument, words[next], command);
        if (!error.empty())
            return failure(error, usage(rule));
        ++next;
    }
    if (next < words.size())
        return failure(quoted(words[next]) + " is too much", usage(rule));
    return {command, {}};
}

ParsedCommand parseWords(const Words &words, int nesting);

std::optional<Call> parseCall(std::string_view word)
{
    if (word == "open")
        return Call::Open;
    if (word == "read")
        return Call::Read;
    if (word == "write")
        return Call::Write;
    if (word == "ioctl")
        return Call::Ioctl;
    if (word == "close")
        return Call::Close;
    return std::nullopt;
}

ParsedCommand parseOn(const Words &words, int nesting)
{
    if (nesting == maxNesting)
        return failure("too many 'on' in one command", "at most " + std::to_string(maxNesting));
    if (words.size() < 4)
        return failure("a word is missing", onUsage);
    const std::optional<Call> call = parseCall(words[1]);
    if (!call)
        return failure(quoted(words[1]) + " is no call", onUsage);
    Command command;
    command.subject = Subject::On;
    command.call = *call;
    const std::string error =
        parseNumber(words[2], 1, std::numeric_limits<std::uint32_t>::max(), command.calls);
    if (!error.empty())
        return failure(error, onUsage);
    ParsedCommand then = parseWords(Words(words.begin() + 3, words.end()), nesting + 1);
    if (!then.command)
        return then;
    if (then.command->subject == Subject::Wait)
        return failure("'wait' cannot follow 'on'", "a line of its own in a script");
    command.then = std::make_shared<const Command>(*then.command);
    return {command, {}};
}

ParsedCommand parseWords(const Words &words, int nesting)
{
    if (words.empty())
        return failure("the command is empty", std::string("one of ") + allSubjects);
    if (words[0] == "on")
        return parseOn(words, nesting);
    for (const Rule &rule : rules) {
        if (words[0] != rule.subjectWord)
            continue;
        if (rule.verbWord[0] == '\0')
            return parseArguments(rule, words, 1);
        if (words.size() > 1 && words[1] == rule.verbWord)
            return parseArguments(rule, words, 2);
    }
    const std::string usages = usagesOf(words[0]);
    if (usages.empty())
        return failure(quoted(words[0]) + " is no command", std::string("one of ") + allSubjects);
    if (words.size() == 1)
        return failure("a word is missing", usages);
    return failure(quoted(words[1]) + " does not follow " + quoted(words[0]), usages);
}

Words splitWords(std::string_view line)
{
    constexpr std::string_view blanks = " \t\r\n";
    Words words;
    std::size_t begin = line.find_first_not_of(blanks);
    while (begin != std::string_view::npos) {
        const std::size_t end = std::min(line.find_first_of(blanks, begin), line.size());
        words.push_back(line.substr(begin, end - begin));
        begin = line.find_first_not_of(blanks, end);
    }
    return words;
}

} // namespace

ParsedCommand parseCommand(std::string_view line)
{
    return parseWords(splitWords(line), 0);
}

std::string commandUsages()
{
    std::string text = onUsage;
    for (const Rule &rule : rules)
        text.append("\n").append(usage(rule));
    return text;
}

ParsedScript parseScript(std::string_view text)
{
    ParsedScript script;
    std::size_t lineNumber = 0;
    while (!text.empty()) {
        ++lineNumber;
        const std::size_t end = std::min(text.find('\n'), text.size());
        const Words words = splitWords(text.substr(0, std::min(text.find('#'), end)));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (words.empty())
            continue;
        const ParsedCommand parsed = parseWords(words, 0);
        if (!parsed.command) {
            script.error = "line " + std::to_string(lineNumber) + ": " + parsed.error;
            return script;
        }
        script.commands.push_back(*parsed.command);
    }
    return script;
}

} // namespace simnode
