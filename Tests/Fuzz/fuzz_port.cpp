// SPDX-License-Identifier: MIT
//
// Two ports over the live library, whose communication thread stands still in each call of its
// driver until the input says how the call ends: one thing happens after the other, and an input
// does the same each time. Time passes as the input says, and between two inputs the link is down.

#include "FuzzTarget.h"
#include "PortClient.h"
#include "SteppedDriver.h"

#include <LogLine.h>
#include <VirtualTime.h>
#include <WireMessages.h>

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <array>
#include <utility>

// The linker sends the library's lines and the yields of virtual pauses here: neither is looked at,
// and both cost more than all else.
extern "C" {
void __wrap__Z7logLinePKcSt16initializer_listI7LogPartEj(const char *function, LogPart::List text,
                                                         unsigned int line);
void __wrap__ZN7QThread18yieldCurrentThreadEv();
}
void __wrap__Z7logLinePKcSt16initializer_listI7LogPartEj(const char *, LogPart::List, unsigned int)
{
}
void __wrap__ZN7QThread18yieldCurrentThreadEv() {}

namespace {

using Call = SteppedDriver::Call;

constexpr unsigned numbers = 4; // of ports that the host sends to, the last of which nobody opens
constexpr int facadePort = 9;
constexpr unsigned spare = 2;            // the client that the input does not act with
constexpr int gaps = 5;                  // that the ports leave after unread bytes
constexpr unsigned long longTime = 8000; // ms, above every gap and what is between two
constexpr int mostRounds = 3000;         // until all that is under way has arrived
const QByteArray noData = "DEVICE_NODATA";
const QByteArray marker = "DEVICE_CONN";

/** One input's clients and host. */
class Script
{
public:
    explicit Script(FuzzInput input) : _input(input) {}

    void run()
    {
        while (!_input.isEmpty()) {
            _step();
            for (const PortClient &client : _clients)
                client.check();
        }
        _settle();
        // The next input would meet what gaps are left.
        for (int gap = 0; gap < gaps; ++gap) {
            _clients[spare].writeOn(1);
            _settle();
        }
    }

private:
    void _step()
    {
        const unsigned action = _input.below(16);
        if (action < 6)
            _exchange();
        else if (action < 8)
            _follow();
        else if (action == 8)
            QThread::msleep(4 * _input.byte());
        else
            _clients[_input.below(spare)].act(_input);
    }

    void _exchange()
    {
        const unsigned how = _input.below(8);
        if (_driver.waitForCall() == Call::Write)
            _endWrite(how != 0);
        else if (how == 0)
            _endRead(QByteArray());
        else if (how < 3)
            _endRead(noData);
        else
            _send(how);
    }

    void _send(unsigned how)
    {
        const int number = static_cast<int>(1 + _input.below(numbers));
        if (how == 3)
            return _endRead(_deliver(number, marker));
        const int size = static_cast<int>(how == 4 ? 20 * _input.byte() : _input.below(40));
        PortClient *const client = _find(number);
        _endRead(_deliver(number, client ? client->nextSent(size) : QByteArray(size, 'x')));
    }

    // What the library takes for a port, it takes by the port's state, and a marker by none.
    QByteArray _deliver(int number, const QByteArray &payload)
    {
        const SocketState state = UsbHALIntf::getInstance()->socketStatus(number);
        const bool isTaken = state == SocketState::OPENED ||
                             (state == SocketState::DISCONNECTED && payload == marker);
        PortClient *const client = _find(number);
        if (client && isTaken)
            client->arrive(payload);
        return dataMessage(number, payload);
    }

    PortClient *_find(int number)
    {
        for (PortClient &client : _clients) {
            if (client.number() == number)
                return &client;
        }
        return nullptr;
    }

    void _endRead(const QByteArray &block)
    {
        _driver.endRead(block);
        _noteLoss();
    }

    void _endWrite(bool works)
    {
        const QByteArray message = _driver.message();
        PortClient *const client =
            message.startsWith("FADA") ? _find(message.mid(9, 4).toInt()) : nullptr;
        if (client)
            client->endWrite(message.mid(13), works);
        _driver.endWrite(works);
        _noteLoss();
    }

    void _noteLoss()
    {
        const bool isUp = UsbHALIntf::getInstance()->status() == DriverState::CONNECTED;
        if (std::exchange(_wasUp, isUp) && !isUp) {
            for (PortClient &client : _clients)
                client.noteLoss();
        }
    }

    void _follow()
    {
        for (PortClient &client : _clients)
            client.follow();
    }

    // Until all that is under way has arrived, on both sides.
    void _settle()
    {
        for (int round = 0; round < mostRounds; ++round) {
            if (std::all_of(_clients.begin(), _clients.end(),
                            [](const PortClient &client) { return client.isSettled(); }))
                return;
            if (_driver.waitForCall() == Call::Write)
                _endWrite(true);
            else
                _endRead(noData);
            QThread::msleep(longTime);
            _follow();
            for (PortClient &client : _clients)
                client.readOn();
        }
        require(false, "while the link stands all that is sent and written arrives");
    }

    FuzzInput _input;
    SteppedDriver &_driver = SteppedDriver::instance();
    bool _wasUp = false;
    std::array<PortClient, 3> _clients{PortClient(1), PortClient(2), PortClient(3)};
};

/** The process's one library, with a port of the facade's that keeps its thread running. */
class Bench
{
public:
    Bench()
    {
        VirtualTime::setPauseDivisor(0);
        VirtualTime::setInstantWaits(true);
        const QTemporaryDir folder; // gone again at once, as the log writes nothing
        ParamHal param = UsbHalPort::configuration();
        param.nbRetry = 1;
        param.maxReadSize = 100; // so that the host is soon asked to wait
        param.maxWriteSize = 500;
        param.logDir = folder.path();
        UsbHalPort::setConfiguration(param);
        _hal->setupConfig(param);
        require(_hal->openConnection(facadePort), "the first port can be opened");
    }

    ~Bench()
    {
        VirtualTime::setInstantWaits(false);
        SteppedDriver::instance().release();
        _hal->stop();
    }
    Q_DISABLE_COPY(Bench)

    void run(FuzzInput input)
    {
        Script(input).run();
        _loseLink();
        QCoreApplication::sendPostedEvents();
    }

private:
    void _loseLink()
    {
        SteppedDriver &driver = SteppedDriver::instance();
        while (_hal->status() == DriverState::CONNECTED) {
            if (driver.waitForCall() == Call::Write)
                driver.endWrite(false);
            else
                driver.endRead(QByteArray());
        }
    }

    int _words = 1;
    char _name[10] = "fuzz_port";
    char *_arguments[2] = {_name, nullptr};
    const QCoreApplication _application{_words, _arguments};
    UsbHALIntf *const _hal = UsbHALIntf::getInstance();
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static Bench bench;
    bench.run(FuzzInput(data, size));
    return 0;
}
