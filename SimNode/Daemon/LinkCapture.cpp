// SPDX-License-Identifier: MIT
#include "LinkCapture.h"

#include "DeviceProtocol.h"

#include <cerrno>
#include <cstdio>
#include <utility>

namespace simnode {

LinkCapture::LinkCapture(const std::string &path, std::uint64_t maxFileSize)
    : _capture([this](const std::string &text) { fail(text); }), _maxFileSize(maxFileSize)
{
    if (!path.empty())
        LinkCapture::capture(path);
}

std::string LinkCapture::capture(const std::string &path)
{
    _capture.stop();
    if (path.empty())
        return std::exchange(_failure, {});
    _failure.clear();
    std::string error = _capture.start(path, _maxFileSize);
    if (!error.empty())
        fail(error);
    return error;
}

void LinkCapture::fail(const std::string &text)
{
    _failure = text;
    std::fprintf(stderr, "simnode: %s\n", text.c_str());
}

void LinkCapture::hostSent(const std::string &transfer)
{
    _unread.push_back(_capture.submitOut(transfer));
}

void LinkCapture::deviceRead(std::size_t transfers)
{
    completeUnread(transfers, 0);
}

void LinkCapture::unreadDropped()
{
    completeUnread(_unread.size(), ESHUTDOWN);
}

void LinkCapture::completeUnread(std::size_t transfers, int error)
{
    for (; transfers > 0; --transfers) {
        const capture::UsbRequest &request = _unread.front();
        _capture.completeOut(request, error, error == 0 ? request.size : 0);
        _unread.pop_front();
    }
}

void LinkCapture::writeBegan(CallId call)
{
    _writes[call] = _capture.submitIn(maxTransferSize);
}

void LinkCapture::writeEnded(CallId call, int error, const std::string &transfer)
{
    const auto found = _writes.find(call);
    if (found == _writes.end())
        return;
    _capture.completeIn(found->second, error, transfer);
    _writes.erase(found);
}

} // namespace simnode
