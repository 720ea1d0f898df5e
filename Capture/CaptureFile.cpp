// SPDX-License-Identifier: MIT
#include "CaptureFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <pcap/pcap.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace capture {

namespace {

constexpr int longestPacket = 262144; // as other programs allow at most
constexpr std::int64_t fileHeaderSize = sizeof(pcap_file_header);
constexpr std::int64_t packetHeaderSize = 16; // not pcap_pkthdr, whose time is the machine's

// Neither waits for the reader of a pipe nor ends with it, as no capture is worth that.
std::FILE *openForWriting(const std::string &path)
{
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK;
    const int descriptor = ::open(path.c_str(), flags, 0666);
    struct stat status = {};
    if (descriptor >= 0 && fstat(descriptor, &status) == 0 &&
        (S_ISREG(status.st_mode) || S_ISCHR(status.st_mode)))
        return fdopen(descriptor, "w");
    const int error = descriptor < 0 ? errno : ESPIPE;
    if (descriptor >= 0)
        ::close(descriptor);
    errno = error;
    return nullptr;
}

timeval timeOfDay(CaptureFile::Time time)
{
    using namespace std::chrono;
    const auto all = duration_cast<microseconds>(time.time_since_epoch());
    const auto whole = duration_cast<seconds>(all);
    return {static_cast<time_t>(whole.count()), static_cast<suseconds_t>((all - whole).count())};
}

} // namespace

void CaptureFile::Release::operator()(pcap *handle) const
{
    pcap_close(handle);
}

void CaptureFile::Release::operator()(pcap_dumper *dumper) const
{
    pcap_dump_close(dumper);
}

CaptureFile::CaptureFile(std::string path, std::uint64_t maxSize, int linkType)
    : _path(std::move(path)), _maxSize(maxSize), _handle(pcap_open_dead(linkType, longestPacket))
{
    _open();
}

void CaptureFile::_open()
{
    std::FILE *file = openForWriting(_path);
    if (file == nullptr) {
        _fail(errno);
        return;
    }
    _dumper.reset(pcap_dump_fopen(_handle.get(), file));
    if (_dumper)
        _flush(0);
    else
        _fail(EIO);
}

void CaptureFile::write(Time time, const std::string &packet)
{
    if (_error.empty() && !_hasRoomFor(packet))
        _rotate();
    if (!_error.empty())
        return;
    const auto size = static_cast<bpf_u_int32>(packet.size());
    const pcap_pkthdr header = {timeOfDay(time), size, size};
    const std::int64_t sizeBefore = pcap_dump_ftell64(_dumper.get());
    pcap_dump(reinterpret_cast<u_char *>(_dumper.get()), &header,
              reinterpret_cast<const u_char *>(packet.data()));
    _flush(sizeBefore);
}

bool CaptureFile::_hasRoomFor(const std::string &packet) const
{
    const std::int64_t size = pcap_dump_ftell64(_dumper.get());
    const auto grown = static_cast<std::uint64_t>(size + packetHeaderSize) + packet.size();
    return _maxSize == 0 || size <= fileHeaderSize || grown <= _maxSize;
}

void CaptureFile::_rotate()
{
    _dumper.reset();
    if (std::rename(_path.c_str(), (_path + ".1").c_str()) == 0)
        _open();
    else
        _fail(errno);
}

// What is left in the buffer after a failure goes out when the file is closed, and is cut off then.
void CaptureFile::_flush(std::int64_t sizeBefore)
{
    if (pcap_dump_flush(_dumper.get()) == 0)
        return;
    _fail(errno);
    _dumper.reset();
    [[maybe_unused]] const int ignored = ::truncate(_path.c_str(), static_cast<off_t>(sizeBefore));
}

void CaptureFile::_fail(int reason)
{
    _error = "cannot write the capture " + _path + ": " + std::strerror(reason);
}

} // namespace capture
