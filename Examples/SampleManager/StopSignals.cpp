// SPDX-License-Identifier: MIT
#include "StopSignals.h"

#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

sigset_t stopSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

} // namespace

void StopSignals::block()
{
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

StopSignals::StopSignals(QObject *parent) : QObject(parent)
{
    const sigset_t set = stopSignals();
    _descriptor = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (_descriptor < 0)
        return;
    _notifier.reset(new QSocketNotifier(_descriptor, QSocketNotifier::Read));
    connect(_notifier.data(), &QSocketNotifier::activated, this, &StopSignals::_take);
}

StopSignals::~StopSignals()
{
    _notifier.reset();
    if (_descriptor >= 0)
        ::close(_descriptor);
}

void StopSignals::_take()
{
    signalfd_siginfo info;
    while (::read(_descriptor, &info, sizeof info) == sizeof info)
        emit received();
}
