// SPDX-License-Identifier: MIT
#include "ExitCells.h"

#include <BuiltProgram.h>
#include <Campaign.h>
#include <HostEnd.h>

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>

namespace {

// The link may take 20 s; a stop ends within 8 s, and a kill within 3.
constexpr int longestRun = 40000; // ms

// Runs a client until it ends by itself, with a host at the far end that greets it.
bool runToEnd(ForkedProcess &client, const QStringList &arguments, HostEnd &host)
{
    startBuilt(client, SIMNODE_PROGRAM, arguments);
    bool greeted = false;
    return QTest::qWaitFor(
        [&] {
            if (!greeted && host.isEstablished()) {
                host.send(1, "for the port");
                greeted = true;
            }
            return client.state() == QProcess::NotRunning;
        },
        longestRun);
}

void expectWholeLines(const QDir &folder)
{
    static const QRegularExpression dated("^\\d\\d-\\d\\d-\\d{4} \\d\\d:\\d\\d:\\d\\d:\\d{3} \\[");
    const QStringList names = folder.entryList({"*.log"});
    for (const QString &name : names) {
        QFile file(folder.filePath(name));
        QVERIFY(file.open(QIODevice::ReadOnly));
        while (!file.atEnd()) {
            const QByteArray line = file.readLine();
            QVERIFY2(dated.match(QString::fromUtf8(line)).hasMatch(), line.constData());
            QVERIFY2(line.endsWith('\n'), line.constData());
        }
    }
}

bool isConfigured(const QString &scenario)
{
    return !scenario.contains("never used") && !scenario.contains("never configured") &&
           !scenario.startsWith("library") && !scenario.startsWith("instance");
}

// Whether the destructors of static objects run. Of a fork the scenario names the child's end.
bool endsInOrder(const QString &scenario)
{
    return scenario.startsWith("fork") ||
           !(scenario.contains("quick exit") || scenario.contains("immediate exit") ||
             scenario.contains("default action"));
}

// Whether threads may have rotated the last words away.
bool floodsItsLog(const QString &scenario)
{
    return scenario.contains("threads log") || scenario.contains("beside calls");
}

bool tellsOfItsEnd(const QDir &folder)
{
    const QStringList names = folder.entryList({"*.log"});
    return std::any_of(names.begin(), names.end(), [&folder](const QString &name) {
        QFile file(folder.filePath(name));
        return file.open(QIODevice::ReadOnly) && file.readAll().contains("[~UsbHAL:");
    });
}

} // namespace

void ExitMatrix::addCells(const QList<ExitCell> &cells)
{
    QTest::addColumn<QString>("scenario");
    QTest::addColumn<int>("status");
    QTest::addColumn<bool>("isApplication");
    for (const ExitCell &cell : cells) {
        if (!cell.needsApplication)
            QTest::newRow(qPrintable(cell.scenario + ", plain"))
                << cell.scenario << cell.status << false;
        QTest::newRow(qPrintable(cell.scenario + ", Qt application"))
            << cell.scenario << cell.status << true;
    }
}

void ExitMatrix::expectCleanExit(const char *clientProgram)
{
    QFETCH(QString, scenario);
    QFETCH(int, status);
    QFETCH(bool, isApplication);
    const QTemporaryDir node;
    const QTemporaryDir log;
    QStringList arguments = QStringList{"run", "--dir", node.path(), "--"} +
                            wordsToRun(clientProgram) + QStringList{scenario, log.path()};
    if (isApplication)
        arguments.append("application");
    HostEnd host(node.path().toStdString());
    if (!scenario.contains("without a host"))
        host.plugIn();
    ForkedProcess client;
    if (!runToEnd(client, arguments, host)) {
        client.terminate();
        if (!client.waitForFinished(5000))
            client.kill();
        QFAIL("the client did not end");
    }
    QCOMPARE(client.readAllStandardError(), QByteArray());
    QCOMPARE(client.exitStatus(), QProcess::NormalExit);
    QCOMPARE(client.exitCode(), status);
    QCOMPARE(!QDir(log.path()).isEmpty(), isConfigured(scenario));
    expectWholeLines(log.path());
    if (!floodsItsLog(scenario))
        QCOMPARE(tellsOfItsEnd(log.path()), isConfigured(scenario) && endsInOrder(scenario));
    if (!QTest::currentTestFailed())
        ++_cellsPassed;
}

void ExitMatrix::printFigures(const std::string &matrix) const
{
    Campaign::printFigure(matrix + ", cells passed", _cellsPassed);
}
