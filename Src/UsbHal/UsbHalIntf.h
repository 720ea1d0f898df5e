// SPDX-License-Identifier: MIT
#ifndef USBHALINTF_H
#define USBHALINTF_H

#include <QByteArray>
#include <QMetaType>
#include <QObject>
#include <QString>

class UsbHAL;

/**
 * @file
 * The public interface, all of it: the class UsbHALIntf, its configuration ParamHal and the types
 * and states that both use.
 */

/** Marks what the shared library exports; everything else in it is hidden. */
#define USBHAL_EXPORT Q_DECL_EXPORT

/** Identifies one client connection ("port" or "socket"); 0 to 9999 on the wire. */
using UsbConnID = qint32;

/** State of the link to the USB host: up from the first accepted message until it is lost. */
enum class DriverState { DISCONNECTED = 0, CONNECTED = 1 };

/** State of one port; a disconnected one was cut off by the link or by peerDisconnected. */
enum class SocketState { CLOSED = 0, OPENED = 1, DISCONNECTED = 2 };

/** The two ends of the link; the library always plays the device. */
enum class TargetType { DEVICE = 0, HOST = 1 };

Q_DECLARE_METATYPE(DriverState)
Q_DECLARE_METATYPE(SocketState)
Q_DECLARE_METATYPE(TargetType)

/** Texts of DriverState, indexed by its value. */
const QString DriverStateStr[2] = {QStringLiteral("DISCONNECTED"), QStringLiteral("CONNECTED")};

/** Texts of SocketState, indexed by its value. */
const QString SocketStateStr[3] = {QStringLiteral("CLOSED"), QStringLiteral("OPENED"),
                                   QStringLiteral("DISCONNECTED")};

/**
 * Configuration, filled by the client (usually from UsbHALIntf::getDefaultSetup) and applied once
 * by UsbHALIntf::setupConfig. Fields that the library does not use keep their place for the sake of
 * the record's layout.
 */
struct ParamHal
{
    quint32 maxReadSize = 0;       ///< largest single read, bytes; should be at most 99999
    quint32 maxWriteSize = 0;      ///< largest single write to the device, bytes
    quint32 drvOption = 0;         ///< handed to the driver, not used
    quint32 rdTimeout = 0;         ///< read time-out of the node, ms; 2000 at its first open
    quint32 wrTimeout = 0;         ///< write time-out of the node, ms; 2000 at its first open
    quint32 maxWatchdogErrors = 0; ///< periods without progress before the thread is restarted
    quint32 threadStopTimeout = 0; ///< longest wait for the communication thread to end, ms
    quint32 maxWriteFifoSize = 0;  ///< messages; used by the host role only
    quint32 nbRetry = 0;           ///< failed reads or writes in a row that the link survives
    quint32 maxClients = 0;        ///< ports open at once; 0 and values above 5 mean 5
    quint32 mainLoopPeriod = 0;    ///< period of the watchdog, ms; 0 means 100
    quint32 spareParam1 = 0;       ///< not used
    quint32 spareParam2 = 0;       ///< not used
    quint32 spareParam3 = 0;       ///< not used
    QString logDir;                ///< folder of the log files; empty: the working directory
    bool spareFlag = false;        ///< not used
    QString spareName;             ///< not used
    qint32 maxLogLines = 0;        ///< lines in one log file, at most 20000; 0 means 500
};

/**
 * The library's one public object: numbered byte-stream ports to a USB host over one gadget device
 * node.
 *
 * Every operation but freeMem() may be called from any thread, also from a handler of
 * one of the signals. Signals are emitted with no lock held, in the thread in which the event arose
 * (often the library's own communication thread), so a directly connected handler must be
 * thread-safe and short.
 */
class USBHAL_EXPORT UsbHALIntf : public QObject
{
    Q_OBJECT

public:
    /**
     * The one instance, created by the first call. The end of the process stops it, but destroys
     * nothing: other threads may still call it. Its watchdog runs in the event loop of the thread
     * that makes the first call.
     */
    static UsbHALIntf *getInstance();

    /** Whether this side plays the USB host: always false. Takes no lock. */
    bool isHost() const;

    /**
     * Applies the configuration and opens the log; only the first call has an effect. Always
     * returns true; a log that cannot be opened is reported on standard output and the log goes
     * there.
     */
    bool setupConfig(const ParamHal &param);

    /**
     * Writes the defaults into maxReadSize, maxWriteSize, rdTimeout, wrTimeout, maxWatchdogErrors,
     * threadStopTimeout, maxWriteFifoSize and nbRetry; the other fields stay. Takes no lock.
     */
    void getDefaultSetup(ParamHal &param) const;

    /**
     * Opens a port, 0 to 9999; the first open starts the communication with the host. Other numbers
     * are not refused, but what is written to them reaches no host whole. While an earlier
     * communication ends it waits for that, at most threadStopTimeout ms, and fails with code 7
     * when it takes longer. The communication thread cannot wait for itself: there it fails with
     * code 7 at once while another thread's stop() waits, and in destructors that run at the
     * thread's end. Returns false after emitting error() with code 3, 4, 5 or 7.
     */
    bool openConnection(int port);

    /** State of the link to the host. */
    DriverState status() const;

    /** State of a port; CLOSED for one that was never opened. */
    SocketState socketStatus(int port) const;

    /**
     * Closes a port. Waits 300 ms when messages wait to be written, of whatever port; what is still
     * queued for the port then is dropped. Returns false after emitting error() with code 6 when
     * the port is not open.
     */
    bool closeConnection(int port);

    /**
     * Path of the device node in use; empty while none is open, "unknown" until it has delivered
     * data for the first time.
     */
    QString driverName() const;

    /** Number of ports that were opened and not yet closed. */
    quint32 nbClients() const;

    /** Text of an error code; empty for a code outside of 0 to 10. Takes no lock. */
    const char *getErrorStr(int code) const;

    /** Text of a port state; empty for a value outside of the enumeration. Takes no lock. */
    QString getSocketStateStr(SocketState state) const;

    /**
     * Queues bytes for a port, cut into messages. Returns the number of bytes queued: fewer than
     * given when the queue of 100 messages (shared by all ports) is full, 0 when the port is not
     * open, the link is down or the maximum write size leaves no room for a payload. Does not wait
     * for the device.
     */
    int write(int port, QByteArray data);

    /**
     * Size in bytes of the oldest received message of a port, whatever the state of port and link;
     * 0 when there is none or when it has no payload (one read() removes such a message).
     */
    int nbBytesReceived(int port) const;

    /** Number of messages (not bytes) that wait to be written, of all ports. */
    int bytesToWrite() const;

    /**
     * The first maxSize bytes of the port's oldest received message, which stays. Empty when there
     * is none, the port is not open or the link is down.
     */
    QByteArray peek(int port, unsigned int maxSize) const;

    /**
     * Takes up to maxSize bytes of the port's oldest received message; never joins two messages.
     * Empty when there is none, the port is not open or the link is down.
     */
    QByteArray read(int port, unsigned int maxSize);

    /** Always empty; call read() until it returns nothing instead. Takes no lock. */
    QByteArray readAll(int port);

    /**
     * Waits until no message waits to be written, at most msecs ms. Nothing wakes it: when one does
     * at the call, it takes all of msecs. Polling bytesToWrite() is quicker. As all waits it ends
     * early, without what it waits for, in a handler whose thread has to end.
     */
    void flush(int msecs);

    /**
     * Waits for the link, at most msecs ms; 0 or less only looks. Returns whether it is up. Wakes
     * one waiting thread: further ones see the link at their time-out.
     */
    bool waitForConnected(int msecs) const;

    /**
     * Waits for the link's loss, at most msecs ms; 0 or less only looks. Returns whether it is
     * down. A loss wakes one waiting thread, a stop() and a restart by the watchdog none.
     */
    bool waitForDisconnected(int msecs) const;

    /**
     * Waits until the port's oldest received message has bytes, at most msecs ms; 0 or less only
     * looks. Returns false on time-out, when the port is not open or the link is down. Each message
     * wakes one waiting thread: with several of them, one may see its message only at its time-out.
     */
    bool waitForReadyRead(int port, int msecs) const;

    /** Like closeConnection(), for a port that may never have been opened: then it does nothing. */
    void disconnectFromHost(int port);

    /** Does nothing. */
    void watchdog(bool enable);

    /** Marks an open port as cut off by the far side; it still counts until it is closed. */
    void peerDisconnected(int port);

    /**
     * Ends the communication and closes the device. Ports stay as they are; openConnection() for a
     * port that is not open starts the communication again. Waits for the communication thread, at
     * most threadStopTimeout ms, and kills it after that, which may take 3 s; before it up to half
     * a second for the watchdog's timer. In a handler that runs in the communication thread it only
     * asks: the thread ends when the handler returns, the rest of what the host sent in the same
     * transfer is dropped, and waits of that handler end.
     */
    void stop();

    /** Whether the communication thread runs. */
    bool isRunning() const;

    /**
     * Maximum write size less the 13 bytes of a message's header; 0 while no device is open. The
     * largest payload of one message in bytes, unless that is above 99995. Negative when the
     * maximum write size is below 13.
     */
    int getMaxWriteSize() const;

    /**
     * Destroys the core; meant as the last use of the library, nothing else may be called after it
     * and no other thread may be in a call. In a handler, or while the thread of the first
     * getInstance() runs elsewhere, it only stops the communication. Without it the end of the
     * process stops the core and leaves its memory to the system.
     */
    void freeMem();

signals:
    /**
     * The link to the host is up; not emitted when its first message is DEVICE_CONN for a port that
     * is not open.
     */
    void connected();
    /**
     * The link to the host was lost; not emitted by stop(), which emits stateChanged() only, nor by
     * a restart by the watchdog, which emits that and the ports' signals.
     */
    void disconnected();
    /** A port was opened, or is back with the link. */
    void connected(int port);
    /** A port was closed, cut off by the far side, or lost with the link. */
    void disconnected(int port);
    /**
     * A message was received for a port; emitted once for each message. The first one of a
     * connection is announced before the link is CONNECTED, when it cannot be read yet: a handler
     * reads until read() returns nothing, since with one read for each signal it would stay a
     * message behind.
     */
    void readyRead(int port);
    /** Relayed for clients that connect to it; never emitted at present. */
    void readyRead();
    /**
     * An operation failed: its code (see getErrorStr) and, as the pointer's value, the port; null
     * for the codes 3 and 8. The codes that arise:
     * - 3: no memory for the port's queue
     * - 4: the port is open already, also after a stop()
     * - 5: as many ports are open as ParamHal::maxClients allows
     * - 6: the port to be closed is not open
     * - 7: not configured, a communication that takes too long to end, or no thread to be had
     * - 8: the driver refused to close
     */
    void error(int num, void *data);
    /**
     * The link changed its state; as connected(), not emitted when it comes up with DEVICE_CONN for
     * a port that is not open.
     */
    void stateChanged(DriverState st);
    /** A port changed its state; a close is reported as DISCONNECTED. */
    void socketStateChanged(UsbConnID port, SocketState st);

private:
    UsbHALIntf();
    ~UsbHALIntf() override;
    Q_DISABLE_COPY(UsbHALIntf)

    // Not exported, so that they may change.
    Q_DECL_HIDDEN void _relaySignals();
    Q_DECL_HIDDEN void _endProcess();

    UsbHAL *_hal;
    bool _freed = false;
    const qint32 _process; // the one that it was created in
};

#endif
