// SPDX-License-Identifier: MIT
#include "ExitCells.h"

#include <QTest>

/** Every order in which a client may end that does not wait for its communication thread. */
class KillExitsTest : public ExitMatrix
{
    Q_OBJECT

private slots:
    void cleanupTestCase() { printFigures("exit matrix with kills"); }

    void aClientWhoseThreadIsStuckExitsCleanly_data()
    {
        addCells({{"stuck in read"},
                  {"stuck in the drain of an open"},
                  {"silent read"},
                  {"stuck in read, unread bytes"}});
    }
    void aClientWhoseThreadIsStuckExitsCleanly() { expectCleanExit(); }

    void aClientThatEndsAStuckThreadExitsCleanly_data()
    {
        addCells({{"stuck in read and stopped"},
                  {"stuck in read and freed"},
                  {"stuck in read, exit beside a stop"}});
    }
    void aClientThatEndsAStuckThreadExitsCleanly() { expectCleanExit(); }

    void aClientThatExitsElsewhereExitsCleanly_data()
    {
        addCells({{"stuck in read, exit in another thread"}, {"stuck in read, quick exit"}});
    }
    void aClientThatExitsElsewhereExitsCleanly() { expectCleanExit(); }

    void aProgramThatUnloadsTheLibraryExitsCleanly_data()
    {
        addCells(
            {{"stuck in read"}, {"stuck in the drain of an open"}, {"stuck in read and stopped"}});
    }
    void aProgramThatUnloadsTheLibraryExitsCleanly() { expectCleanExit(EXIT_LOADER_PROGRAM); }
};

QTEST_GUILESS_MAIN(KillExitsTest)
#include "tst_kill_exits.moc"
