// SPDX-License-Identifier: MIT
#ifndef SIMNODE_LINKCAPTURE_H
#define SIMNODE_LINKCAPTURE_H

#include "LinkObserver.h"

#include <UsbCapture.h>

#include <cstdint>
#include <deque>
#include <map>
#include <string>

namespace simnode {

/// Writes what happens on the cable into a file, as a capture of the host's bus would have it. Says
/// on standard error what keeps it from that; the node goes on.
class LinkCapture : public LinkObserver
{
public:
    /// Begins with this file, or with none for an empty path. See CaptureFile for `maxFileSize`.
    LinkCapture(const std::string &path, std::uint64_t maxFileSize);

    std::string capture(const std::string &path) override;
    void hostSent(const std::string &transfer) override;
    void deviceRead(std::size_t transfers) override;
    void unreadDropped() override;
    void writeBegan(CallId call) override;
    void writeEnded(CallId call, int error, const std::string &transfer) override;

private:
    void completeUnread(std::size_t transfers, int error);
    void fail(const std::string &text);

    capture::UsbCapture _capture;
    std::uint64_t _maxFileSize;
    std::string _failure; // of a capture that nobody has asked to end yet
    std::deque<capture::UsbRequest> _unread;
    std::map<CallId, capture::UsbRequest> _writes;
};

} // namespace simnode

#endif
