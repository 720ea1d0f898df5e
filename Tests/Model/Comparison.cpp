// SPDX-License-Identifier: MIT
#include "Comparison.h"

#include "CoreModel.h"
#include "RealCore.h"

namespace {

constexpr std::array<int, 8> watchedPorts = {0, 1, 2, 3, 4, 5, 9999, 10000};

using State = std::vector<std::pair<const char *, qint64>>;

template <typename Core>
void addPublicState(State &state, const Core &core)
{
    state.emplace_back("status", static_cast<int>(core.status()));
    state.emplace_back("isRunning", core.isRunning());
    state.emplace_back("nbClients", core.nbClients());
    state.emplace_back("bytesToWrite", core.bytesToWrite());
    state.emplace_back("getMaxWriteSize", core.getMaxWriteSize());
    for (const int port : watchedPorts) {
        state.emplace_back("socketStatus", static_cast<int>(core.socketStatus(port)));
        state.emplace_back("nbBytesReceived", core.nbBytesReceived(port));
    }
}

State stateOf(RealCore::Probe &core)
{
    State state;
    addPublicState(state, core);
    const CheckedLocker locker(&core._mutex);
    state.emplace_back("_totalBytesWaitingRead", core._totalBytesWaitingRead);
    state.emplace_back("_running", core._running);
    state.emplace_back("_handshaking", core._handshaking);
    state.emplace_back("_peerBusy", core._peerBusy);
    state.emplace_back("_delayRequested", core._delayRequested);
    state.emplace_back("_maxSizeExchanged", core._maxSizeExchanged);
    state.emplace_back("_driverOpened", core._driverOpened);
    state.emplace_back("_forceLowLevelDisconnection", core._forceLowLevelDisconnection);
    state.emplace_back("_nextAction", core._nextAction);
    state.emplace_back("_readErrors", core._readErrors);
    state.emplace_back("_writeErrors", core._writeErrors);
    state.emplace_back("_loopCounter", core._loopCounter);
    state.emplace_back("_lastLoopCounter", core._lastLoopCounter);
    state.emplace_back("_watchdogErrors", core._watchdogErrors);
    state.emplace_back("_lastMaxReadSize", core._lastMaxReadSize);
    return state;
}

State stateOf(const CoreModel &model)
{
    State state;
    addPublicState(state, model);
    state.emplace_back("_totalBytesWaitingRead", model.bytesWaiting);
    state.emplace_back("_running", model.running);
    state.emplace_back("_handshaking", model.handshaking);
    state.emplace_back("_peerBusy", model.peerBusy);
    state.emplace_back("_delayRequested", model.delayRequested);
    state.emplace_back("_maxSizeExchanged", model.maxSizeExchanged);
    state.emplace_back("_driverOpened", model.driverOpened);
    state.emplace_back("_forceLowLevelDisconnection", model.forceDisconnection);
    state.emplace_back("_nextAction", model.nextHalf);
    state.emplace_back("_readErrors", model.readErrors);
    state.emplace_back("_writeErrors", model.writeErrors);
    state.emplace_back("_loopCounter", model.passes);
    state.emplace_back("_lastLoopCounter", model.passesSeen);
    state.emplace_back("_watchdogErrors", model.watchdogErrors);
    state.emplace_back("_lastMaxReadSize", model.encodedMaxReadSize);
    return state;
}

/** The library's core and the model, side by side. */
class Pair
{
public:
    explicit Pair(const Setup &setup)
        : _real(setup, _realTrace, _realHandlers), _model(setup, _modelTrace, _modelHandlers)
    {
    }

    std::optional<QString> doStep(const Step &step)
    {
        apply(step, _real, _real.core(), _realTrace, _realHandlers);
        _real.settle();
        apply(step, _model, _model, _modelTrace, _modelHandlers);
        _model.settle();
        return difference(true);
    }

    /** Stops and destroys both, without handlers. */
    std::optional<QString> end()
    {
        _realHandlers.clear();
        _modelHandlers.clear();
        _real.core().stop();
        _model.stop();
        const std::optional<QString> found = difference(true);
        _real.destroy();
        _model.destroy();
        return found ? found : difference(false);
    }

    quint64 events() const { return _events; }

private:
    template <typename World, typename Core>
    static void apply(const Step &step, World &world, Core &core, Trace &trace,
                      ClientHandlers &handlers)
    {
        switch (step.kind) {
        case Step::MakeCall:
            trace.add("returns " + invoke(core, step.call));
            break;
        case Step::EndTransfer:
            world.turn(step.outcome);
            break;
        case Step::FailCloses:
            world.failCloses(step.count);
            break;
        case Step::AddHandler:
            handlers.add(step.handler);
            break;
        case Step::HandleEvents:
            world.handleEvents();
            break;
        case Step::Tick:
            world.tick(step.count != 0);
            break;
        case Step::KindCount:
            break;
        }
    }

    std::optional<QString> difference(bool alive);
    std::optional<QString> differenceOfEvents();
    std::optional<QString> differenceOfStates();

    Trace _realTrace;
    Trace _modelTrace;
    ClientHandlers _realHandlers;
    ClientHandlers _modelHandlers;
    RealCore _real;
    CoreModel _model;
    quint64 _events = 0;
};

std::optional<QString> Pair::difference(bool alive)
{
    if (const auto found = differenceOfEvents())
        return found;
    return alive ? differenceOfStates() : std::nullopt;
}

std::optional<QString> Pair::differenceOfEvents()
{
    const QStringList real = _realTrace.take();
    const QStringList model = _modelTrace.take();
    _events += static_cast<quint64>(real.size());
    if (real == model)
        return std::nullopt;
    int i = 0;
    while (i < real.size() && i < model.size() && real[i] == model[i])
        ++i;
    const auto at = [i](const QStringList &events) {
        return i < events.size() ? shown(events[i].toUtf8()) : QString("nothing more");
    };
    return "event " + QString::number(i) + ": the core: " + at(real) + ", the model: " + at(model);
}

std::optional<QString> Pair::differenceOfStates()
{
    const State real = stateOf(_real.core());
    const State model = stateOf(_model);
    for (std::size_t i = 0; i < real.size(); ++i) {
        if (real[i] != model[i])
            return QString("%1: the core: %2, the model: %3")
                .arg(real[i].first)
                .arg(real[i].second)
                .arg(model[i].second);
    }
    if (_real.core().driverName() != _model.driverName())
        return "driverName: the core: " + _real.core().driverName() +
               ", the model: " + _model.driverName();
    return std::nullopt;
}

} // namespace

std::optional<QString> compare(const Sequence &sequence, Amount &amount)
{
    Pair pair(sequence.setup);
    std::optional<QString> found;
    for (int i = 0; i < sequence.steps.size() && !found; ++i) {
        const Step &step = sequence.steps[i];
        ++amount.steps;
        ++amount.kinds[step.kind];
        if (step.kind == Step::MakeCall)
            ++amount.calls[step.call.kind];
        found = pair.doStep(step);
        if (found)
            found = "step " + QString::number(i) + ", " + *found;
    }
    const std::optional<QString> atTheEnd = pair.end();
    amount.events += pair.events();
    if (!found && atTheEnd)
        found = "at the end, " + *atTheEnd;
    return found;
}

Sequence shrunk(Sequence sequence, const std::function<bool(const Sequence &)> &fails)
{
    for (int size = qMax(sequence.steps.size() / 2, 1); size > 0;) {
        bool taken = false;
        for (int first = 0; first < sequence.steps.size();) {
            Sequence shorter = sequence;
            shorter.steps.remove(first, qMin(size, sequence.steps.size() - first));
            if (fails(shorter)) {
                sequence = shorter;
                taken = true;
            } else {
                first += size;
            }
        }
        if (!taken || size > 1)
            size = size == 1 ? 0 : size / 2;
    }
    return sequence;
}
