// SPDX-License-Identifier: MIT
//
// A live core: its communication thread meets, in each call of the driver, what the input says.
// Between two inputs the core returns to the state of its construction. As a device it keeps its
// thread, unless the input stops it: to start one costs more than most inputs do.
//
// The first byte chooses the role and whether clients act in handlers of signals. As a device whose
// handlers rest the core is compared with a model at each call of the driver; otherwise the bounds
// are checked that hold whatever clients and hosts do.

#include "FuzzTarget.h"
#include "LinkModel.h"
#include "LogTally.h"

#include <UsbHal.h>
#include <VirtualTime.h>
#include <WireMessages.h>

#include <QCoreApplication>
#include <QTemporaryDir>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

// The linker sends the yields of virtual pauses here. The threads take turns by themselves, and on
// a busy machine each yield would cost some milliseconds.
extern "C" void __wrap__ZN7QThread18yieldCurrentThreadEv();
void __wrap__ZN7QThread18yieldCurrentThreadEv() {}

namespace {

constexpr quint32 retries = 2;
constexpr quint32 mostClients = 5;
constexpr int mostQueued = 100;
constexpr int mostNestedHandlers = 3;
constexpr int messagesNearLimit = 24010; // leave less room in a queue than the longest payload has
constexpr unsigned fullQueueKind = 255;  // of inputs, which take long
constexpr int knownPorts[] = {0, 1, 2, 3, 4, 5, 9999, -1};

QByteArray toBytes(std::string_view bytes)
{
    return QByteArray(bytes.data(), static_cast<int>(bytes.size()));
}

class FuzzCore : public UsbHAL
{
public:
    using UsbHAL::UsbHAL;

    bool isHost() const override { return playsHost; }
    bool playsHost = false;

    void configure()
    {
        const QTemporaryDir folder; // gone again at once, as the log writes nothing
        ParamHal param;
        getDefaultSetup(param);
        param.nbRetry = retries;
        param.maxReadSize = 100;
        param.maxWriteSize = 200;
        param.logDir = folder.path();
        setupConfig(param);
    }

    using UsbHAL::_communicationCond;
    using UsbHAL::_mainLoopTimer;

    /** Back to the state of the construction, or of the first read of a thread that waits in it. */
    void reset(bool keepsThread)
    {
        const QMutexLocker locker(&_mutex);
        if (keepsThread)
            _hwDriver->setupConfig(_param);
        else
            _hwDriver = nullptr;
        _nextAction = firstHalf;
        _handshaking = true;
        _readErrors = 0;
        _writeErrors = 0;
        _maxSizeExchanged = false;
        _clientCount = 0;
        _driverState = DriverState::DISCONNECTED;
        _readQueues.clear();
        _partlyRead.clear();
        _writeFifo.clear();
        _socketStates.clear();
        _forceLowLevelDisconnection = false;
        _writerWaiting = false;
        _totalBytesWaitingRead = 0;
        _peerBusy = false;
        _delayRequested = false;
        _lastMaxReadSize = 0;
        _maxReadSizeMessage.clear();
    }

    void waitForThread() { _connectedThread.wait(); }

    /** So many messages without payload in a port's queue, as a host would have sent them. */
    void fillQueue(int port, int messages)
    {
        const QMutexLocker locker(&_mutex);
        for (int i = 0; i < messages; ++i)
            _readQueues.value(port)->append(QByteArray());
    }

    void checkAgainst(const LinkModel &model)
    {
        const QMutexLocker locker(&_mutex);
        const ReceiveModel &ports = model.ports;
        require((_driverState == DriverState::CONNECTED) == ports.connected, "the link's state");
        require(_peerBusy == ports.peerBusy, "whether the peer is busy");
        require(_clientCount == ports.clients, "the number of clients");
        require(_writeFifo.size() == model.queuedMessages(), "the number of messages to write");
        require(_totalBytesWaitingRead == model.bytesWaiting(),
                "the counter is what the queues hold, and the remainder of what was discarded");
        _checkPorts(ports);
    }

    /** What holds in any role, whatever handlers do. discardable: bytes received so far. */
    void checkBounds(quint64 discardable)
    {
        const QMutexLocker locker(&_mutex);
        require(_clientCount <= mostClients, "the number of clients stays within its limit");
        require(_writeFifo.size() <= mostQueued, "the write queue stays within its limit");
        quint64 held = 0;
        for (const auto &queue : qAsConst(_readQueues)) {
            for (const QByteArray &payload : qAsConst(*queue))
                held += static_cast<quint64>(payload.size());
        }
        require(held <= discardable, "the queues hold what was received");
        require(_totalBytesWaitingRead >= held && _totalBytesWaitingRead <= discardable,
                "the counter counts what the queues hold, and no more than was received");
        for (const QByteArray &message : qAsConst(_writeFifo))
            require(message.startsWith("FADA") && message.size() > 13, "data waits to be written");
    }

private:
    void _checkPorts(const ReceiveModel &model)
    {
        int states = 0;
        for (const auto &[number, port] : model.ports) {
            states += port.known ? 1 : 0;
            require(_socketStates.value(number) == port.state, "a port's state");
            const auto queue = _readQueues.value(number);
            require(queue && *queue == port.queue, "the bytes delivered are the bytes framed");
        }
        require(_socketStates.size() == states, "the ports that have a state");
    }
};

/** The clients and the host of one input, and the model that it is compared with. */
class Script
{
public:
    Script(FuzzCore &core, const AbstractDriver &driver, FuzzInput input)
        : model(driver), _core(core), _input(input)
    {
        const unsigned first = _input.byte();
        const unsigned kind = first == fullQueueKind ? 0 : first % 8;
        _mayFill = first == fullQueueKind;
        _isHost = kind == 5 || kind == 6;
        _actsInHandlers = kind == 6 || kind == 7;
    }

    /** Whether the thread goes on to the next input: a host's thread knows how often it failed. */
    bool keepsThread() const { return !_isHost; }
    bool isHost() const { return _isHost; }

    bool hasModel() const { return !_isHost && !_actsInHandlers; }
    bool isOver() const { return (_stopped && keepsThread()) || _input.isEmpty(); }
    FuzzInput &input() { return _input; }

    /** Compares the core with the model at the beginning of a driver's call. */
    void check()
    {
        LogTally::instance().checkBuffer();
        if (!hasModel()) {
            _core.checkBounds(_bytesReceived);
            return;
        }
        _core.checkAgainst(model);
        require(_announced == model.ports.announced, "each payload is announced once");
    }

    /** Lets clients and host act until the input says how the call ends. Returns whether well. */
    bool actInCall(AbstractDriver &driver)
    {
        const LogTally::Pause pause;
        while (!isOver()) {
            const unsigned action = _input.below(24);
            if (action < 2)
                return action == 0;
            if (action < 8)
                _actAsHost(action);
            else if (action < 10)
                _setSize(driver, action == 8);
            else
                _actAsClient(action);
        }
        return true;
    }

    /** One thing that a client does in a handler. */
    void actInHandler()
    {
        if (!_actsInHandlers || isOver() || _handlers >= mostNestedHandlers ||
            !_core.isConnectedThread())
            return;
        const LogTally::Pause pause;
        ++_handlers;
        _actAsClient(10 + _input.below(14));
        --_handlers;
    }

    QByteArray takeBlock()
    {
        QByteArray block;
        block.swap(_block);
        _bytesReceived += static_cast<quint64>(block.size());
        return block;
    }

    void countAnnouncement() { ++_announced; }

    /** Ends a device's script. */
    void stop()
    {
        _stopped = true;
        _core.stop();
        onStop();
    }

    std::function<void()> onStop;
    LinkModel model;

private:
    int _anyPort() { return knownPorts[_input.below(8)]; }

    void _actAsHost(unsigned action)
    {
        switch (action) {
        case 2:
            _block += toBytes(_input.shortText());
            break;
        case 3: {
            const int port = _anyPort();
            _block += dataMessage(port, toBytes(_input.shortText()));
            break;
        }
        case 4:
            _block += _input.flag() ? "DEVICE_NODATA" : "DEVICE_WTSEND";
            break;
        case 5:
            _block += dataMessage(_anyPort(), "DEVICE_CONN");
            break;
        case 6:
            _block += "DEVICE_NODATA" + QByteArray::number(_input.number(2)).rightJustified(5, '0');
            break;
        default:
            _appendLongMessage();
        }
    }

    void _appendLongMessage()
    {
        if (_longMessages++ > 2)
            return;
        const int size = static_cast<int>(_input.number(3) % 99996);
        const int port = _anyPort();
        _block += dataMessage(port, QByteArray(size, static_cast<char>(_input.byte())));
    }

    void _setSize(AbstractDriver &driver, bool reading)
    {
        const std::uint32_t size = _input.number(2);
        reading ? driver.setMaxReadSize(size % 1000) : driver.setMaxWriteSize(size);
    }

    // Each on a port that the input names; both the core and the model, while there is one.
    void _actAsClient(unsigned action)
    {
        const int port = _anyPort();
        switch (action) {
        case 10:
        case 11:
            _open(port);
            break;
        case 12:
            _expect(_core.closeConnection(port), model.close(port), "closed by both or none");
            break;
        case 13:
            model.close(port);
            _core.disconnectFromHost(port);
            break;
        case 14:
            model.peerDisconnect(port);
            _core.peerDisconnected(port);
            break;
        case 15:
            _fill(port);
            break;
        case 16:
            stop();
            break;
        case 17:
        case 18:
            _look(port);
            break;
        case 19:
        case 20:
            _write(port);
            break;
        default:
            _read(port);
        }
    }

    template <typename Value>
    void _expect(const Value &value, const Value &expected, const char *invariant)
    {
        require(!hasModel() || value == expected, invariant);
    }

    void _open(int port)
    {
        // The model opens first, since a handler of this open may act.
        const bool expected = model.ports.open(port);
        _expect(_core.openConnection(port), expected, "opened by both or none");
    }

    void _read(int port)
    {
        const unsigned most = _input.byte();
        const unsigned size = most < 200 ? most : ~0U;
        const QByteArray expected = model.ports.read(port, size);
        const QByteArray bytes = _core.read(port, size);
        _expect(bytes, expected, "what was framed is read");
        require(static_cast<quint64>(bytes.size()) <= _bytesReceived, "no byte is invented");
    }

    void _look(int port)
    {
        const unsigned size = _input.byte();
        const int head = model.ports.headSize(port);
        _expect(_core.peek(port, size), model.ports.peek(port, size), "what is peeked at");
        _expect(_core.nbBytesReceived(port), head, "the size of the head message");
        const bool ready = model.ports.isUsable(port) && head > 0;
        _expect(_core.waitForReadyRead(port, 5), ready, "ready when a head message is");
        _expect(_core.socketStatus(port), model.ports.port(port).state, "the port's state");
        require(_core.readAll(port).isEmpty(), "readAll gives nothing");
    }

    void _write(int port)
    {
        // As a host it would wait half a minute for a device that is busy, in thousands of steps.
        if (_isHost && ++_writes > 4)
            return;
        const unsigned size = _input.byte();
        const QByteArray data =
            size < 200 ? toBytes(_input.bytes(size)) : patternBytes(1 << (size - 200) % 16);
        _expect(_core.write(port, data), model.write(port, data), "the bytes that are queued");
    }

    void _fill(int port)
    {
        if (!_mayFill || model.ports.port(port).state != SocketState::OPENED)
            return;
        _mayFill = false;
        _core.fillQueue(port, messagesNearLimit);
        for (int i = 0; i < messagesNearLimit; ++i)
            model.ports.ports[port].queue.append(QByteArray());
    }

    FuzzCore &_core;
    FuzzInput _input;
    bool _isHost = false;
    bool _actsInHandlers = false;
    bool _stopped = false;
    bool _mayFill = false;
    int _handlers = 0;
    int _longMessages = 0;
    int _writes = 0;
    quint64 _bytesReceived = 0;
    quint64 _announced = 0;
    QByteArray _block;
};

/** A driver whose calls run the script, and end as it says. */
class FuzzDriver : public AbstractDriver
{
public:
    /** The next script; go() begins it. startsThread: in a thread that the core starts for it. */
    void begin(Script &script, bool startsThread)
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _script = &script;
        _startsThread = startsThread;
        _phase = Phase::Waiting;
        _closeDriverAfterConnectionError = script.input().flag();
        _avoidClosingDuringHandshake = script.input().byte() % 4 == 1;
        script.model.beginWithDriver();
        LogTally::instance().beginBuffer(0);
        script.onStop = [this] { _enter(Phase::Ending); };
    }

    void go() { _enter(Phase::Running); }

    /** Lets the thread end that waits for the next script. */
    void end() { _enter(Phase::Ending); }

    /** Waits until the script is over; returns whether the thread waits for the next. */
    bool waitForScript()
    {
        std::unique_lock<std::mutex> lock(_mutex);
        _changed.wait(lock, [this] { return _phase != Phase::Running; });
        return _phase == Phase::Over;
    }

    bool open() override
    {
        LogTally::instance().beginBuffer(0);
        if (_waitForGo() && _script->keepsThread())
            return true; // as in a thread that was kept
        const bool opened = _script->isOver() || _script->input().byte() % 4 != 1;
        if (opened)
            _script->model.beginWithDriver();
        return opened;
    }

    bool close() override { return _script->isOver() || _script->input().byte() % 4 != 1; }

    int read(QByteArray *data) override
    {
        bool works = _actInRead();
        while (_script->isOver()) {
            if (!_waitForNext()) {
                _script->stop();
                return 0;
            }
            works = _actInRead();
        }
        // Like a real driver it hands out a buffer of its own, which the next read changes.
        _block = works ? _script->takeBlock() : QByteArray();
        LogTally::instance().beginBuffer(_block.size(), _script->isHost());
        _script->model.endRead(_block);
        data->setRawData(_block.constData(), static_cast<uint>(_block.size()));
        return _block.size();
    }

    int write(QByteArray data) override
    {
        _script->check();
        if (_script->hasModel()) {
            require(!_script->model.readsNext(), "a write follows a good read");
            require(data == _script->model.nextWrite(), "what is written, in its order");
        }
        const bool works = _script->actInCall(*this);
        LogTally::instance().beginBuffer(0);
        _script->model.endWrite(works);
        return works ? data.size() : 0;
    }

    void cancelPendingIo() override {}
    QString getDrvDetailedError(int) const override { return QString(); }

private:
    enum class Phase { Waiting, Running, Over, Ending };

    void _enter(Phase phase)
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _phase = phase;
        _changed.notify_all();
    }

    /** Returns whether the thread has just been started. */
    bool _waitForGo()
    {
        std::unique_lock<std::mutex> lock(_mutex);
        _changed.wait(lock, [this] { return _phase != Phase::Waiting; });
        return std::exchange(_startsThread, false);
    }

    /** Returns false when the thread is to end. */
    bool _waitForNext()
    {
        std::unique_lock<std::mutex> lock(_mutex);
        if (_phase == Phase::Ending || !_script->keepsThread())
            return false;
        _phase = Phase::Over;
        _changed.notify_all();
        _changed.wait(lock, [this] { return _phase == Phase::Running || _phase == Phase::Ending; });
        return _phase == Phase::Running;
    }

    bool _actInRead()
    {
        _script->check();
        require(!_script->hasModel() || _script->model.readsNext(), "a read follows a good write");
        return _script->actInCall(*this);
    }

    std::mutex _mutex;
    std::condition_variable _changed;
    Phase _phase = Phase::Waiting;
    bool _startsThread = false;
    Script *_script = nullptr;
    QByteArray _block;
};

/** The one core of the process and its driver. */
class Bench
{
public:
    Bench() : _core({_driver})
    {
        VirtualTime::setPauseDivisor(0);
        VirtualTime::setInstantWaits(true);
        VirtualTime::keepReal(&_core._communicationCond);
        _core.configure();
        _connectSignals();
    }

    void run(FuzzInput input)
    {
        auto script = std::make_unique<Script>(_core, *_driver, input);
        if (_threadWaits && !script->keepsThread())
            _endThread();
        _core.playsHost = script->isHost();
        _core.reset(_threadWaits);
        _driver->begin(*script, !_threadWaits);
        _script = std::move(script);
        _script->model.ports.open(1);
        require(_core.openConnection(1), "the first port can be opened");
        _driver->go();
        _threadWaits = _script->keepsThread() && _driver->waitForScript();
        if (!_threadWaits)
            _waitForThread();
        // What the thread asks of the core's own thread; there is no event loop to consume it.
        QCoreApplication::removePostedEvents(&_core);
        QCoreApplication::removePostedEvents(&_core._mainLoopTimer);
    }

private:
    void _endThread()
    {
        _driver->end();
        _waitForThread();
        _threadWaits = false;
    }

    void _waitForThread()
    {
        _core.waitForThread();
        require(_core.status() == DriverState::DISCONNECTED, "a stop takes the link down");
    }

    void _connectSignals()
    {
        const auto act = [this] { _script->actInHandler(); };
        QObject::connect(&_core, QOverload<>::of(&UsbHAL::connected), act);
        QObject::connect(&_core, QOverload<>::of(&UsbHAL::disconnected), act);
        QObject::connect(&_core, QOverload<int>::of(&UsbHAL::connected), act);
        QObject::connect(&_core, QOverload<int>::of(&UsbHAL::disconnected), act);
        QObject::connect(&_core, &UsbHAL::stateChanged, act);
        QObject::connect(&_core, &UsbHAL::socketStateChanged, act);
        QObject::connect(&_core, QOverload<int>::of(&UsbHAL::readyRead), [this, act] {
            _script->countAnnouncement();
            act();
        });
        QObject::connect(&_core, &UsbHAL::error, [](int code, void *) {
            require(code >= 3 && code <= 8, "an error is one that clients or drivers cause");
        });
    }

    const QSharedPointer<FuzzDriver> _driver{new FuzzDriver};
    FuzzCore _core;
    std::unique_ptr<Script> _script;
    bool _threadWaits = false; // in a read, for the next script
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static Bench &bench = *new Bench; // lives as long as the logger, which is destroyed before it
    bench.run(FuzzInput(data, size));
    return 0;
}
