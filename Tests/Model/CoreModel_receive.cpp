// SPDX-License-Identifier: MIT
#include "CoreModel.h"

namespace {

// Received bytes as the log shows them.
QString text(const QByteArray &bytes)
{
    const int zero = bytes.indexOf('\0');
    return QString::fromUtf8(zero < 0 ? bytes : bytes.left(zero));
}

} // namespace

bool CoreModel::receive(const QByteArray &buffer)
{
    const quint32 stops = _stops;
    int total = 0;
    for (;;) {
        const auto view = [&] {
            return QByteArray::fromRawData(buffer.constData() + total, buffer.size() - total);
        };
        int consumed = 0;
        const bool accepted = receiveOne(view(), consumed);
        total += consumed;
        const QByteArray rest = view();
        if (!rest.isEmpty()) {
            log("_processAllMessages", "Remaining frame size : " + QString::number(rest.size()));
            log("_processAllMessages", "Message: " + text(rest.left(100)));
        }
        // A stop in a handler ends the buffer.
        if (!accepted || rest.isEmpty() || _stops != stops)
            return accepted;
    }
}

bool CoreModel::receiveOne(const QByteArray &rest, int &consumed)
{
    const quint32 stops = _stops;
    const CutMessage message = cutMessage(rest, isHost());
    consumed = message.size;
    if (message.kind == CutMessage::Kind::NoData) {
        peerBusy = false;
        if (isHost() && !maxSizeExchanged)
            takeMaxWriteSize(rest);
    } else if (message.kind == CutMessage::Kind::Wait) {
        peerBusy = true;
    } else if (!receiveData(message, rest)) {
        return false;
    }
    // Where a handler stopped the core, the link does not come up after the stop.
    if (_stops == stops && changeLink(DriverState::CONNECTED) && _stops == stops)
        linkUp();
    return true;
}

void CoreModel::takeMaxWriteSize(const QByteArray &rest)
{
    const int size = decimal(rest.right(5));
    if (size <= 0) {
        log("_processMessage", "max write size is invalid : " + text(rest));
        return;
    }
    if (_driver >= 0)
        _drivers[_driver].maxWriteSize = size > 30999 ? 31000 : static_cast<quint32>(size);
    log("_processMessage", "max write size set to " + QString::number(size));
    maxSizeExchanged = true;
}

bool CoreModel::receiveData(const CutMessage &message, const QByteArray &rest)
{
    switch (message.kind) {
    case CutMessage::Kind::WrongSize:
        log("_processDataMessage",
            "ERROR: Received message with wrong size ! Trash it: " + text(rest));
        return false;
    case CutMessage::Kind::InvalidPort:
        log("_processDataMessage",
            "ERROR: Received message with invalid connection id ! Trash it: " + text(rest));
        return false;
    case CutMessage::Kind::Data:
        return deliver(message.port, message.payload);
    default:
        logNotValid(rest);
        return false;
    }
}

void CoreModel::logNotValid(const QByteArray &rest)
{
    log("_processDataMessage", "ERROR: Message received is not valid: " + text(rest));
    if (rest.size() < 6 || rest.size() >= 500)
        return;
    const QString ends =
        rest.size() > 80 ? text(rest.left(40)) + "..." + text(rest.right(40)) : text(rest);
    QString shown;
    for (const QChar c : '[' + ends + ']') {
        if (!c.isSpace())
            shown += c;
    }
    log("_processDataMessage", shown);
}

bool CoreModel::deliver(int port, const QByteArray &payload)
{
    const QString number = QString::number(port);
    if (!isOpen(port)) {
        if (payload != "DEVICE_CONN") {
            log("_processDataMessage", "ERROR: message received for non-connected port: " + number);
            return true;
        }
        reopen(port);
        store(port, payload);
        return true;
    }
    if (qint64(_queues.value(port).size()) + payload.size() > 124000) {
        log("_processDataMessage", "ERROR: Buffer Overflow on port #" + number);
        return false;
    }
    if (payload.size() > 5 && payload.size() < 500)
        log("_processDataMessage", QString::number(payload.size()) +
                                       " new bytes to be read by client connected on port " +
                                       number);
    store(port, payload);
    return true;
}

// A port that is closed here stays so, and keeps the marker.
void CoreModel::reopen(int port)
{
    const bool cut = _states[port] == SocketState::DISCONNECTED;
    if (cut)
        _states[port] = SocketState::OPENED;
    link = DriverState::CONNECTED;
    log("_processDataMessage", "port #" + QString::number(port) + " is now OPENED");
}

void CoreModel::store(int port, const QByteArray &payload)
{
    _queues[port].append(payload);
    bytesWaiting += static_cast<quint32>(payload.size());
    emitSignal("readyRead(" + QString::number(port) + ')');
}
