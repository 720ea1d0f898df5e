// SPDX-License-Identifier: MIT
#include "StopSignals.h"

#include <cerrno>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// A signal handler may do next to nothing, so it only makes the far end readable.
int handlerEnd = -1;
int loopEnd = -1;

void wakeLoop(int)
{
    const int error = errno;
    const char byte = 0;
    // A full socket means that the loop is already being woken.
    (void)::send(handlerEnd, &byte, sizeof byte, MSG_DONTWAIT | MSG_NOSIGNAL);
    errno = error;
}

bool installHandler(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    return ::sigaction(SIGINT, &action, nullptr) == 0 &&
           ::sigaction(SIGTERM, &action, nullptr) == 0;
}

} // namespace

StopSignals::StopSignals(QObject *parent) : QObject(parent)
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0)
        return;
    handlerEnd = ends[0];
    loopEnd = ends[1];
    if (!installHandler(wakeLoop))
        return;
    _notifier.reset(new QSocketNotifier(loopEnd, QSocketNotifier::Read));
    connect(_notifier.data(), &QSocketNotifier::activated, this, &StopSignals::_drain);
}

StopSignals::~StopSignals()
{
    installHandler(SIG_DFL);
    _notifier.reset();
    ::close(handlerEnd);
    ::close(loopEnd);
}

void StopSignals::_drain()
{
    char bytes[16];
    while (::recv(loopEnd, bytes, sizeof bytes, 0) > 0) {
    }
    emit received();
}
