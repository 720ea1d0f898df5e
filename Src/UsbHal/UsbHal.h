// SPDX-License-Identifier: MIT
#ifndef USBHAL_H
#define USBHAL_H

#include "AbstractDriver.h"
#include "CancellationBlocker.h"
#include "MainLoopTimer.h"
#include "UsbHalIntf.h"
#include "threadsafety.h"
#include "usb_messages.h"
#include "workerthread.h"

#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QQueue>
#include <QSharedPointer>
#include <QWaitCondition>

#include <atomic>
#include <sys/types.h>

/** The codes of error(); what each of them says is in UsbHal.cpp. */
namespace usbhal_errors {
enum Error {
    NoError,
    WrongSize,
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
} // namespace usbhal_errors

/** Appends without the copy that Qt's lists take, which costs two atomic operations. */
inline void appendMoved(QList<QByteArray> &list, QByteArray bytes)
{
    list.append(QByteArray());
    list.last().swap(bytes);
}

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

    /**
     * Stops the core for good: from now on openConnection fails with code 7. Returns whether its
     * thread is gone; a second call only looks.
     */
    bool retire();
    /** Whether the caller runs in this core's communication thread. */
    bool isConnectedThread() const;
    /** Whether the caller was called by a signal of a core, whose frames it must not destroy. */
    bool isInHandler() const;
    /** Whether the caller may destroy the core, once its thread is gone. */
    bool isDestroyable() const;
    /** Whether this process, not one that it was forked from, last started the communication. */
    bool hasStartedHere() const;

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

    using Error = usbhal_errors::Error;
    using ReadQueue = QQueue<QByteArray>;

    // What the communication thread is at; see _changeCommunication().
    enum class Communication {
        Ended,      // there is none, and another may be started
        Running,    // it communicates
        Ending,     // it has been asked to end, or ends by itself
        Restarting, // so, too, but a handler in it has opened a port since: it is to begin anew
        Killed,     // a kill has been sent, and strikes where the thread can be cancelled
        Finishing   // it has left the core; Qt still finishes it, and may call clients' destructors
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
    bool _updateStatus(DriverState state, QMutexLocker &locker) REQUIRES(_mutex);
    void _onConnected(QMutexLocker &locker) REQUIRES(_mutex);
    void _onDisconnected(QMutexLocker &locker) REQUIRES(_mutex);
    void _emitError(int code, void *data, QMutexLocker &locker) REQUIRES(_mutex);
    bool _releaseDriver() REQUIRES(_mutex);
    void _releaseDriverOrReport(const char *function, const char *closed, const char *refused,
                                QMutexLocker &locker) REQUIRES(_mutex);
    quint32 _nbClients() const REQUIRES(_mutex) { return _clientCount; }

    // Ports (UsbHal_ports.cpp)
    bool _canClose(int port) const REQUIRES(_mutex);
    bool _prepareReadQueue(int port) REQUIRES(_mutex);
    void _discardReadQueue(int port) REQUIRES(_mutex);
    bool _closeConnection(int port, QMutexLocker &locker) REQUIRES(_mutex);
    void _onConnected(int port, QMutexLocker &locker) REQUIRES(_mutex);
    void _onDisconnected(int port, QMutexLocker &locker) REQUIRES(_mutex);
    void _changeAllSocketsState(SocketState state, QMutexLocker &locker) REQUIRES(_mutex);
    quint32 _nbPortsOpened() const REQUIRES(_mutex);

    // Receive path (UsbHal_receive.cpp)
    bool _processAllMessages(const QByteArray &buffer, QMutexLocker &locker) REQUIRES(_mutex);
    bool _processMessage(const QByteArray &message, QMutexLocker &locker, unsigned int &consumed)
        REQUIRES(_mutex);
    bool _processDataMessage(const QByteArray &message, QMutexLocker &locker,
                             unsigned int &consumed) REQUIRES(_mutex);
    unsigned int _takeMaxWriteSize(const QByteArray &message) REQUIRES(_mutex);
    void _logFault(usb_messages::Fault fault, const QByteArray &message) REQUIRES(_mutex);
    ReadQueue *_reopenPort(int port) REQUIRES(_mutex);
    void _announcePayload(int port, QMutexLocker &locker) REQUIRES(_mutex);
    ReadQueue *_readQueue(int port) const REQUIRES(_mutex);
    ReadQueue *_openQueue(int port) const REQUIRES(_mutex);
    bool _isUsable(int port) const REQUIRES(_mutex);
    ReadQueue *_readableQueue(int port) const REQUIRES(_mutex);
    QByteArray _takeHead(int port, ReadQueue &queue) REQUIRES(_mutex);
    QByteArray _takePart(int port, ReadQueue &queue, int size) REQUIRES(_mutex);
    int _nbBytesReceived(int port) const REQUIRES(_mutex);
    quint32 _nbBytesWaitingToBeRead() const REQUIRES(_mutex) { return _totalBytesWaitingRead; }
    void _clearReadFifo() REQUIRES(_mutex);

    // Send path (UsbHal_send.cpp)
    void _waitForWritePermission() REQUIRES(_mutex);
    int _payloadLimit() const REQUIRES(_mutex);
    int _queueMessages(int port, const QByteArray &data, int limit) REQUIRES(_mutex);
    void _clearWriteFifo() REQUIRES(_mutex);
    int _clearWriteFifoForPort(int port) REQUIRES(_mutex);

    // Start and end of the communication (UsbHal_lifecycle.cpp)
    void _changeCommunication(Communication state) REQUIRES(_mutex);
    bool _isCommunicating() const REQUIRES(_mutex);
    bool _hasToEnd() const REQUIRES(_mutex);
    bool _waitForEnding() REQUIRES(_mutex);
    bool _startCommunication() REQUIRES(_mutex);
    bool _startThread() REQUIRES(_mutex);
    void _beginRun() REQUIRES(_mutex);
    void _beginEnding() REQUIRES(_mutex);
    void _endOfConnectedThread();
    void _onThreadGone();
    void _stopMainLoop() REQUIRES(_mutex);
    void _endCommunication(QMutexLocker &locker) REQUIRES(_mutex);
    void _askThreadToEnd() REQUIRES(_mutex);
    bool _endThread() REQUIRES(_mutex);
    bool _waitForEnd(qint64 msecs) REQUIRES(_mutex);
    void _stopWorkerThread(unsigned long time) REQUIRES(_mutex);
    void _restartStuckThread(QMutexLocker &locker) REQUIRES(_mutex);
    void _replaceThread(quint32 stops, QMutexLocker &locker) REQUIRES(_mutex);
    void _releaseDriverOfDeadThread() REQUIRES(_mutex);

    // Watchdog (UsbHal_watchdog.cpp)
    bool _isWatchdogDue() const REQUIRES(_mutex);

    // Communication thread (UsbHal_thread.cpp)
    void *_connectedFunc(void *arg);
    void _communicate(QMutexLocker &locker) REQUIRES(_mutex);
    bool _openAnyDriver(Session &session, QMutexLocker &locker) REQUIRES(_mutex);
    bool _reportFailedOpens(Session &session) REQUIRES(_mutex);
    AbstractDriver *_open(QMutexLocker &locker) REQUIRES(_mutex);
    bool _closeDriver() REQUIRES(_mutex);
    bool _runCycles(Session &session, QMutexLocker &locker) REQUIRES(_mutex);
    void _leaveThread(QMutexLocker &locker) REQUIRES(_mutex);
    void _leaveThreadAsHost(QMutexLocker &locker) REQUIRES(_mutex);
    void _readAsDevice(QMutexLocker &locker) REQUIRES(_mutex);
    void _writeAsDevice(QMutexLocker &locker) REQUIRES(_mutex);
    void _readAsHost(QMutexLocker &locker) REQUIRES(_mutex);
    void _writeAsHost(QMutexLocker &locker) REQUIRES(_mutex);
    void _retryWriteAsHost() REQUIRES(_mutex);
    bool _readBlock(QByteArray &block, QMutexLocker &locker) REQUIRES(_mutex);
    bool _writeBlock(const QByteArray &block, QMutexLocker &locker) REQUIRES(_mutex);
    void _skipWrite(QMutexLocker &locker) REQUIRES(_mutex);
    static void _pause(unsigned long time, QMutexLocker &locker);
    void _removeSentMessage(const QByteArray &message) REQUIRES(_mutex);
    QByteArray _idleMessage() REQUIRES(_mutex);
    bool _mustDelayHost() REQUIRES(_mutex);
    QByteArray _noDataMessage() REQUIRES(_mutex);
    quint32 _driverNbRetry() const REQUIRES(_mutex);
    bool _isLinkLost() const REQUIRES(_mutex);
    void _countHandshake(Session &session) REQUIRES(_mutex);
    bool _checkLink(Session &session, QMutexLocker &locker) REQUIRES(_mutex);
    void _resetLink(QMutexLocker &locker) REQUIRES(_mutex);
    bool _reopenAfterLoss(Session &session, QMutexLocker &locker) REQUIRES(_mutex);
    bool _tryReopen(Session &session, QMutexLocker &locker) REQUIRES(_mutex);
    bool _isReopenHopeless(const Session &session) const REQUIRES(_mutex);
    void _grantWriters() REQUIRES(_mutex);

    /**
     * Waits on a condition until reached() holds, at most msecs ms; 0 or less only looks. In the
     * communication thread the wait is over, too, when that has to end. Called with the mutex held;
     * returns whether reached() holds.
     */
    template <typename Predicate>
    bool _waitUntil(QWaitCondition &condition, qint64 msecs, Predicate reached) const
        REQUIRES(_mutex);

    /** Waits on a condition with the mutex held, at most msecs ms, or for less. */
    void _waitOn(QWaitCondition &condition, qint64 msecs) const REQUIRES(_mutex);

    /**
     * Runs an operation with the mutex released. As a lambda it is checked for what it touches
     * without the mutex; what follows a bare unlock() would pass unchecked.
     */
    template <typename Operation>
    static void _runUnlocked(QMutexLocker &locker, Operation operation);

    /** Runs what emits a signal with the mutex released, so that a handler may call back. */
    template <typename Emission>
    static void _emitUnlocked(QMutexLocker &locker, Emission emission);

    static WorkerThread &_connectedThread;
    static thread_local int _emissionDepth; // handlers of this thread that are on its stack

    QList<int> _reserved; // keeps its place in the object, unused
    bool _maxSizeExchanged GUARDED_BY(_mutex) = false;
    bool _configured GUARDED_BY(_mutex) = false;
    quint32 _watchdogErrors GUARDED_BY(_mutex) = 0;
    quint32 _lastLoopCounter GUARDED_BY(_mutex) = 0;
    quint32 _loopCounter GUARDED_BY(_mutex) = 0;
    qint32 _nextAction GUARDED_BY(_mutex) = firstHalf;
    bool _running GUARDED_BY(_mutex) = false;
    quint32 _clientCount GUARDED_BY(_mutex) = 0;
    DriverState _driverState GUARDED_BY(_mutex) = DriverState::DISCONNECTED;
    quint32 _readErrors GUARDED_BY(_mutex) = 0;
    quint32 _writeErrors GUARDED_BY(_mutex) = 0;
    QHash<int, QSharedPointer<ReadQueue>> _readQueues GUARDED_BY(_mutex);
    QList<QByteArray> _writeFifo GUARDED_BY(_mutex);
    QHash<int, SocketState> _socketStates GUARDED_BY(_mutex);
    MainLoopTimer _mainLoopTimer;
    QElapsedTimer _mainLoopClock GUARDED_BY(_mutex);
    bool _forceLowLevelDisconnection GUARDED_BY(_mutex) = false;
    QWaitCondition _writeAllowedCond;
    bool _writerWaiting GUARDED_BY(_mutex) = false;
    bool _handshaking GUARDED_BY(_mutex) = true;
    AbstractDriver *_hwDriver GUARDED_BY(_mutex) = nullptr;
    quint32 _totalBytesWaitingRead GUARDED_BY(_mutex) = 0;
    bool _peerBusy GUARDED_BY(_mutex) = false;
    bool _delayRequested GUARDED_BY(_mutex) = false;
    bool _driverOpened GUARDED_BY(_mutex) = false;
    QList<QSharedPointer<AbstractDriver>> _drivers GUARDED_BY(_mutex);
    bool _setupDone GUARDED_BY(_mutex) = false;
    ParamHal _param GUARDED_BY(_mutex);
    mutable CheckedMutex _mutex;
    QWaitCondition _fifoEmptyCond;
    mutable QWaitCondition _readyReadCond;
    mutable QWaitCondition _connectedCond;
    mutable QWaitCondition _disconnectedCond;
    quint32 _lastMaxReadSize GUARDED_BY(_mutex) = 0;
    QByteArray _maxReadSizeMessage GUARDED_BY(_mutex);

    Communication _communication GUARDED_BY(_mutex) = Communication::Ended;
    QWaitCondition _communicationCond; // woken when it, or what else a start waits for, changes
    mutable QWaitCondition *_handlerWait GUARDED_BY(_mutex) = nullptr; // of the thread's handler
    quint32 _runs GUARDED_BY(_mutex) = 0;  // so far, so that a waiter tells one from the next
    quint32 _stops GUARDED_BY(_mutex) = 0; // so far, so that others notice one
    quint32 _stopsInProgress GUARDED_BY(_mutex) = 0; // and restarts, for which openers wait
    quint32 _endWaits GUARDED_BY(_mutex) = 0;        // threads that wait for the thread's end
    bool _retired GUARDED_BY(_mutex) = false;
    std::atomic<pid_t> _process{0};                        // that last started the thread
    QHash<int, QByteArray> _partlyRead GUARDED_BY(_mutex); // what heads point into, by port
};

// Not checked: the predicate asks for the mutex by the name it has where the predicate was written.
template <typename Predicate>
bool UsbHAL::_waitUntil(QWaitCondition &condition, qint64 msecs,
                        Predicate reached) const NO_THREAD_SAFETY_ANALYSIS
{
    QElapsedTimer timer;
    timer.start();
    while (!reached()) {
        const qint64 left = msecs - timer.elapsed();
        if (left <= 0 || _hasToEnd())
            return false;
        _waitOn(condition, left);
    }
    return true;
}

template <typename Operation>
void UsbHAL::_runUnlocked(QMutexLocker &locker, Operation operation)
{
    locker.unlock();
    operation();
    locker.relock();
}

inline void UsbHAL::_pause(unsigned long time, QMutexLocker &locker)
{
    _runUnlocked(locker, [time] { QThread::msleep(time); });
}

template <typename Emission>
void UsbHAL::_emitUnlocked(QMutexLocker &locker, Emission emission)
{
    struct Handlers
    {
        Handlers() { ++_emissionDepth; }
        ~Handlers() { --_emissionDepth; }
        // A kill amid Qt's delivery would leave the receiver's event loop deaf, and one in a
        // handler would unwind through a client's destructors.
        const CancellationBlocker blocker;
    };
    _runUnlocked(locker, [&] {
        const Handlers handlers;
        emission();
    });
}

#endif
