// SPDX-License-Identifier: MIT
#include <GadgetDriver.h>
#include <LogCapture.h>
#include <UsbHalLog.h>

#include <QtTest>

#include <new>

namespace {

bool memoryIsShort = false;
size_t lastArraySize = 0;

} // namespace

// The drivers allocate their buffer through this form only, so short memory hits nothing else.
void *operator new[](size_t size, const std::nothrow_t &) noexcept
{
    lastArraySize = size;
    if (memoryIsShort)
        return nullptr;
    try {
        return ::operator new[](size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

/** A gadget driver with no node behind it. */
class BufferDriver : public GadgetDriver
{
    Q_OBJECT

public:
    BufferDriver() { _instancePaths = QStringList(QStringLiteral("/dev/null")); }

    using AbstractDriver::_readBuffer;
    using AbstractDriver::_readLimit;
};

class DriverBufferTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void aDriverWithoutABufferCannotBeOpened();
    void aBufferThatCannotBeAllocatedIsAbsent();
    void aBufferMayBeAllocatedLater();
    void theSizeOfTheBufferIsComputedIn64Bits();

private:
    QScopedPointer<LogCapture> _log;
};

void DriverBufferTest::init()
{
    _log.reset(new LogCapture);
    QVERIFY(UsbHalLog::getInstance()->open(_log->folder(), QStringLiteral("UsbHal")));
}

void DriverBufferTest::cleanup()
{
    memoryIsShort = false;
}

void DriverBufferTest::aDriverWithoutABufferCannotBeOpened()
{
    memoryIsShort = true;
    BufferDriver driver;
    QVERIFY(!driver._readBuffer);
    QVERIFY(!driver.open());
    QCOMPARE(_log->lines(), QStringList("_openDrvInstance: Error: raw data is null"));
}

void DriverBufferTest::aBufferThatCannotBeAllocatedIsAbsent()
{
    BufferDriver driver;
    QVERIFY(driver._readBuffer);
    ParamHal param;
    param.maxReadSize = 20000;
    memoryIsShort = true;
    driver.setupConfig(param);
    QVERIFY(!driver._readBuffer);
    QCOMPARE(driver.getMaxReadSize(), 20000U);
    QCOMPARE(driver._readLimit(), size_t(0));
    QVERIFY(!driver.open());
    QCOMPARE(_log->lines(), QStringList("_openDrvInstance: Error: raw data is null"));
}

void DriverBufferTest::aBufferMayBeAllocatedLater()
{
    memoryIsShort = true;
    BufferDriver driver;
    memoryIsShort = false;
    ParamHal param;
    param.maxReadSize = 500;
    driver.setupConfig(param);
    QVERIFY(driver._readBuffer);
    QCOMPARE(driver._readLimit(), size_t(500));
    QVERIFY(driver.open());
    QVERIFY(driver.close());
    QVERIFY(_log->contains("_openDrvInstance: /dev/null successfully opened"));
}

void DriverBufferTest::theSizeOfTheBufferIsComputedIn64Bits()
{
    BufferDriver driver;
    lastArraySize = 0;
    memoryIsShort = true;
    ParamHal param;
    param.maxReadSize = 0xFFFFFFFF;
    driver.setupConfig(param);
    // Where sizes have 32 bits there is no such buffer, and none of 0 bytes is asked for either.
    QCOMPARE(quint64(lastArraySize),
             sizeof(size_t) > 4 ? quint64(Q_UINT64_C(0x100000000)) : quint64(0));
    QVERIFY(!driver._readBuffer);
    QVERIFY(!driver.open());
}

QTEST_GUILESS_MAIN(DriverBufferTest)
#include "tst_driverbuffer.moc"
