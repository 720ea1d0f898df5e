// SPDX-License-Identifier: MIT
#ifndef BUILTPROGRAM_H
#define BUILTPROGRAM_H

#include <QProcess>
#include <QString>
#include <QStringList>

/**
 * A QProcess that forks, as QProcess does for derived classes only. Its newer way is one that
 * qemu-user does not know: the program is not started, its number is -1, and kill() strikes every
 * process of the machine.
 */
class ForkedProcess : public QProcess
{
};

/**
 * The words that run a program of this build: its path, and before it the emulator where the build
 * is for another processor than this machine's.
 */
inline QStringList wordsToRun(const QString &program)
{
    const QString emulator = QStringLiteral(USBHAL_EMULATOR); // its words, separated by bars
    return (emulator.isEmpty() ? QStringList() : emulator.split('|')) + QStringList(program);
}

/** Starts a program of this build, as QProcess::start() does one of the machine's. */
inline void startBuilt(ForkedProcess &process, const QString &program, const QStringList &arguments)
{
    QStringList words = wordsToRun(program) + arguments;
    const QString first = words.takeFirst();
    process.start(first, words);
}

#endif
