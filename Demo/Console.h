// SPDX-License-Identifier: MIT
#ifndef CONSOLE_H
#define CONSOLE_H

#include <QElapsedTimer>
#include <QString>

/** Standard output with lines that stay and, on a terminal, one line of progress that does not. */
class Console
{
public:
    Console();

    /** Prints a line. */
    void line(const QString &text);

    /** Whether it is time for the next progress(). */
    bool wantsProgress() const;

    /** On a terminal replaces the line of progress, elsewhere prints a line. */
    void progress(const QString &text);

    /** Ends the line of progress, which then stays. */
    void endProgress();

private:
    bool _isTerminal;
    bool _hasProgress = false;
    QElapsedTimer _sinceProgress;
};

#endif
