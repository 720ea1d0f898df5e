// SPDX-License-Identifier: MIT
#include "Sequence.h"

#include "Random.h"

#include <WireMessages.h>

namespace {

constexpr int mostSteps = 90;
constexpr int fewestSteps = 10;

const char *const kindNames[Step::KindCount] = {"call",    "end of transfer", "failing closes",
                                                "handler", "handled events",  "watchdog tick"};

/** Makes one sequence. */
class Generator
{
public:
    explicit Generator(quint64 seed) : _random(seed) {}

    Sequence sequence();

private:
    Setup setup();
    void begin(Sequence &sequence);
    void flood(Sequence &sequence);
    Step step(bool isHost);
    Step callStep(const Call &call) { return {Step::MakeCall, call, {}, {}, 0}; }
    Step transferStep();
    Step handlerStep(bool isHost);

    Call call();
    Call portCall();
    Call bufferCall();
    Call queryCall();
    ParamHal param();
    int port();
    int time() { return _random.pick({-1, 0, 1, 20}); }
    QByteArray data();
    QByteArray randomBytes(int size);

    QByteArray hostBytes();
    QByteArray hostMessage();
    QByteArray payload();
    QByteArray malformed();
    QByteArray nonsense();

    Random _random;
};

Sequence Generator::sequence()
{
    Sequence sequence;
    sequence.setup = setup();
    if (!_random.oneIn(10))
        begin(sequence);
    if (_random.oneIn(5000))
        flood(sequence);
    const int count = fewestSteps + _random.below(mostSteps - fewestSteps + 1);
    for (int i = 0; i < count; ++i)
        sequence.steps.append(step(sequence.setup.isHost));
    return sequence;
}

Setup Generator::setup()
{
    Setup setup;
    setup.isHost = _random.oneIn(4);
    setup.drivers = _random.pick({1, 1, 2});
    setup.avoidClosingDuringHandshake = _random.oneIn(3);
    setup.closeDriverAfterConnectionError = _random.oneIn(2);
    for (bool &answer : setup.answersAtTheEnd)
        answer = _random.oneIn(2);
    return setup;
}

// Most sequences begin with what brings the link up.
void Generator::begin(Sequence &sequence)
{
    Call configuration;
    configuration.kind = Call::SetupConfig;
    configuration.param = param();
    Call opening;
    opening.kind = Call::OpenConnection;
    opening.port = 1;
    Step transfer;
    transfer.kind = Step::EndTransfer;
    transfer.outcome = {true, "DEVICE_NODATA"};
    sequence.steps = {callStep(configuration), callStep(opening), transfer};
    if (!_random.oneIn(4))
        sequence.steps.append(transfer);
}

// So many messages that the largest one finds the port's queue full, or just not.
void Generator::flood(Sequence &sequence)
{
    constexpr int messages = 24010;
    Step transfer;
    transfer.kind = Step::EndTransfer;
    transfer.outcome = {true, dataMessage(1, "").repeated(messages)};
    const int size = 124000 - messages + _random.below(3) - 1;
    Step fill = transfer;
    fill.outcome.block = dataMessage(1, randomBytes(size)) + dataMessage(1, "behind");
    sequence.steps += {transfer, transfer, fill, fill};
}

Step Generator::step(bool isHost)
{
    const int choice = _random.below(100);
    if (choice < 50)
        return transferStep();
    if (choice < 88)
        return callStep(call());
    if (choice < 93)
        return handlerStep(isHost);
    Step step;
    if (choice < 95) {
        step.kind = Step::FailCloses;
        step.count = _random.below(3);
    } else if (choice < 97) {
        step.kind = Step::Tick;
        step.count = _random.oneIn(4) ? 0 : 1;
    }
    return step;
}

Step Generator::transferStep()
{
    Step step;
    step.kind = Step::EndTransfer;
    step.outcome.good = !_random.oneIn(5);
    if (!_random.oneIn(5))
        step.outcome.block = hostBytes();
    return step;
}

// A writer that waits in the host's own thread has no place in a test of one event at a time.
Step Generator::handlerStep(bool isHost)
{
    Step step;
    step.kind = Step::AddHandler;
    const QString number = '(' + QString::number(port()) + ')';
    const QString state = _random.pick({"CONNECTED)", "DISCONNECTED)"});
    step.handler.signal = _random.pick<QString>(
        {"connected", "disconnected", "stateChanged(" + state, "connected" + number,
         "disconnected" + number, "readyRead" + number, "readyRead(1)", "connected(1)",
         "disconnected(1)", "socketStateChanged(1,DISCONNECTED)", "socketStateChanged(1,OPENED)",
         "error(8,0)", "error(6,1)", "error(4,1)"});
    do {
        step.handler.call = call();
    } while (isHost && step.handler.call.kind == Call::Write);
    step.handler.times = 1 + _random.below(4);
    return step;
}

// ---- calls ----

Call Generator::call()
{
    const int choice = _random.below(100);
    if (choice < 32)
        return portCall();
    if (choice < 75)
        return bufferCall();
    if (choice < 92)
        return queryCall();
    Call call;
    call.kind = _random.oneIn(3) ? Call::Stop : _random.pick({Call::SetupConfig, Call::Watchdog});
    call.number = _random.below(2);
    call.param = param();
    return call;
}

Call Generator::portCall()
{
    Call call;
    call.kind = _random.pick({Call::OpenConnection, Call::OpenConnection, Call::OpenConnection,
                              Call::CloseConnection, Call::CloseConnection,
                              Call::DisconnectFromHost, Call::PeerDisconnected});
    call.port = port();
    return call;
}

Call Generator::bufferCall()
{
    Call call;
    call.kind =
        _random.pick({Call::Read, Call::Read, Call::Read, Call::Peek, Call::ReadAll,
                      Call::WaitForReadyRead, Call::Write, Call::Write, Call::Write, Call::Flush});
    call.port = port();
    const bool takesTime = call.kind == Call::WaitForReadyRead || call.kind == Call::Flush;
    call.number = takesTime ? time() : _random.pick({0, 1, 2, 6, 10, 499, 500, 100000, -1});
    if (call.kind == Call::Write)
        call.data = data();
    return call;
}

Call Generator::queryCall()
{
    Call call;
    call.kind = _random.pick({Call::Status, Call::IsRunning, Call::IsHost, Call::DriverName,
                              Call::NbClients, Call::GetErrorStr, Call::GetSocketStateStr,
                              Call::WaitForConnected, Call::WaitForDisconnected, Call::SocketStatus,
                              Call::NbBytesReceived, Call::BytesToWrite, Call::GetMaxWriteSize,
                              Call::GetDefaultSetup});
    call.port = port();
    const bool takesTime =
        call.kind == Call::WaitForConnected || call.kind == Call::WaitForDisconnected;
    call.number = takesTime ? time() : _random.below(14) - 1;
    return call;
}

ParamHal Generator::param()
{
    ParamHal param;
    param.maxReadSize = _random.pick({0u, 1u, 10u, 500u, 10000u, 10000u, 99999u, 100000u});
    param.maxWriteSize = _random.pick({0u, 13u, 14u, 20u, 113u, 1013u, 10000u, 10000u, 200000u});
    param.nbRetry = _random.pick({0u, 1u, 2u, 4u, 5u});
    param.maxClients = static_cast<quint32>(_random.below(8));
    param.mainLoopPeriod = _random.pick({0u, 1u, 20u});
    param.maxWriteFifoSize = _random.pick({0u, 1u, 3u, 10u});
    param.wrTimeout = 20;
    param.threadStopTimeout = 2500;
    param.maxWatchdogErrors = 1000000;
    param.logDir = _random.pick<QString>({"", "/tmp", "/tmp/"});
    return param;
}

// Few ports, so that calls and messages meet; now and then one that fits no wire.
int Generator::port()
{
    return _random.pick(
        {1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 3, 3, 3, 4, 5, 6, 0, 9999, 10000, -1});
}

QByteArray Generator::data()
{
    if (_random.oneIn(8))
        return _random.pick<QByteArray>({"", "x", "DEVICE_CONN", "DEVICE_NODATA"});
    return randomBytes(
        _random.pick({1, 2, 5, 6, 7, 20, 100, 486, 487, 488, 1000, 1001, 2500, 12000}));
}

QByteArray Generator::randomBytes(int size)
{
    return patternBytes(size, _random.below(256));
}

// ---- what the host sends ----

QByteArray Generator::hostBytes()
{
    QByteArray bytes = hostMessage();
    const int more = _random.pick({0, 0, 0, 0, 1, 2, 4});
    for (int i = 0; i < more; ++i)
        bytes += hostMessage();
    if (_random.oneIn(25))
        bytes[_random.below(bytes.size())] = static_cast<char>(_random.below(256));
    return bytes;
}

QByteArray Generator::hostMessage()
{
    const int choice = _random.below(100);
    if (choice < 30)
        return "DEVICE_NODATA";
    if (choice < 36)
        return "DEVICE_WTSEND";
    if (choice < 40)
        return "DEVICE_NODATA" + _random.pick<QByteArray>({"00513", "00000", "31000", "99999",
                                                           "30999", "0051", "x", "00013"});
    if (choice < 50)
        return malformed();
    const int number = qBound(0, port(), 9999);
    return dataMessage(number, payload());
}

QByteArray Generator::payload()
{
    if (_random.oneIn(5))
        return "DEVICE_CONN";
    if (_random.oneIn(4))
        return _random.pick<QByteArray>({"", "a", "abc", "hello", "worlds", QByteArray("a\0b", 3),
                                         QByteArray("\0", 1), QByteArray(7, '\0'), "DEVICE_DISC",
                                         "\xc3\xa4\xff"});
    return randomBytes(_random.pick({1, 4, 5, 6, 11, 20, 100, 499, 500, 501, 3000}));
}

QByteArray Generator::malformed()
{
    const QByteArray whole = dataMessage(1, randomBytes(_random.below(600)));
    switch (_random.below(6)) {
    case 0:
        return whole.left(1 + _random.below(whole.size()));
    case 1:
        return _random.pick<QByteArray>({"FADAxxxxx0001abc", "FADA000030001", "FADA-00040001",
                                         "FADA 00070001abc", "FADA99999", "FADA"});
    case 2:
        return _random.pick<QByteArray>(
            {"FADA00007ab12xyz", "FADA00007 001xyz", "FADA00007-001xyz", "FADA0000700-1xyz"});
    case 3:
        return _random.pick<QByteArray>({"DEVICE_CONN", "DEVICE_DISC", "DEVICE_WTSEN", "D"});
    default:
        return nonsense();
    }
}

// Of sizes around those at which the log shows more or less of it.
QByteArray Generator::nonsense()
{
    const int size = _random.pick({1, 5, 6, 40, 79, 80, 81, 100, 499, 500, 501});
    QByteArray bytes = randomBytes(size);
    if (_random.oneIn(2)) {
        for (char &c : bytes)
            c = static_cast<char>(_random.oneIn(8) ? _random.pick({' ', '\t', '\n'})
                                                   : 'a' + _random.below(26));
    }
    return bytes;
}

} // namespace

QString Step::name(Kind kind)
{
    return kindNames[kind];
}

QString Step::text() const
{
    switch (kind) {
    case MakeCall:
        return call.text();
    case EndTransfer:
        return QString("the driver's call ends: an open or write %1, a read with %2")
            .arg(outcome.good ? "well" : "badly", shown(outcome.block));
    case FailCloses:
        return "closes that will fail: " + QString::number(count);
    case AddHandler:
        return "handler of " + handler.signal + ", " + QString::number(handler.times) +
               " time(s): " + handler.call.text();
    case HandleEvents:
        return "the owner handles its events";
    case Tick:
        return count ? "the watchdog's period is over" : "the watchdog's period is not over yet";
    case KindCount:
        break;
    }
    return QString();
}

QString Sequence::text() const
{
    QString text = setup.text() + '\n';
    for (int i = 0; i < steps.size(); ++i)
        text += QString("%1. ").arg(i, 3) + steps[i].text() + '\n';
    return text;
}

Sequence randomSequence(quint32 seed, quint64 number)
{
    return Generator((quint64(seed) << 32) ^ (number * 0x2545f4914f6cdd1du)).sequence();
}
