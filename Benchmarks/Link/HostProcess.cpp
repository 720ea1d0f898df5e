// SPDX-License-Identifier: MIT
#include "HostProcess.h"

#include "Require.h"

#include <HostSession.h>
#include <SeqPacketTransport.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <csignal>
#include <new>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace usbhalhost;
using namespace std::chrono_literals;

namespace {

constexpr quint32 exchangesKept = 65536;
constexpr std::size_t supply = 40000; // bytes that wait for each port while the device is fed
constexpr SessionTimeouts timeouts{20ms, 15};

} // namespace

qint64 now()
{
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Lies in memory that both processes see.
struct HostProcess::Record
{
    std::atomic<bool> feeding{false};
    std::atomic<bool> stamping{false};
    std::atomic<bool> wrongBytes{false};
    std::atomic<qint64> pending{0};
    std::atomic<quint32> stamps{0};
    std::atomic<qint64> stampDelays{0};
    std::atomic<quint32> exchanges{0};
    Exchange list[exchangesKept];
};

class HostProcess::Host
{
public:
    Host(const std::string &nodeFolder, Record &record)
        : _record(record), _transport(nodeFolder + "/host"), _session(_transport, timeouts)
    {
        HostSession::Handlers handlers;
        handlers.bytesReceived = [this](int port) { take(port, _session.received(port)); };
        handlers.bytesDelivered = [this](int /*port*/, std::size_t bytes) {
            _state.bytesToDevice += static_cast<qint64>(bytes);
        };
        _session.setHandlers(handlers);
    }

    [[noreturn]] void run()
    {
        for (;;) {
            if (_record.feeding)
                feed();
            _record.pending = pending();
            if (_transport.isConnected())
                exchange();
            else
                connect();
        }
    }

private:
    void connect()
    {
        if (_transport.connect().status == TransferResult::Status::Done)
            _session.restart();
        else
            std::this_thread::sleep_for(5ms);
    }

    void exchange()
    {
        const HostSession::StepResult result = _session.step();
        if (result == HostSession::StepResult::Closed)
            _transport.close();
        if (result != HostSession::StepResult::Exchanged)
            return;
        _state.time = now();
        _record.list[_record.exchanges % exchangesKept] = _state;
        ++_record.exchanges;
    }

    void feed()
    {
        for (int port = 1; port <= ports; ++port) {
            const std::size_t pending = _session.pendingBytes(port);
            if (pending < supply)
                _session.send(port, std::string(supply - pending, fillOf(port)));
        }
    }

    qint64 pending() const
    {
        std::size_t bytes = 0;
        for (int port = 1; port <= ports; ++port)
            bytes += _session.pendingBytes(port);
        return static_cast<qint64>(bytes);
    }

    void take(int port, const std::string &bytes)
    {
        _state.bytesToHost += static_cast<qint64>(bytes.size());
        if (_record.stamping && port == 1)
            takeStamps(bytes);
        else if (bytes.find_first_not_of(fillOf(port)) != std::string::npos)
            _record.wrongBytes = true;
    }

    void takeStamps(const std::string &bytes)
    {
        if (bytes.size() % stampSize != 0)
            _record.wrongBytes = true;
        for (std::size_t i = 0; i + stampSize <= bytes.size(); i += stampSize) {
            qint64 time = 0;
            std::from_chars(&bytes[i], &bytes[i] + stampSize, time);
            _record.stampDelays += now() - time;
            ++_record.stamps;
        }
    }

    Record &_record;
    SeqPacketTransport _transport;
    HostSession _session;
    Exchange _state = {};
};

HostProcess::HostProcess(const std::string &nodeFolder)
{
    void *const memory =
        mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    require(memory != MAP_FAILED, "two processes share memory");
    _record = new (memory) Record;
    _pid = fork();
    require(_pid >= 0, "the host has a process");
    if (_pid != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Host(nodeFolder, *_record).run();
}

HostProcess::~HostProcess()
{
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
    munmap(_record, sizeof(Record));
}

void HostProcess::setFeeding(bool feeding)
{
    _record->feeding = feeding;
}

void HostProcess::setStamping(bool stamping)
{
    _record->stamping = stamping;
}

quint32 HostProcess::exchanges() const
{
    return _record->exchanges;
}

HostProcess::Exchange HostProcess::exchange(quint32 index) const
{
    return _record->list[index % exchangesKept];
}

quint32 HostProcess::stamps() const
{
    return _record->stamps;
}

qint64 HostProcess::stampDelays() const
{
    return _record->stampDelays;
}

qint64 HostProcess::pending() const
{
    return _record->pending;
}

bool HostProcess::sawWrongBytes() const
{
    return _record->wrongBytes;
}
