// SPDX-License-Identifier: MIT
#include "ExitCells.h"

#include <QTest>

/** Every order in which a client may end without a kill of the communication thread. */
class ExitsTest : public ExitMatrix
{
    Q_OBJECT

private slots:
    void cleanupTestCase() { printFigures("exit matrix"); }

    void aClientWithoutAnOpenPortExitsCleanly_data()
    {
        addCells({{"never used"},
                  {"never configured"},
                  {"configured"},
                  {"never configured and freed"},
                  {"freed"}});
    }
    void aClientWithoutAnOpenPortExitsCleanly() { expectCleanExit(); }

    void aClientWithAnOpenPortExitsCleanly_data()
    {
        addCells({{"opened and stopped"},
                  {"opened and not stopped"},
                  {"opened and closed"},
                  {"opened without a host"},
                  {"unread bytes"},
                  {"exit with another status", 3}});
    }
    void aClientWithAnOpenPortExitsCleanly() { expectCleanExit(); }

    void aClientThatFreesTheLibraryLastExitsCleanly_data()
    {
        addCells({{"opened and freed"}, {"stopped and freed"}, {"unread bytes and freed"}});
    }
    void aClientThatFreesTheLibraryLastExitsCleanly() { expectCleanExit(); }

    void aClientThatExitsPastItsDestructorsExitsCleanly_data()
    {
        addCells({{"quick exit, never configured"},
                  {"quick exit, configured"},
                  {"quick exit, link up"},
                  {"immediate exit, link up"},
                  {"quick exit in a handler of the link"}});
    }
    void aClientThatExitsPastItsDestructorsExitsCleanly() { expectCleanExit(); }

    void aClientThatExitsInAHandlerOfACallExitsCleanly_data()
    {
        addCells({{"exit in a handler of an open"},
                  {"exit in a handler of another thread"},
                  {"exit in a handler of another thread with the link up"},
                  {"exit in a handler of an error"},
                  {"exit in a handler of a stop"}});
    }
    void aClientThatExitsInAHandlerOfACallExitsCleanly() { expectCleanExit(); }

    void aClientThatExitsInAHandlerOfTheLinkExitsCleanly_data()
    {
        addCells({{"exit in a handler of the link"},
                  {"exit in a handler of a message"},
                  {"exit in a queued handler", 0, true},
                  {"queued signals", 0, true}});
    }
    void aClientThatExitsInAHandlerOfTheLinkExitsCleanly() { expectCleanExit(); }

    void aClientThatExitsBesideAHandlerExitsCleanly_data()
    {
        addCells({{"stop in a handler of a message"},
                  {"return beside a slow handler"},
                  {"return beside a handler that never returns"}});
    }
    void aClientThatExitsBesideAHandlerExitsCleanly() { expectCleanExit(); }

    void aClientThatFreesTheLibraryInAHandlerExitsCleanly_data()
    {
        addCells({{"freed in a handler of the link"}, {"freed in a handler of an open"}});
    }
    void aClientThatFreesTheLibraryInAHandlerExitsCleanly() { expectCleanExit(); }

    void aClientThatIsTerminatedExitsCleanly_data()
    {
        addCells({{"SIGTERM, stop after a pipe"},
                  {"SIGTERM, stop in a notifier", 0, true},
                  {"SIGTERM, stop in a waiting thread"},
                  {"SIGTERM, stop in the handler of an idle thread"},
                  {"SIGTERM, default action", 128 + 15}});
    }
    void aClientThatIsTerminatedExitsCleanly() { expectCleanExit(); }

    void aClientWhoseFirstCallerIsElsewhereExitsCleanly_data()
    {
        addCells({{"first call in a thread that ended"},
                  {"first call in a QThread that ended"},
                  {"first call in a thread that ended, then stopped"},
                  {"first call in a thread that ended, then freed"},
                  {"first call in a thread that ended, never opened"},
                  {"first call in a thread that goes on"},
                  {"exit in the thread of the first call"}});
    }
    void aClientWhoseFirstCallerIsElsewhereExitsCleanly() { expectCleanExit(); }

    void aClientWithThreadsThatWaitExitsCleanly_data()
    {
        addCells({{"in waitForConnected, without a host"},
                  {"in waitForDisconnected"},
                  {"in waitForReadyRead"},
                  {"in waitForReadyRead, exit in another thread"}});
    }
    void aClientWithThreadsThatWaitExitsCleanly() { expectCleanExit(); }

    void aClientWithAThreadThatClosesExitsCleanly_data()
    {
        addCells({{"in flush"}, {"in closeConnection"}});
    }
    void aClientWithAThreadThatClosesExitsCleanly() { expectCleanExit(); }

    void aClientWithAThreadThatStopsExitsCleanly_data() { addCells({{"in stop"}}); }
    void aClientWithAThreadThatStopsExitsCleanly() { expectCleanExit(); }

    void aClientWithAThreadThatOpensBesideAStopExitsCleanly_data()
    {
        addCells({{"in openConnection beside a stop"}});
    }
    void aClientWithAThreadThatOpensBesideAStopExitsCleanly() { expectCleanExit(); }

    void aClientWithThreadsThatLogExitsCleanly_data()
    {
        addCells({{"threads log"}, {"threads log, never configured"}, {"threads log, link up"}});
    }
    void aClientWithThreadsThatLogExitsCleanly() { expectCleanExit(); }

    void aClientWithThreadsThatCallExitsCleanly_data()
    {
        addCells({{"threads call, never opened"},
                  {"threads call, link up"},
                  {"threads call after a stop"}});
    }
    void aClientWithThreadsThatCallExitsCleanly() { expectCleanExit(); }

    void aClientThatExitsBesideCallsExitsCleanly_data()
    {
        addCells({{"threads call, exit in another thread"}, {"threads call, quick exit"}});
    }
    void aClientThatExitsBesideCallsExitsCleanly() { expectCleanExit(); }

    void aClientThatForksExitsCleanly_data()
    {
        addCells({{"fork, never configured"},
                  {"fork, configured"},
                  {"fork, link up, exit"},
                  {"fork, link up, immediate exit"},
                  {"fork, link up, quick exit"},
                  {"fork, stopped, exit"}});
    }
    void aClientThatForksExitsCleanly() { expectCleanExit(); }

    void aClientThatForksAmidCallsExitsCleanly_data()
    {
        addCells({{"fork beside calls"},
                  {"fork in a handler"},
                  {"fork before the first open"},
                  {"fork before the first call"}});
    }
    void aClientThatForksAmidCallsExitsCleanly() { expectCleanExit(); }

    void aProgramThatUnloadsTheLibraryUnusedExitsCleanly_data()
    {
        addCells({{"library loaded"},
                  {"instance taken"},
                  {"never used"},
                  {"never configured"},
                  {"configured"}});
    }
    void aProgramThatUnloadsTheLibraryUnusedExitsCleanly() { expectCleanExit(EXIT_LOADER_PROGRAM); }

    void aProgramThatUnloadsTheLibraryExitsCleanly_data()
    {
        addCells({{"opened and stopped"},
                  {"opened and not stopped"},
                  {"opened without a host"},
                  {"unread bytes"},
                  {"opened and freed"},
                  {"stop in a handler of a message"}});
    }
    void aProgramThatUnloadsTheLibraryExitsCleanly() { expectCleanExit(EXIT_LOADER_PROGRAM); }

    void aProgramThatLoadsTheLibraryAgainExitsCleanly_data()
    {
        addCells({{"again and again, never used"},
                  {"again and again, configured"},
                  {"again and again, opened and closed"},
                  {"again and again, queued signals", 0, true}});
    }
    void aProgramThatLoadsTheLibraryAgainExitsCleanly() { expectCleanExit(EXIT_LOADER_PROGRAM); }
};

QTEST_GUILESS_MAIN(ExitsTest)
#include "tst_exits.moc"
