// SPDX-License-Identifier: MIT

#include <GadgetDriver.h>
#include <SignalRecorder.h>
#include <UsbHal.h>

#include <QCoreApplication>
#include <QThread>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

Q_DECLARE_METATYPE(std::function<void(UsbHAL *)>)

namespace {

using CorePointer = UsbHAL *UsbHALIntf::*;

CorePointer corePointer();

// An explicit instantiation may name what is private elsewhere: the tests need the core behind the
// facade, and nothing else does.
template <CorePointer Member>
struct CoreAccess
{
    friend CorePointer corePointer() { return Member; }
};

template struct CoreAccess<&UsbHALIntf::_hal>;

UsbHAL *coreOf(UsbHALIntf *facade)
{
    return facade->*corePointer();
}

struct CoreDrivers : UsbHAL
{
    using UsbHAL::_drivers;
};

} // namespace

class FacadeRelayTest : public QObject
{
    Q_OBJECT

private slots:
    void severalThreadsGetTheSameInstance();
    void theNineSignalsOfTheCoreReachTheFacade_data();
    void theNineSignalsOfTheCoreReachTheFacade();
    void aSignalArrivesInTheThreadThatEmittedIt();
    void everySignalIsRelayedOnce();
    void theFacadeHasNoParent();
    void theCoreGetsTwoDriversOfTheGadgetNode();
    void freeingDestroysTheCoreAndKeepsThePointerToIt(); // the last use of this process
};

void FacadeRelayTest::severalThreadsGetTheSameInstance()
{
    constexpr int count = 8;
    std::atomic<int> ready{0};
    std::vector<UsbHALIntf *> instances(count);
    std::vector<UsbHAL *> cores(count);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            ++ready;
            while (ready < count)
                std::this_thread::yield();
            instances[i] = UsbHALIntf::getInstance();
            cores[i] = coreOf(instances[i]);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    QVERIFY(instances[0] != nullptr);
    QVERIFY(cores[0] != nullptr);
    for (size_t i = 1; i < count; ++i) {
        QCOMPARE(instances[i], instances[0]);
        QCOMPARE(cores[i], cores[0]);
    }
    QCOMPARE(UsbHALIntf::getInstance(), instances[0]);
}

void FacadeRelayTest::theNineSignalsOfTheCoreReachTheFacade_data()
{
    using Emission = std::function<void(UsbHAL *)>;
    QTest::addColumn<Emission>("emission");
    QTest::addColumn<QString>("expected");
    const auto row = [](const QString &expected, const Emission &emission) {
        QTest::newRow(qPrintable(expected)) << emission << expected;
    };
    row("connected", [](UsbHAL *core) { emit core->connected(); });
    row("disconnected", [](UsbHAL *core) { emit core->disconnected(); });
    row("connected(7)", [](UsbHAL *core) { emit core->connected(7); });
    row("disconnected(8)", [](UsbHAL *core) { emit core->disconnected(8); });
    row("readyRead(9)", [](UsbHAL *core) { emit core->readyRead(9); });
    row("readyRead", [](UsbHAL *core) { emit core->readyRead(); });
    row("error(6,42)",
        [](UsbHAL *core) { emit core->error(6, reinterpret_cast<void *>(qintptr(42))); });
    row("stateChanged(CONNECTED)",
        [](UsbHAL *core) { emit core->stateChanged(DriverState::CONNECTED); });
    row("socketStateChanged(3,DISCONNECTED)",
        [](UsbHAL *core) { emit core->socketStateChanged(3, SocketState::DISCONNECTED); });
}

void FacadeRelayTest::theNineSignalsOfTheCoreReachTheFacade()
{
    QFETCH(std::function<void(UsbHAL *)>, emission);
    QFETCH(QString, expected);
    UsbHALIntf *const facade = UsbHALIntf::getInstance();
    SignalRecorder recorder(facade);
    emission(coreOf(facade));
    // No event was processed: what stands in the record arrived synchronously.
    QCOMPARE(recorder.all(), QStringList(expected));
}

void FacadeRelayTest::aSignalArrivesInTheThreadThatEmittedIt()
{
    UsbHALIntf *const facade = UsbHALIntf::getInstance();
    SignalRecorder recorder(facade);
    std::thread::id handled;
    recorder.setHandler([&](const QString &) { handled = std::this_thread::get_id(); });
    std::thread::id emitted;
    std::thread emitter([&] {
        emitted = std::this_thread::get_id();
        emit coreOf(facade)->connected(1);
    });
    emitter.join();
    recorder.setHandler({});
    QVERIFY(handled == emitted);
}

void FacadeRelayTest::everySignalIsRelayedOnce()
{
    UsbHALIntf *const facade = UsbHALIntf::getInstance();
    SignalRecorder recorder(facade);
    UsbHALIntf::getInstance();
    emit coreOf(facade)->connected();
    emit coreOf(facade)->readyRead(2);
    QCOMPARE(recorder.all(), QStringList({"connected", "readyRead(2)"}));
}

void FacadeRelayTest::theFacadeHasNoParent()
{
    QVERIFY(UsbHALIntf::getInstance()->parent() == nullptr);
    QVERIFY(coreOf(UsbHALIntf::getInstance())->parent() == nullptr);
}

void FacadeRelayTest::theCoreGetsTwoDriversOfTheGadgetNode()
{
    const UsbHAL *const core = coreOf(UsbHALIntf::getInstance());
    const QList<QSharedPointer<AbstractDriver>> drivers = core->*(&CoreDrivers::_drivers);
    QCOMPARE(drivers.size(), 2);
    QVERIFY(drivers[0] != drivers[1]);
    for (const QSharedPointer<AbstractDriver> &driver : drivers)
        QVERIFY(qobject_cast<GadgetDriver *>(driver.data()) != nullptr);
}

void FacadeRelayTest::freeingDestroysTheCoreAndKeepsThePointerToIt()
{
    UsbHALIntf *const facade = UsbHALIntf::getInstance();
    UsbHAL *const core = coreOf(facade);
    bool destroyed = false;
    connect(core, &QObject::destroyed, [&] { destroyed = true; });
    facade->freeMem();
    QVERIFY(destroyed);
    QCOMPARE(coreOf(facade), core);
}

QTEST_GUILESS_MAIN(FacadeRelayTest)
#include "tst_facade_relay.moc"
