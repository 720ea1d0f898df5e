// SPDX-License-Identifier: MIT
#include "PortPipe.h"

#include "Console.h"
#include "Failure.h"
#include "Signals.h"

#include <algorithm>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr auto readerWait = 500ms;
constexpr auto silentWait = 1s; // of a wait that is not told

std::optional<std::uint64_t> totalOf(const PipeOptions &options, const Input *input)
{
    return input != nullptr ? input->size() : options.bytes;
}

} // namespace

PortPipe::PortPipe(const LinkOptions &link, PipeOptions options)
    : _options(std::move(options)), _link(link)
{
    if (!_options.input.empty())
        _input = std::make_unique<Input>(_options.input);
    if (!_options.output.empty())
        _output = std::make_unique<Output>(_options.output);
    _link.setHandlers([this](int port) { _receive(port); },
                      [this](int, std::size_t bytes) { _noteDelivered(bytes); });
}

void PortPipe::run()
{
    _link.open();
    _lastMoved = Clock::now();
    if (!_input || !_output)
        _progress = std::make_unique<Progress>(totalOf(_options, _input.get()));
    while (!_isOver() && !endIsAsked())
        _turn();
    _progress.reset();
    _finish();
}

void PortPipe::_turn()
{
    if (_output && _output->isFull()) {
        _waitForReader();
        return;
    }
    _readerWaits = false;
    if (_output)
        _output->flush(0ms);
    _feed();
    if (!_link.step())
        _handleLoss();
    else
        _noteSilence();
    if (_progress)
        _progress->show(_delivered + _received);
}

bool PortPipe::_isOver() const
{
    if (_complete || (_options.bytes && _received >= *_options.bytes))
        return true;
    if (_options.idle && _isQuietFor(*_options.idle))
        return true;
    return _options.endsWithInput && _input && _input->isEnded() && _undelivered.empty() &&
           _isQuietFor(_options.linger);
}

bool PortPipe::_isQuietFor(double seconds) const
{
    return Clock::now() - _lastMoved >= std::chrono::duration<double>(seconds);
}

// Two transfers ahead, so that each is full.
void PortPipe::_feed()
{
    const std::size_t wanted = 2 * _link.session().maxWriteSize();
    if (!_input || _input->isEnded() || _undelivered.size() >= wanted)
        return;
    const std::string bytes = _input->take(wanted - _undelivered.size());
    if (bytes.empty() && !_input->isEnded())
        return;
    _lastMoved = Clock::now();
    _undelivered += bytes;
    _link.session().send(_options.port, bytes);
}

void PortPipe::_receive(int port)
{
    std::string bytes = _link.session().received(port);
    if (port != _options.port || !_output)
        return;
    _lastMoved = Clock::now();
    if (_options.bytes)
        bytes.resize(static_cast<std::size_t>(
            std::min<std::uint64_t>(bytes.size(), *_options.bytes - _received)));
    _received += bytes.size();
    _output->put(bytes);
}

void PortPipe::_noteDelivered(std::size_t bytes)
{
    _lastMoved = Clock::now();
    _delivered += bytes;
    _undelivered.erase(0, bytes);
}

// A device that has fallen silent has thrown away what it was sent and did not answer.
void PortPipe::_noteSilence()
{
    if (!_link.session().isEstablished())
        _countLoss();
}

// What the session still has was never sent, and is no loss.
void PortPipe::_countLoss()
{
    const std::size_t inFlight = _undelivered.size() - _link.session().pendingBytes(_options.port);
    _lost += inFlight;
    _undelivered.erase(0, inFlight);
}

void PortPipe::_handleLoss()
{
    _countLoss();
    _complete = _options.endsWithInput && _input->isEnded() && _undelivered.empty() && _lost == 0;
    if (_complete)
        return;
    if (!_options.reconnect)
        throw Failure(exitFailed, "the link is lost: " + _link.reason() + "; " +
                                      std::to_string(_lost + _undelivered.size()) +
                                      " bytes may not have reached the device");
    tell("the link is lost: " + _link.reason() + "; waiting for the device");
    _link.reopen();
    tell("the device is back");
    _link.session().send(_options.port, _undelivered);
    _lastMoved = Clock::now();
}

void PortPipe::_waitForReader()
{
    if (!std::exchange(_readerWaits, true)) {
        _readerWaitBegan = Clock::now();
        _readerWaitTold = false;
    }
    _output->flush(readerWait);
    if (_output->isFull() && !_readerWaitTold && Clock::now() - _readerWaitBegan >= silentWait) {
        _readerWaitTold = true;
        tell("the reader of the output takes nothing: the exchange with the device waits for it");
    }
}

void PortPipe::_finish()
{
    while (_output && !_output->isEmpty() && !endIsAsked())
        _output->flush(readerWait);
    _lost += _undelivered.size();
    if (_lost > 0)
        throw Failure(exitFailed, std::to_string(_lost) +
                                      " bytes may not have reached the device: send them again");
    if (endIsAsked() && _options.endsWithInput)
        throw Failure(exitFailed, "ended by a signal before the input was over");
}
