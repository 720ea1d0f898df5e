// SPDX-License-Identifier: MIT
#include "HostileTraffic.h"

namespace {

QByteArray padded(int value, int width)
{
    return QByteArray::number(value).rightJustified(width, '0');
}

QByteArray framed(int port, const QByteArray &payload)
{
    return "FADA" + padded(payload.size() + 4, 5) + padded(port, 4) + payload;
}

const QList<QByteArray> vocabulary{
    "FADA",        "DEVICE_NODATA", "DEVICE_WTSEND", "DEVICE_CONN",
    "DEVICE_DISC", "DEVICE_",       "00004",         "00005",
    "00015",       "00000",         "99999",         "00003",
    "0001",        "0002",          "0003",          "9999",
    "-001",        "+0005",         "    5",         " ",
    "\n",          "\xff",          "\xc3\xa9",      QByteArray(1, '\0')};

} // namespace

QByteArray HostileTraffic::wellFormed(const QList<int> &ports, int &framedBytes)
{
    QByteArray buffer;
    framedBytes = 0;
    for (int messages = 1 + random.below(4); messages > 0; --messages) {
        if (random.oneIn(5)) {
            buffer += "DEVICE_NODATA";
        } else {
            const QByteArray payload = _payload();
            framedBytes += payload.size();
            buffer += framed(random.pick(ports), payload);
        }
    }
    if (random.oneIn(5))
        buffer += "DEVICE_WTSEND";
    return buffer;
}

QByteArray HostileTraffic::hostile()
{
    switch (random.below(6)) {
    case 0:
        return _noise(random.below(random.oneIn(10) ? 700 : 40));
    case 1:
        return _words();
    case 2:
        return _messages();
    default: {
        QByteArray buffer = _messages();
        for (int i = 1 + random.below(3); i > 0; --i)
            _damage(buffer);
        return buffer;
    }
    }
}

QByteArray HostileTraffic::flood(int port)
{
    QByteArray buffer;
    const QByteArray message = framed(port, QByteArray());
    for (int i = 24000 + random.below(100); i > 0; --i)
        buffer += message;
    return buffer + framed(port, _noise(99900)) + framed(port, _noise(99995)) + message;
}

int HostileTraffic::anyPort()
{
    return random.oneIn(50) ? random.below(10000) : random.below(7);
}

int HostileTraffic::_payloadSize()
{
    if (random.oneIn(1000))
        return random.below(99996);
    if (random.oneIn(10))
        return random.below(600);
    return random.below(16);
}

QByteArray HostileTraffic::_payload()
{
    if (random.oneIn(10))
        return "DEVICE_CONN";
    if (random.oneIn(10))
        return random.pick(vocabulary);
    return random.oneIn(3) ? _noise(_payloadSize()) : QByteArray(_payloadSize(), 'p');
}

QByteArray HostileTraffic::_noise(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &byte : bytes)
        byte = random.byte();
    return bytes;
}

QByteArray HostileTraffic::_words()
{
    QByteArray buffer;
    for (int i = random.below(12); i >= 0; --i)
        buffer += random.pick(vocabulary);
    return buffer;
}

QByteArray HostileTraffic::_messages()
{
    QByteArray buffer;
    for (int i = random.below(4); i >= 0; --i) {
        if (random.oneIn(6))
            buffer += random.pick(vocabulary);
        else
            buffer += framed(anyPort(), _payload());
    }
    return buffer;
}

void HostileTraffic::_damage(QByteArray &buffer)
{
    const int at = buffer.isEmpty() ? 0 : random.below(buffer.size());
    const int size = random.below(20);
    switch (random.below(7)) {
    case 0:
        buffer.replace(at, 1, QByteArray(1, random.byte()));
        break;
    case 1:
        buffer.replace(at, 1, random.pick(vocabulary));
        break;
    case 2:
        buffer.truncate(at);
        break;
    case 3:
        buffer.insert(at, _noise(size));
        break;
    case 4:
        buffer.remove(at, size);
        break;
    case 5:
        _repeatRange(buffer);
        break;
    default:
        _damageLength(buffer);
        break;
    }
}

void HostileTraffic::_damageLength(QByteArray &buffer)
{
    const int magic = buffer.indexOf("FADA");
    if (magic >= 0)
        buffer.replace(magic + 4, 5, padded(random.below(random.oneIn(4) ? 100000 : 64), 5));
}

void HostileTraffic::_repeatRange(QByteArray &buffer)
{
    if (buffer.isEmpty())
        return;
    const QByteArray range = buffer.mid(random.below(buffer.size()), random.below(40));
    buffer.insert(random.below(buffer.size()), range);
}
