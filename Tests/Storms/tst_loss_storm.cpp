// SPDX-License-Identifier: MIT
#include "FlatResources.h"
#include "LinkProbe.h"

#include <SignalRecorder.h>
#include <VirtualTime.h>

#include <QRandomGenerator>

namespace {

constexpr quint64 fullLosses = 10000;
constexpr int retries = 2;
const QList<int> ports = {1, 2, 3, 4, 5};

enum class Cause { FailedReads, FailedWrites, Forced };

QString ofPort(const char *signal, int port)
{
    return QString("%1(%2)").arg(signal).arg(port);
}

QStringList portSignals(const char *signal, int port, const char *state)
{
    return {ofPort(signal, port), QString("socketStateChanged(%1,%2)").arg(port).arg(state)};
}

/** A core that loses its link again and again, stepped by the test and looked at between. */
class LossyLink
{
public:
    LossyLink(Cause cause, bool closesDriver, quint32 seed)
        : _cause(cause), _closesDriver(closesDriver), _random(seed), _signals(probe())
    {
        _core.driver->setCloseDriverAfterConnectionError(closesDriver);
        _core.driver->setAvoidClosingDuringHandshake(cause == Cause::Forced);
    }
    ~LossyLink()
    {
        _core.release();
        _core.stop();
    }

    void start()
    {
        ParamHal param = _core.quietSetup();
        param.nbRetry = retries;
        _core.setupConfig(param);
        QVERIFY(_core.connectStepwise(ports.first()));
        for (int i = 1; i < ports.size(); ++i)
            QVERIFY(_core.openConnection(ports[i]));
        _signals.take();
    }

    /** Everything between one working link and the next; each step asserts. */
    void loseAndRegain()
    {
        ++_cycle;
        leaveStaleBytes();
        lose();
        expectLost();
        regain();
        expectFreshBytesOnly();
        _core.transfers->clearCalls();
        _core.driver->clearWritten();
        _signals.take();
    }

private:
    UsbHAL *probe() { return &_core; }

    QByteArray payload(const char *kind, int port) const
    {
        return QByteArray(kind) + ' ' + QByteArray::number(port) + '\0' +
               QByteArray::number(_cycle);
    }

    // Messages that nobody has read, and others that nobody has sent, when the link is lost.
    void leaveStaleBytes()
    {
        for (const int port : ports) {
            if (_random.bounded(2) == 0)
                QVERIFY(_core.turn(dataMessage(port, payload("stale from host", port))));
        }
        for (const int port : ports) {
            const QByteArray stale = payload("stale to host", port);
            if (_random.bounded(2) == 0)
                QCOMPARE(_core.write(port, stale), stale.size());
        }
        _core.driver->clearWritten();
        _signals.take();
        _opens = _core.driver->opens();
        _walk = _core.locked([this](QMutexLocker &) { return _core._socketStates.keys(); });
    }

    void lose()
    {
        const int reads = _core.driver->reads();
        if (_closesDriver)
            _core.driver->failOpens(failedOpens());
        switch (_cause) {
        case Cause::FailedReads:
            // The read that waits already ends well; those after it fail.
            _core.driver->failReads(retries + 1);
            _core.driver->feed("DEVICE_NODATA");
            QVERIFY(_core.driver->waitForReads(reads + retries + 2));
            break;
        case Cause::FailedWrites:
            _core.driver->failWrites(retries + 1);
            QVERIFY(_core.turn());
            break;
        case Cause::Forced:
            for (const int port : ports)
                _core.peerDisconnected(port);
            QVERIFY(_core.turn());
            break;
        }
    }

    int failedOpens() const { return static_cast<int>(_cycle % 3); }

    QStringList lossSignals() const
    {
        const QStringList ofLink = {"stateChanged(DISCONNECTED)", "disconnected"};
        QStringList ofPorts;
        for (const int port : _cause == Cause::Forced ? ports : _walk)
            ofPorts += portSignals("disconnected", port, "DISCONNECTED");
        return _cause == Cause::Forced ? ofPorts + ofLink : ofLink + ofPorts;
    }

    void expectLost()
    {
        QCOMPARE(_signals.take(), lossSignals());
        QCOMPARE(_core.status(), DriverState::DISCONNECTED);
        QCOMPARE(_core.bytesToWrite(), 0);
        QCOMPARE(_core.bytesWaiting(), 0u);
        QCOMPARE(_core.nbClients(), static_cast<quint32>(ports.size()));
        QCOMPARE(_core.driver->opens() - _opens, _closesDriver ? failedOpens() + 1 : 0);
        for (const int port : ports) {
            QCOMPARE(_core.socketStatus(port), SocketState::DISCONNECTED);
            QCOMPARE(_core.nbBytesReceived(port), 0);
            QCOMPARE(_core.write(port, "into the void"), 0);
        }
    }

    // The first message brings the link back; data among it is for a port that is not back yet.
    void regain()
    {
        _core.driver->clearWritten();
        const int port = ports[_random.bounded(ports.size())];
        QVERIFY(_core.turn(_random.bounded(2) == 0 ? QByteArray("DEVICE_NODATA")
                                                   : dataMessage(port, "too early")));
        QStringList expected = {"stateChanged(CONNECTED)", "connected"};
        for (const int each : qAsConst(_walk))
            expected += portSignals("connected", each, "OPENED");
        QCOMPARE(_signals.take(), expected);
        QCOMPARE(_core.status(), DriverState::CONNECTED);
        for (const int each : ports)
            QCOMPARE(_core.socketStatus(each), SocketState::OPENED);
    }

    void expectFreshBytesOnly()
    {
        QList<QByteArray> sent;
        for (const int port : ports) {
            QCOMPARE(_core.write(port, payload("to host", port)), payload("to host", port).size());
            sent += dataMessage(port, payload("to host", port));
            QVERIFY(_core.turn(dataMessage(port, payload("from host", port))));
            QCOMPARE(_core.read(port, 1000), payload("from host", port));
            QVERIFY(_core.read(port, 1000).isEmpty());
        }
        QCOMPARE(_core.bytesToWrite(), 0);
        QCOMPARE(_core.bytesWaiting(), 0u);
        QCOMPARE(_core.driver->writtenData(), sent);
    }

    const Cause _cause;
    const bool _closesDriver;
    QRandomGenerator _random;
    LinkProbe _core;
    SignalRecorder _signals;
    quint64 _cycle = 0;
    int _opens = 0;
    QList<int> _walk; // the ports in the order in which the core walks over them
};

} // namespace

/** The link is lost thousands of times, each time in a moment of no pauses. */
class LossStormTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void everyLossIsFollowedByACleanReturn_data();
    void everyLossIsFollowedByACleanReturn();
};

void LossStormTest::initTestCase()
{
    VirtualTime::setPauseDivisor(1000);
}

void LossStormTest::everyLossIsFollowedByACleanReturn_data()
{
    QTest::addColumn<int>("cause");
    QTest::addColumn<bool>("closesDriver");
    const auto row = [](const char *name, Cause cause, bool closesDriver) {
        QTest::newRow(name) << static_cast<int>(cause) << closesDriver;
    };
    row("failed reads, same driver", Cause::FailedReads, false);
    row("failed reads, driver closed", Cause::FailedReads, true);
    row("failed writes, same driver", Cause::FailedWrites, false);
    row("failed writes, driver closed", Cause::FailedWrites, true);
    row("forced, same driver", Cause::Forced, false);
    row("forced, driver closed", Cause::Forced, true);
}

void LossStormTest::everyLossIsFollowedByACleanReturn()
{
    QFETCH(int, cause);
    QFETCH(bool, closesDriver);
    const quint64 losses = Campaign::scaled(fullLosses) / 6 + 1;
    FlatResources resources(QTest::currentDataTag(), losses);
    LossyLink link(static_cast<Cause>(cause), closesDriver, Campaign::seed());
    link.start();
    for (quint64 i = 0; i < losses && !QTest::currentTestFailed(); ++i) {
        link.loseAndRegain();
        resources.count();
    }
    Campaign::printFigure(std::string("link losses, ") + QTest::currentDataTag(), losses);
    QVERIFY(resources.areFlat());
}

QTEST_GUILESS_MAIN(LossStormTest)
#include "tst_loss_storm.moc"
