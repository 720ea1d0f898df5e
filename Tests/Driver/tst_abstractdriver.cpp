// SPDX-License-Identifier: MIT
#include "DriverDefaults.h"

#include <AbstractDriver.h>

#include <QtTest>

#include <algorithm>
#include <thread>
#include <type_traits>

/** A driver that does nothing, with the interface's own members opened. */
class IdleDriver : public AbstractDriver
{
    Q_OBJECT

public:
    bool open() override { return true; }
    bool close() override { return true; }
    int write(QByteArray data) override { return data.size(); }
    int read(QByteArray *) override { return 0; }
    void cancelPendingIo() override {}
    QString getDrvDetailedError(int) const override { return QStringLiteral("ok"); }

    using AbstractDriver::_avoidClosingDuringHandshake;
    using AbstractDriver::_closeDriverAfterConnectionError;
    using AbstractDriver::_driverName;
    using AbstractDriver::_driverTag;
    using AbstractDriver::_drvOption;
    using AbstractDriver::_instancePaths;
    using AbstractDriver::_maxWatchdogErrors;
    using AbstractDriver::_readBuffer;
    using AbstractDriver::_readBufferSize;
    using AbstractDriver::_readLimit;
    using AbstractDriver::_selectedInstance;
    using AbstractDriver::_setDriverName;
};

class AbstractDriverTest : public QObject
{
    Q_OBJECT

private slots:
    void aFreshDriverReportsTheDefaults();
    void aFreshDriverHasItsMembersSet();
    void aFreshDriverHasAZeroedBufferWithOneMoreByte();
    void theMaxWriteSizeIsClampedByItsSetter_data();
    void theMaxWriteSizeIsClampedByItsSetter();
    void theMaxReadSizeIsStoredAsItIs_data();
    void theMaxReadSizeIsStoredAsItIs();
    void aLargerMaxReadSizeDoesNotMakeTheBufferLarger();
    void theConfigurationIsCopiedWithoutACheck();
    void aMaxWriteSizeOf50000IsTakenFromTheConfiguration();
    void theConfigurationLeavesNamesAndFlags();
    void anUnchangedMaxReadSizeKeepsTheBuffer();
    void aChangedMaxReadSizeGivesABufferOfThatSizePlusOne_data();
    void aChangedMaxReadSizeGivesABufferOfThatSizePlusOne();
    void aDriverMaySetItsFlags();
    void theOperationsOfADriverArePure();
    void theNameMayBeReadWhileItChanges();
};

void AbstractDriverTest::aFreshDriverReportsTheDefaults()
{
    const IdleDriver driver;
    QCOMPARE(driver.getMaxReadSize(), 10000U);
    QCOMPARE(driver.getMaxWriteSize(), 10000U);
    QCOMPARE(driver.getRdTimeout(), 2000U);
    QCOMPARE(driver.getWrTimeout(), 2000U);
    QCOMPARE(driver.getNbRetry(), 4U);
    QCOMPARE(driver.getDriverName(), QStringLiteral("unknown"));
    QCOMPARE(driver.avoidClosingDuringHandshake(), false);
    QCOMPARE(driver.closeDriverAfterConnectionError(), false);
}

void AbstractDriverTest::aFreshDriverHasItsMembersSet()
{
    const IdleDriver driver;
    QCOMPARE(driver.objectName(), QStringLiteral("AbstractDriver"));
    QCOMPARE(driver._driverTag, QStringLiteral("unknown"));
    QCOMPARE(driver._selectedInstance, -1);
    QCOMPARE(driver._instancePaths, QStringList());
    QCOMPARE(driver._maxWatchdogErrors, 40U);
    QCOMPARE(driver._drvOption, 124000U);
}

void AbstractDriverTest::aFreshDriverHasAZeroedBufferWithOneMoreByte()
{
    const IdleDriver driver;
    QVERIFY(driver._readBuffer);
    QCOMPARE(driver._readBufferSize, size_t(10001));
    const char *begin = driver._readBuffer.get();
    QVERIFY(std::all_of(begin, begin + 10001, [](char byte) { return byte == '\0'; }));
}

void AbstractDriverTest::theMaxWriteSizeIsClampedByItsSetter_data()
{
    QTest::addColumn<quint32>("given");
    QTest::addColumn<quint32>("stored");
    QTest::newRow("nothing") << 0U << 0U;
    QTest::newRow("small") << 14U << 14U;
    QTest::newRow("the largest kept") << 30999U << 30999U;
    QTest::newRow("the clamp itself") << 31000U << 31000U;
    QTest::newRow("one above the clamp") << 31001U << 31000U;
    QTest::newRow("huge") << 4000000000U << 31000U;
}

void AbstractDriverTest::theMaxWriteSizeIsClampedByItsSetter()
{
    QFETCH(quint32, given);
    QFETCH(quint32, stored);
    IdleDriver driver;
    driver.setMaxWriteSize(given);
    QCOMPARE(driver.getMaxWriteSize(), stored);
}

void AbstractDriverTest::theMaxReadSizeIsStoredAsItIs_data()
{
    QTest::addColumn<quint32>("size");
    QTest::newRow("nothing") << 0U;
    QTest::newRow("small") << 1U;
    QTest::newRow("above the clamp of writes") << 31001U;
    QTest::newRow("huge") << 0xFFFFFFFFU;
}

void AbstractDriverTest::theMaxReadSizeIsStoredAsItIs()
{
    QFETCH(quint32, size);
    IdleDriver driver;
    driver.setMaxReadSize(size);
    QCOMPARE(driver.getMaxReadSize(), size);
}

void AbstractDriverTest::aLargerMaxReadSizeDoesNotMakeTheBufferLarger()
{
    IdleDriver driver;
    const char *buffer = driver._readBuffer.get();
    driver.setMaxReadSize(20000);
    QCOMPARE(static_cast<const char *>(driver._readBuffer.get()), buffer);
    QCOMPARE(driver._readBufferSize, size_t(10001));
    QCOMPARE(driver._readLimit(), size_t(10000));
    driver.setMaxReadSize(100);
    QCOMPARE(driver._readLimit(), size_t(100));
}

void AbstractDriverTest::theConfigurationIsCopiedWithoutACheck()
{
    IdleDriver driver;
    ParamHal param;
    param.maxWriteSize = 0xFFFFFFFF;
    param.maxReadSize = 1;
    param.rdTimeout = 0xFFFFFFFE;
    param.wrTimeout = 0;
    param.nbRetry = 0xFFFFFFFD;
    param.maxWatchdogErrors = 0xFFFFFFFC;
    param.drvOption = 0xFFFFFFFB;
    driver.setupConfig(param);
    QCOMPARE(driver.getMaxWriteSize(), 0xFFFFFFFFU);
    QCOMPARE(driver.getMaxReadSize(), 1U);
    QCOMPARE(driver.getRdTimeout(), 0xFFFFFFFEU);
    QCOMPARE(driver.getWrTimeout(), 0U);
    QCOMPARE(driver.getNbRetry(), 0xFFFFFFFDU);
    QCOMPARE(driver._maxWatchdogErrors, 0xFFFFFFFCU);
    QCOMPARE(driver._drvOption, 0xFFFFFFFBU);
}

void AbstractDriverTest::aMaxWriteSizeOf50000IsTakenFromTheConfiguration()
{
    IdleDriver driver;
    ParamHal param = driverDefaults();
    param.maxWriteSize = 50000;
    driver.setupConfig(param);
    QCOMPARE(driver.getMaxWriteSize(), 50000U);
}

void AbstractDriverTest::theConfigurationLeavesNamesAndFlags()
{
    IdleDriver driver;
    driver._setDriverName(QStringLiteral("/dev/chosen"));
    driver._driverTag = QStringLiteral("tag");
    driver._avoidClosingDuringHandshake = true;
    driver._closeDriverAfterConnectionError = true;
    driver.setupConfig(driverDefaults());
    QCOMPARE(driver.getDriverName(), QStringLiteral("/dev/chosen"));
    QCOMPARE(driver._driverTag, QStringLiteral("tag"));
    QCOMPARE(driver.objectName(), QStringLiteral("AbstractDriver"));
    QVERIFY(driver.avoidClosingDuringHandshake());
    QVERIFY(driver.closeDriverAfterConnectionError());
}

void AbstractDriverTest::anUnchangedMaxReadSizeKeepsTheBuffer()
{
    IdleDriver driver;
    const char *buffer = driver._readBuffer.get();
    driver._readBuffer[0] = 'x';
    driver.setupConfig(driverDefaults());
    QCOMPARE(static_cast<const char *>(driver._readBuffer.get()), buffer);
    QCOMPARE(driver._readBuffer[0], 'x');
}

void AbstractDriverTest::aChangedMaxReadSizeGivesABufferOfThatSizePlusOne_data()
{
    QTest::addColumn<quint32>("size");
    QTest::newRow("nothing") << 0U;
    QTest::newRow("smaller") << 100U;
    QTest::newRow("larger") << 200000U;
}

void AbstractDriverTest::aChangedMaxReadSizeGivesABufferOfThatSizePlusOne()
{
    QFETCH(quint32, size);
    IdleDriver driver;
    driver._readBuffer[0] = 'x';
    ParamHal param = driverDefaults();
    param.maxReadSize = size;
    driver.setupConfig(param);
    QVERIFY(driver._readBuffer);
    QCOMPARE(driver._readBufferSize, size_t(size) + 1);
    const char *begin = driver._readBuffer.get();
    QVERIFY(std::all_of(begin, begin + size + 1, [](char byte) { return byte == '\0'; }));
}

void AbstractDriverTest::aDriverMaySetItsFlags()
{
    IdleDriver driver;
    driver._avoidClosingDuringHandshake = true;
    QCOMPARE(driver.avoidClosingDuringHandshake(), true);
    QCOMPARE(driver.closeDriverAfterConnectionError(), false);
    driver._closeDriverAfterConnectionError = true;
    QCOMPARE(driver.closeDriverAfterConnectionError(), true);
}

void AbstractDriverTest::theOperationsOfADriverArePure()
{
    QVERIFY(std::is_abstract<AbstractDriver>::value);
    QVERIFY((std::is_base_of<QObject, AbstractDriver>::value));
    const QMetaObject &meta = AbstractDriver::staticMetaObject;
    QCOMPARE(meta.methodCount(), QObject::staticMetaObject.methodCount());
    QCOMPARE(meta.propertyCount(), QObject::staticMetaObject.propertyCount());
}

void AbstractDriverTest::theNameMayBeReadWhileItChanges()
{
    IdleDriver driver;
    const QStringList names = {QStringLiteral("/dev/first"), QStringLiteral("/dev/second")};
    driver._setDriverName(names.first());
    std::thread writer([&] {
        for (int i = 0; i < 5000; ++i)
            driver._setDriverName(names.at(i % 2));
    });
    bool known = true;
    for (int i = 0; i < 5000; ++i)
        known = names.contains(driver.getDriverName()) && known;
    writer.join();
    QVERIFY(known);
}

QTEST_GUILESS_MAIN(AbstractDriverTest)
#include "tst_abstractdriver.moc"
