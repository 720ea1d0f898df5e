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
#include <chrono>
#include <deque>
#include <fcntl.h>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

using namespace simnode;

namespace {

constexpr int mostEvents = 400; // fewer than the injections that may wait
constexpr std::chrono::milliseconds longestTime{1L << 33}; // longer than any time-out

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

void checkParsed(const ParsedCommand &parsed)
{
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
        checkParsed(parsed);
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

/** The bytes that may be read, as commands, triggers and the host add and drop them. */
class StreamModel
{
public:
    void execute(const Command &command)
    {
        switch (command.subject) {
        case Subject::Inject:
            append(command.data);
            break;
        case Subject::Cable:
            if (command.verb == Verb::Out)
                drop();
            break;
        case Subject::Reset:
            drop();
            _triggers.clear();
            break;
        case Subject::On:
            _triggers.push_back({command.call, command.calls, *command.then});
            break;
        default:
            break;
        }
    }

    /** A call has come that triggers count. */
    void countCall(Call call)
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
    }

    void append(std::string_view bytes) { _unread.back() += bytes; }
    void drop() { _unread.emplace_back(); }

    /** Bytes were read, in the event that is under way, maybe before what it dropped. */
    void take(const std::string &bytes)
    {
        while (_unread.size() > 1 && _unread.front().substr(0, bytes.size()) != bytes)
            _unread.pop_front();
        require(_unread.front().substr(0, bytes.size()) == bytes,
                "the bytes read are the bytes sent, none twice, none invented, in their order");
        _unread.front().erase(0, bytes.size());
    }

    void endEvent() { _unread.erase(_unread.begin(), _unread.end() - 1); }

private:
    struct Trigger
    {
        Call call;
        std::uint32_t calls;
        Command command;
    };

    std::deque<std::string> _unread{1}; // what was sent before each drop, and after the last
    std::vector<Trigger> _triggers;
};

/** A node, its script, and what programs and the host do with it. */
class NodeRun
{
public:
    NodeRun(FuzzInput &input, const std::vector<Command> &commands)
        : _input(input),
          _node(input.number(4), input.flag()),
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
        _pass(longestTime);
        _endEvent();
        require(!_node.nextDeadline(), "every call that waits for its time-out has ended");
    }

private:
    struct Pending
    {
        Call call;
        std::uint32_t argument;
        std::string data;
    };

    void _act(unsigned action)
    {
        switch (action) {
        case 0:
        case 1:
            _submit(Call::Open, 0, action == 0 ? O_RDWR : _input.byte());
            break;
        case 2:
        case 3:
        case 4:
            _submit(Call::Read, _anyHandle(), _input.number(2) % 200);
            break;
        case 5:
        case 6:
            _submit(Call::Write, _anyHandle(), 0);
            break;
        case 7:
            _submit(Call::Ioctl, _anyHandle(), 0x5300 + _input.below(4));
            break;
        case 8:
            _submit(static_cast<Call>(_input.byte()), _anyHandle(), _input.byte());
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

    std::uint32_t _anyHandle()
    {
        const unsigned choice = _input.byte();
        if (_handles.empty() || choice == 255)
            return choice;
        return std::next(_handles.begin(), choice % static_cast<unsigned>(_handles.size()))->first;
    }

    // ---- programs

    void _submit(Call call, std::uint32_t handle, std::uint32_t argument)
    {
        const DeviceRequest request = {protocolVersion, call, handle, argument, _input.number(2)};
        const Node::CallId id = ++_lastCall;
        std::string data;
        if (call == Call::Write) // unlike any other, also when it is cut short
            data = std::to_string(id) + ":" + std::string(_input.shortText());
        _pending[id] = {call, argument, data};
        if (_reachesNode(request))
            _stream.countCall(call);
        _node.submit(id, request, data, _now);
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
        return (request.call == Call::Read && access != O_WRONLY) ||
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
            _stream.drop();
        } else if (_node.acceptsHost()) {
            _node.hostArrived();
        }
    }

    void _sendAsHost(std::string_view transfer)
    {
        if (!_node.hostConnected() || !_node.takesTransfers())
            return;
        _stream.append(transfer);
        _node.transferFromHost(std::string(transfer));
    }

    void _receiveAsHost()
    {
        const std::string *waiting = _node.transferForHost();
        if (waiting == nullptr)
            return;
        const std::string transfer = *waiting;
        require(_node.hostConnected() && !transfer.empty(),
                "a transfer goes to a host that is there");
        _node.hostTookTransfer();
        const std::vector<Node::Reply> replies = _node.takeReplies();
        require(replies.size() == 1, "a transfer that was taken ends one write");
        const Pending write = _takePending(replies.front().call);
        require(write.call == Call::Write && write.data.substr(0, transfer.size()) == transfer,
                "a transfer is what its write wrote, or the beginning of it");
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
        const std::string answer = _node.execute(command);
        const bool done = answer.substr(0, 2) == "ok";
        require(done || answer.substr(0, 7) == "error: ", "a command is answered");
        require(done == (command.subject != Subject::Wait), "all but a wait can be executed");
        _stream.execute(command);
    }

    void _runScript()
    {
        _runner.run(_node, _now);
        while (_next < _commands.size() && _resumeAt <= _now) {
            const Command &command = _commands[_next++];
            if (command.subject == Subject::Wait)
                _resumeAt = _now + std::chrono::milliseconds(command.quantity);
            _stream.execute(command);
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
        _stream.endEvent();
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
        if (header.result < 0)
            return;
        if (pending.call == Call::Open) {
            require(header.handle != 0, "a handle is not 0");
            require(_handles.emplace(header.handle, pending.argument).second, "a handle is new");
        } else if (pending.call == Call::Read) {
            require(reply.data.size() <= pending.argument, "a read fits its buffer");
            require(reply.data.size() == static_cast<std::size_t>(header.result),
                    "a read returns what it read");
            _stream.take(reply.data);
        } else {
            require(header.result == 0, "a write that no host took, and an ioctl, return 0");
        }
    }

    FuzzInput &_input;
    Node _node;
    const std::vector<Command> &_commands;
    ScriptRunner _runner;
    std::size_t _next = 0;
    Node::Time _resumeAt{};
    Node::Time _now{};
    StreamModel _stream;
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
