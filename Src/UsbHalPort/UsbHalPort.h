// SPDX-License-Identifier: MIT
#ifndef USBHALPORT_H
#define USBHALPORT_H

#include <UsbHalIntf.h>

#include <QIODevice>

#include <memory>

/**
 * @file
 * A port of the facade as a QIODevice: the class UsbHalPort.
 */

/** Marks what the shared library exports; everything else in it is hidden. */
#define USBHALPORT_EXPORT Q_DECL_EXPORT

/**
 * One port to the USB host as a sequential QIODevice: a byte stream with buffers of its own each
 * way.
 *
 * An object lives in one thread, like every QObject. Unless a function says otherwise, only that
 * thread may call it; other objects may live in other threads, at the same time. Signals are
 * emitted in that thread: from its event loop, or within a waitFor...() function, close() or the
 * destructor.
 *
 * A port that an object has open is the object's alone: the facade's functions that open, close,
 * read or write are not to be called for it.
 */
class USBHALPORT_EXPORT UsbHalPort : public QIODevice
{
    Q_OBJECT

public:
    /** How far a port has come. */
    enum State {
        UnconnectedState, ///< not open, or lost while reopen() is off
        ConnectingState,  ///< open, the host is not there
        ConnectedState    ///< open, the host is there
    };
    Q_ENUM(State)

    /** What went wrong last; errorString() has it as a sentence. */
    enum Error {
        NoError,           ///< nothing did
        InvalidPortError,  ///< the port's number is not 0 to 9999, or the open mode is none
        AlreadyOpenError,  ///< the port is open, in this object, in another or through the facade
        TooManyPortsError, ///< as many ports are open as ParamHal::maxClients allows
        NotRunningError,   ///< the communication with the device cannot be started
        NotEnoughMemoryError, ///< no memory for the port
        HostLostError,        ///< the link to the host was lost, or the communication stopped
        TimeoutError          ///< a waitFor...() function came to the end of its time
    };
    Q_ENUM(Error)

    /**
     * Sets what the first open() configures the library with; bytes, ms and messages as ParamHal
     * has them. Returns false, and changes nothing, once a port has been opened. A client of the
     * facade that called setupConfig() before comes first. May be called from any thread.
     */
    static bool setConfiguration(const ParamHal &param);

    /**
     * What the library is, or will be, configured with: the facade's defaults, with a
     * threadStopTimeout of 4000 ms, which kills no healthy thread, unless setConfiguration() said
     * otherwise. May be called from any thread.
     */
    static ParamHal configuration();

    /** For the port of this number, 0 to 9999. Opens nothing. May be called from any thread. */
    explicit UsbHalPort(int port, QObject *parent = nullptr);

    /**
     * Closes the port, see close(). To be called in the object's thread, also in a handler of its
     * signals, or in any when that thread has ended.
     */
    ~UsbHalPort() override;

    /** The number given. May be called from any thread. */
    int portNumber() const;

    /** How far the port has come, as the signals have told. Only in the object's thread. */
    State state() const;

    /** What went wrong last; stays until clearError() or open(). Only in the object's thread. */
    Error error() const;

    /** Makes error() NoError again. Only in the object's thread. */
    void clearError();

    /**
     * Opens the port and returns; connected() tells when the host is there. The first open of the
     * process configures the library and starts its communication. The mode is ReadWrite, ReadOnly
     * (nothing can be written) or WriteOnly (what the host sends is dropped and counted);
     * Unbuffered is added, because the port has its buffers itself. Returns false after
     * errorOccurred(). Waits up to ParamHal::threadStopTimeout ms for a stop of the library that is
     * under way. Only in the object's thread.
     */
    bool open(OpenMode mode) override;

    /**
     * Closes the port: hands on what the library's queue has room for and waits up to 300 ms until
     * the device node has taken it; bytesLost() tells what it has not, also of a message that it is
     * just taking and that may reach the host. Bytes not yet read are gone. Without effect on a
     * port that is not open. Only in the object's thread.
     */
    void close() override;

    /**
     * Whether the port comes back by itself after a lost link, which it does unless told otherwise.
     * When off, a loss ends in UnconnectedState: what was received can still be read, then close()
     * and open() begin afresh. Only in the object's thread.
     */
    void setReopen(bool reopen);

    /** See setReopen(). Only in the object's thread. */
    bool reopen() const;

    /**
     * Bounds the bytes received and not yet read; 1 MiB unless told otherwise, values below 1 count
     * as 1. What is above stays in the library, which then asks the host to wait. Only in the
     * object's thread.
     */
    void setReadBufferSize(qint64 bytes);

    /** See setReadBufferSize(), bytes. Only in the object's thread. */
    qint64 readBufferSize() const;

    /**
     * Bounds the bytes written and not yet handed to the library; 1 MiB unless told otherwise,
     * values below 1 count as 1. write() takes no more than there is room for, and returns 0 when
     * there is none. Only in the object's thread.
     */
    void setWriteBufferSize(qint64 bytes);

    /** See setWriteBufferSize(), bytes. Only in the object's thread. */
    qint64 writeBufferSize() const;

    /**
     * Bytes received and dropped unread by this object: those of a link that was lost, when the
     * next one came up, and all that came while the mode was WriteOnly. Only in the object's
     * thread.
     */
    qint64 droppedBytes() const;

    /** Always true. May be called from any thread. */
    bool isSequential() const override;

    /** Bytes that can be read now. Only in the object's thread. */
    qint64 bytesAvailable() const override;

    /** Bytes written that the device node has not yet taken. Only in the object's thread. */
    qint64 bytesToWrite() const override;

    /** Whether a whole line can be read. Only in the object's thread. */
    bool canReadLine() const override;

    /**
     * Hands on what the library's queue has room for, and does not wait. Returns whether that was
     * anything. Only in the object's thread.
     */
    bool flush();

    /**
     * Waits for the host, at most msecs ms; below 0 without end. Returns whether it is there. Needs
     * no event loop. Only in the object's thread.
     */
    bool waitForConnected(int msecs = 30000);

    /**
     * Waits for a loss of the link, at most msecs ms; below 0 without end. Returns whether the host
     * is gone. Needs no event loop. Only in the object's thread.
     */
    bool waitForDisconnected(int msecs = 30000);

    /**
     * Waits for new bytes, at most msecs ms; below 0 without end. Returns whether some came, after
     * readyRead(); false also when the read buffer is full or the port is not open. Needs no event
     * loop. Only in the object's thread.
     */
    bool waitForReadyRead(int msecs) override;

    /**
     * Waits until the device node has taken some of the bytes written, at most msecs ms; below 0
     * without end. Returns whether it has, after bytesWritten(); false also when none wait or the
     * host is lost. Needs no event loop. Only in the object's thread.
     */
    bool waitForBytesWritten(int msecs) override;

signals:
    /** The host is there: after open(), or back after a loss. */
    void connected();
    /** The host was lost, or the port closed while it was there. */
    void disconnected();
    /** Something went wrong, see error(). */
    void errorOccurred(UsbHalPort::Error error);
    /** state() changed. */
    void stateChanged(UsbHalPort::State state);
    /** That many bytes written will not reach the host: the link or the port's close took them
     * along. */
    void bytesLost(qint64 bytes);

protected:
    /** Only called by QIODevice. */
    qint64 readData(char *data, qint64 maxSize) override;
    /** Only called by QIODevice. */
    qint64 readLineData(char *data, qint64 maxSize) override;
    /** Only called by QIODevice. */
    qint64 writeData(const char *data, qint64 size) override;

private:
    Q_DISABLE_COPY(UsbHalPort)
    class Q_DECL_HIDDEN Stream;
    friend class Stream;

    const std::unique_ptr<Stream> _stream;
};

#endif
