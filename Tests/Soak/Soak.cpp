// SPDX-License-Identifier: MIT
#include "Soak.h"

#include <Campaign.h>
#include <EventPolling.h>

#include <iostream>

namespace {

constexpr int timeout = 60000;         // ms, real
constexpr int mostMessages = 12;       // of a port in a cycle; the write queue takes 100 in all
constexpr int largestMessage = 1900;   // bytes
constexpr int slowReaderBytes = 20000; // for each port: together more than the device leaves unread
constexpr int allMessages = 1000000;
constexpr quint64 cyclesPerHost = 50; // then a new one, since a host keeps what it receives
constexpr double msPerSecond = 1000;

} // namespace

Soak::Soak(const SoakOptions &options)
    : _options(options),
      _faults(faults(options.withKills)),
      _random(options.seed),
      _link(options.isVirtual)
{
    _clock.start();
}

std::vector<Soak::Fault> Soak::faults(bool withKills)
{
    std::vector<Fault> faults = {
        {"nothing", &Soak::playNothing},
        {"slow reader", &Soak::playSlowReader},
        {"few failures", &Soak::playFewFailures},
        {"short write", &Soak::playShortWrite},
        {"failed reads", &Soak::playFailedReads},
        {"failed writes", &Soak::playFailedWrites},
        {"cable out", &Soak::playCableOut},
        {"host gone", &Soak::playHostGone},
        {"closed port", &Soak::playClosedPort},
        {"stop", &Soak::playStop},
        {"stop, node missing", &Soak::playNodeMissing},
        {"stop, open refused", &Soak::playOpenRefused},
    };
    if (withKills) {
        faults.push_back({"stuck read", &Soak::playStuckRead});
        faults.push_back({"stuck write", &Soak::playStuckWrite});
    }
    return faults;
}

void Soak::run(const std::function<bool()> &isStopRequested)
{
    const auto end = static_cast<qint64>(_options.seconds * msPerSecond);
    const auto period = static_cast<qint64>(_options.statusPeriod * msPerSecond);
    qint64 nextStatus = period;
    while (!isStopRequested() && (end <= 0 || _clock.elapsed() < end)) {
        try {
            runCycle();
        } catch (const SoakFailure &failure) {
            throw SoakFailure(
                QString("cycle %1, fault \"%2\": %3").arg(_cycles + 1).arg(_fault, failure.what()));
        }
        ++_cycles;
        if (_clock.elapsed() >= nextStatus) {
            printStatus();
            nextStatus += period;
        }
    }
    printStatus();
}

void Soak::runCycle()
{
    if (!_inOrder || _cycles % cyclesPerHost == 0)
        _link.setInOrder(_random);
    _inOrder = true;
    const Fault &fault = _faults[_random.bounded(static_cast<quint32>(_faults.size()))];
    _fault = fault.name;
    sendOnAllPorts(_random.bounded(1, mostMessages));
    (this->*fault.play)();
    _bytes += _link.toHost.receivedBytes() + _link.toDevice.receivedBytes();
    if (_inOrder) {
        _link.toHost.clear();
        _link.toDevice.clear();
    }
}

void Soak::sendOnAllPorts(int messages)
{
    for (int i = 0; i < messages; ++i) {
        for (const int port : SoakLink::ports()) {
            _link.sendToHost(port,
                             Traffic::makeBytes(port, _random.bounded(1, largestMessage), _random));
            _link.sendToDevice(
                port, Traffic::makeBytes(port, _random.bounded(1, largestMessage), _random));
        }
    }
}

// Lets the traffic get to some point of its own before something happens to it.
void Soak::receiveSome()
{
    const qint64 bytes = _random.bounded(largestMessage * mostMessages);
    happens(
        [&] {
            _link.receive(1);
            return _link.toDevice.receivedBytes() >= bytes || !_link.isUndisturbed() ||
                   (_link.toDevice.isComplete() && _link.toHost.isComplete());
        },
        timeout);
}

// For cycles in which nothing takes the link down.
void Soak::finishTraffic()
{
    happens(
        [this] {
            _link.receive(allMessages);
            return !_link.isUndisturbed() ||
                   (_link.toDevice.isComplete() && _link.toHost.isComplete());
        },
        timeout);
    if (!_link.isUndisturbed())
        throw SoakFailure("the link went down, and nothing had asked for it");
    for (const int port : SoakLink::ports()) {
        _link.toDevice.expectComplete(port);
        _link.toHost.expectComplete(port);
    }
}

void Soak::expectPrefixes()
{
    _inOrder = false;
    for (const int port : SoakLink::ports()) {
        _link.toDevice.expectPrefix(port);
        _link.toHost.expectPrefix(port);
    }
}

void Soak::playNothing()
{
    finishTraffic();
}

void Soak::playSlowReader()
{
    for (const int port : SoakLink::ports())
        _link.sendToDevice(port, Traffic::makeBytes(port, slowReaderBytes, _random));
    receiveSome();
    finishTraffic();
}

void Soak::playFewFailures()
{
    _link.command(_random.bounded(2) == 0 ? "read fail EIO 2" : "read silent 2");
    _link.command(_random.bounded(2) == 0 ? "write fail EPIPE 2" : "write zero 2");
    finishTraffic();
}

void Soak::playShortWrite()
{
    receiveSome();
    _link.command("write short 11 1");
    finishTraffic();
}

void Soak::playCommandsUntilLoss(const char *fault)
{
    receiveSome();
    _link.command(fault);
    const bool lost = happens(
        [this] {
            _link.receive(1);
            return !_link.isUndisturbed();
        },
        timeout);
    if (!lost)
        throw SoakFailure("the link did not go down");
    expectPrefixes();
}

void Soak::playHostGone()
{
    receiveSome();
    expectPrefixes();
}

void Soak::playClosedPort()
{
    const int port = SoakLink::ports()[_random.bounded(SoakLink::ports().size())];
    receiveSome();
    if (!_link.facade->closeConnection(port) || !_link.facade->openConnection(port))
        throw SoakFailure(QString("port %1 could not be closed and opened").arg(port));
    _link.toDevice.forget(port);
    _link.toHost.forget(port);
    finishTraffic();
    _inOrder = false;
}

void Soak::playStop()
{
    receiveSome();
    _link.facade->stop();
    if (_link.facade->isRunning())
        throw SoakFailure("the communication did not stop");
    expectPrefixes();
}

void Soak::playStopWithoutNode(const char *fault)
{
    playStop();
    _link.command(fault);
    const int opens = _link.nodeOpens();
    if (!_link.facade->closeConnection(1) || !_link.facade->openConnection(1))
        throw SoakFailure("port 1 could not be closed and opened");
    if (!happens([&] { return _link.nodeOpens() > opens + 3; }, timeout))
        throw SoakFailure("a missing node is not tried again");
}

void Soak::playStuckCall(const char *fault)
{
    receiveSome();
    const int opens = _link.nodeOpens();
    _link.command(fault);
    const bool restarted = happens(
        [&] {
            _link.receive(1);
            return _link.nodeOpens() > opens;
        },
        timeout);
    if (!restarted)
        throw SoakFailure("a stuck thread was not started afresh");
    ++_kills;
    expectPrefixes();
}

void Soak::printStatus() const
{
    std::cout << "after " << _clock.elapsed() / 1000 << " s: cycles " << _cycles << ", bytes "
              << _bytes << ", reconnects " << (_link.connections() - 1) << ", kills " << _kills
              << ", resident memory " << Campaign::residentMemory() << " kB, descriptors "
              << Campaign::openDescriptors() << std::endl;
}
