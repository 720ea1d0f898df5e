// SPDX-License-Identifier: MIT
#include "BareLoop.h"

#include "HostProcess.h"
#include "Require.h"
#include "Statistics.h"

#include <QThread>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr unsigned long transferPause = 10; // ms

} // namespace

BareLoop::BareLoop(const QByteArray &message)
    : _message(message),
      _node(::open("/dev/brn7200", O_RDWR | O_CLOEXEC)),
      _thread([this] { run(); })
{
}

BareLoop::~BareLoop()
{
    stop();
    ::close(_node);
}

void BareLoop::stop()
{
    _running = false;
    if (_thread.joinable())
        _thread.join();
}

qint64 BareLoop::readTime() const
{
    return Statistics::median(_readTimes);
}

qint64 BareLoop::writeTime() const
{
    return Statistics::median(_writeTimes);
}

void BareLoop::run()
{
    require(_node >= 0, "the simulated node opens");
    std::vector<char> buffer(10001);
    while (_running) {
        const qint64 begin = now();
        const ssize_t count = ::read(_node, buffer.data(), 10000);
        _readTimes.push_back(now() - begin);
        QThread::msleep(transferPause);
        if (count <= 0)
            continue;
        const qint64 middle = now();
        const ssize_t written =
            ::write(_node, _message.constData(), static_cast<size_t>(_message.size()));
        _writeTimes.push_back(now() - middle);
        require(written == _message.size(), "the bare loop writes its message");
        QThread::msleep(transferPause);
    }
}
