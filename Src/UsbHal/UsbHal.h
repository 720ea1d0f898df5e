// SPDX-License-Identifier: MIT
#ifndef USBHAL_H
#define USBHAL_H

#include "AbstractDriver.h"
#include "UsbHalIntf.h"
#include "workerthread.h"

#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QMutexLocker>
#include <QQueue>
#include <QSharedPointer>
#include <QTimer>
#include <QWaitCondition>

#include <atomic>
#include <limits>
#include <optional>

/**
 * The messages of the wire: how they are framed, cut and shown. These functions do no I/O, take no
 * lock and log nothing; any thread may call them.
 *
 * Data message: magic (4) + length (5 digits, counts id and payload) + id (4 digits) + payload.
 */
namespace usb_messages {

extern const QByteArray magicNumber;
extern const QByteArray devNoData;
extern const QByteArray waitSend;
extern const QByteArray deviceConn;
extern const QByteArray deviceDisc; // reserved: neither sent nor recognised

constexpr int magicSize = 4;
constexpr int lengthWidth = 5;
constexpr int idWidth = 4;
constexpr int prefixSize = magicSize + lengthWidth; ///< 9: what the length field does not count
constexpr int headerSize = prefixSize + idWidth;    ///< 13
constexpr int maxReadSizeWidth = 5;
constexpr int defaultPayloadLimit = 487;        ///< payload bytes while no driver is chosen
constexpr int largestPayload = 99999 - idWidth; ///< what the length field can count

/** Why received bytes are not a data message. */
enum class Fault { None, NotValid, WrongSize, InvalidId };

/** A data message at the start of received bytes; payload points into them. */
struct DataMessage
{
    Fault fault = Fault::None;
    int size = 0; ///< bytes that the message takes, 0 when that cannot be told
    UsbConnID port = 0;
    const char *payload = nullptr;
    int payloadSize = 0;
};

/** Value of a field that holds decimal digits only; nothing for any other content. */
std::optional<int> parseDecimal(const char *field, int width);

/** Frames size bytes of payload for a port. */
QByteArray frameData(UsbConnID port, const char *payload, int size);

/** Cuts and checks the data message that the bytes begin with. */
DataMessage cutData(const QByteArray &bytes);

/** The message that tells the host how many bytes the device takes in one read. */
QByteArray frameMaxReadSize(quint32 size);

/** The number that the last bytes of a max read size message hold; nothing unless above 0. */
std::optional<int> parseMaxReadSize(const QByteArray &bytes);

/** Received bytes as text: up to the first zero byte, at most limit bytes. */
QString toText(const QByteArray &bytes, int limit = std::numeric_limits<int>::max());

/** Both ends of a message that is not valid, without white space; empty when not worth showing. */
QString excerpt(const QByteArray &bytes);

} // namespace usb_messages

/**
 * The core: multiplexes the ports over one driver.
 *
 * One mutex guards all of it. Public operations hold it for their whole run except while they wait;
 * the communication thread holds it except around driver calls and pauses. Operations that take a
 * QMutexLocker are called with the mutex held through it and release it to emit signals, so nothing
 * that they looked up before may be used after.
 */
class UsbHAL : public QObject
{
    Q_OBJECT

public:
    /** Starts nothing; the drivers are tried in the order of the list. */
    explicit UsbHAL(const QList<QSharedPointer<AbstractDriver>> &drivers);
    ~UsbHAL() override;

    // The public operations are documented in UsbHALIntf, which forwards to them.
    void getDefaultSetup(ParamHal &param) const;
    bool setupConfig(const ParamHal &param);
    void stop();
    DriverState status() const;
    bool isRunning() const;
    virtual bool isHost() const;
    QString driverName() const;
    quint32 nbClients() const;
    const char *getErrorStr(int code) const;
    QString getSocketStateStr(SocketState state) const;
    bool waitForConnected(int msecs) const;
    bool waitForDisconnected(int msecs) const;

    bool openConnection(UsbConnID port);
    bool closeConnection(UsbConnID port);
    void disconnectFromHost(UsbConnID port);
    void peerDisconnected(UsbConnID port);
    SocketState socketStatus(UsbConnID port) const;

    QByteArray read(int port, unsigned int maxSize);
    QByteArray peek(int port, unsigned int maxSize) const;
    QByteArray readAll(int port);
    int nbBytesReceived(int port) const;
    bool waitForReadyRead(int port, int msecs) const;

    int write(int port, QByteArray data);
    int bytesToWrite() const;
    int getMaxWriteSize() const;
    void flush(int msecs);

    void watchdog(bool enable);

    /** Whether the caller runs in this core's communication thread. */
    bool isConnectedThread() const;
    /** Whether the caller was called by a signal of a core, whose frames it must not destroy. */
    bool isInHandler() const;
    /** Whether the caller may destroy the core, once it is stopped. */
    bool isDestroyable() const;

signals: // documented in UsbHALIntf, which relays them
    void connected();
    void disconnected();
    void connected(int port);
    void disconnected(int port);
    void readyRead(int port);
    void error(int num, void *data);
    void stateChanged(DriverState st);
    void socketStateChanged(UsbConnID port, SocketState st);
    void readyRead();

private slots:
    void _onError(int num, void *data);
    void _mainLoop();

protected:
    friend class WorkerThread;

    using ReadQueue = QQueue<QByteArray>;

    // The codes of error(), as getErrorStr() knows them.
    enum Error {
        WrongSize = 1,
        WrongId,
        NoMemory,
        PortAlreadyOpen,
        TooManyClients,
        PortNotOpen,
        NotInitialized,
        CloseFailed,
        NotOpenedPort,
        BufferOverflow
    };

    // The two halves of a cycle: the device reads in the first, the host writes in it.
    static constexpr qint32 firstHalf = 1;
    static constexpr qint32 secondHalf = 2;

    // What the communication thread remembers from its start to its end.
    struct Session
    {
        quint32 failedOpens = 0;
        bool openFailureLogged = false;
        bool handshakeFailed = false;
        quint32 handshakeCounter = 0;
    };

    // Link state (UsbHal.cpp)
    bool _updateStatus(DriverState state, QMutexLocker &locker);
    void _onConnected(QMutexLocker &locker);
    void _onDisconnected(QMutexLocker &locker);
    void _emitError(int code, void *data, QMutexLocker &locker);
    void _endCommunication(QMutexLocker &locker);
    void _askThreadToEnd();
    quint32 _nbClients() const { return _clientCount; }

    // Ports (UsbHal_ports.cpp)
    bool _isOpen(int port) const;
    bool _isUsable(int port) const;
    bool _canClose(int port) const;
    bool _isEnding() const;
    bool _isCommunicating() const;
    bool _waitForEnding(QMutexLocker &locker);
    bool _startCommunication();
    bool _startThread();
    bool _prepareReadQueue(int port);
    void _discardReadQueue(int port);
    bool _closeConnection(int port, QMutexLocker &locker);
    void _onConnected(int port, QMutexLocker &locker);
    void _onDisconnected(int port, QMutexLocker &locker);
    void _changeAllSocketsState(SocketState state, QMutexLocker &locker);
    quint32 _nbPortsOpened() const;

    // Receive path (UsbHal_receive.cpp)
    bool _processAllMessages(const QByteArray &buffer, QMutexLocker &locker);
    bool _processMessage(const QByteArray &message, QMutexLocker &locker, unsigned int &consumed);
    bool _processDataMessage(const QByteArray &message, QMutexLocker &locker,
                             unsigned int &consumed);
    unsigned int _takeMaxWriteSize(const QByteArray &message);
    void _logFault(usb_messages::Fault fault, const QByteArray &message);
    void _reopenPort(int port);
    bool _hasRoom(int port, int size) const;
    void _storePayload(int port, const QByteArray &payload);
    void _announcePayload(int port, QMutexLocker &locker);
    ReadQueue *_readableQueue(int port) const;
    int _nbBytesReceived(int port) const;
    quint32 _nbBytesWaitingToBeRead() const { return _totalBytesWaitingRead; }
    void _clearReadFifo();

    // Send path (UsbHal_send.cpp)
    void _waitForWritePermission();
    int _payloadLimit() const;
    int _queueMessages(int port, const QByteArray &data, int limit);
    void _clearWriteFifo();
    int _clearWriteFifoForPort(int port);

    // Communication thread and watchdog (UsbHal_thread.cpp)
    void *_connectedFunc(void *arg);
    void _communicate(QMutexLocker &locker);
    bool _openAnyDriver(Session &session, QMutexLocker &locker);
    bool _reportFailedOpens(Session &session);
    AbstractDriver *_open(QMutexLocker &locker);
    bool _closeDriver();
    bool _releaseDriver();
    bool _runCycles(Session &session, QMutexLocker &locker);
    void _leaveThread(QMutexLocker &locker);
    void _leaveThreadAsHost(QMutexLocker &locker);
    void _readAsDevice(QMutexLocker &locker);
    void _writeAsDevice(QMutexLocker &locker);
    void _readAsHost(QMutexLocker &locker);
    void _writeAsHost(QMutexLocker &locker);
    void _retryWriteAsHost();
    bool _readBlock(QByteArray &block, QMutexLocker &locker);
    bool _writeBlock(const QByteArray &block, QMutexLocker &locker);
    void _skipWrite(QMutexLocker &locker);
    static void _pause(unsigned long time, QMutexLocker &locker);
    void _removeSentMessage(const QByteArray &message);
    QByteArray _idleMessage();
    bool _mustDelayHost();
    QByteArray _noDataMessage();
    quint32 _driverNbRetry() const;
    bool _isLinkLost() const;
    void _countHandshake(Session &session);
    bool _checkLink(Session &session, QMutexLocker &locker);
    void _resetLink(QMutexLocker &locker);
    bool _reopenAfterLoss(Session &session, QMutexLocker &locker);
    bool _tryReopen(Session &session, QMutexLocker &locker);
    bool _isReopenHopeless(const Session &session) const;
    void _grantWriters();
    void _endOfConnectedThread();
    void _endThread(QMutexLocker &locker);
    void _stopWorkerThread(unsigned long time);
    bool _waitForThread(QMutexLocker &locker, unsigned long time);
    bool _isWatchdogDue() const;
    void _resetWatchdog();
    void _restartStuckThread(QMutexLocker &locker);
    void _releaseDriverOfDeadThread();
    void _beginCommunication();
    void _setMainLoopTimer(quint32 period);
    void _applyMainLoopPeriod();
    void _retireMainLoopTimer();

    /**
     * Waits on a condition until reached() holds, at most msecs ms; 0 or less only looks. Called
     * with the mutex held; returns whether reached() holds.
     */
    template <typename Predicate>
    bool _waitUntil(QWaitCondition &condition, qint64 msecs, Predicate reached) const;

    /**
     * Waits on a condition with the mutex held, at most msecs ms; shorter in the communication
     * thread, which may be killed.
     */
    void _waitOn(QWaitCondition &condition, qint64 msecs) const;

    /** Runs what emits a signal with the mutex released, so that a handler may call back. */
    template <typename Emission>
    static void _emitUnlocked(QMutexLocker &locker, Emission emission);

    static WorkerThread &_connectedThread;
    static thread_local int emissionDepth; // handlers of this thread that are on its stack

    QList<int> _reserved; // keeps its place in the object, unused
    bool _maxSizeExchanged = false;
    bool _configured = false;
    quint32 _watchdogErrors = 0;
    quint32 _lastLoopCounter = 0;
    quint32 _loopCounter = 0;
    qint32 _nextAction = firstHalf;
    bool _running = false;
    quint32 _clientCount = 0;
    DriverState _driverState = DriverState::DISCONNECTED;
    quint32 _readErrors = 0;
    quint32 _writeErrors = 0;
    QHash<int, QSharedPointer<ReadQueue>> _readQueues;
    QList<QByteArray> _writeFifo;
    QHash<int, SocketState> _socketStates;
    QTimer _mainLoopTimer;
    QElapsedTimer _mainLoopClock;
    bool _forceLowLevelDisconnection = false;
    QWaitCondition _writeAllowedCond;
    bool _writerWaiting = false;
    bool _handshaking = true;
    AbstractDriver *_hwDriver = nullptr;
    quint32 _totalBytesWaitingRead = 0;
    bool _peerBusy = false;
    bool _delayRequested = false;
    bool _driverOpened = false;
    QList<QSharedPointer<AbstractDriver>> _drivers;
    bool _setupDone = false;
    ParamHal _param;
    mutable QMutex _mutex;
    QWaitCondition _fifoEmptyCond;
    mutable QWaitCondition _readyReadCond;
    mutable QWaitCondition _connectedCond;
    mutable QWaitCondition _disconnectedCond;
    quint32 _lastMaxReadSize = 0;
    QByteArray _maxReadSizeMessage;

    QWaitCondition _stopEndedCond;
    quint32 _stopsInProgress = 0;
    quint32 _stops = 0;         // so far, so that the watchdog and the receive path notice one
    bool _startPending = false; // a handler in the ending thread opened a port: start once more
    // The timer belongs to the core's thread; the others see it through these.
    std::atomic<int> _mainLoopPeriod{0}; // as asked for, ms; 0: stopped
    std::atomic<bool> _mainLoopActive{false};
    std::atomic<bool> _mainLoopChangePosted{false};
};

template <typename Predicate>
bool UsbHAL::_waitUntil(QWaitCondition &condition, qint64 msecs, Predicate reached) const
{
    QElapsedTimer timer;
    timer.start();
    while (!reached()) {
        const qint64 left = msecs - timer.elapsed();
        if (left <= 0)
            return false;
        _waitOn(condition, left);
    }
    return true;
}

template <typename Emission>
void UsbHAL::_emitUnlocked(QMutexLocker &locker, Emission emission)
{
    struct Handlers
    {
        Handlers() { ++emissionDepth; }
        ~Handlers() { --emissionDepth; }
        // A kill amid Qt's delivery would leave the receiver's event loop deaf, and one in a
        // handler would unwind through a client's destructors.
        const CancellationBlocker blocker;
    };
    locker.unlock();
    {
        const Handlers handlers;
        emission();
    }
    locker.relock();
}

#endif
