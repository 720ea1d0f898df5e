// SPDX-License-Identifier: MIT
#include "PortFixture.h"

#include <QThread>

/** What a port's handlers may do to it, and how a process may end with ports open. */
class PortLibHandlersTest : public QObject
{
    Q_OBJECT

private slots:
    void everyHandlerMayCloseThePort();
    void everyHandlerMayOpenItAfresh();
    void everyHandlerMayDestroyIt();
    void everyHandlerMayWaitAndWrite();
    void noSignalComesWithinItself();
    void anEndWithAnOpenPortInAStaticObject();
    void anEndWithPortsInRunningThreads();
    void anEndWithAPortThatOutlivesItsThread();

private:
    using Action = void (*)(std::unique_ptr<UsbHalPort> &port);
    void _actInEveryHandler(Action action);
};

namespace {

// In the order of their first emission in the story of live().
const QStringList signalNames = {"state", "connected", "written",     "readyRead",
                                 "error", "lost",      "disconnected"};

// Opens, exchanges, loses the link with bytes on their way, and closes, as far as there is a port.
void live(PortFixture &fixture, std::unique_ptr<UsbHalPort> &port, const bool &acted)
{
    const auto lives = [&] { return port && port->isOpen() && !acted; };
    port->open(QIODevice::ReadWrite);
    QTRY_VERIFY_WITH_TIMEOUT(!lives() || port->state() == UsbHalPort::ConnectedState, 20000);
    if (lives())
        port->write("written");
    QTRY_VERIFY_WITH_TIMEOUT(!lives() || port->bytesToWrite() == 0, 20000);
    fixture.host.send(1, "read");
    QTRY_VERIFY_WITH_TIMEOUT(!lives() || port->bytesAvailable() > 0, 20000);
    if (lives())
        port->write(QByteArray(300000, 'x'));
    if (lives())
        QVERIFY(fixture.loseLink());
    QTRY_VERIFY_WITH_TIMEOUT(!lives() || port->state() != UsbHalPort::ConnectedState, 20000);
}

} // namespace

void PortLibHandlersTest::_actInEveryHandler(Action action)
{
    PortFixture fixture;
    fixture.host.plugIn();
    for (const QString &name : signalNames) {
        auto port = std::make_unique<UsbHalPort>(1);
        bool acted = false;
        watchSignals(port.get(), [&, name](const QString &text) {
            if (acted || text.section(' ', 0, 0) != name)
                return;
            acted = true;
            action(port);
        });
        live(fixture, port, acted);
        QVERIFY2(acted, qPrintable(name));
        // An event that is still on its way must find nothing wrong.
        QCoreApplication::processEvents();
        port.reset();
        QCOMPARE(UsbHALIntf::getInstance()->nbClients(), 0u);
    }
}

void PortLibHandlersTest::everyHandlerMayCloseThePort()
{
    _actInEveryHandler([](std::unique_ptr<UsbHalPort> &port) { port->close(); });
}

void PortLibHandlersTest::everyHandlerMayOpenItAfresh()
{
    _actInEveryHandler([](std::unique_ptr<UsbHalPort> &port) {
        port->close();
        QVERIFY(port->open(QIODevice::ReadWrite));
    });
}

void PortLibHandlersTest::everyHandlerMayDestroyIt()
{
    _actInEveryHandler([](std::unique_ptr<UsbHalPort> &port) { port.reset(); });
}

void PortLibHandlersTest::everyHandlerMayWaitAndWrite()
{
    _actInEveryHandler([](std::unique_ptr<UsbHalPort> &port) {
        port->write("more");
        port->waitForReadyRead(1);
        port->waitForBytesWritten(1);
        port->waitForConnected(1);
        port->flush();
        port->readAll();
        port->setReopen(false);
        port->setReopen(true);
        QCoreApplication::processEvents();
    });
}

void PortLibHandlersTest::noSignalComesWithinItself()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    int depth = 0;
    int deepest = 0;
    int calls = 0;
    QByteArray got;
    connect(&port, &UsbHalPort::readyRead, [&] {
        deepest = qMax(deepest, ++depth);
        ++calls;
        // More arrives while the first bytes are handled; it is told afterwards.
        if (calls == 1) {
            fixture.host.send(1, "second");
            QTRY_COMPARE_WITH_TIMEOUT(port.bytesAvailable(), 11, 20000);
            QCOMPARE(port.read(5), QByteArray("first"));
        } else {
            got += port.readAll();
        }
        --depth;
    });
    fixture.host.send(1, "first");
    QTRY_COMPARE_WITH_TIMEOUT(got, QByteArray("second"), 20000);
    QCOMPARE(deepest, 1);
    QCOMPARE(calls, 2);

    qint64 written = 0;
    connect(&port, &UsbHalPort::bytesWritten, [&](qint64 size) {
        deepest = qMax(deepest, ++depth);
        written += size;
        if (written < 20)
            port.write("x");
        port.waitForBytesWritten(100);
        --depth;
    });
    port.write("x");
    QTRY_COMPARE_WITH_TIMEOUT(written, 20, 20000);
    QCOMPARE(deepest, 1);
}

void PortLibHandlersTest::anEndWithAnOpenPortInAStaticObject()
{
    static PortFixture fixture;
    static UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    port.write("pending");
}

void PortLibHandlersTest::anEndWithPortsInRunningThreads()
{
    static PortFixture fixture;
    fixture.host.plugIn();
    for (int number = 1; number <= 5; ++number) {
        auto *const thread = new QThread; // runs until the process is gone
        auto *const port = new UsbHalPort(number);
        port->moveToThread(thread);
        connect(thread, &QThread::started, port, [port] { port->open(QIODevice::ReadWrite); });
        connect(port, &UsbHalPort::connected, port, [port] { port->write("again and again"); });
        connect(port, &UsbHalPort::bytesWritten, port, [port] { port->write("again and again"); });
        thread->start();
    }
    for (int number = 1; number <= 5; ++number)
        QTRY_VERIFY_WITH_TIMEOUT(fixture.host.received(number).size() > 30, 20000);
}

void PortLibHandlersTest::anEndWithAPortThatOutlivesItsThread()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QThread thread;
    port.moveToThread(&thread);
    connect(&thread, &QThread::started, &port, [&] { port.open(QIODevice::ReadWrite); });
    connect(&port, &UsbHalPort::connected, &port, [&] { QThread::currentThread()->quit(); });
    thread.start();
    fixture.host.plugIn();
    QVERIFY(thread.wait(20000));
    fixture.host.send(1, "nobody reads this");
}

QTEST_GUILESS_MAIN(PortLibHandlersTest)
#include "tst_portlib_handlers.moc"
