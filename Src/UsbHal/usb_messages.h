// SPDX-License-Identifier: MIT
#ifndef USB_MESSAGES_H
#define USB_MESSAGES_H

#include "UsbHalIntf.h"

#include <QByteArray>

#include <cstring>
#include <optional>

/**
 * The messages of the wire: how they are framed, cut and shown. These functions do no I/O, take no
 * lock and log nothing; any thread may call them.
 *
 * Data message: magic (4) + length (5 digits, counts id and payload) + id (4 digits) + payload.
 */
namespace usb_messages {

extern const QByteArray magicNumber;
extern const QByteArray devNoData;
extern const QByteArray waitSend;
extern const QByteArray deviceConn;
extern const QByteArray deviceDisc; // reserved: neither sent nor recognised

constexpr int magicSize = 4;
constexpr int lengthWidth = 5;
constexpr int idWidth = 4;
constexpr int prefixSize = magicSize + lengthWidth; ///< 9: what the length field does not count
constexpr int headerSize = prefixSize + idWidth;    ///< 13
constexpr int maxReadSizeWidth = 5;
constexpr int defaultPayloadLimit = 487;        ///< payload bytes while no driver is chosen
constexpr int largestPayload = 99999 - idWidth; ///< what the length field can count

/** Why received bytes are not a data message. */
enum class Fault { None, NotValid, WrongSize, InvalidId };

/** A data message at the start of received bytes; payload points into them. */
struct DataMessage
{
    Fault fault = Fault::None;
    int size = 0; ///< bytes that the message takes, 0 when that cannot be told
    UsbConnID port = 0;
    const char *payload = nullptr;
    int payloadSize = 0;
};

/** Value of a field that holds decimal digits only; nothing for any other content. */
std::optional<int> parseDecimal(const char *field, int width);

/** Frames size bytes of payload for a port. */
QByteArray frameData(UsbConnID port, const char *payload, int size);

/** Whether the bytes begin as a data message does. */
inline bool hasMagicNumber(const QByteArray &bytes)
{
    // At a size that the compiler knows it is one comparison.
    return bytes.size() >= magicSize &&
           std::memcmp(bytes.constData(), magicNumber.constData(), magicSize) == 0;
}

/** Cuts and checks the data message that the bytes begin with. */
DataMessage cutData(const QByteArray &bytes);

/** The message that tells the host how many bytes the device takes in one read. */
QByteArray frameMaxReadSize(quint32 size);

/** The number that the last bytes of a max read size message hold; nothing unless above 0. */
std::optional<int> parseMaxReadSize(const QByteArray &bytes);

/** Both ends of a message that is not valid, without white space; empty when not worth showing. */
QString excerpt(const QByteArray &bytes);

} // namespace usb_messages

#endif
