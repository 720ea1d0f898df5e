// SPDX-License-Identifier: MIT
//
// Clients that end on SIGTERM. stop() takes locks, so it is not for a signal handler that may
// interrupt anything: clients pass the signal on to a thread.
#include "ExitScenarios.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <cstdlib>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace {

int signalPipe[2];

extern "C" void passOn(int /*signal*/)
{
    const char byte = 0;
    if (::write(signalPipe[1], &byte, 1) != 1)
        std::_Exit(1);
}

extern "C" void stopInSignalHandler(int /*signal*/)
{
    facade()->stop();
}

void catchTermination(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    check(::sigaction(SIGTERM, &action, nullptr) == 0, "the signal cannot be caught");
}

void terminateSelf()
{
    check(::kill(::getpid(), SIGTERM) == 0, "the signal cannot be sent");
}

sigset_t blockTermination()
{
    sigset_t former;
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &former);
    return former;
}

void readPipe()
{
    char byte = 0;
    check(::read(signalPipe[0], &byte, 1) == 1, "the pipe broke");
}

void linkWithPipe()
{
    check(::pipe(signalPipe) == 0, "no pipe");
    catchTermination(passOn);
    configure();
    openAndLink();
}

void stopAfterPipe()
{
    linkWithPipe();
    terminateSelf();
    readPipe();
    facade()->stop();
}

void stopInNotifier()
{
    linkWithPipe();
    QSocketNotifier notifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, qApp, [&notifier] {
        notifier.setEnabled(false);
        readPipe();
        facade()->stop();
        QCoreApplication::quit();
    });
    terminateSelf();
    QCoreApplication::exec();
}

// The threads of the library inherit the mask of the thread that opens the first port.
void stopInWaitingThread()
{
    blockTermination();
    std::thread([] {
        sigset_t awaited;
        sigemptyset(&awaited);
        sigaddset(&awaited, SIGTERM);
        int signal = 0;
        sigwait(&awaited, &signal);
        facade()->stop();
        std::exit(0);
    }).detach();
    configure();
    openAndLink();
    terminateSelf();
    waitForEnd();
}

// No thread but this one takes the signal, and this one is in no call then.
void stopInHandlerOfIdleThread()
{
    const sigset_t former = blockTermination();
    catchTermination(stopInSignalHandler);
    configure();
    openAndLink();
    terminateSelf();
    ::sigsuspend(&former);
    check(!facade()->isRunning(), "the handler did not stop the communication");
}

void endByDefaultAction()
{
    configure();
    openAndLink();
    terminateSelf();
    waitForEnd();
}

} // namespace

ExitScenarios signalScenarios()
{
    return {
        {"SIGTERM, stop after a pipe", stopAfterPipe},
        {"SIGTERM, stop in a notifier", stopInNotifier},
        {"SIGTERM, stop in a waiting thread", stopInWaitingThread},
        {"SIGTERM, stop in the handler of an idle thread", stopInHandlerOfIdleThread},
        {"SIGTERM, default action", endByDefaultAction},
    };
}
