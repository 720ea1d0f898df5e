// SPDX-License-Identifier: MIT
#include "TracingTransport.h"

#include "Console.h"

#include <utility>

using usbhalhost::TransferResult;

TracingTransport::TracingTransport(std::unique_ptr<usbhalhost::DeviceTransport> transport,
                                   bool telling)
    : _transport(std::move(transport)), _telling(telling)
{
}

TransferResult TracingTransport::connect()
{
    _lastReceived.clear();
    return _transport->connect();
}

void TracingTransport::close()
{
    _transport->close();
}

bool TracingTransport::isConnected() const
{
    return _transport->isConnected();
}

std::size_t TracingTransport::maxTransferSize() const
{
    return _transport->maxTransferSize();
}

TransferResult TracingTransport::send(std::string_view transfer, std::chrono::milliseconds timeout)
{
    TransferResult result = _transport->send(transfer, timeout);
    if (result.status == TransferResult::Status::Done)
        _tell("to the device", std::string(transfer));
    return result;
}

TransferResult TracingTransport::receive(std::string &transfer, std::chrono::milliseconds timeout)
{
    TransferResult result = _transport->receive(transfer, timeout);
    if (result.status == TransferResult::Status::Done) {
        _lastReceived = transfer;
        _tell("from the device", transfer);
    }
    return result;
}

void TracingTransport::_tell(const char *direction, const std::string &bytes) const
{
    if (_telling)
        tell(std::string(direction) + ", " + std::to_string(bytes.size()) +
             " bytes: " + excerptOf(bytes));
}
