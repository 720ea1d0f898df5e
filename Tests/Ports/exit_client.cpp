// SPDX-License-Identifier: MIT
//
// A client that ends in the way its first argument names; the second is its log folder, a third one
// that says "application" makes it a Qt application. It exits with status 0 unless something hangs
// or fails.
#include <UsbHalIntf.h>

#include <QCoreApplication>
#include <QThread>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

namespace {

constexpr int linkTimeout = 20000; // ms

UsbHALIntf *facade()
{
    return UsbHALIntf::getInstance();
}

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "%s\n", what);
    std::_Exit(1);
}

void check(bool condition, const char *what)
{
    if (!condition)
        fail(what);
}

void configure(const QString &logFolder)
{
    ParamHal param;
    facade()->getDefaultSetup(param);
    // More than a silent read of the node takes, so that no thread is killed.
    param.threadStopTimeout = 8000;
    param.logDir = logFolder;
    facade()->setupConfig(param);
}

void open()
{
    check(facade()->openConnection(1), "the port did not open");
}

void openAndLink()
{
    open();
    check(facade()->waitForConnected(linkTimeout), "the link did not come up");
}

[[noreturn]] void waitForEnd()
{
    QThread::msleep(linkTimeout);
    fail("the handler did not end the process");
}

void exitWhenPortConnects()
{
    QObject::connect(facade(), QOverload<int>::of(&UsbHALIntf::connected), [] { std::exit(0); });
}

void exitWhenLinkConnects()
{
    QObject::connect(facade(), QOverload<>::of(&UsbHALIntf::connected), [] { std::exit(0); });
}

void exitInHandlerOfOpen()
{
    exitWhenPortConnects();
    open();
    waitForEnd();
}

void exitInHandlerOfOtherThread()
{
    exitWhenPortConnects();
    std::thread(open).detach();
    waitForEnd();
}

void exitInHandlerOfOtherThreadWithTheLinkUp()
{
    openAndLink();
    exitWhenPortConnects();
    std::thread([] { facade()->openConnection(2); }).detach();
    waitForEnd();
}

void exitInHandlerOfLink()
{
    exitWhenLinkConnects();
    open();
    waitForEnd();
}

void exitInHandlerOfMessage()
{
    QObject::connect(facade(), QOverload<int>::of(&UsbHALIntf::readyRead), [] { std::exit(0); });
    openAndLink();
    waitForEnd();
}

void freeInHandlerOfLink()
{
    static std::atomic<bool> freed{false};
    QObject::connect(facade(), QOverload<>::of(&UsbHALIntf::connected), [] {
        facade()->freeMem();
        freed = true;
    });
    open();
    for (int i = 0; i < linkTimeout && !freed; ++i)
        QThread::msleep(1);
    check(freed, "the handler did not run");
}

void freeInHandlerOfOpen()
{
    QObject::connect(facade(), QOverload<int>::of(&UsbHALIntf::connected),
                     [] { facade()->freeMem(); });
    facade()->openConnection(1);
}

void leaveBytesUnread()
{
    openAndLink();
    check(facade()->waitForReadyRead(1, linkTimeout), "nothing arrived");
    check(facade()->write(1, QByteArray(100000, 'x')) == 100000, "nothing was queued");
}

const std::map<std::string, std::function<void()>> &scenarios()
{
    static const std::map<std::string, std::function<void()>> map = {
        {"configured", [] {}},
        {"opened and stopped",
         [] {
             openAndLink();
             facade()->stop();
         }},
        {"opened and not stopped", openAndLink},
        {"opened without a host", open},
        {"unread bytes", leaveBytesUnread},
        {"freed", [] { facade()->freeMem(); }},
        {"opened and freed",
         [] {
             openAndLink();
             facade()->freeMem();
         }},
        {"stopped and freed",
         [] {
             openAndLink();
             facade()->stop();
             facade()->freeMem();
         }},
        {"unread bytes and freed",
         [] {
             leaveBytesUnread();
             facade()->freeMem();
         }},
        {"exit in a handler of an open", exitInHandlerOfOpen},
        {"exit in a handler of another thread", exitInHandlerOfOtherThread},
        {"exit in a handler of another thread with the link up",
         exitInHandlerOfOtherThreadWithTheLinkUp},
        {"exit in a handler of the link", exitInHandlerOfLink},
        {"exit in a handler of a message", exitInHandlerOfMessage},
        {"freed in a handler of the link", freeInHandlerOfLink},
        {"freed in a handler of an open", freeInHandlerOfOpen},
    };
    return map;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc < 3)
        fail("usage: usbhal-exit-client SCENARIO LOG_FOLDER [application]");
    std::unique_ptr<QCoreApplication> application;
    if (argc > 3)
        application.reset(new QCoreApplication(argc, argv));
    const std::string name = argv[1];
    if (name == "never used")
        return 0;
    facade();
    if (name == "never configured")
        return 0;
    const auto scenario = scenarios().find(name);
    if (scenario == scenarios().end())
        fail("unknown scenario");
    configure(QString::fromLocal8Bit(argv[2]));
    scenario->second();
    return 0;
}
