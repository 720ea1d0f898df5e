// SPDX-License-Identifier: MIT
#ifndef SIMNODE_DEVICEPROTOCOL_H
#define SIMNODE_DEVICEPROTOCOL_H

#include <cstddef>
#include <cstdint>

// What the preload library and the daemon say to each other on DIR/device. Every field has a fixed
// width, so that a 32-bit program can be served by a 64-bit daemon.
namespace simnode {

constexpr const char *nodePath = "/dev/brn7200";
constexpr const char *directoryVariable = "SIMNODE_DIR";
constexpr const char *deviceSocketName = "device";
constexpr const char *hostSocketName = "host";
constexpr const char *controlSocketName = "control";

constexpr std::size_t maxTransferSize = 65536;
constexpr std::uint32_t protocolVersion = 2;

constexpr std::uint32_t setWriteTimeoutRequest = 0x5301;
constexpr std::uint32_t setReadTimeoutRequest = 0x5302;

// What the program's end of a descriptor is bound to, in the abstract namespace and with the handle
// in eight hexadecimal digits behind it: so a copy that came from another program tells its handle.
constexpr char descriptorNamePrefix[] = "\0simnode-";

enum class Call : std::uint32_t { Open = 1, Read = 2, Write = 3, Ioctl = 4, Close = 5, Look = 6 };

// `Look` asks whether the node is there, without a handle and without a call on its driver.
// Each system call goes over a connection of its own. The connection of an `open` that succeeds
// stays and is the program's descriptor; the connection of any other call ends with the call, and
// its early end tells the daemon that the calling thread was cancelled, interrupted or killed.
// On a descriptor's connection the daemon sends nothing but an empty packet while a transfer waits,
// by which poll and its like see it.
struct DeviceRequest
{
    std::uint32_t version;
    Call call;
    std::uint32_t handle;   // of the descriptor, chosen by the program that opens it; not 0
    std::uint32_t argument; // Open: flags; Read: size of the buffer; Ioctl: request
    std::uint32_t value;    // Ioctl: argument
};

struct DeviceReply
{
    std::int32_t result;
    std::int32_t error;      // errno where result is -1
    std::uint32_t handle;    // of the descriptor that is open now; 0 after any other call
    std::uint32_t isDrained; // 1: no transfer waits any more, the empty packet is to be taken out
};

static_assert(sizeof(DeviceRequest) == 20 && sizeof(DeviceReply) == 16, "the same on any machine");

} // namespace simnode

#endif
