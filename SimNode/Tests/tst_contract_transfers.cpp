// SPDX-License-Identifier: MIT
#include "ContractTest.h"

#include <atomic>
#include <dlfcn.h>
#include <thread>

using namespace simnode;

namespace {

void nothing(int) {}

// Signals interrupt calls instead of restarting them.
void installInterruptingHandler()
{
    struct sigaction action = {};
    action.sa_handler = nothing;
    sigaction(SIGUSR1, &action, nullptr);
}

} // namespace

/// Reads and writes: what they carry, how long they wait, and what interrupts them.
class ContractTransfersTest : public ContractTest
{
    Q_OBJECT

private slots:
    void readTakesOneTransfer();
    void aTransferTooLargeForTheBufferIsContinued();
    void theLargestTransfersPassBothWays();
    void aSilentReadEndsWithZeroOrAnErrorAsChosen();
    void aReadTimeoutOfZeroAnswersAtOnce();
    void aWaitingReadIsServedWhenATransferComes();
    void writeHandsOverOneTransfer();
    void writeTimesOutWithoutAHost();
    void aWaitingWriteGoesOutWhenTheHostComes();
    void writeBlocksWhileTheHostDoesNotRead();
    void theHostBlocksWhileTheDeviceDoesNotRead();
    void tooLargeAndEmptyWritesSendNothing();
    void readingAndWritingDoNotBlockEachOther();
    void aSignalInterruptsAReadThatThenTakesNothing();
    void fortifiedReadsStillCheckTheirBuffer();
};

void ContractTransfersTest::readTakesOneTransfer()
{
    DeviceNode node;
    HostSocket host(_directory);
    QVERIFY(host.send("one") && host.send("two"));
    QCOMPARE(node.read(), std::string("one"));
    QCOMPARE(node.read(), std::string("two"));
}

void ContractTransfersTest::aTransferTooLargeForTheBufferIsContinued()
{
    DeviceNode node;
    HostSocket host(_directory);
    QVERIFY(host.send("abcdefgh") && host.send("next"));
    QCOMPARE(node.read(3), std::string("abc"));
    QCOMPARE(node.read(4), std::string("defg"));
    QCOMPARE(node.read(4), std::string("h"));
    QCOMPARE(node.read(100), std::string("next"));
}

void ContractTransfersTest::theLargestTransfersPassBothWays()
{
    DeviceNode node;
    HostSocket host(_directory);
    std::string data(maxTransferSize, '\0');
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i * 7 / 3);
    QVERIFY(host.send(data));
    QVERIFY(node.read() == data);
    QCOMPARE(node.write(data), Outcome(maxTransferSize, 0));
    QVERIFY(host.receive() == data);
}

void ContractTransfersTest::aSilentReadEndsWithZeroOrAnErrorAsChosen()
{
    DeviceNode node;
    node.setReadTimeout(20);
    QCOMPARE(node.readOutcome(), Outcome(0, 0));
    QCOMPARE(control("timeout error"), std::string("ok"));
    QCOMPARE(node.readOutcome(), Outcome(-1, ETIMEDOUT));
    QCOMPARE(control("timeout zero"), std::string("ok"));
    QCOMPARE(node.readOutcome(), Outcome(0, 0));
}

void ContractTransfersTest::aReadTimeoutOfZeroAnswersAtOnce()
{
    DeviceNode node;
    node.setReadTimeout(0);
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < 10; ++i)
        QCOMPARE(node.readOutcome(), Outcome(0, 0));
    QVERIFY2(timer.elapsed() < 1000, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(control("inject 78"), std::string("ok"));
    QCOMPARE(node.read(), std::string("x"));
}

void ContractTransfersTest::aWaitingReadIsServedWhenATransferComes()
{
    DeviceNode node;
    node.setReadTimeout(60000);
    std::string received;
    std::thread reader([&] { received = node.read(); });
    const bool isWaiting = waitForStatus("reads", "1");
    HostSocket host(_directory);
    const bool isSent = host.send("late");
    reader.join();
    QVERIFY(isWaiting && isSent);
    QCOMPARE(received, std::string("late"));
}

void ContractTransfersTest::writeHandsOverOneTransfer()
{
    DeviceNode node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(node.write("abc"), Outcome(3, 0));
    QCOMPARE(node.write("defg"), Outcome(4, 0));
    QCOMPARE(host.receive(), std::string("abc"));
    QCOMPARE(host.receive(), std::string("defg"));
}

void ContractTransfersTest::writeTimesOutWithoutAHost()
{
    DeviceNode node;
    node.setWriteTimeout(100);
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(node.write("lost"), Outcome(-1, ETIMEDOUT));
    QVERIFY2(timer.elapsed() >= 99, qPrintable(QString::number(timer.elapsed())));
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(node.write("kept"), Outcome(4, 0));
    QCOMPARE(host.receive(), std::string("kept"));
}

void ContractTransfersTest::aWaitingWriteGoesOutWhenTheHostComes()
{
    DeviceNode node;
    node.setWriteTimeout(60000);
    Outcome outcome;
    std::thread writer([&] { outcome = node.write("hello"); });
    const bool isWaiting = waitForStatus("writes", "1");
    HostSocket host(_directory);
    writer.join();
    QVERIFY(isWaiting);
    QCOMPARE(outcome, Outcome(5, 0));
    QCOMPARE(host.receive(), std::string("hello"));
}

void ContractTransfersTest::writeBlocksWhileTheHostDoesNotRead()
{
    DeviceNode node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    node.setWriteTimeout(50);
    const std::string transfer(10000, 'x');
    int written = 0;
    Outcome outcome;
    while (written < 100 && (outcome = node.write(transfer)) == Outcome(10000, 0))
        ++written;
    QCOMPARE(outcome, Outcome(-1, ETIMEDOUT));
    QVERIFY2(written >= 1 && written <= 10, qPrintable(QString::number(written)));
    for (int i = 0; i < written; ++i)
        QVERIFY(host.receive() == transfer);
    node.setWriteTimeout(waitTime);
    QCOMPARE(node.write("again"), Outcome(5, 0));
    QCOMPARE(host.receive(), std::string("again"));
}

void ContractTransfersTest::theHostBlocksWhileTheDeviceDoesNotRead()
{
    DeviceNode node;
    HostSocket host(_directory);
    const auto transfer = [](int index) { return std::to_string(index) + std::string(10000, 'x'); };
    int sent = 0;
    // The daemon empties the socket a little after each send, so a refusal counts once it stays.
    while (sent < 1000 && QTest::qWaitFor([&] { return host.trySend(transfer(sent)); }, 200))
        ++sent;
    QVERIFY2(sent >= 1 && sent < 100, qPrintable(QString::number(sent)));
    for (int i = 0; i < sent; ++i)
        QVERIFY(node.read() == transfer(i));
    QVERIFY(host.send("again"));
    QCOMPARE(node.read(), std::string("again"));
}

void ContractTransfersTest::tooLargeAndEmptyWritesSendNothing()
{
    DeviceNode node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(node.write(std::string(maxTransferSize + 1, 'x')), Outcome(-1, EMSGSIZE));
    QCOMPARE(node.write(""), Outcome(0, 0));
    QCOMPARE(node.write("x"), Outcome(1, 0));
    QCOMPARE(host.receive(), std::string("x"));
}

void ContractTransfersTest::readingAndWritingDoNotBlockEachOther()
{
    DeviceNode node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    node.setReadTimeout(60000);
    std::string received;
    std::thread reader([&] { received = node.read(); });
    const bool isWaiting = waitForStatus("reads", "1");
    const Outcome written = node.write("out");
    const Outcome changed = node.setWriteTimeout(77);
    const std::string sent = host.receive();
    const bool isAnswered = host.send("in");
    reader.join();
    QVERIFY(isWaiting && isAnswered);
    QCOMPARE(written, Outcome(3, 0));
    QCOMPARE(changed, Outcome(0, 0));
    QCOMPARE(sent, std::string("out"));
    QCOMPARE(received, std::string("in"));
}

void ContractTransfersTest::aSignalInterruptsAReadThatThenTakesNothing()
{
    installInterruptingHandler();
    DeviceNode node;
    node.setReadTimeout(60000);
    Outcome outcome;
    std::atomic<bool> isDone{false};
    std::thread reader([&] {
        outcome = node.readOutcome();
        isDone = true;
    });
    const bool isWaiting = waitForStatus("reads", "1");
    // The daemon knows of the read a little before the thread waits for its reply.
    const bool hasEnded = QTest::qWaitFor(
        [&] {
            if (!isDone)
                pthread_kill(reader.native_handle(), SIGUSR1);
            return isDone.load();
        },
        waitTime);
    const std::string answer = control("inject 78");
    reader.join();
    QVERIFY(isWaiting && hasEnded);
    QCOMPARE(outcome, Outcome(-1, EINTR));
    QCOMPARE(answer, std::string("ok"));
    QCOMPARE(node.read(), std::string("x"));
}

void ContractTransfersTest::fortifiedReadsStillCheckTheirBuffer()
{
    DeviceNode node;
    using ReadChk = ssize_t(int, void *, std::size_t, std::size_t);
    void *function = dlsym(RTLD_DEFAULT, "__read_chk");
    QVERIFY(function != nullptr);
    QCOMPARE(control("inject 616263"), std::string("ok"));
    std::array<char, 8> buffer = {};
    QCOMPARE(reinterpret_cast<ReadChk *>(function)(node.fd(), buffer.data(), 8, 8), ssize_t(3));
    QCOMPARE(std::string(buffer.data()), std::string("abc"));
    // clang++ does not see the buffer's size through the C library's inline function.
#if defined(SIMNODE_FORTIFIED) && !defined(__clang__)
    Child overflowing([&] {
        std::array<char, 8> small = {}; // a local one, whose size the compiler knows
        const volatile std::size_t tooMuch = small.size() + 1;
        FileDescriptor messages(open("/dev/null", O_WRONLY));
        dup2(messages.get(), STDERR_FILENO);
        signal(SIGABRT, SIG_DFL);
        return static_cast<int>(read(node.fd(), small.data(), tooMuch));
    });
    const int status = overflowing.wait();
    QVERIFY(WIFSIGNALED(status));
    QCOMPARE(WTERMSIG(status), SIGABRT);
#endif
}

QTEST_GUILESS_MAIN(ContractTransfersTest)
#include "tst_contract_transfers.moc"
