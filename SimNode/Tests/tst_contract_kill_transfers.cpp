// SPDX-License-Identifier: MIT
#include "ContractTest.h"

#include <pthread.h>

using namespace simnode;

namespace {

void *readForEver(void *node)
{
    static_cast<DeviceNode *>(node)->readOutcome();
    return nullptr;
}

void *writeForEver(void *node)
{
    static_cast<DeviceNode *>(node)->write("never sent");
    return nullptr;
}

// Cancelled when the close begins.
void *closeWhenCancelled(void *node)
{
    pthread_cancel(pthread_self());
    close(*static_cast<int *>(node));
    pthread_testcancel();
    return nullptr;
}

bool cancels(pthread_t thread)
{
    void *result = nullptr;
    return pthread_cancel(thread) == 0 && pthread_join(thread, &result) == 0 &&
           result == PTHREAD_CANCELED;
}

int lowestFreeDescriptor()
{
    return FileDescriptor(dup(STDIN_FILENO)).get();
}

} // namespace

/// Threads that are cancelled while they wait in a read or a write.
class ContractKillTransfersTest : public ContractTest
{
    Q_OBJECT

private slots:
    void cancelledThreadsLeaveNothingBehind();
    void aCancelledThreadEndsItsClose();
};

void ContractKillTransfersTest::cancelledThreadsLeaveNothingBehind()
{
    DeviceNode node;
    node.setReadTimeout(60000);
    node.setWriteTimeout(60000);
    const int lowest = lowestFreeDescriptor();
    pthread_t reader;
    pthread_t writer;
    QCOMPARE(pthread_create(&reader, nullptr, readForEver, &node), 0);
    QCOMPARE(pthread_create(&writer, nullptr, writeForEver, &node), 0);
    const bool areWaiting = waitForStatus("reads", "1") && waitForStatus("writes", "1");
    QVERIFY(cancels(reader));
    QVERIFY(cancels(writer));
    QVERIFY(areWaiting);
    QCOMPARE(lowestFreeDescriptor(), lowest);
    HostSocket host(_directory);
    QVERIFY(host.send("kept"));
    QCOMPARE(node.read(), std::string("kept"));
    QCOMPARE(node.write("first"), Outcome(5, 0));
    QCOMPARE(host.receive(), std::string("first"));
}

void ContractKillTransfersTest::aCancelledThreadEndsItsClose()
{
    const int lowest = lowestFreeDescriptor();
    int node = open(nodePath, O_RDWR);
    QVERIFY(node >= 0);
    pthread_t closer;
    QCOMPARE(pthread_create(&closer, nullptr, closeWhenCancelled, &node), 0);
    void *result = nullptr;
    QCOMPARE(pthread_join(closer, &result), 0);
    QVERIFY(result == PTHREAD_CANCELED);
    QCOMPARE(lowestFreeDescriptor(), lowest);
    QVERIFY(waitForStatus("descriptors", "0"));
}

QTEST_GUILESS_MAIN(ContractKillTransfersTest)
#include "tst_contract_kill_transfers.moc"
