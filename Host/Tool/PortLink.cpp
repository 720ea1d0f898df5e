// SPDX-License-Identifier: MIT
#include "PortLink.h"

#include "DeviceChoice.h"

#include <utility>

PortLink::PortLink(const LinkOptions &options, int port, Handlers handlers)
    : _device(options.device), _port(port), _handlers(std::move(handlers)), _link(options)
{
    _link.setHandlers(
        [this](int from, const std::string &bytes) {
            if (from == _port)
                _handlers.received(bytes);
        },
        [this](int, std::size_t bytes) { _noteDelivered(bytes); });
    _link.setDetour([this] { return _reachForward(); });
}

void PortLink::open()
{
    _link.open();
}

void PortLink::reopen()
{
    _remote.reset();
    _link.reopen();
    const std::string held = _outbox.bytes();
    _outbox.clear();
    send(held);
}

bool PortLink::_reachForward()
{
    const auto name = chooseDevice(_device);
    auto forward = name ? findForward(placeOf(*name)) : std::nullopt;
    if (!forward)
        return false;
    _remote = std::make_unique<RemotePort>(std::move(*forward), _port);
    _remoteReason =
        "usbhal forward (process " + std::to_string(_remote->process()) + ") has ended it";
    return true;
}

bool PortLink::step()
{
    if (!_remote)
        return _link.step();
    return _remote->step(
        {_handlers.received, [this](std::size_t bytes) { _noteDelivered(bytes); }});
}

void PortLink::_noteDelivered(std::size_t bytes)
{
    _outbox.noteDelivered(bytes);
    _handlers.delivered(bytes);
}

const std::string &PortLink::reason() const
{
    return _remote ? _remoteReason : _link.reason();
}

bool PortLink::answers() const
{
    return _remote || _link.session().isEstablished();
}

std::size_t PortLink::room() const
{
    return _outbox.room(_remote ? _remote->largestTransfer() : _link.session().maxWriteSize());
}

void PortLink::send(const std::string &bytes)
{
    _outbox.add(bytes);
    if (_remote)
        _remote->send(bytes);
    else
        _link.session().send(_port, bytes);
}

std::size_t PortLink::takeLoss()
{
    return _outbox.takeLoss(_unsent());
}

std::size_t PortLink::_unsent() const
{
    return _remote ? _remote->unsent() : _link.session().pendingBytes(_port);
}
