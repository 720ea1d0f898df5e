// SPDX-License-Identifier: MIT
#include "PortPipe.h"

#include "Console.h"
#include "Failure.h"
#include "Signals.h"

#include <algorithm>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr auto lastFlush = 500ms; // then it is asked whether to end

std::optional<std::uint64_t> totalOf(const PipeOptions &options, const Input *input)
{
    return input != nullptr ? input->size() : options.bytes;
}

} // namespace

PortPipe::PortPipe(const LinkOptions &link, PipeOptions options)
    : _options(std::move(options)),
      _link(link, _options.port,
            {[this](const std::string &bytes) { _receive(bytes); },
             [this](std::size_t bytes) { _noteDelivered(bytes); }})
{
    if (!_options.input.empty())
        _input = std::make_unique<Input>(_options.input);
    if (!_options.output.empty())
        _output = std::make_unique<Output>(_options.output);
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
        _readerWait.waitFor(*_output, "the reader of the output");
        return;
    }
    _readerWait.end();
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
    return _options.endsWithInput && _input && _input->isEnded() && _link.undelivered() == 0 &&
           _isQuietFor(_options.linger);
}

bool PortPipe::_isQuietFor(double seconds) const
{
    return Clock::now() - _lastMoved >= std::chrono::duration<double>(seconds);
}

void PortPipe::_feed()
{
    const std::size_t room = _link.room();
    if (!_input || _input->isEnded() || room == 0)
        return;
    const std::string bytes = _input->take(room);
    if (bytes.empty() && !_input->isEnded())
        return;
    _lastMoved = Clock::now();
    _link.send(bytes);
}

void PortPipe::_receive(std::string bytes)
{
    if (!_output)
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
}

// A device that has fallen silent has thrown away what it was sent and did not answer.
void PortPipe::_noteSilence()
{
    if (!_link.answers())
        _countLoss();
}

void PortPipe::_countLoss()
{
    _lost += _link.takeLoss();
}

void PortPipe::_handleLoss()
{
    _countLoss();
    _complete =
        _options.endsWithInput && _input->isEnded() && _link.undelivered() == 0 && _lost == 0;
    if (_complete)
        return;
    if (!_options.reconnect)
        throw Failure(exitFailed, "the link is lost: " + _link.reason() + "; " +
                                      std::to_string(_lost + _link.undelivered()) +
                                      " bytes may not have reached the device");
    tell("the link is lost: " + _link.reason() + "; waiting for the device");
    _link.reopen();
    tell("the device is back");
    _lastMoved = Clock::now();
}

void PortPipe::_finish()
{
    while (_output && !_output->isEmpty() && !endIsAsked())
        _output->flush(lastFlush);
    _lost += _link.undelivered();
    if (_lost > 0)
        throw Failure(exitFailed, std::to_string(_lost) +
                                      " bytes may not have reached the device: send them again");
    if (endIsAsked() && _options.endsWithInput)
        throw Failure(exitFailed, "ended by a signal before the input was over");
}
