// SPDX-License-Identifier: MIT
#ifndef SIMNODE_SIMNODEPROCESS_H
#define SIMNODE_SIMNODEPROCESS_H

#include <BuiltProgram.h>

#include <QByteArray>
#include <QStringList>
#include <QTemporaryDir>

namespace simnode {

constexpr int waitTime = 10000; // ms, for what has to happen

/// How a program ended: its exit status, -1 when it did not end and -2 after a signal.
struct Result
{
    int exitCode = -1;
    QByteArray output;
    QByteArray errors;
};

/// This process's environment without what names a node.
QProcessEnvironment cleanEnvironment();

Result finish(ForkedProcess &process);
/// Runs a program of the machine.
Result runProgram(const QString &program, const QStringList &arguments);
/// Runs a program of this build.
Result runBuilt(const QString &program, const QStringList &arguments,
                const QProcessEnvironment &environment = cleanEnvironment());
Result runSimnode(const QStringList &arguments,
                  const QProcessEnvironment &environment = cleanEnvironment());

/// A `simnode serve` that is ready.
class Daemon
{
public:
    explicit Daemon(const QString &directory, const QStringList &options = {});
    ~Daemon();
    Q_DISABLE_COPY(Daemon)

    bool isReady() const { return readyLine.startsWith("simnode ready in "); }

    ForkedProcess process;
    QByteArray readyLine;
};

/// A program whose calls on the node go to the daemon of `directory`.
class Probe
{
public:
    Probe(const QString &directory, const QStringList &calls);

    QByteArray output();

    ForkedProcess process;

private:
    // The loader takes no path with a blank or a colon, which the build folder's may have.
    QTemporaryDir _link;
};

bool waitForStatus(const QString &directory, const char *key, const char *value);

/// The path of a new file in the folder.
QString writeFile(const QTemporaryDir &folder, const QString &name, const QByteArray &text);

QStringList entriesOf(const QString &folder);

} // namespace simnode

#endif
