// SPDX-License-Identifier: MIT
#include "SimnodeProcess.h"

#include "DeviceProtocol.h"
#include "SimNodeControl.h"

#include <QDir>
#include <QFile>
#include <QTest>

namespace simnode {

QProcessEnvironment cleanEnvironment()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(directoryVariable);
    environment.remove("LD_PRELOAD");
    environment.remove("SIMNODE_PRELOAD");
    return environment;
}

Result finish(ForkedProcess &process)
{
    process.closeWriteChannel();
    if (!process.waitForFinished(waitTime))
        return {};
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2,
            process.readAllStandardOutput(), process.readAllStandardError()};
}

Result runProgram(const QString &program, const QStringList &arguments)
{
    ForkedProcess process;
    process.start(program, arguments);
    return finish(process);
}

Result runBuilt(const QString &program, const QStringList &arguments,
                const QProcessEnvironment &environment)
{
    ForkedProcess process;
    process.setProcessEnvironment(environment);
    startBuilt(process, program, arguments);
    return finish(process);
}

Result runSimnode(const QStringList &arguments, const QProcessEnvironment &environment)
{
    return runBuilt(SIMNODE_EXECUTABLE, arguments, environment);
}

Daemon::Daemon(const QString &directory, const QStringList &options)
{
    process.setProcessEnvironment(cleanEnvironment());
    startBuilt(process, SIMNODE_EXECUTABLE, QStringList{"serve", "--dir", directory} + options);
    process.waitForReadyRead(waitTime);
    readyLine = process.readAllStandardOutput();
}

Daemon::~Daemon()
{
    process.kill();
    process.waitForFinished();
}

Probe::Probe(const QString &directory, const QStringList &calls)
{
    QProcessEnvironment environment = cleanEnvironment();
    environment.insert(directoryVariable, directory);
    const QString library = _link.filePath("preload.so");
    QFile::link(SIMNODE_PRELOAD_LIBRARY, library);
    environment.insert("LD_PRELOAD", library);
    QString options = environment.value("ASAN_OPTIONS");
    options += (options.isEmpty() ? "" : ":") + QString("verify_asan_link_order=0");
    environment.insert("ASAN_OPTIONS", options);
    process.setProcessEnvironment(environment);
    startBuilt(process, SIMNODE_PROBE, calls);
}

QByteArray Probe::output()
{
    process.waitForFinished(waitTime);
    return process.readAllStandardOutput();
}

bool waitForStatus(const QString &directory, const char *key, const char *value)
{
    SimNodeControl control(directory.toStdString());
    return QTest::qWaitFor([&] { return control.statusValue(key) == value; }, waitTime);
}

QString writeFile(const QTemporaryDir &folder, const QString &name, const QByteArray &text)
{
    QFile file(folder.filePath(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
        qFatal("cannot write %s", qPrintable(file.fileName()));
    return file.fileName();
}

QStringList entriesOf(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::System | QDir::Hidden |
                                  QDir::NoDotAndDotDot);
}

} // namespace simnode
