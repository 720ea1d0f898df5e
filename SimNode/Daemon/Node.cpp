// SPDX-License-Identifier: MIT
#include "Node.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <utility>

namespace simnode {

namespace {

// Enough for a host that runs ahead a little; with more unread the host has to wait.
constexpr std::size_t maxUnreadTransfers = 4;
constexpr std::size_t maxInjectedTransfers = 1000;

LinkObserver nobody;

bool opensForReading(std::uint32_t flags)
{
    return (flags & O_ACCMODE) != O_WRONLY;
}

bool opensForWriting(std::uint32_t flags)
{
    return (flags & O_ACCMODE) != O_RDONLY;
}

} // namespace

Node::Node(bool timeoutIsError, LinkObserver *observer)
    : _observer(observer != nullptr ? observer : &nobody),
      _timeoutIsErrorAtStart(timeoutIsError),
      _timeoutIsError(timeoutIsError)
{
}

Node::FaultPlan Node::FaultPlan::next()
{
    const FaultPlan current = *this;
    if (calls > 0 && --calls == 0)
        *this = FaultPlan();
    return current;
}

// ---- device side

void Node::submit(CallId call, const DeviceRequest &request, const std::string &data, Time now)
{
    if (request.version != protocolVersion)
        refuse(call, EPROTO);
    else if (request.call == Call::Look)
        submitLook(call);
    else if (request.call == Call::Open)
        submitOpen(call, request, now);
    else
        submitToDescriptor(call, request, data, now);
}

void Node::submitToDescriptor(CallId call, const DeviceRequest &request, const std::string &data,
                              Time now)
{
    const auto found = _descriptors.find(request.handle);
    if (found == _descriptors.end()) {
        refuse(call, ENODEV);
        return;
    }
    switch (request.call) {
    case Call::Read:
        submitRead(call, found->second, request.argument, now);
        return;
    case Call::Write:
        submitWrite(call, found->second, data, now);
        return;
    case Call::Ioctl:
        submitIoctl(call, found->second, request, now);
        return;
    case Call::Close:
        submitClose(call, now);
        return;
    case Call::Open:
    case Call::Look:
        break;
    }
    refuse(call, EPROTO);
}

// No driver hears of it: neither a fault nor a counter does.
void Node::submitLook(CallId call)
{
    if (_present)
        answer(call, 0);
    else
        refuse(call, ENOENT);
}

void Node::submitOpen(CallId call, const DeviceRequest &request, Time now)
{
    ++_counters.opens;
    runTriggers(Call::Open, now);
    if (!_present) {
        refuse(call, ENOENT);
        return;
    }
    const FaultPlan plan = _openFaults.next();
    if (plan.fault == Verb::Stuck)
        return;
    if (plan.fault == Verb::Fail) {
        refuse(call, plan.error);
        return;
    }
    Descriptor descriptor;
    descriptor.flags = request.argument;
    if (request.handle == 0 || !_descriptors.emplace(request.handle, descriptor).second) {
        refuse(call, EPROTO);
        return;
    }
    _readTimeout = descriptor.readTimeout;
    _writeTimeout = descriptor.writeTimeout;
    answer(call, 0, {}, request.handle);
}

void Node::submitRead(CallId call, const Descriptor &descriptor, std::size_t size, Time now)
{
    if (!opensForReading(descriptor.flags)) {
        refuse(call, EBADF);
        return;
    }
    ++_counters.reads;
    runTriggers(Call::Read, now);
    const FaultPlan plan = _readFaults.next();
    if (plan.fault == Verb::Stuck)
        return;
    if (plan.fault == Verb::Fail) {
        refuse(call, plan.error);
        return;
    }
    const Time deadline = now + std::chrono::milliseconds(descriptor.readTimeout);
    _waitingReads.push_back({call, size, deadline, plan.fault == Verb::Silent});
    serveReads();
}

void Node::submitWrite(CallId call, const Descriptor &descriptor, const std::string &data, Time now)
{
    if (!opensForWriting(descriptor.flags)) {
        refuse(call, EBADF);
        return;
    }
    ++_counters.writes;
    runTriggers(Call::Write, now);
    _observer->writeBegan(call);
    const FaultPlan plan = _writeFaults.next();
    if (plan.fault == Verb::Stuck)
        return;
    if (plan.fault == Verb::Fail) {
        _observer->writeEnded(call, plan.error, {});
        refuse(call, plan.error);
        return;
    }
    // An empty packet on the host's socket would look like its end.
    if (plan.fault == Verb::Zero || data.empty()) {
        _observer->writeEnded(call, 0, {});
        answer(call, 0);
        return;
    }
    const std::size_t size = plan.fault == Verb::Short ? plan.bytes : data.size();
    const Time deadline = now + std::chrono::milliseconds(descriptor.writeTimeout);
    _waitingWrites.push_back({call, data.substr(0, size), deadline, arrivalOf(now)});
}

void Node::submitIoctl(CallId call, Descriptor &descriptor, const DeviceRequest &request, Time now)
{
    runTriggers(Call::Ioctl, now);
    const FaultPlan plan = _ioctlFaults.next();
    if (plan.fault == Verb::Fail) {
        refuse(call, plan.error);
    } else if (request.argument == setReadTimeoutRequest) {
        descriptor.readTimeout = _readTimeout = request.value;
        answer(call, 0);
    } else if (request.argument == setWriteTimeoutRequest) {
        descriptor.writeTimeout = _writeTimeout = request.value;
        answer(call, 0);
    } else {
        refuse(call, ENOTTY);
    }
}

// The descriptor itself goes with its connection, also when its close has failed.
void Node::submitClose(CallId call, Time now)
{
    runTriggers(Call::Close, now);
    const FaultPlan plan = _closeFaults.next();
    if (plan.fault == Verb::Fail)
        refuse(call, plan.error);
    else
        answer(call, 0);
}

void Node::abandon(CallId call)
{
    _observer->writeEnded(call, ENOENT, {}); // as a request is told that its host takes back
    const auto isCall = [call](const auto &waiting) { return waiting.call == call; };
    _waitingReads.erase(std::remove_if(_waitingReads.begin(), _waitingReads.end(), isCall),
                        _waitingReads.end());
    _waitingWrites.erase(std::remove_if(_waitingWrites.begin(), _waitingWrites.end(), isCall),
                         _waitingWrites.end());
}

void Node::release(std::uint32_t handle)
{
    _descriptors.erase(handle);
}

bool Node::isReadable(std::uint32_t handle) const
{
    const auto found = _descriptors.find(handle);
    return found != _descriptors.end() && opensForReading(found->second.flags) &&
           hasArrivedTransfer() && _readFaults.fault != Verb::Stuck &&
           _readFaults.fault != Verb::Silent;
}

std::vector<Node::Reply> Node::takeReplies()
{
    std::vector<Reply> replies;
    replies.swap(_replies);
    return replies;
}

void Node::answer(CallId call, std::int64_t result, std::string data, std::uint32_t handle)
{
    const DeviceReply header = {static_cast<std::int32_t>(result), 0, handle, 0};
    _replies.push_back({call, header, std::move(data)});
}

void Node::refuse(CallId call, int error)
{
    _replies.push_back({call, DeviceReply{-1, error, 0, 0}, {}});
}

void Node::runTriggers(Call call, Time now)
{
    std::vector<Command> due;
    for (Trigger &trigger : _triggers) {
        if (trigger.call == call && --trigger.remaining == 0)
            due.push_back(trigger.command);
    }
    const auto isOver = [](const Trigger &trigger) { return trigger.remaining == 0; };
    _triggers.erase(std::remove_if(_triggers.begin(), _triggers.end(), isOver), _triggers.end());
    for (const Command &command : due)
        execute(command, now);
}

void Node::serveReads()
{
    auto read = _waitingReads.begin();
    while (read != _waitingReads.end() && hasArrivedTransfer()) {
        if (read->silent) {
            ++read;
            continue;
        }
        std::string piece = takePiece(read->size);
        const std::size_t size = piece.size();
        answer(read->call, static_cast<std::int64_t>(size), std::move(piece));
        read = _waitingReads.erase(read);
    }
}

bool Node::hasArrivedTransfer() const
{
    return !_transfers.empty() && !_transfers.front().onTheWayUntil;
}

// What one read gets: the first transfer, or the next piece of it.
std::string Node::takePiece(std::size_t size)
{
    const std::string &transfer = _transfers.front().bytes;
    if (_pieceSize != 0)
        size = std::min<std::size_t>(size, _pieceSize);
    std::string piece = transfer.substr(_readOffset, std::min(size, maxTransferSize));
    _readOffset += piece.size();
    if (_readOffset == transfer.size()) {
        _observer->deviceRead(_transfers.front().sent);
        _transfers.pop_front();
        _readOffset = 0;
    }
    return piece;
}

// ---- host side

void Node::hostLeft()
{
    _hostConnected = false;
    dropTransfers();
}

void Node::dropTransfers()
{
    _observer->unreadDropped();
    _transfers.clear();
    _readOffset = 0;
    _merged.clear();
    _mergedTransfers = 0;
}

bool Node::takesTransfers() const
{
    return _transfers.size() < maxUnreadTransfers;
}

std::optional<Node::Time> Node::arrivalOf(Time sent) const
{
    return _latency.count() > 0 ? std::optional<Time>(sent + _latency) : std::nullopt;
}

void Node::queueTransfer(std::string bytes, std::size_t sent, Time now)
{
    _transfers.push_back({std::move(bytes), sent, arrivalOf(now)});
}

void Node::queueMerged(Time now)
{
    queueTransfer(std::exchange(_merged, {}), std::exchange(_mergedTransfers, 0), now);
}

void Node::transferFromHost(const std::string &transfer, Time now)
{
    if (transfer.empty())
        return;
    _observer->hostSent(transfer);
    if (_toMerge == 0) {
        queueTransfer(transfer, 1, now);
    } else {
        _merged += transfer;
        ++_mergedTransfers;
        if (--_toMerge == 0)
            queueMerged(now);
    }
    serveReads();
}

const std::string *Node::transferForHost(Time now) const
{
    if (!_hostConnected || _waitingWrites.empty())
        return nullptr;
    const WaitingWrite &first = _waitingWrites.front();
    return first.onTheWayUntil > now ? nullptr : &first.transfer;
}

void Node::hostTookTransfer()
{
    const WaitingWrite &write = _waitingWrites.front();
    _observer->writeEnded(write.call, 0, write.transfer);
    answer(write.call, static_cast<std::int64_t>(write.transfer.size()));
    _waitingWrites.pop_front();
}

// ---- control

std::string Node::execute(const Command &command, Time now)
{
    const FaultPlan plan = {command.verb, command.error, command.quantity, command.calls};
    switch (command.subject) {
    case Subject::Node:
        _present = command.verb == Verb::Present;
        return "ok";
    case Subject::Open:
        _openFaults = plan;
        return "ok";
    case Subject::Read:
        _readFaults = plan;
        return "ok";
    case Subject::Write:
        _writeFaults = plan;
        return "ok";
    case Subject::Ioctl:
        _ioctlFaults = plan;
        return "ok";
    case Subject::Close:
        _closeFaults = plan;
        return "ok";
    case Subject::Latency:
        _latency = std::chrono::milliseconds(command.quantity);
        return "ok";
    case Subject::Timeout:
        _timeoutIsError = command.verb == Verb::Error;
        return "ok";
    case Subject::Cable:
        setCable(command.verb == Verb::In);
        return "ok";
    case Subject::Merge:
        startMerge(command.quantity, now);
        return "ok";
    case Subject::Split:
        _pieceSize = command.quantity;
        return "ok";
    case Subject::Inject:
        return inject(command.data, now);
    case Subject::Pcap:
        return capture(command.data);
    case Subject::On:
        _triggers.push_back({command.call, command.calls, *command.then});
        return "ok";
    case Subject::Wait:
        return "error: a script can wait, a control command cannot; it should be: a line of a "
               "script";
    case Subject::Status:
        return status();
    case Subject::Reset:
        reset();
        return "ok";
    }
    return "error: unknown command";
}

void Node::setCable(bool in)
{
    _cableIn = in;
    if (!in)
        hostLeft();
}

// What an unfinished merge has gathered is delivered as it is.
void Node::startMerge(std::uint32_t transfers, Time now)
{
    _toMerge = transfers;
    if (_merged.empty())
        return;
    queueMerged(now);
    serveReads();
}

std::string Node::inject(const std::string &transfer, Time now)
{
    if (_transfers.size() >= maxInjectedTransfers)
        return "error: " + std::to_string(maxInjectedTransfers) +
               " transfers wait for the device; it should be: read them first";
    transferFromHost(transfer, now);
    return "ok";
}

std::string Node::capture(const std::string &path)
{
    const std::string error = _observer->capture(path);
    return error.empty() ? "ok"
                         : "error: " + error + "; it should be: a file with room on its disk";
}

void Node::reset()
{
    _present = true;
    _cableIn = true;
    _timeoutIsError = _timeoutIsErrorAtStart;
    _latency = std::chrono::milliseconds(0);
    for (FaultPlan *plan :
         {&_openFaults, &_readFaults, &_writeFaults, &_ioctlFaults, &_closeFaults})
        *plan = FaultPlan();
    _triggers.clear();
    _counters = Counters();
    dropTransfers();
    _toMerge = 0;
    _pieceSize = 0;
}

std::string Node::status() const
{
    const auto pair = [](const char *key, std::uint64_t value) {
        return std::string(" ") + key + "=" + std::to_string(value);
    };
    return std::string("ok node=") + (_present ? "present" : "missing") +
           " cable=" + (_cableIn ? "in" : "out") + pair("host", _hostConnected ? 1 : 0) +
           pair("opens", _counters.opens) + pair("reads", _counters.reads) +
           pair("writes", _counters.writes) + pair("pending", _transfers.size()) +
           pair("read_timeout", _readTimeout) + pair("write_timeout", _writeTimeout) +
           pair("descriptors", _descriptors.size());
}

// ---- time

void Node::advance(Time now)
{
    endJourneys(now);
    serveReads();
    endReads(now);
    endWrites(now);
}

void Node::endJourneys(Time now)
{
    const auto end = [now](std::optional<Time> &onTheWayUntil) {
        if (onTheWayUntil && *onTheWayUntil <= now)
            onTheWayUntil.reset();
    };
    for (UnreadTransfer &transfer : _transfers)
        end(transfer.onTheWayUntil);
    for (WaitingWrite &write : _waitingWrites)
        end(write.onTheWayUntil);
}

void Node::endReads(Time now)
{
    const auto end = [&](const WaitingRead &read) {
        if (read.deadline > now)
            return false;
        if (_timeoutIsError)
            refuse(read.call, ETIMEDOUT);
        else
            answer(read.call, 0);
        return true;
    };
    _waitingReads.erase(std::remove_if(_waitingReads.begin(), _waitingReads.end(), end),
                        _waitingReads.end());
}

void Node::endWrites(Time now)
{
    const auto end = [&](const WaitingWrite &write) {
        if (write.deadline > now)
            return false;
        _observer->writeEnded(write.call, ETIMEDOUT, {});
        refuse(write.call, ETIMEDOUT);
        return true;
    };
    _waitingWrites.erase(std::remove_if(_waitingWrites.begin(), _waitingWrites.end(), end),
                         _waitingWrites.end());
}

std::optional<Node::Time> Node::nextDeadline() const
{
    std::optional<Time> next;
    const auto consider = [&next](Time deadline) {
        if (!next || deadline < *next)
            next = deadline;
    };
    for (const WaitingRead &read : _waitingReads)
        consider(read.deadline);
    for (const WaitingWrite &write : _waitingWrites) {
        consider(write.deadline);
        consider(write.onTheWayUntil.value_or(write.deadline));
    }
    if (!_transfers.empty() && _transfers.front().onTheWayUntil)
        consider(*_transfers.front().onTheWayUntil);
    return next;
}

} // namespace simnode
