// SPDX-License-Identifier: MIT
//
// The simulated node: a script of faults is parsed, and runs on a node while programs and a host
// do what the rest of the input says, at times of its own. The input is the script's text, a zero
// byte, and the events.

#include "FuzzTarget.h"

#include <Command.h>
#include <Node.h>
#include <ScriptRunner.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

using namespace simnode;

namespace {

constexpr int deepestCommand = 8; // of `on ... on ...`
constexpr int mostEvents = 400;   // fewer than the injections that may wait
constexpr std::chrono::milliseconds longestTime{1LL << 33}; // longer than any time-out

// ---- the parser

std::vector<std::string_view> linesOf(std::string_view text)
{
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::size_t size = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, size);
        lines.push_back(line.substr(0, line.find('#')));
        text.remove_prefix(std::min(size + 1, text.size()));
    }
    return lines;
}

bool isBlank(std::string_view line)
{
    return line.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

std::string hexOf(std::string_view bytes)
{
    constexpr std::string_view hexDigits = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        text += {hexDigits[value / 16], hexDigits[value % 16]};
    }
    return text;
}

// The words of a command, from what it was understood as.
std::string wordsOf(const Command &command)
{
    constexpr const char *subjects[] = {"node",    "open",    "read",  "write",  "ioctl", "close",
                                        "latency", "timeout", "cable", "merge",  "split", "inject",
                                        "pcap",    "on",      "wait",  "status", "reset"};
    constexpr const char *calls[] = {"open", "read", "write", "ioctl", "close"};
    constexpr const char *verbs[] = {"",       " ok",     " missing", " present", " fail",
                                     " stuck", " silent", " short",   " zero",    " error",
                                     " out",   " in",     " off"};
    const Subject subject = command.subject;
    std::string words = subjects[static_cast<int>(subject)];
    if (subject == Subject::On) {
        const char *call = calls[static_cast<std::size_t>(command.call) - 1];
        return words + ' ' + call + ' ' + std::to_string(command.calls) + ' ' +
               wordsOf(*command.then);
    }
    words += verbs[static_cast<int>(command.verb)];
    if (command.error != 0)
        words += std::string(" ") + strerrorname_np(command.error);
    if (command.verb == Verb::Short || subject == Subject::Merge || subject == Subject::Split ||
        subject == Subject::Wait || subject == Subject::Latency)
        words += ' ' + std::to_string(command.quantity);
    if (command.calls > 0)
        words += ' ' + std::to_string(command.calls);
    if (subject == Subject::Pcap && command.verb == Verb::None)
        words += ' ' + command.data;
    return words + (subject == Subject::Inject ? ' ' + hexOf(command.data) : std::string());
}

// The words of a line, with one blank between them, its numbers and its bytes as wordsOf() has
// them. A path stays as it is.
std::string normalized(std::string_view line)
{
    constexpr std::string_view blanks = " \t\r\n";
    std::string words;
    std::string before;
    while (!isBlank(line)) {
        line.remove_prefix(line.find_first_not_of(blanks));
        const std::size_t size = std::min(line.find_first_of(blanks), line.size());
        std::string word(line.substr(0, size));
        line.remove_prefix(size);
        if (before == "inject")
            std::transform(word.begin(), word.end(), word.begin(),
                           [](char c) { return c >= 'A' && c <= 'F' ? char(c + 32) : c; });
        else if (before != "pcap")
            word.erase(0, std::min(word.find_first_not_of('0'), word.size() - 1));
        words += (words.empty() ? "" : " ") + word;
        before = word;
    }
    return words;
}

int depthOf(const Command &command)
{
    return command.then ? 1 + depthOf(*command.then) : 0;
}

void checkParsed(std::string_view line, const ParsedCommand &parsed)
{
    require(!parsed.command || wordsOf(*parsed.command) == normalized(line),
            "a command is all of its words");
    require(!parsed.command || depthOf(*parsed.command) <= deepestCommand,
            "commands in commands have an end");
    require(parsed.command.has_value() == parsed.error.empty(), "a command or why there is none");
    require(std::all_of(parsed.error.begin(), parsed.error.end(),
                        [](char c) { return c >= ' ' && c <= '~'; }),
            "an error can be printed");
    require(parsed.error.size() < 500, "an error is short, however long the command was");
}

// A script is its lines, up to the first that is none.
void checkScript(std::string_view text, const ParsedScript &script)
{
    std::size_t commands = 0;
    std::string error;
    std::size_t number = 0;
    for (const std::string_view line : linesOf(text)) {
        ++number;
        const ParsedCommand parsed = parseCommand(line);
        checkParsed(line, parsed);
        commands += parsed.command ? 1 : 0;
        if (!parsed.command && !isBlank(line)) {
            error = "line " + std::to_string(number) + ": " + parsed.error;
            break;
        }
    }
    require(script.commands.size() == commands, "each line of a script is a command");
    require(script.error == error, "the error is that of the first faulty line");
}

// ---- the node

/** The fault that a call meets. */
struct Plan
{
    Verb verb = Verb::Ok;
    int error = 0;
    std::uint32_t bytes = 0;
    std::uint32_t calls = 0; // that it still spoils, 0: all
};

/**
 * The faults of the node, and the bytes that may be read, as commands, triggers and the host add
 * and drop them.
 */
class NodeModel
{
public:
    void execute(const Command &command)
    {
        const Plan plan = {command.verb, command.error, command.quantity, command.calls};
        switch (command.subject) {
        case Subject::Node:
            _isMissing = command.verb == Verb::Missing;
            break;
        case Subject::Open:
            _plans[Call::Open] = plan;
            break;
        case Subject::Read:
            _plans[Call::Read] = plan;
            break;
        case Subject::Write:
            _plans[Call::Write] = plan;
            break;
        case Subject::Ioctl:
            _plans[Call::Ioctl] = plan;
            break;
        case Subject::Close:
            _plans[Call::Close] = plan;
            break;
        case Subject::Merge:
            _flushMerged();
            _toMerge = command.quantity;
            break;
        case Subject::Split:
            _pieceSize = command.quantity;
            _largestPiece = std::max(_largestPiece, _sizeOfPieces());
            break;
        case Subject::Inject:
            append(command.data);
            break;
        case Subject::Cable:
            if (command.verb == Verb::Out)
                drop();
            break;
        case Subject::Reset:
            _reset();
            break;
        case Subject::On:
            _triggers.push_back({command.call, command.calls, *command.then});
            break;
        default:
            break;
        }
    }

    /** A call has come that triggers count; returns the fault that it meets. */
    Plan countCall(Call call)
    {
        std::vector<Command> due;
        std::vector<Trigger> left;
        for (Trigger &trigger : _triggers) {
            if (trigger.call == call && --trigger.calls == 0)
                due.push_back(trigger.command);
            else
                left.push_back(trigger);
        }
        _triggers = left;
        for (const Command &command : due)
            execute(command);
        if (call == Call::Open && _isMissing)
            return {Verb::Fail, ENOENT};
        const Plan plan = _plans[call];
        if (plan.calls > 0 && --_plans[call].calls == 0)
            _plans[call] = Plan();
        return plan;
    }

    void append(std::string_view transfer)
    {
        if (transfer.empty())
            return;
        _merged += transfer;
        if (_toMerge == 0 || --_toMerge == 0)
            _flushMerged();
    }
    void drop()
    {
        _sent.emplace_back();
        _merged.clear();
    }

    /**
     * Bytes were read, in the event that is under way, maybe before what it dropped: where equal
     * bytes were sent more than once, it is left open which of them.
     */
    void take(const std::string &bytes)
    {
        require(bytes.size() <= _largestPiece, "transfers are split as asked");
        std::set<Position> behind;
        for (const Position &position : _positions) {
            for (std::size_t stream = position.first; stream < _sent.size(); ++stream) {
                const std::size_t begin = stream == position.first ? position.second : 0;
                if (_sent[stream].substr(begin, bytes.size()) == bytes)
                    behind.insert({stream, begin + bytes.size()});
            }
        }
        require(!behind.empty(),
                "the bytes read are the bytes sent, none twice, none invented, in their order");
        _positions = behind;
    }

    void endEvent()
    {
        std::set<Position> positions;
        for (const Position &position : _positions)
            positions.insert({0, position.first + 1 == _sent.size() ? position.second : 0});
        _positions = positions;
        _sent = {_sent.back()};
        _largestPiece = _sizeOfPieces();
    }

private:
    struct Trigger
    {
        Call call;
        std::uint32_t calls;
        Command command;
    };

    std::size_t _sizeOfPieces() const { return _pieceSize == 0 ? maxTransferSize : _pieceSize; }

    void _flushMerged() { _sent.back() += std::exchange(_merged, {}); }

    void _reset()
    {
        drop();
        _triggers.clear();
        _plans.clear();
        _isMissing = false;
        _toMerge = 0;
        _pieceSize = 0;
    }

    std::map<Call, Plan> _plans;
    bool _isMissing = false;
    std::string _merged; // that waits for the rest of a merged transfer
    std::uint32_t _toMerge = 0;
    std::uint32_t _pieceSize = 0;
    std::size_t _largestPiece = maxTransferSize;          // in the event that is under way
    using Position = std::pair<std::size_t, std::size_t>; // a stream, and bytes of it

    std::vector<std::string> _sent{1};     // before each drop, and after the last
    std::set<Position> _positions{{0, 0}}; // up to which it may have been read
    std::vector<Trigger> _triggers;
};

/** A node, its script, and what programs and the host do with it. */
class NodeRun
{
public:
    NodeRun(FuzzInput &input, const std::vector<Command> &commands)
        : _input(input),
          _lastHandle(input.number(4)),
          _node(input.flag()),
          _commands(commands),
          _runner(commands)
    {
    }

    void run()
    {
        _runScript();
        for (int i = 0; i < mostEvents && !_input.isEmpty(); ++i) {
            _act(_input.below(16));
            _endEvent();
        }
        // The rest of the script may send transfers on their way.
        while (_next < _commands.size())
            _passAll();
        _passAll();
        require(!_node.nextDeadline(), "every call that waits for its time-out has ended");
    }

private:
    struct Pending
    {
        Call call;
        std::uint32_t argument;
        bool isWrong; // the handle of an open, or the request of an ioctl
        std::string data;
        std::optional<Plan> plan; // none: it does not get as far as the faults
    };

    void _passAll()
    {
        _pass(longestTime);
        _endEvent();
    }

    void _act(unsigned action)
    {
        switch (action) {
        case 0:
        case 1:
            _submit(Call::Open, _newHandle(), action == 0 ? O_RDWR : _input.byte());
            break;
        case 2:
        case 3:
        case 4:
        case 5:
        case 6:
        case 7:
        case 8:
            _submitToDescriptor(action);
            break;
        case 9:
            _abandon();
            break;
        case 10:
            _release(_anyHandle());
            break;
        case 11:
            _plug();
            break;
        case 12:
            _sendAsHost(_input.shortText());
            break;
        case 13:
            _receiveAsHost();
            break;
        case 14:
            _execute();
            break;
        default:
            _pass(std::chrono::milliseconds(_input.number(2)));
        }
    }

    std::uint32_t _newHandle()
    {
        do {
            ++_lastHandle;
        } while (_lastHandle == 0 || _handles.count(_lastHandle) != 0);
        return _lastHandle;
    }

    std::uint32_t _anyHandle()
    {
        const unsigned choice = _input.byte();
        if (_handles.empty() || choice == 255)
            return choice;
        return std::next(_handles.begin(), choice % static_cast<unsigned>(_handles.size()))->first;
    }

    // ---- programs

    void _submitToDescriptor(unsigned action)
    {
        // One after the other: the order of a call's arguments is the compiler's.
        const auto call = action == 8 ? static_cast<Call>(_input.byte()) : Call::Read;
        const std::uint32_t handle = _anyHandle();
        if (action < 5)
            _submit(Call::Read, handle, _input.number(2) % 200);
        else if (action < 7)
            _submit(Call::Write, handle, 0);
        else if (action == 7)
            _submit(Call::Ioctl, handle, 0x5300 + _input.below(4));
        else
            _submit(call, handle, _input.byte());
    }

    void _submit(Call call, std::uint32_t handle, std::uint32_t argument)
    {
        const DeviceRequest request = {protocolVersion, call, handle, argument, _input.number(2)};
        const Node::CallId id = ++_lastCall;
        std::string data;
        if (call == Call::Write) // unlike any other, also when it is cut short
            data = std::to_string(id) + ":" + std::string(_input.shortText());
        _pending[id] = {call, argument, _isWrong(request), data, std::nullopt};
        if (_reachesNode(request))
            _pending[id].plan = _model.countCall(call);
        _node.submit(id, request, data, _now);
    }

    bool _isWrong(const DeviceRequest &request) const
    {
        if (request.call == Call::Open)
            return request.handle == 0 || _handles.count(request.handle) != 0;
        return request.call == Call::Ioctl && request.argument != setReadTimeoutRequest &&
               request.argument != setWriteTimeoutRequest;
    }

    // Calls on a descriptor that does not allow them are refused before any trigger.
    bool _reachesNode(const DeviceRequest &request) const
    {
        if (request.call == Call::Open)
            return true;
        const auto found = _handles.find(request.handle);
        if (found == _handles.end())
            return false;
        const std::uint32_t access = found->second & O_ACCMODE;
        return request.call == Call::Ioctl || request.call == Call::Close ||
               (request.call == Call::Read && access != O_WRONLY) ||
               (request.call == Call::Write && access != O_RDONLY);
    }

    void _abandon()
    {
        if (_pending.empty())
            return;
        const auto choice = _input.byte() % static_cast<unsigned>(_pending.size());
        const auto found = std::next(_pending.begin(), choice);
        _node.abandon(found->first);
        _pending.erase(found);
    }

    void _release(std::uint32_t handle)
    {
        _node.release(handle);
        _handles.erase(handle);
    }

    // ---- the host

    void _plug()
    {
        if (_node.hostConnected()) {
            _node.hostLeft();
            _model.drop();
        } else if (_node.acceptsHost()) {
            _node.hostArrived();
        }
    }

    void _sendAsHost(std::string_view transfer)
    {
        if (!_node.hostConnected() || !_node.takesTransfers())
            return;
        _model.append(transfer);
        _node.transferFromHost(std::string(transfer), _now);
    }

    void _receiveAsHost()
    {
        const std::string *waiting = _node.transferForHost(_now);
        if (waiting == nullptr)
            return;
        const std::string transfer = *waiting;
        require(_node.hostConnected() && !transfer.empty(),
                "a transfer goes to a host that is there");
        _node.hostTookTransfer();
        const std::vector<Node::Reply> replies = _node.takeReplies();
        require(replies.size() == 1, "a transfer that was taken ends one write");
        const Pending write = _takePending(replies.front().call);
        require(write.call == Call::Write && write.plan, "a transfer is that of a write");
        const bool isShort = write.plan->verb == Verb::Short;
        require(isShort || write.plan->verb == Verb::Ok, "a write that fails reaches no host");
        require(write.data.substr(0, isShort ? write.plan->bytes : std::string::npos) == transfer,
                "a transfer is what its write wrote, or as much as the fault leaves of it");
        require(replies.front().header.result == static_cast<std::int32_t>(transfer.size()),
                "a write returns what went to the host");
        require(std::exchange(_lastTaken, replies.front().call) < replies.front().call,
                "transfers go to the host in the order of their writes");
    }

    // ---- commands and time

    void _execute()
    {
        if (_commands.empty())
            return;
        const Command &command = _commands[_input.byte() % _commands.size()];
        const std::string answer = _node.execute(command, _now);
        const bool done = answer.substr(0, 2) == "ok";
        require(done || answer.substr(0, 7) == "error: ", "a command is answered");
        require(done == (command.subject != Subject::Wait && command.subject != Subject::Pcap),
                "all can be executed but a wait and a capture, which this node has nobody for");
        _model.execute(command);
    }

    void _runScript()
    {
        _runner.run(_node, _now);
        while (_next < _commands.size() && _resumeAt <= _now) {
            const Command &command = _commands[_next++];
            if (command.subject == Subject::Wait)
                _resumeAt = _now + std::chrono::milliseconds(command.quantity);
            _model.execute(command);
        }
        require(_runner.nextDeadline().has_value() == (_next < _commands.size()),
                "a script runs up to a wait that is not over");
    }

    void _pass(std::chrono::milliseconds time)
    {
        _now += time;
        _node.advance(_now);
        const auto next = _node.nextDeadline();
        require(!next || *next > _now, "no call outlasts its time-out");
        _takeReplies();
        _runScript();
    }

    // ---- replies

    void _endEvent()
    {
        _takeReplies();
        _model.endEvent();
    }

    void _takeReplies()
    {
        for (const Node::Reply &reply : _node.takeReplies())
            _checkReply(_takePending(reply.call), reply);
    }

    Pending _takePending(Node::CallId call)
    {
        const auto found = _pending.find(call);
        require(found != _pending.end(), "a call is answered once, and not after it was abandoned");
        Pending pending = found->second;
        _pending.erase(found);
        return pending;
    }

    void _checkReply(const Pending &pending, const Node::Reply &reply)
    {
        const DeviceReply &header = reply.header;
        require((header.result == -1) == (header.error > 0), "a call fails with an errno");
        require(header.result >= -1, "a call fails with -1");
        require(reply.data.empty() || pending.call == Call::Read, "reads alone have data");
        if (pending.plan)
            _checkFault(pending, reply);
        if (header.result < 0)
            return;
        if (pending.call == Call::Open) {
            require(header.handle != 0, "a handle is not 0");
            require(_handles.emplace(header.handle, pending.argument).second, "a handle is new");
        } else if (pending.call == Call::Read) {
            require(reply.data.size() <= pending.argument, "a read fits its buffer");
            require(reply.data.size() == static_cast<std::size_t>(header.result),
                    "a read returns what it read");
            _model.take(reply.data);
        } else {
            require(header.result == 0, "a write that no host took, an ioctl and a close return 0");
        }
    }

    static void _checkFault(const Pending &pending, const Node::Reply &reply)
    {
        const Plan &plan = *pending.plan;
        const int error = reply.header.error;
        require(plan.verb != Verb::Stuck, "a call that is stuck never returns");
        require(plan.verb != Verb::Fail || error == plan.error, "a fault fails as it should");
        const int errorOfWrong = pending.call == Call::Open ? EPROTO : ENOTTY;
        require(plan.verb == Verb::Fail || error == (pending.isWrong ? errorOfWrong : 0) ||
                    error == ETIMEDOUT,
                "nothing but a fault, a wrong call and a time-out fails");
        require(plan.verb != Verb::Silent || reply.data.empty(), "a silent read reads nothing");
    }

    FuzzInput &_input;
    std::uint32_t _lastHandle;
    Node _node;
    const std::vector<Command> &_commands;
    ScriptRunner _runner;
    std::size_t _next = 0;
    Node::Time _resumeAt{};
    Node::Time _now{};
    NodeModel _model;
    std::map<Node::CallId, Pending> _pending;
    std::map<std::uint32_t, std::uint32_t> _handles; // and their flags
    Node::CallId _lastCall = 0;
    Node::CallId _lastTaken = 0;
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzInput input(data, size);
    const std::string_view text = input.upTo('\0');
    const ParsedScript script = parseScript(text);
    checkScript(text, script);
    NodeRun(input, script.commands).run();
    return 0;
}
