// SPDX-License-Identifier: MIT
#ifndef HOSTPEER_PROTOCOL_H
#define HOSTPEER_PROTOCOL_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

/**
 * The wire protocol as the USB host sees it. Everything in here is a pure function of its arguments
 * and may be called from any thread.
 */
namespace hostpeer {

inline constexpr std::string_view dataTag = "FADA";
inline constexpr std::string_view noDataTag = "DEVICE_NODATA";
inline constexpr std::string_view delayTag = "DEVICE_WTSEND";
/** Payload of the data message that announces a port as reopened. */
inline constexpr std::string_view reopenedPayload = "DEVICE_CONN";

inline constexpr std::size_t lengthWidth = 5;
inline constexpr std::size_t portWidth = 4;
inline constexpr std::size_t readSizeWidth = 5;

inline constexpr std::size_t lengthOffset = dataTag.size();
inline constexpr std::size_t portOffset = lengthOffset + lengthWidth;
inline constexpr std::size_t headerSize = portOffset + portWidth;

inline constexpr int maxPort = 9999;
/** The length field counts the port field and the payload and has five digits. */
inline constexpr std::size_t maxPayload = 99999 - portWidth;
/** Largest transfer, in bytes, to a device that has not announced its maximum read size. */
inline constexpr std::size_t cautiousMaxWriteSize = 500;

/** Bytes of one port. The payload is a view into the transfer that was parsed. */
struct DataMessage
{
    int port;
    std::string_view payload;
};

/** The device has nothing to send. */
struct NoData
{
};

/** The device has nothing to send and takes transfers of up to this many bytes. */
struct MaxReadSize
{
    std::size_t bytes;
};

/** The device has nothing to send; the number that it announces is no size of a transfer. */
struct UnusableReadSize
{
    std::string_view digits;
};

/** The device asks for no more data until it says that it has none itself. */
struct DelayRequest
{
};

using Message = std::variant<DataMessage, NoData, MaxReadSize, UnusableReadSize, DelayRequest>;

/** Where a transfer stops being well-formed (an offset in bytes), and why. */
struct ParseFault
{
    std::size_t offset;
    std::string reason;
};

/** What parseTransfer() found in one transfer. */
struct ParsedTransfer
{
    std::vector<Message> messages;   ///< in the transfer's order, up to the fault
    std::optional<ParseFault> fault; ///< empty when the whole transfer is well-formed
};

/**
 * Cuts one transfer of the device into its messages. A malformed transfer yields the messages
 * before the fault; what follows the fault is lost, as a message never spans two transfers. An
 * empty transfer holds no message and no fault. The messages are valid as long as the transfer's
 * bytes.
 */
ParsedTransfer parseTransfer(std::string_view transfer);

/**
 * Appends one framed data message to a transfer. Returns false and leaves the transfer alone when
 * the port is outside of 0 to maxPort or the payload is longer than maxPayload bytes.
 */
bool appendDataMessage(std::string &transfer, int port, std::string_view payload);

} // namespace hostpeer

#endif
