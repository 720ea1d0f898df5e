// SPDX-License-Identifier: MIT
//
// Clients that end while a handler of a signal runs, most of them in that handler.
#include "ExitScenarios.h"

#include <QCoreApplication>
#include <QThread>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <unistd.h>

namespace {

std::atomic<bool> handlerReached{false};

void exitCleanly()
{
    std::exit(0);
}

template <typename Handler>
void whenPortConnects(Handler handler)
{
    QObject::connect(facade(), QOverload<int>::of(&UsbHALIntf::connected), handler);
}

template <typename Handler>
void whenLinkConnects(Handler handler)
{
    QObject::connect(facade(), QOverload<>::of(&UsbHALIntf::connected), handler);
}

template <typename Handler>
void whenMessageArrives(Handler handler)
{
    QObject::connect(facade(), QOverload<int>::of(&UsbHALIntf::readyRead), handler);
}

void exitInHandlerOfOpen()
{
    configure();
    whenPortConnects(exitCleanly);
    openPort();
    waitForEnd();
}

void exitInHandlerOfOtherThread()
{
    configure();
    whenPortConnects(exitCleanly);
    std::thread(openPort).detach();
    waitForEnd();
}

void exitInHandlerOfOtherThreadWithTheLinkUp()
{
    configure();
    openAndLink();
    whenPortConnects(exitCleanly);
    std::thread([] { facade()->openConnection(2); }).detach();
    waitForEnd();
}

void exitInHandlerOfLink()
{
    configure();
    whenLinkConnects(exitCleanly);
    openPort();
    waitForEnd();
}

void exitInHandlerOfMessage()
{
    configure();
    whenMessageArrives(exitCleanly);
    openAndLink();
    waitForEnd();
}

void exitInHandlerOfError()
{
    configure();
    QObject::connect(facade(), &UsbHALIntf::error, exitCleanly);
    openAndLink();
    facade()->openConnection(1);
    fail("the handler did not run");
}

void exitInHandlerOfStop()
{
    configure();
    openAndLink();
    QObject::connect(facade(), &UsbHALIntf::stateChanged, exitCleanly);
    facade()->stop();
    fail("the handler did not run");
}

void exitInQueuedHandler()
{
    configure();
    QObject::connect(facade(), QOverload<int>::of(&UsbHALIntf::readyRead), qApp, exitCleanly,
                     Qt::QueuedConnection);
    openAndLink();
    QCoreApplication::exec();
}

// The types of the signals travel by what Qt's registry knows of them.
void waitForQueuedSignals()
{
    configure();
    int states = 0;
    QObject context;
    const auto leave = [&states] {
        if (++states == 2)
            QCoreApplication::quit();
    };
    QObject::connect(facade(), &UsbHALIntf::stateChanged, &context, leave, Qt::QueuedConnection);
    QObject::connect(facade(), &UsbHALIntf::socketStateChanged, &context, leave,
                     Qt::QueuedConnection);
    openAndLink();
    QCoreApplication::exec();
    check(facade()->closeConnection(1), "the port did not close");
    facade()->stop();
}

void quickExitInHandlerOfLink()
{
    configure();
    whenLinkConnects([] { std::quick_exit(0); });
    openPort();
    waitForEnd();
}

void stopInHandlerOfMessage()
{
    configure();
    whenMessageArrives([] {
        facade()->stop();
        handlerReached = true;
    });
    openPort(); // the link may be gone again before anybody sees it
    check(waitUntil([] { return handlerReached.load(); }), "the handler did not run");
}

void returnBesideSlowHandler()
{
    configure();
    whenMessageArrives([] {
        handlerReached = true;
        QThread::msleep(500);
    });
    openAndLink();
    check(waitUntil([] { return handlerReached.load(); }), "the handler did not run");
}

void returnBesideHandlerThatNeverReturns()
{
    configure(500);
    whenMessageArrives([] {
        handlerReached = true;
        for (;;)
            ::pause();
    });
    openAndLink();
    check(waitUntil([] { return handlerReached.load(); }), "the handler did not run");
}

void freeInHandlerOfLink()
{
    configure();
    whenLinkConnects([] {
        facade()->freeMem();
        handlerReached = true;
    });
    openPort();
    check(waitUntil([] { return handlerReached.load(); }), "the handler did not run");
}

void freeInHandlerOfOpen()
{
    configure();
    whenPortConnects([] { facade()->freeMem(); });
    facade()->openConnection(1);
}

} // namespace

ExitScenarios handlerScenarios()
{
    return {
        {"exit in a handler of an open", exitInHandlerOfOpen},
        {"exit in a handler of another thread", exitInHandlerOfOtherThread},
        {"exit in a handler of another thread with the link up",
         exitInHandlerOfOtherThreadWithTheLinkUp},
        {"exit in a handler of the link", exitInHandlerOfLink},
        {"exit in a handler of a message", exitInHandlerOfMessage},
        {"exit in a handler of an error", exitInHandlerOfError},
        {"exit in a handler of a stop", exitInHandlerOfStop},
        {"exit in a queued handler", exitInQueuedHandler},
        {"queued signals", waitForQueuedSignals},
        {"quick exit in a handler of the link", quickExitInHandlerOfLink},
        {"stop in a handler of a message", stopInHandlerOfMessage},
        {"return beside a slow handler", returnBesideSlowHandler},
        {"return beside a handler that never returns", returnBesideHandlerThatNeverReturns},
        {"freed in a handler of the link", freeInHandlerOfLink},
        {"freed in a handler of an open", freeInHandlerOfOpen},
    };
}
