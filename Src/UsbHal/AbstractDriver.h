// SPDX-License-Identifier: MIT
#ifndef ABSTRACTDRIVER_H
#define ABSTRACTDRIVER_H

#include "UsbHalIntf.h"
#include "threadsafety.h"

#include <QStringList>

#include <memory>

/**
 * A link to the USB host, as the core sees it: blocks of bytes out and in, and the values that
 * govern them.
 *
 * The core calls open, read, write and close from its communication thread, one at a time (close
 * also from the thread that ended it). cancelPendingIo and getDriverName may be called from any
 * thread at any time. setupConfig is called under the core's mutex while no read is under way.
 */
class AbstractDriver : public QObject
{
    Q_OBJECT

public:
    AbstractDriver();
    ~AbstractDriver() override;

    /** Makes the device ready for read and write; may block for seconds. False on failure. */
    virtual bool open() = 0;
    /** Closes the device. False when it refuses. */
    virtual bool close() = 0;
    /**
     * Writes one block, cut to getMaxWriteSize() bytes. Returns the bytes written when all of it
     * went out, else 0.
     */
    virtual int write(QByteArray data) = 0;
    /**
     * Reads one block; returns its size in bytes, or 0 when nothing arrived within the read
     * time-out or the read failed. The block refers to the driver's buffer: it is valid until the
     * next read.
     */
    virtual int read(QByteArray *data) = 0;
    /** Asks a blocked read or write to return; best effort. */
    virtual void cancelPendingIo() = 0;
    /** Text for a result of the driver's system calls, for the log. */
    virtual QString getDrvDetailedError(int code) const = 0;
    /** Takes the driver's values from the configuration; time-outs reach the device at its next
     * open. */
    virtual void setupConfig(const ParamHal &param);

    /** Read time-out, ms. */
    quint32 getRdTimeout() const { return _rdTimeout; }
    /** Write time-out, ms. */
    quint32 getWrTimeout() const { return _wrTimeout; }
    /** Largest block of one read, bytes. */
    quint32 getMaxReadSize() const { return _maxReadSize; }
    /** Largest block of one write, bytes. */
    quint32 getMaxWriteSize() const { return _maxWriteSize; }
    /** Sets the largest block of one write, bytes; more than 30999 is stored as 31000. */
    void setMaxWriteSize(unsigned int size);
    /** Sets the largest block of one read, bytes; the read buffer keeps its size. */
    void setMaxReadSize(unsigned int size) { _maxReadSize = size; }
    /** Failed reads or writes in a row that the link survives. */
    quint32 getNbRetry() const { return _nbRetry; }
    /** Path of the device instance in use, "unknown" until one is selected. Any thread. */
    QString getDriverName() const;
    /** Whether the link must not be taken down while the handshake is under way. */
    bool avoidClosingDuringHandshake() const { return _avoidClosingDuringHandshake; }
    /** Whether the core closes and reopens the driver after it lost the link. */
    bool closeDriverAfterConnectionError() const { return _closeDriverAfterConnectionError; }

protected:
    /** Sets the driver's name; the only way to change it while other threads may read it. */
    void _setDriverName(const QString &name);

    /** Most bytes that one read may put into the buffer, whatever the configured size says. */
    size_t _readLimit() const;

    static constexpr quint32 defaultDrvOption = 124000;
    static constexpr quint32 largestMaxWriteSize = 31000; // that setMaxWriteSize stores

    QString _driverTag = QStringLiteral("unknown");
    QString _driverName GUARDED_BY(_driverNameMutex) = QStringLiteral("unknown");
    int _selectedInstance = -1;
    QStringList _instancePaths;
    std::unique_ptr<char[]> _readBuffer;
    bool _avoidClosingDuringHandshake = false;
    bool _closeDriverAfterConnectionError = false;
    quint32 _maxWriteSize = 10000;
    quint32 _maxReadSize = 10000;
    quint32 _nbRetry = 4;
    quint32 _rdTimeout = 2000;
    quint32 _wrTimeout = 2000;
    quint32 _maxWatchdogErrors = 40;
    quint32 _drvOption = defaultDrvOption;
    size_t _readBufferSize = 0;

private:
    void _allocateReadBuffer();

    mutable CheckedMutex _driverNameMutex;
};

#endif
