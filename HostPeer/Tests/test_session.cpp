// SPDX-License-Identifier: MIT
#include "HostSession.h"

#include <QtTest>

#include <deque>
#include <optional>

using namespace hostpeer;
using StepResult = HostSession::StepResult;
using Status = TransferResult::Status;

namespace {

const std::string noData = "DEVICE_NODATA";
const std::string delay = "DEVICE_WTSEND";

std::string data(int port, std::string_view payload)
{
    std::string message;
    appendDataMessage(message, port, payload);
    return message;
}

// Records what the host sends and answers from a list; an absent answer is silence.
class ScriptedTransport : public MessageTransport
{
public:
    std::size_t maxTransferSize() const override { return 30000; }

    TransferResult send(std::string_view transfer, std::chrono::milliseconds) override
    {
        if (refusals > 0) {
            --refusals;
            return {Status::TimedOut, {}};
        }
        calls += 'w';
        sent.emplace_back(transfer);
        return sendResult;
    }

    TransferResult receive(std::string &transfer, std::chrono::milliseconds) override
    {
        calls += 'r';
        if (closed)
            return {Status::Closed, "unplugged"};
        if (answers.empty())
            return {Status::TimedOut, {}};
        const std::optional<std::string> answer = answers.front();
        answers.pop_front();
        if (!answer)
            return {Status::TimedOut, {}};
        transfer = *answer;
        return {};
    }

    std::deque<std::optional<std::string>> answers;
    std::vector<std::string> sent;
    std::string calls;
    TransferResult sendResult;
    int refusals = 0;
    bool closed = false;
};

} // namespace

class SessionTest : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void theHostWritesFirstAndThenReadsInTurn();
    void withNothingToSendItSendsABareNoData();
    void theFirstTransferIsNoDataEvenWhenBytesAreQueued();
    void beforeTheAnnouncementNoTransferPassesTheCautiousSize();
    void theAnnouncedSizeBoundsEveryTransfer();
    void theAnnouncedSizeIsBoundedByTheTransport();
    void anAnnouncementTooSmallForAnyPayloadHoldsTheDataBack();
    void severalMessagesShareATransferAsLongAsTheyFit();
    void portsAreServedInRotation();
    void noByteIsLostOrReorderedAcrossTransfers();
    void afterADelayRequestOnlyNoDataIsSent();
    void theMaxReadSizeMessageEndsADelayToo();
    void aMaxReadSizeOfAnyNumberEndsADelay_data();
    void aMaxReadSizeOfAnyNumberEndsADelay();
    void dataFromTheDeviceDoesNotEndADelay();
    void aReopenedPortIsAnnouncedInAMessageOfItsOwn();
    void bytesReceivedAreKeptPerPort();
    void deliveryIsReportedWithTheAnswer();
    void aMalformedTransferIsReportedAndTheMessagesBeforeItCount();
    void invalidPortsAreRefused();
    void aTransferThatTheDeviceDoesNotTakeIsNotLost();
    void silenceIsWaitedForWithoutAnotherWrite();
    void afterLongSilenceTheDeviceIsAskedAgainWithoutData();
    void aLateAnswerDoesNotPutTheHostOneTransferAhead();
    void aDiscardedTransferIsForgottenOnceTheDeviceAnswersAgain();
    void aClosedTransportIsReportedWithItsReason();
    void restartForgetsBytesAndAnnouncements();
    void aHandlerMaySendAnAnswer();

private:
    void establish(const std::string &answer = "DEVICE_NODATA10000");
    StepResult stepWith(const std::string &answer);

    ScriptedTransport _transport;
    std::optional<HostSession> _session;
};

void SessionTest::init()
{
    _transport = ScriptedTransport();
    _session.emplace(_transport);
}

StepResult SessionTest::stepWith(const std::string &answer)
{
    _transport.answers.emplace_back(answer);
    return _session->step();
}

void SessionTest::establish(const std::string &answer)
{
    QCOMPARE(stepWith(answer), StepResult::Exchanged);
    _transport.sent.clear();
}

void SessionTest::theHostWritesFirstAndThenReadsInTurn()
{
    for (int i = 0; i < 3; ++i)
        QCOMPARE(stepWith(noData), StepResult::Exchanged);
    QCOMPARE(_transport.calls, std::string("wrwrwr"));
}

void SessionTest::withNothingToSendItSendsABareNoData()
{
    stepWith(noData);
    stepWith("DEVICE_NODATA10000");
    stepWith(noData);
    QCOMPARE(_transport.sent, std::vector<std::string>(3, noData));
}

void SessionTest::theFirstTransferIsNoDataEvenWhenBytesAreQueued()
{
    _session->send(1, "abc");
    QVERIFY(!_session->isEstablished());
    stepWith("DEVICE_NODATA10000");
    QVERIFY(_session->isEstablished());
    stepWith(noData);
    QCOMPARE(_transport.sent, (std::vector<std::string>{noData, data(1, "abc")}));
}

void SessionTest::beforeTheAnnouncementNoTransferPassesTheCautiousSize()
{
    establish(noData);
    QVERIFY(!_session->isMaxWriteSizeKnown());
    _session->send(1, std::string(1000, 'x'));
    stepWith(noData);
    QCOMPARE(_transport.sent, std::vector<std::string>{data(1, std::string(487, 'x'))});
    QCOMPARE(_transport.sent.front().size(), cautiousMaxWriteSize);
}

void SessionTest::theAnnouncedSizeBoundsEveryTransfer()
{
    establish("DEVICE_NODATA00113");
    QVERIFY(_session->isMaxWriteSizeKnown());
    QCOMPARE(_session->maxWriteSize(), std::size_t(113));
    _session->send(1, std::string(150, 'x'));
    stepWith("DEVICE_NODATA00063");
    stepWith(noData);
    QCOMPARE(_transport.sent, (std::vector<std::string>{data(1, std::string(100, 'x')),
                                                        data(1, std::string(50, 'x'))}));
}

void SessionTest::theAnnouncedSizeIsBoundedByTheTransport()
{
    establish("DEVICE_NODATA99999");
    QCOMPARE(_session->maxWriteSize(), _transport.maxTransferSize());
}

void SessionTest::anAnnouncementTooSmallForAnyPayloadHoldsTheDataBack()
{
    establish("DEVICE_NODATA00013");
    _session->send(1, "x");
    _session->announceReopened(2);
    stepWith("DEVICE_NODATA00014");
    stepWith("DEVICE_NODATA00024");
    stepWith(noData);
    QCOMPARE(_transport.sent, (std::vector<std::string>{noData, data(1, "x"), //
                                                        data(2, "DEVICE_CONN")}));
}

void SessionTest::severalMessagesShareATransferAsLongAsTheyFit()
{
    establish("DEVICE_NODATA00100");
    _session->send(1, "one");
    _session->send(2, "two");
    _session->send(3, std::string(100, 'x'));
    stepWith(noData);
    const std::string first = data(1, "one") + data(2, "two") + data(3, std::string(55, 'x'));
    QCOMPARE(first.size(), std::size_t(100));
    QCOMPARE(_transport.sent, std::vector<std::string>{first});
}

void SessionTest::portsAreServedInRotation()
{
    establish("DEVICE_NODATA00023");
    for (const int port : {3, 1, 2})
        _session->send(port, std::string(20, 'x'));
    for (int i = 0; i < 6; ++i)
        stepWith(noData);
    std::string order;
    for (const std::string &transfer : _transport.sent)
        order += transfer[headerSize - 1];
    QCOMPARE(order, std::string("123123"));
}

void SessionTest::noByteIsLostOrReorderedAcrossTransfers()
{
    establish("DEVICE_NODATA00077");
    std::map<int, std::string> queued;
    for (int i = 0; i < 300; ++i) {
        const std::string bytes = std::to_string(i) + ' ';
        queued[i % 5] += bytes;
        QVERIFY(_session->send(i % 5, bytes));
        stepWith(noData);
    }
    for (int i = 0; i < 100; ++i)
        stepWith(noData);

    std::map<int, std::string> arrived;
    for (const std::string &transfer : _transport.sent) {
        QVERIFY(transfer.size() <= 77);
        const ParsedTransfer parsed = parseTransfer(transfer);
        QVERIFY(!parsed.fault);
        for (const Message &message : parsed.messages) {
            if (const auto *part = std::get_if<DataMessage>(&message))
                arrived[part->port] += part->payload;
            else
                QCOMPARE(transfer, noData);
        }
    }
    QVERIFY(arrived == queued);
}

void SessionTest::afterADelayRequestOnlyNoDataIsSent()
{
    establish();
    std::vector<bool> changes;
    HostSession::Handlers handlers;
    handlers.delayChanged = [&](bool delayed) { changes.push_back(delayed); };
    _session->setHandlers(handlers);
    stepWith(delay);
    QVERIFY(_session->isDelayed());
    _session->send(1, "abc");
    _session->announceReopened(2);
    stepWith(delay);
    stepWith(noData);
    QVERIFY(!_session->isDelayed());
    stepWith(noData);
    QCOMPARE(_transport.sent, (std::vector<std::string>{noData, noData, noData,
                                                        data(1, "abc") + data(2, "DEVICE_CONN")}));
    QCOMPARE(changes, (std::vector<bool>{true, false}));
}

void SessionTest::theMaxReadSizeMessageEndsADelayToo()
{
    establish(delay);
    QVERIFY(_session->isDelayed());
    stepWith("DEVICE_NODATA10000");
    QVERIFY(!_session->isDelayed());
}

void SessionTest::aMaxReadSizeOfAnyNumberEndsADelay_data()
{
    QTest::addColumn<QString>("number");
    QTest::addColumn<int>("faultCount");
    QTest::newRow("zero") << "00000" << 1;
    QTest::newRow("more digits") << "100000" << 0;
    QTest::newRow("more digits than a number has") << QString(40, '9') << 1;
}

void SessionTest::aMaxReadSizeOfAnyNumberEndsADelay()
{
    QFETCH(QString, number);
    QFETCH(int, faultCount);
    int faults = 0;
    HostSession::Handlers handlers;
    handlers.faultSeen = [&](const std::string &) { ++faults; };
    _session->setHandlers(handlers);
    establish(delay);
    QVERIFY(_session->isDelayed());
    stepWith("DEVICE_NODATA" + number.toStdString() + data(1, "abc"));
    QVERIFY(!_session->isDelayed());
    QCOMPARE(_session->received(1), std::string("abc"));
    QCOMPARE(faults, faultCount);
}

void SessionTest::dataFromTheDeviceDoesNotEndADelay()
{
    establish(delay);
    _session->send(1, "abc");
    stepWith(data(1, "xyz"));
    QVERIFY(_session->isDelayed());
    stepWith(delay);
    QCOMPARE(_transport.sent, (std::vector<std::string>{noData, noData}));
}

void SessionTest::aReopenedPortIsAnnouncedInAMessageOfItsOwn()
{
    establish();
    _session->send(4, "abc");
    _session->announceReopened(4);
    stepWith(noData);
    stepWith(noData);
    QCOMPARE(_transport.sent,
             (std::vector<std::string>{data(4, "DEVICE_CONN") + data(4, "abc"), noData}));
}

void SessionTest::bytesReceivedAreKeptPerPort()
{
    std::vector<int> ports;
    HostSession::Handlers handlers;
    handlers.bytesReceived = [&](int port) { ports.push_back(port); };
    _session->setHandlers(handlers);
    establish();
    stepWith(data(1, "ab"));
    stepWith(data(2, "x") + data(1, "c"));
    stepWith(data(3, ""));
    QCOMPARE(ports, (std::vector<int>{1, 2, 1}));
    QCOMPARE(_session->received(1), std::string("abc"));
    QCOMPARE(_session->received(1), std::string());
    QCOMPARE(_session->received(2), std::string("x"));
    QCOMPARE(_session->received(9), std::string());
}

void SessionTest::deliveryIsReportedWithTheAnswer()
{
    establish();
    std::vector<std::pair<int, std::size_t>> delivered;
    HostSession::Handlers handlers;
    handlers.bytesDelivered = [&](int port, std::size_t bytes) {
        delivered.emplace_back(port, bytes);
    };
    _session->setHandlers(handlers);
    _session->send(5, "abc");
    _session->announceReopened(5);
    QCOMPARE(_session->pendingBytes(5), std::size_t(3));
    QCOMPARE(_session->step(), StepResult::Silent);
    QCOMPARE(_session->pendingBytes(5), std::size_t(0));
    QVERIFY(delivered.empty());
    stepWith(noData);
    QVERIFY((delivered == std::vector<std::pair<int, std::size_t>>{{5, 3}}));
}

void SessionTest::aMalformedTransferIsReportedAndTheMessagesBeforeItCount()
{
    establish();
    std::vector<std::string> faults;
    HostSession::Handlers handlers;
    handlers.faultSeen = [&](const std::string &text) { faults.push_back(text); };
    _session->setHandlers(handlers);
    QCOMPARE(stepWith(data(1, "abc") + "?"), StepResult::Exchanged);
    QCOMPARE(_session->received(1), std::string("abc"));
    QCOMPARE(faults, std::vector<std::string>{"byte 16 of 17: no message begins here"});
}

void SessionTest::invalidPortsAreRefused()
{
    QVERIFY(!_session->send(-1, "a"));
    QVERIFY(!_session->send(10000, "a"));
    QVERIFY(!_session->announceReopened(-1));
    QVERIFY(!_session->announceReopened(10000));
    QVERIFY(_session->send(0, "a"));
    QVERIFY(_session->send(9999, "a"));
    QCOMPARE(_session->pendingBytes(10000), std::size_t(0));
}

void SessionTest::aTransferThatTheDeviceDoesNotTakeIsNotLost()
{
    establish();
    _session->send(1, "abc");
    _transport.refusals = 2;
    QCOMPARE(_session->step(), StepResult::Silent);
    QCOMPARE(_session->step(), StepResult::Silent);
    QCOMPARE(_session->pendingBytes(1), std::size_t(3));
    QCOMPARE(stepWith(noData), StepResult::Exchanged);
    QCOMPARE(_transport.sent, std::vector<std::string>{data(1, "abc")});
}

void SessionTest::silenceIsWaitedForWithoutAnotherWrite()
{
    QCOMPARE(_session->step(), StepResult::Silent);
    QCOMPARE(_session->step(), StepResult::Silent);
    QCOMPARE(stepWith(noData), StepResult::Exchanged);
    QCOMPARE(_transport.calls, std::string("wrrr"));
}

void SessionTest::afterLongSilenceTheDeviceIsAskedAgainWithoutData()
{
    establish();
    int faults = 0;
    HostSession::Handlers handlers;
    handlers.faultSeen = [&](const std::string &) { ++faults; };
    _session->setHandlers(handlers);
    _session->send(1, "first");
    _session->step();
    _session->send(1, "second");
    for (unsigned i = 1; i < SessionTimeouts().silentSteps; ++i)
        QCOMPARE(_session->step(), StepResult::Silent);
    QCOMPARE(faults, 1);
    QVERIFY(!_session->isEstablished());
    _session->step();
    QCOMPARE(_transport.sent, (std::vector<std::string>{data(1, "first"), noData}));
    QCOMPARE(_session->pendingBytes(1), std::size_t(6));
}

void SessionTest::aLateAnswerDoesNotPutTheHostOneTransferAhead()
{
    for (unsigned i = 0; i <= SessionTimeouts().silentSteps; ++i)
        _session->step();
    QCOMPARE(_transport.sent.size(), std::size_t(2));
    stepWith(noData);
    stepWith(noData);
    QCOMPARE(_transport.sent.size(), std::size_t(2));
    stepWith(noData);
    QCOMPARE(_transport.sent.size(), std::size_t(3));
}

void SessionTest::aDiscardedTransferIsForgottenOnceTheDeviceAnswersAgain()
{
    for (unsigned i = 0; i <= SessionTimeouts().silentSteps; ++i)
        _session->step();
    stepWith(noData);
    QCOMPARE(_session->step(), StepResult::Silent);
    QCOMPARE(_transport.sent.size(), std::size_t(2));
    for (int i = 0; i < 3; ++i)
        QCOMPARE(stepWith(noData), StepResult::Exchanged);
    QCOMPARE(_transport.sent.size(), std::size_t(5));
}

void SessionTest::aClosedTransportIsReportedWithItsReason()
{
    establish();
    _transport.closed = true;
    QCOMPARE(_session->step(), StepResult::Closed);
    QCOMPARE(_session->closeReason(), std::string("unplugged"));
    QVERIFY(!_session->isEstablished());
    _session->restart();
    _transport.sendResult = {Status::Closed, "refused"};
    QCOMPARE(_session->step(), StepResult::Closed);
    QCOMPARE(_session->closeReason(), std::string("refused"));
}

void SessionTest::restartForgetsBytesAndAnnouncements()
{
    establish();
    stepWith(data(1, "received"));
    _session->send(1, "queued");
    _session->announceReopened(2);
    stepWith(delay);
    _session->send(1, "queued");
    _session->restart();
    QCOMPARE(_session->received(1), std::string());
    QCOMPARE(_session->pendingBytes(1), std::size_t(0));
    QCOMPARE(_session->maxWriteSize(), cautiousMaxWriteSize);
    QVERIFY(!_session->isMaxWriteSizeKnown());
    QVERIFY(!_session->isDelayed());
    QVERIFY(!_session->isEstablished());
    _transport.sent.clear();
    stepWith(noData);
    stepWith(noData);
    QCOMPARE(_transport.sent, (std::vector<std::string>{noData, noData}));
}

void SessionTest::aHandlerMaySendAnAnswer()
{
    establish();
    HostSession::Handlers handlers;
    handlers.bytesReceived = [&](int port) { _session->send(port, _session->received(port)); };
    _session->setHandlers(handlers);
    stepWith(data(3, "echo"));
    stepWith(noData);
    QCOMPARE(_transport.sent, (std::vector<std::string>{noData, data(3, "echo")}));
}

QTEST_APPLESS_MAIN(SessionTest)
#include "test_session.moc"
