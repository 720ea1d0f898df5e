// SPDX-License-Identifier: MIT
#include "MessageCutter.h"

namespace {

// The head is "FADA", five digits for what follows them, four for the port.
CutMessage cutData(const QByteArray &bytes)
{
    CutMessage cut;
    if (!bytes.startsWith("FADA"))
        return cut;
    cut.kind = CutMessage::Kind::WrongSize;
    const int length = bytes.size() < 9 ? -1 : decimal(bytes.mid(4, 5));
    if (length < 4 || length + 9 > bytes.size())
        return cut;
    cut.size = length + 9;
    cut.port = decimal(bytes.mid(9, 4));
    cut.payload = bytes.mid(13, length - 4);
    cut.kind = cut.port < 0 ? CutMessage::Kind::InvalidPort : CutMessage::Kind::Data;
    return cut;
}

} // namespace

int decimal(const QByteArray &field)
{
    int value = 0;
    for (const char c : field) {
        if (c < '0' || c > '9')
            return -1;
        value = value * 10 + (c - '0');
    }
    return field.isEmpty() ? -1 : value;
}

CutMessage cutMessage(const QByteArray &bytes, bool atHost)
{
    CutMessage cut;
    if (bytes.startsWith("DEVICE_NODATA")) {
        cut.kind = CutMessage::Kind::NoData;
        cut.size = atHost ? qMin(18, bytes.size()) : 13;
    } else if (bytes == "DEVICE_WTSEND") {
        cut.kind = CutMessage::Kind::Wait;
        cut.size = 13;
    } else {
        cut = cutData(bytes);
    }
    return cut;
}
