// SPDX-License-Identifier: MIT
#include <BuiltProgram.h>
#include <HostEnd.h>
#include <SimNodeControl.h>

#include <QDataStream>
#include <QTemporaryDir>
#include <QTest>

/** The examples as their users run them, on the node of this process. */
class PortLibExamplesTest : public QObject
{
    Q_OBJECT

private slots:
    void theChatWritesAndReadsLines();
    void messagesAreAnswered();

private:
    // In a folder of its own, where it leaves its log.
    void _start(ForkedProcess &program, const char *path)
    {
        program.setWorkingDirectory(_folder.path());
        startBuilt(program, path, {});
        _host.plugIn();
    }

    const QTemporaryDir _folder;
    HostEnd _host{SimNodeControl::directoryFromEnvironment()};
};

void PortLibExamplesTest::theChatWritesAndReadsLines()
{
    ForkedProcess program;
    _start(program, PORT_CHAT);
    QVERIFY(_host.waitForReceived(1, "hello, host\n"));
    _host.send(1, "good mor");
    _host.send(1, "ning\nand good night\n");
    QVERIFY(_host.waitForReceived(1, "hello, host\nyou said: good morning\nyou said: and good "
                                     "night\n"));
    QVERIFY(program.waitForFinished(20000)); // five seconds after the last line
    QCOMPARE(program.exitCode(), 0);
    QCOMPARE(program.readAllStandardOutput(),
             QByteArray("the host says: good morning\nthe host says: and good night\n"));
}

void PortLibExamplesTest::messagesAreAnswered()
{
    ForkedProcess program;
    _start(program, PORT_MESSAGES);
    QTRY_VERIFY_WITH_TIMEOUT(_host.isEstablished(), 20000);
    QByteArray request;
    QByteArray answer;
    QDataStream requests(&request, QIODevice::WriteOnly);
    QDataStream answers(&answer, QIODevice::WriteOnly);
    requests << 1u << QString("first") << 2u << QString(8000, 's');
    answers << 1u << 5 << QString("FIRST") << 2u << 8000 << QString(8000, 'S');
    // Cut in the first number and in the second text.
    _host.send(1, request.left(2));
    _host.send(1, request.mid(2, 9000));
    _host.send(1, request.mid(9002));
    QVERIFY(_host.waitForReceived(1, answer));
    request.clear();
    QDataStream(&request, QIODevice::WriteOnly) << 3u << QString();
    _host.send(1, request);
    QVERIFY(program.waitForFinished(20000));
    QCOMPARE(program.exitCode(), 0);
}

QTEST_GUILESS_MAIN(PortLibExamplesTest)
#include "tst_portlib_examples.moc"
