// SPDX-License-Identifier: MIT
//
// The host's end: the parser and the framer against a second working-out, and a session over a
// transport that takes and gives what the input says.

#include "FuzzTarget.h"

#include <HostSession.h>
#include <Protocol.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>

using namespace usbhalhost;

namespace {

using Status = TransferResult::Status;

constexpr std::size_t transportLimit = 3000;
constexpr std::string_view digits = "0123456789";

// ---- the parser

std::string framed(const DataMessage &message)
{
    const std::string length = std::to_string(10000 * 10 + message.payload.size() + 4).substr(1);
    const std::string port = std::to_string(10000 + message.port).substr(1);
    return "FADA" + length + port + std::string(message.payload);
}

std::string framed(const NoData &)
{
    return "DEVICE_NODATA";
}

std::string framed(const MaxReadSize &message)
{
    const std::string number = std::to_string(message.bytes);
    return "DEVICE_NODATA" + std::string(5 - std::min<std::size_t>(number.size(), 5), '0') + number;
}

std::string framed(const UnusableReadSize &message)
{
    return "DEVICE_NODATA" + std::string(message.digits);
}

std::string framed(const DelayRequest &)
{
    return "DEVICE_WTSEND";
}

// The size behind the tag of 13 bytes, 0 where it is none.
std::size_t announcedSize(std::string_view message)
{
    const std::string number(message.substr(13));
    constexpr std::size_t mostDigits = 20; // enough for the largest number
    const std::size_t begin = number.find_first_not_of('0');
    if (number.size() < 5 || begin == std::string::npos || number.size() - begin > mostDigits)
        return 0;
    errno = 0;
    const std::size_t size = std::strtoul(number.c_str(), nullptr, 10);
    return errno == 0 ? size : 0;
}

// Bytes of the message that the text begins with, 0 when none does.
std::size_t expectedSize(std::string_view text)
{
    if (text.substr(0, 13) == "DEVICE_NODATA") {
        const std::string_view behind = text.substr(13);
        const std::size_t width = std::min(behind.find_first_not_of(digits), behind.size());
        return 13 + width;
    }
    if (text == "DEVICE_WTSEND")
        return 13;
    const bool isHeader = text.substr(0, 4) == "FADA" && text.size() >= 13 &&
                          text.substr(4, 9).find_first_not_of(digits) == std::string_view::npos;
    const std::size_t size = isHeader ? std::stoul(std::string(text.substr(4, 5))) + 9 : 0;
    return size >= 13 && size <= text.size() ? size : 0;
}

void checkParser(std::string_view transfer)
{
    const ParsedTransfer parsed = parseTransfer(transfer);
    std::size_t offset = 0;
    for (const Message &message : parsed.messages) {
        const std::size_t size = expectedSize(transfer.substr(offset));
        require(size > 0, "a message begins where it was found");
        const std::string_view bytes = transfer.substr(offset, size);
        if (const auto *announced = std::get_if<MaxReadSize>(&message)) // zeros may lead it
            require(announced->bytes == announcedSize(bytes) && announced->bytes > 0, "a size");
        else
            require(bytes == std::visit([](const auto &other) { return framed(other); }, message),
                    "a message is its bytes");
        require(!std::holds_alternative<UnusableReadSize>(message) || announcedSize(bytes) == 0,
                "a size that can be used is");
        offset += size;
    }
    const bool complete = offset == transfer.size();
    require(complete != parsed.fault.has_value(), "a transfer is parsed to its end or has a fault");
    if (complete)
        return;
    require(parsed.fault->offset == offset, "the fault stands behind the messages");
    require(!parsed.fault->reason.empty(), "a fault has a reason");
    require(expectedSize(transfer.substr(offset)) == 0, "no message begins at a fault");
}

void checkFramer(int port, std::string_view payload)
{
    std::string transfer = "before";
    const bool done = appendDataMessage(transfer, port, payload);
    require(done == (port >= 0 && port <= 9999), "ports of 0 to 9999 alone can be framed");
    require(transfer == "before" + (done ? framed(DataMessage{port, payload}) : std::string()),
            "the message is appended, or nothing");
}

// ---- the session

/** The bytes of each port that were queued and did not go out yet, and those that came in. */
struct PortModel
{
    std::string outgoing;
    std::string incoming;
    bool reopened = false;
};

/** A transport that the input plays, and that holds the session to what it may send. */
class FuzzTransport : public MessageTransport
{
public:
    explicit FuzzTransport(FuzzInput &input) : _input(input) {}

    std::size_t maxTransferSize() const override { return transportLimit; }

    TransferResult send(std::string_view transfer, std::chrono::milliseconds) override
    {
        require(!transfer.empty(), "no transfer is empty");
        const TransferResult result = _outcome();
        if (result.status == Status::Done && transfer != "DEVICE_NODATA")
            _takeData(transfer);
        return result;
    }

    TransferResult receive(std::string &transfer, std::chrono::milliseconds) override
    {
        const TransferResult result = _outcome();
        if (result.status != Status::Done)
            return result;
        transfer = _nextTransfer();
        _account(transfer);
        return result;
    }

    void forget()
    {
        ports.clear();
        limit = 500;
        isDelayed = false;
    }

    std::map<int, PortModel> ports;
    std::size_t limit = 500;
    bool isEstablished = false;
    bool isDelayed = false;

private:
    TransferResult _outcome()
    {
        const unsigned kind = _input.below(8);
        if (kind == 6)
            return {Status::TimedOut, {}};
        if (kind != 7)
            return {};
        isEstablished = false;
        return {Status::Closed, "pulled"};
    }

    std::string _nextTransfer()
    {
        std::string transfer;
        for (unsigned messages = _input.below(4); messages > 0; --messages) {
            switch (_input.below(5)) {
            case 0: {
                const auto port = static_cast<int>(_input.below(4));
                appendDataMessage(transfer, port, _input.shortText());
                break;
            }
            case 1:
                transfer += "DEVICE_NODATA";
                break;
            case 2:
                transfer += framed(MaxReadSize{_input.number(2)});
                break;
            case 3:
                transfer += "DEVICE_WTSEND";
                break;
            default:
                transfer += _input.shortText();
            }
        }
        return transfer;
    }

    // What a transfer of the device must do to the session, by the bytes alone.
    void _account(std::string_view transfer)
    {
        isEstablished = true;
        std::size_t size = expectedSize(transfer);
        for (; size > 0; size = expectedSize(transfer)) {
            const std::string_view message = transfer.substr(0, size);
            if (message[0] == 'F')
                ports[std::stoi(std::string(message.substr(9, 4)))].incoming += message.substr(13);
            else
                isDelayed = message == "DEVICE_WTSEND";
            const bool isSize = message.substr(0, 13) == "DEVICE_NODATA";
            if (isSize && announcedSize(message) > 0)
                limit = std::min(announcedSize(message), transportLimit);
            transfer.remove_prefix(size);
        }
    }

    void _takeData(std::string_view transfer)
    {
        require(isEstablished && !isDelayed, "data goes to a device that takes it");
        require(transfer.size() <= limit, "no transfer passes the device's maximum read size");
        while (!transfer.empty()) {
            const std::size_t size = expectedSize(transfer);
            require(size > 0 && transfer[0] == 'F', "nothing but whole data messages goes out");
            const int port = std::stoi(std::string(transfer.substr(9, 4)));
            _takePayload(ports[port], transfer.substr(13, size - 13));
            transfer.remove_prefix(size);
        }
    }

    static void _takePayload(PortModel &port, std::string_view payload)
    {
        if (std::exchange(port.reopened, false)) {
            require(payload == "DEVICE_CONN", "a reopened port is announced ahead of its bytes");
            return;
        }
        require(!payload.empty() && port.outgoing.substr(0, payload.size()) == payload,
                "the bytes sent are the bytes queued, in their order");
        port.outgoing.erase(0, payload.size());
    }

    FuzzInput &_input;
};

/** A session and what the host's program does with it. */
class SessionRun
{
public:
    explicit SessionRun(FuzzInput &input) : _input(input), _transport(input), _session(_transport)
    {
        _takesInHandlers = input.flag();
        HostSession::Handlers handlers;
        handlers.bytesReceived = [this](int port) { _onReceived(port); };
        handlers.bytesDelivered = [this](int port, std::size_t bytes) {
            _onDelivered(port, bytes);
        };
        handlers.delayChanged = [this](bool delayed) {
            require(delayed == _session.isDelayed(), "a delay is told as it is");
        };
        handlers.faultSeen = [](const std::string &text) {
            require(!text.empty(), "a fault has a text");
        };
        _session.setHandlers(handlers);
    }

    void run()
    {
        while (!_input.isEmpty()) {
            _act(_input.below(8));
            _check();
        }
    }

private:
    void _act(unsigned action)
    {
        // Beyond 9999 at the end: those are refused.
        const int port = static_cast<int>(_input.below(5)) * 2500;
        switch (action) {
        case 0:
        case 1:
            _send(port);
            break;
        case 2:
            require(_session.announceReopened(port) == (port < 10000), "which ports there are");
            if (port < 10000)
                _transport.ports[port].reopened = true;
            break;
        case 3:
            _take(port);
            break;
        case 4:
            if (_input.below(8) == 1)
                _restart();
            break;
        default:
            _step();
        }
    }

    void _send(int port)
    {
        const std::size_t size = _input.below(10) * 100;
        const std::string bytes(size, static_cast<char>(_input.byte()));
        require(_session.send(port, bytes) == (port < 10000), "which ports there are");
        if (port < 10000) {
            _transport.ports[port].outgoing += bytes;
            _queued[port] += bytes.size();
        }
    }

    void _step()
    {
        const HostSession::StepResult result = _session.step();
        require((result == HostSession::StepResult::Closed) == !_session.closeReason().empty() ||
                    result != HostSession::StepResult::Closed,
                "a closed transport has a reason");
        require(result != HostSession::StepResult::Exchanged || _session.isEstablished(),
                "an answer establishes the session");
    }

    void _restart()
    {
        _session.restart();
        _transport.forget();
        _transport.isEstablished = false;
        _queued.clear();
    }

    void _take(int port)
    {
        require(_session.received(port) == std::exchange(_transport.ports[port].incoming, {}),
                "the bytes taken are the bytes that came, in their order");
    }

    void _onReceived(int port)
    {
        // The transport has accounted for the whole transfer, of which this may be the beginning.
        std::string &incoming = _transport.ports[port].incoming;
        if (!_takesInHandlers)
            return;
        const std::string taken = _session.received(port);
        require(!taken.empty() && incoming.substr(0, taken.size()) == taken,
                "the bytes announced are the bytes that came");
        incoming.erase(0, taken.size());
    }

    void _onDelivered(int port, std::size_t bytes)
    {
        require(bytes > 0 && bytes <= _queued[port], "no byte is delivered that was not queued");
        _queued[port] -= bytes;
    }

    void _check()
    {
        for (const auto &[number, port] : _transport.ports)
            require(_session.pendingBytes(number) == port.outgoing.size(), "the bytes that wait");
        require(_session.maxWriteSize() == _transport.limit,
                "the largest transfer is as announced");
        require(_session.isDelayed() == _transport.isDelayed, "a delay is as the device asked");
        require(_transport.isEstablished || !_session.isEstablished(),
                "nothing but an answer establishes the session");
        // A session that has waited too long is not established; the transport cannot tell.
        _transport.isEstablished = _session.isEstablished();
    }

    FuzzInput &_input;
    FuzzTransport _transport;
    HostSession _session;
    std::map<int, std::size_t> _queued; // and not yet told as delivered
    bool _takesInHandlers = false;
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzInput input(data, size);
    if (input.flag()) {
        SessionRun(input).run();
        return 0;
    }
    const int port = static_cast<int>(input.number(2)) - 100;
    const std::string_view bytes = input.rest();
    checkParser(bytes);
    checkFramer(port, bytes);
    return 0;
}
