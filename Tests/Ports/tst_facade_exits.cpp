// SPDX-License-Identifier: MIT
#include "HostEnd.h"

#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

namespace {

void addRows(const QStringList &scenarios)
{
    QTest::addColumn<QString>("scenario");
    QTest::addColumn<bool>("isApplication");
    for (const QString &scenario : scenarios) {
        QTest::newRow(qPrintable(scenario + ", plain")) << scenario << false;
        QTest::newRow(qPrintable(scenario + ", Qt application")) << scenario << true;
    }
}

// Runs a client until it ends by itself, with a host at the far end that greets it.
bool runToEnd(QProcess &client, const QStringList &arguments, HostEnd &host)
{
    client.start(SIMNODE_PROGRAM, arguments);
    bool greeted = false;
    return QTest::qWaitFor(
        [&] {
            if (!greeted && host.isEstablished()) {
                host.send(1, "for the port");
                greeted = true;
            }
            return client.state() == QProcess::NotRunning;
        },
        40000);
}

void expectCleanExit()
{
    QFETCH(QString, scenario);
    QFETCH(bool, isApplication);
    const QTemporaryDir node;
    const QTemporaryDir log;
    QStringList arguments = {"run",    "--dir",   node.path(), "--", EXIT_CLIENT_PROGRAM,
                             scenario, log.path()};
    if (isApplication)
        arguments.append("application");
    HostEnd host(node.path().toStdString());
    if (!scenario.contains("without a host"))
        host.plugIn();
    QProcess client;
    if (!runToEnd(client, arguments, host)) {
        client.terminate();
        client.waitForFinished(5000);
        QFAIL("the client did not end");
    }
    QCOMPARE(client.readAllStandardError(), QByteArray());
    QCOMPARE(client.exitStatus(), QProcess::NormalExit);
    QCOMPARE(client.exitCode(), 0);
    QFile file(log.path() + "/UsbHal1.log");
    QCOMPARE(file.open(QIODevice::ReadOnly), !scenario.startsWith("never"));
    static const QRegularExpression dated("^\\d\\d-\\d\\d-\\d{4} \\d\\d:\\d\\d:\\d\\d:\\d{3} \\[");
    while (!file.atEnd() && file.isOpen()) {
        const QByteArray line = file.readLine();
        QVERIFY2(dated.match(QString::fromUtf8(line)).hasMatch(), line.constData());
    }
}

} // namespace

// A clean exit has status 0, leaves standard error empty and comes by itself.
class FacadeExits : public QObject
{
    Q_OBJECT

private slots:
    void aClientWithoutAnOpenPortExitsCleanly_data()
    {
        addRows({"never used", "never configured", "configured", "freed"});
    }
    void aClientWithoutAnOpenPortExitsCleanly() { expectCleanExit(); }

    void aClientWithAnOpenPortExitsCleanly_data()
    {
        addRows({"opened and stopped", "opened and not stopped", "opened without a host",
                 "unread bytes"});
    }
    void aClientWithAnOpenPortExitsCleanly() { expectCleanExit(); }

    void aClientThatFreesTheLibraryLastExitsCleanly_data()
    {
        addRows({"opened and freed", "stopped and freed", "unread bytes and freed"});
    }
    void aClientThatFreesTheLibraryLastExitsCleanly() { expectCleanExit(); }

    void aClientThatExitsInAHandlerExitsCleanly_data()
    {
        addRows({"exit in a handler of an open", "exit in a handler of another thread",
                 "exit in a handler of another thread with the link up",
                 "exit in a handler of the link", "exit in a handler of a message"});
    }
    void aClientThatExitsInAHandlerExitsCleanly() { expectCleanExit(); }

    void aClientThatFreesTheLibraryInAHandlerExitsCleanly_data()
    {
        addRows({"freed in a handler of the link", "freed in a handler of an open"});
    }
    void aClientThatFreesTheLibraryInAHandlerExitsCleanly() { expectCleanExit(); }
};

QTEST_GUILESS_MAIN(FacadeExits)
#include "tst_facade_exits.moc"
