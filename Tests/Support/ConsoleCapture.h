// SPDX-License-Identifier: MIT
#ifndef CONSOLECAPTURE_H
#define CONSOLECAPTURE_H

#include <QByteArray>
#include <QList>
#include <QTemporaryFile>

/**
 * Takes what the process writes to standard output, until it is finished or destroyed. Not to be
 * nested.
 */
class ConsoleCapture
{
public:
    ConsoleCapture();
    ~ConsoleCapture();
    Q_DISABLE_COPY(ConsoleCapture)

    /** What was written up to now. */
    QByteArray text();
    /** Gives standard output back and returns all that was written. */
    QByteArray finish();

private:
    QTemporaryFile _file;
    int _console;
};

#endif
