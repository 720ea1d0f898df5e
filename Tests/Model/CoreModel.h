// SPDX-License-Identifier: MIT
#ifndef COREMODEL_H
#define COREMODEL_H

#include "ClientHandlers.h"
#include "Setup.h"
#include "Trace.h"

#include <MessageCutter.h>
#include <UsbHalIntf.h>

#include <QHash>
#include <QList>

/**
 * What a core does, worked out a second time without threads, locks and anything of the library's
 * code. The communication thread is a state: it rests in a driver's call until turn() tells how the
 * call ends, and then runs on to its next call. What a call to the model or a turn brings about
 * stands in the trace.
 */
class CoreModel
{
public:
    /** Where the communication thread rests. */
    enum class Rest { NotBegun, Opening, Reading, Writing, Reopening };

    CoreModel(const Setup &setup, Trace &trace, ClientHandlers &handlers);

    // ---- the public operations ----
    void getDefaultSetup(ParamHal &param) const;
    bool setupConfig(const ParamHal &param);
    void stop();
    DriverState status() const { return link; }
    bool isRunning() const { return alive; }
    bool isHost() const { return _setup.isHost; }
    QString driverName() const { return _driver < 0 ? QString() : ::driverName(_driver); }
    quint32 nbClients() const { return clients; }
    QString getErrorStr(int code) const;
    QString getSocketStateStr(SocketState state) const;
    bool waitForConnected(int msecs) const;
    bool waitForDisconnected(int msecs) const;
    bool openConnection(int port);
    bool closeConnection(int port);
    void disconnectFromHost(int port);
    void peerDisconnected(int port);
    SocketState socketStatus(int port) const { return _states.value(port, SocketState::CLOSED); }
    QByteArray read(int port, unsigned int maxSize);
    QByteArray peek(int port, unsigned int maxSize) const;
    QByteArray readAll(int port) const;
    int nbBytesReceived(int port) const;
    bool waitForReadyRead(int port, int msecs) const;
    int write(int port, const QByteArray &data);
    int bytesToWrite() const { return _fifo.size(); }
    int getMaxWriteSize() const;
    void flush(int msecs);
    void watchdog(bool enable) const;

    // ---- the world around ----
    /** Lets a thread that was just started run to its first driver's call. */
    void settle();
    /** Ends the driver's call in which the thread rests. */
    void turn(const Outcome &outcome);
    /** The next count closes of a driver fail. */
    void failCloses(int count) { _failingCloses = count; }
    /** The owner's event loop delivers what waits there. */
    void handleEvents();
    /** The watchdog's timer fires, after its whole period or not. */
    void tick(bool periodOver);
    /** Destroys the core. */
    void destroy();

    // ---- state that is compared ----
    DriverState link = DriverState::DISCONNECTED;
    quint32 clients = 0;
    bool alive = false; ///< the thread runs
    quint32 bytesWaiting = 0;
    bool running = false;
    bool handshaking = true;
    bool peerBusy = false;
    bool delayRequested = false;
    bool maxSizeExchanged = false;
    bool driverOpened = false;
    bool forceDisconnection = false;
    int nextHalf = 1;
    quint32 readErrors = 0;
    quint32 writeErrors = 0;
    quint32 passes = 0;
    quint32 passesSeen = 0;
    quint32 watchdogErrors = 0;
    quint32 encodedMaxReadSize = 0;

private:
    struct Driver
    {
        quint32 maxReadSize = 10000;
        quint32 maxWriteSize = 10000;
        quint32 nbRetry = 4;
    };
    struct Framed
    {
        QByteArray bytes;
        quint64 number = 0; // tells messages of the same bytes apart
    };
    using Queue = QList<QByteArray>;

    void log(const char *function, const QString &message);
    void emitSignal(const QString &signal);
    void emitError(int code, int value);
    void logError(int code, int value);
    void logThread(const QString &message) { log("_connectedFunc", message); }
    void drive(const QString &what);

    // Link and ports (CoreModel.cpp)
    bool changeLink(DriverState state);
    void linkUp();
    void linkDown();
    void changePorts(SocketState state);
    void portUp(int port);
    void portDown(int port);
    int removeMessagesOf(int port);
    bool anyPortOpen() const;
    bool isOpen(int port) const;
    bool isUsable(int port) const;
    bool canClose(int port) const;
    bool close(int port);
    void discardQueue(int port);
    void clearQueues();
    bool waitForEnding();
    bool isCommunicating() const { return alive && (running || _startPending); }
    bool isEnding() const { return alive && !isCommunicating(); }
    bool start();

    // Sending (CoreModel.cpp)
    void waitForWritePermission();
    int queueMessages(int port, const QByteArray &data, int limit);

    // Reception (CoreModel_receive.cpp)
    bool receive(const QByteArray &buffer);
    bool receiveOne(const QByteArray &rest, int &consumed);
    bool receiveData(const CutMessage &message, const QByteArray &rest);
    void takeMaxWriteSize(const QByteArray &rest);
    void logNotValid(const QByteArray &rest);
    bool deliver(int port, const QByteArray &payload);
    void reopen(int port);
    void store(int port, const QByteArray &payload);

    // The communication thread (CoreModel_thread.cpp)
    bool waitForEnd();
    void run(const Outcome *outcome);
    void askThreadToEnd();
    void beginSession();
    void opened(bool good);
    void tryFirstDriver();
    bool tryNextDriver(bool good);
    void openAnyDriver();
    void beginCycles();
    void nextPass();
    void restInRead();
    void restInWrite();
    void hasRead(const Outcome &outcome);
    void hasReadAsHost(bool good, const QByteArray &block);
    void hasWritten(bool good);
    QByteArray idleMessage();
    QByteArray noDataMessage();
    void finishPass();
    bool isLinkLost() const;
    void resetLink();
    void closeAfterLoss();
    void beginReopening();
    void reopened(bool good);
    void endLossOfLink();
    void leave();
    void leaveAsHost();
    void endThread();
    bool closeDriver();
    quint32 retries() const;

    const Setup _setup;
    Trace &_trace;
    ClientHandlers &_handlers;

    bool _configured = false;
    ParamHal _param;
    QHash<int, SocketState> _states; // walked in its own order, as the design has it
    QHash<int, Queue> _queues;
    QList<Framed> _fifo;
    quint64 _framed = 0;
    QList<QPair<int, int>> _queuedErrors; // for the owner's event loop
    bool _timerRuns = false;
    quint32 _stops = 0;
    bool _stopping = false;
    int _failingCloses = 0;

    bool _inThread = false; // what runs now runs in the communication thread
    Rest _rest = Rest::NotBegun;
    bool _startPending = false;
    int _driver = -1; // the one in use
    int _tried = 0;   // the one that is being opened
    Driver _drivers[2];
    quint32 _failedOpens = 0;
    bool _openFailureLogged = false;
    bool _handshakeFailed = false;
    quint32 _handshakePasses = 0;
    QByteArray _maxReadSizeMessage;
    bool _sendsFromFifo = false;
    quint64 _sentNumber = 0;
};

#endif
