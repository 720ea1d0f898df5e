// SPDX-License-Identifier: MIT
#ifndef CAPTUREFILE_H
#define CAPTUREFILE_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

struct pcap;
struct pcap_dumper;

namespace capture {

/**
 * A file of packets as Wireshark reads it. Each packet is in the file when write() returns,
 * whatever becomes of the program. Not thread-safe.
 */
class CaptureFile
{
public:
    using Time = std::chrono::system_clock::time_point;

    /**
     * Begins a file of the link type anew. Before it grows beyond maxSize bytes it becomes PATH.1,
     * in the place of an older one, and another one begins; each holds at least one packet. 0: it
     * grows on. error() tells whether it was opened.
     */
    CaptureFile(std::string path, std::uint64_t maxSize, int linkType);

    /**
     * Adds a packet. After a failure, also an earlier one, nothing is added and error() says why;
     * the file then ends with the last whole packet.
     */
    void write(Time time, const std::string &packet);

    /** Why nothing is written any more; empty while all is well. */
    const std::string &error() const { return _error; }

private:
    struct Release
    {
        void operator()(pcap *handle) const;
        void operator()(pcap_dumper *dumper) const;
    };

    void _open();
    void _rotate();
    void _flush(std::int64_t sizeBefore);
    void _fail(int reason);
    bool _hasRoomFor(const std::string &packet) const;

    const std::string _path;
    const std::uint64_t _maxSize;
    std::unique_ptr<pcap, Release> _handle;
    std::unique_ptr<pcap_dumper, Release> _dumper;
    std::string _error;
};

} // namespace capture

#endif
