// SPDX-License-Identifier: MIT
#include <CoreProbe.h>

#include <QMetaType>
#include <QSignalSpy>
#include <QtTest>

#include <type_traits>

/** Connects to a core's signals by their text, as a client with queued connections does. */
class QueuedClient : public QObject
{
    Q_OBJECT

public:
    QList<DriverState> driverStates;
    QList<UsbConnID> ports;
    QList<SocketState> socketStates;

public slots:
    void onStateChanged(DriverState state) { driverStates.append(state); }
    void onSocketStateChanged(UsbConnID port, SocketState state)
    {
        ports.append(port);
        socketStates.append(state);
    }
};

class TypesTest : public QObject
{
    Q_OBJECT

private slots:
    void everyErrorCodeHasItsText_data();
    void everyErrorCodeHasItsText();
    void theFacadeGivesTheSameErrorTexts();
    void everySocketStateHasItsText_data();
    void everySocketStateHasItsText();
    void theEnumerationsHaveTheirValues();
    void theTablesOfStateNamesAreIndexedByTheStates();
    void aPortIsASigned32BitNumber();
    void theRecordHasItsFieldTypes();
    void aDefaultRecordHoldsNothing();
    void theDefaultSetupWritesEightFields();
    void theDefaultSetupLeavesTheOtherFields();
    void aRecordOfDefaultsIsCompletedByTheConfiguration();
    void theNumberOfClientsIsLimited_data();
    void theNumberOfClientsIsLimited();
    void aMainLoopPeriodOfZeroIsReplaced_data();
    void aMainLoopPeriodOfZeroIsReplaced();
    void theConfigurationKeepsTheOtherFieldsAsTheyAre();
    void theMetaTypesAreRegisteredByTheCore_data();
    void theMetaTypesAreRegisteredByTheCore();
    void aTextBasedQueuedConnectionDeliversSocketStates();
    void aTextBasedQueuedConnectionDeliversDriverStates();
    void theWireConstantsHaveTheirTexts();
};

void TypesTest::everyErrorCodeHasItsText_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("text");
    const auto row = [](int code, const char *text) {
        QTest::addRow("%d", code) << code << QString::fromLatin1(text);
    };
    row(0, "No error");
    row(1, "Peer received message with wrong size !");
    row(2, "Peer received message with wrong ID !");
    row(3, "Could not allocate memory !");
    row(4, "Tried to open a port already opened !");
    row(5, "Too many clients connected !");
    row(6, "Tried to close a not opened port !");
    row(7, "Driver not initialized !");
    row(8, "Failed to close driver !");
    row(9, "Peer received message for a not opened port !");
    row(10, "Buffer overflow !");
    row(11, "");
    row(1000, "");
    row(std::numeric_limits<int>::max(), "");
    row(-1, "");
    row(std::numeric_limits<int>::min(), "");
}

void TypesTest::everyErrorCodeHasItsText()
{
    QFETCH(int, code);
    QFETCH(QString, text);
    const CoreProbe core;
    QVERIFY(core.getErrorStr(code) != nullptr);
    QCOMPARE(QString::fromLatin1(core.getErrorStr(code)), text);
}

void TypesTest::theFacadeGivesTheSameErrorTexts()
{
    const CoreProbe core;
    const UsbHALIntf *facade = UsbHALIntf::getInstance();
    for (int code = -1; code <= 11; ++code)
        QCOMPARE(facade->getErrorStr(code), core.getErrorStr(code));
}

void TypesTest::everySocketStateHasItsText_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("text");
    QTest::newRow("CLOSED") << 0 << "CLOSED";
    QTest::newRow("OPENED") << 1 << "OPENED";
    QTest::newRow("DISCONNECTED") << 2 << "DISCONNECTED";
    QTest::newRow("one above the last") << 3 << QString();
    QTest::newRow("far above the last") << 1000 << QString();
    QTest::newRow("negative") << -1 << QString();
}

void TypesTest::everySocketStateHasItsText()
{
    QFETCH(int, state);
    QFETCH(QString, text);
    const CoreProbe core;
    QCOMPARE(core.getSocketStateStr(static_cast<SocketState>(state)), text);
    QCOMPARE(UsbHALIntf::getInstance()->getSocketStateStr(static_cast<SocketState>(state)), text);
}

void TypesTest::theEnumerationsHaveTheirValues()
{
    QCOMPARE(static_cast<int>(DriverState::DISCONNECTED), 0);
    QCOMPARE(static_cast<int>(DriverState::CONNECTED), 1);
    QCOMPARE(static_cast<int>(SocketState::CLOSED), 0);
    QCOMPARE(static_cast<int>(SocketState::OPENED), 1);
    QCOMPARE(static_cast<int>(SocketState::DISCONNECTED), 2);
    QVERIFY(TargetType::DEVICE != TargetType::HOST);
    // A scoped enumeration does not turn into a number by itself.
    QVERIFY(!(std::is_convertible<DriverState, int>::value));
    QVERIFY(!(std::is_convertible<SocketState, int>::value));
    QVERIFY(!(std::is_convertible<TargetType, int>::value));
}

void TypesTest::theTablesOfStateNamesAreIndexedByTheStates()
{
    QCOMPARE(std::extent<decltype(DriverStateStr)>::value, size_t(2));
    QCOMPARE(DriverStateStr[static_cast<int>(DriverState::DISCONNECTED)], "DISCONNECTED");
    QCOMPARE(DriverStateStr[static_cast<int>(DriverState::CONNECTED)], "CONNECTED");
    QCOMPARE(std::extent<decltype(SocketStateStr)>::value, size_t(3));
    QCOMPARE(SocketStateStr[static_cast<int>(SocketState::CLOSED)], "CLOSED");
    QCOMPARE(SocketStateStr[static_cast<int>(SocketState::OPENED)], "OPENED");
    QCOMPARE(SocketStateStr[static_cast<int>(SocketState::DISCONNECTED)], "DISCONNECTED");
}

void TypesTest::aPortIsASigned32BitNumber()
{
    QVERIFY((std::is_same<UsbConnID, qint32>::value));
}

void TypesTest::theRecordHasItsFieldTypes()
{
    using Number = quint32 ParamHal::*;
    const Number numbers[] = {
        &ParamHal::maxReadSize,       &ParamHal::maxWriteSize,     &ParamHal::drvOption,
        &ParamHal::rdTimeout,         &ParamHal::wrTimeout,        &ParamHal::maxWatchdogErrors,
        &ParamHal::threadStopTimeout, &ParamHal::maxWriteFifoSize, &ParamHal::nbRetry,
        &ParamHal::maxClients,        &ParamHal::mainLoopPeriod,   &ParamHal::spareParam1,
        &ParamHal::spareParam2,       &ParamHal::spareParam3};
    QCOMPARE(std::extent<decltype(numbers)>::value, size_t(14));
    QVERIFY((std::is_same<decltype(ParamHal::logDir), QString>::value));
    QVERIFY((std::is_same<decltype(ParamHal::spareFlag), bool>::value));
    QVERIFY((std::is_same<decltype(ParamHal::spareName), QString>::value));
    QVERIFY((std::is_same<decltype(ParamHal::maxLogLines), qint32>::value));
}

void TypesTest::aDefaultRecordHoldsNothing()
{
    // Placed over bytes that are not zero, so that a member without an initialiser shows.
    alignas(ParamHal) unsigned char place[sizeof(ParamHal)];
    std::fill(std::begin(place), std::end(place), static_cast<unsigned char>(0xA5));
    const ParamHal *param = new (place) ParamHal;
    for (const auto member :
         {&ParamHal::maxReadSize, &ParamHal::maxWriteSize, &ParamHal::drvOption,
          &ParamHal::rdTimeout, &ParamHal::wrTimeout, &ParamHal::maxWatchdogErrors,
          &ParamHal::threadStopTimeout, &ParamHal::maxWriteFifoSize, &ParamHal::nbRetry,
          &ParamHal::maxClients, &ParamHal::mainLoopPeriod, &ParamHal::spareParam1,
          &ParamHal::spareParam2, &ParamHal::spareParam3})
        QCOMPARE(param->*member, 0U);
    QVERIFY(param->logDir.isEmpty());
    QCOMPARE(param->spareFlag, false);
    QVERIFY(param->spareName.isEmpty());
    QCOMPARE(param->maxLogLines, 0);
    param->~ParamHal();
}

void TypesTest::theDefaultSetupWritesEightFields()
{
    ParamHal param;
    CoreProbe().getDefaultSetup(param);
    QCOMPARE(param.maxReadSize, 10000U);
    QCOMPARE(param.maxWriteSize, 10000U);
    QCOMPARE(param.rdTimeout, 2000U);
    QCOMPARE(param.wrTimeout, 2000U);
    QCOMPARE(param.maxWatchdogErrors, 40U);
    QCOMPARE(param.threadStopTimeout, 2500U);
    QCOMPARE(param.maxWriteFifoSize, 10U);
    QCOMPARE(param.nbRetry, 4U);
}

void TypesTest::theDefaultSetupLeavesTheOtherFields()
{
    ParamHal param;
    param.drvOption = 11;
    param.maxClients = 12;
    param.mainLoopPeriod = 13;
    param.spareParam1 = 14;
    param.spareParam2 = 15;
    param.spareParam3 = 16;
    param.logDir = QStringLiteral("/logs");
    param.spareFlag = true;
    param.spareName = QStringLiteral("spare");
    param.maxLogLines = -17;
    CoreProbe().getDefaultSetup(param);
    QCOMPARE(param.drvOption, 11U);
    QCOMPARE(param.maxClients, 12U);
    QCOMPARE(param.mainLoopPeriod, 13U);
    QCOMPARE(param.spareParam1, 14U);
    QCOMPARE(param.spareParam2, 15U);
    QCOMPARE(param.spareParam3, 16U);
    QCOMPARE(param.logDir, QStringLiteral("/logs"));
    QCOMPARE(param.spareFlag, true);
    QCOMPARE(param.spareName, QStringLiteral("spare"));
    QCOMPARE(param.maxLogLines, -17);
}

void TypesTest::aRecordOfDefaultsIsCompletedByTheConfiguration()
{
    CoreProbe core;
    ParamHal param;
    core.getDefaultSetup(param);
    param.logDir = core.log.folder();
    QVERIFY(core.setupConfig(param));
    QCOMPARE(core._param.maxClients, 5U);
    QCOMPARE(core._param.mainLoopPeriod, 100U);
    // The caller's record is copied, not changed.
    QCOMPARE(param.maxClients, 0U);
    QCOMPARE(param.mainLoopPeriod, 0U);
}

void TypesTest::theNumberOfClientsIsLimited_data()
{
    QTest::addColumn<quint32>("given");
    QTest::addColumn<quint32>("used");
    QTest::newRow("none") << 0U << 5U;
    QTest::newRow("one") << 1U << 1U;
    QTest::newRow("three") << 3U << 3U;
    QTest::newRow("five") << 5U << 5U;
    QTest::newRow("six") << 6U << 5U;
    QTest::newRow("most") << 0xFFFFFFFFU << 5U;
}

void TypesTest::theNumberOfClientsIsLimited()
{
    QFETCH(quint32, given);
    QFETCH(quint32, used);
    CoreProbe core;
    ParamHal param = core.testSetup();
    param.maxClients = given;
    QVERIFY(core.setupConfig(param));
    QCOMPARE(core._param.maxClients, used);
}

void TypesTest::aMainLoopPeriodOfZeroIsReplaced_data()
{
    QTest::addColumn<quint32>("given");
    QTest::addColumn<quint32>("used");
    QTest::newRow("none") << 0U << 100U;
    QTest::newRow("one") << 1U << 1U;
    QTest::newRow("long") << 100000U << 100000U;
}

void TypesTest::aMainLoopPeriodOfZeroIsReplaced()
{
    QFETCH(quint32, given);
    QFETCH(quint32, used);
    CoreProbe core;
    ParamHal param = core.testSetup();
    param.mainLoopPeriod = given;
    QVERIFY(core.setupConfig(param));
    QCOMPARE(core._param.mainLoopPeriod, used);
}

void TypesTest::theConfigurationKeepsTheOtherFieldsAsTheyAre()
{
    CoreProbe core;
    ParamHal param = core.testSetup();
    param.maxWriteSize = 50000;
    param.drvOption = 1;
    param.spareParam1 = 2;
    param.spareParam2 = 3;
    param.spareParam3 = 4;
    param.spareFlag = true;
    param.spareName = QStringLiteral("spare");
    QVERIFY(core.setupConfig(param));
    QCOMPARE(core._param.maxReadSize, 10000U);
    QCOMPARE(core._param.maxWriteSize, 50000U);
    QCOMPARE(core._param.drvOption, 1U);
    QCOMPARE(core._param.spareParam1, 2U);
    QCOMPARE(core._param.spareParam2, 3U);
    QCOMPARE(core._param.spareParam3, 4U);
    QCOMPARE(core._param.spareFlag, true);
    QCOMPARE(core._param.spareName, QStringLiteral("spare"));
    QCOMPARE(core._param.logDir, core.log.folder());
}

void TypesTest::theMetaTypesAreRegisteredByTheCore_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<int>("type");
    QTest::newRow("DriverState") << QByteArray("DriverState") << qMetaTypeId<DriverState>();
    QTest::newRow("SocketState") << QByteArray("SocketState") << qMetaTypeId<SocketState>();
    QTest::newRow("TargetType") << QByteArray("TargetType") << qMetaTypeId<TargetType>();
    QTest::newRow("UsbConnID") << QByteArray("UsbConnID") << int(QMetaType::Int);
}

void TypesTest::theMetaTypesAreRegisteredByTheCore()
{
    QFETCH(QByteArray, name);
    QFETCH(int, type);
    const CoreProbe core;
    QCOMPARE(QMetaType::type(name), type);
}

void TypesTest::aTextBasedQueuedConnectionDeliversSocketStates()
{
    CoreProbe core;
    QueuedClient client;
    QVERIFY(QObject::connect(&core, SIGNAL(socketStateChanged(UsbConnID, SocketState)), &client,
                             SLOT(onSocketStateChanged(UsbConnID, SocketState)),
                             Qt::QueuedConnection));
    emit core.socketStateChanged(9999, SocketState::DISCONNECTED);
    QVERIFY(client.ports.isEmpty());
    QTRY_COMPARE(client.ports, QList<UsbConnID>{9999});
    QCOMPARE(client.socketStates, QList<SocketState>{SocketState::DISCONNECTED});
}

void TypesTest::aTextBasedQueuedConnectionDeliversDriverStates()
{
    CoreProbe core;
    QueuedClient client;
    QVERIFY(QObject::connect(&core, SIGNAL(stateChanged(DriverState)), &client,
                             SLOT(onStateChanged(DriverState)), Qt::QueuedConnection));
    emit core.stateChanged(DriverState::CONNECTED);
    QVERIFY(client.driverStates.isEmpty());
    QTRY_COMPARE(client.driverStates, QList<DriverState>{DriverState::CONNECTED});
}

void TypesTest::theWireConstantsHaveTheirTexts()
{
    QCOMPARE(usb_messages::magicNumber, QByteArray("FADA"));
    QCOMPARE(usb_messages::devNoData, QByteArray("DEVICE_NODATA"));
    QCOMPARE(usb_messages::waitSend, QByteArray("DEVICE_WTSEND"));
    QCOMPARE(usb_messages::deviceConn, QByteArray("DEVICE_CONN"));
    QCOMPARE(usb_messages::deviceDisc, QByteArray("DEVICE_DISC"));
}

QTEST_GUILESS_MAIN(TypesTest)
#include "tst_types.moc"
