// SPDX-License-Identifier: MIT
#ifndef EXITCELLS_H
#define EXITCELLS_H

#include <QList>
#include <QObject>
#include <QString>

/** One order of ending, and what is to be seen of it. */
struct ExitCell
{
    QString scenario;
    int status = 0;
    bool needsApplication = false; ///< else it is run without a Qt application, too
};

/**
 * Rows of cells, each a client in a process of its own over a node of its own. An end is clean when
 * it comes by itself, with the cell's status, with nothing on standard error and whole lines in the
 * log, which tells of the core's end when the process runs its destructors.
 */
class ExitMatrix : public QObject
{
    Q_OBJECT

protected:
    /** The rows of a test function: the cells with and without a Qt application. */
    static void addCells(const QList<ExitCell> &cells);
    /** Runs the client of the current row. */
    void expectCleanExit(const char *client = EXIT_CLIENT_PROGRAM);
    /** Prints how many cells held, to be called at the end of all. */
    void printFigures(const std::string &matrix) const;

private:
    int _cellsPassed = 0;
};

#endif
