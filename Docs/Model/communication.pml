// SPDX-License-Identifier: MIT
// The states of the communication and who changes them, for the model checker spin: see README.md.
// A process is a thread, an inline the core's function of that name. An atomic block is what a thread does
// with the mutex held; others run where it blocks.

mtype = { Ended, Running, Ending, Restarting, Killed, Finishing };
mtype communication = Ended; // _communication, changed only with the mutex held

#define threadStopTimeout 2 // times are in ticks of the clock; this one may be the shorter of the two
#define timerPolls 3
#define killTimeout 2
#define openLimit threadStopTimeout
#define stopLimit (timerPolls + threadStopTimeout + killTimeout + openLimit) // a handler of error(8) may open

#define OWNER 3  // the processes' numbers, _pid: 0 and 1 open, 2 stops
#define THREAD 4
#define THREADS 5

bool mutex;
bool asleep[THREADS];  // on _communicationCond, or in QThread::wait
bool opening[THREADS]; // waits in openConnection
byte left[THREADS];    // ticks until the wait, or the poll, gives up
byte limit[THREADS];   // ticks that the call may still take, plus one; 0 outside of a call
byte stopsInProgress; // and restarts, for which openers wait
byte polling, endWaits, stops, runs;
bool timerWanted, timerTicking, timerChangePosted;
bool qtRunning, started; // QThread's own: from start() until Qt has finished, and that run() is to begin
bool killed;             // QThread::terminate was called
bool driverOpened;
bool stuck, killable;    // the driver, or a client's handler, does not return to the thread
bool portOpen;           // by an openConnection since the latest end that was asked for
#ifndef FAULTS
#define FAULTS 1
#endif
byte faults = FAULTS, messages = 1, exits = 1, deletions = 1; // how often the world may still act

#define othersStop (stopsInProgress > 0)
#define isCommunicating (communication == Running || communication == Restarting)
#define canOpen (!othersStop && (isCommunicating || communication == Ended))
#define isOver (communication == Ended || runs != thisRun)
#define timeIsUp (left[_pid] == 0)

inline lock() { !mutex; mutex = true }
inline unlock() { mutex = false }
inline wakeAll() { asleep[0] = false; asleep[1] = false; asleep[2] = false; asleep[3] = false; asleep[4] = false }
inline _changeCommunication(state) { communication = state; wakeAll() }

// ---- the watchdog's timer, which only its owner's thread can start and stop ----

inline apply() { timerChangePosted = false; timerTicking = timerWanted }
inline setPeriod(wanted) { timerWanted = wanted; if :: _pid == OWNER -> apply() :: else -> timerChangePosted = true fi }
inline _stopMainLoop() { setPeriod(false); wakeAll() }
#ifdef POLLS_WHILE_AN_OPEN_WAITS
inline catchUp() { skip }
#else
inline catchUp() { if :: _pid == OWNER && timerChangePosted -> apply() :: else fi }
#endif

// ---- the waits, for the ticks in left[_pid] ----

inline _waitUntil(reached) {
    do
    :: atomic {
        catchUp();
        if
        :: (reached) || timeIsUp -> break
        :: else -> asleep[_pid] = true; unlock(); (!asleep[_pid] || timeIsUp); asleep[_pid] = false; lock()
        fi }
    od
}

inline QThread_wait() { // as today's design waits: Qt may run the thread again by the time the waiter wakes
    unlock();
    do
    :: !qtRunning || timeIsUp -> break
    :: else -> asleep[_pid] = true; (!asleep[_pid] || timeIsUp); asleep[_pid] = false
    od;
    lock()
}

inline _waitForEnd(time) {
    left[_pid] = time; endWaits++;
    _waitUntil(isOver);
    left[_pid] = 0; endWaits--
}

inline _waitForEnding() {
    left[_pid] = threadStopTimeout; endWaits++; opening[_pid] = true;
#if defined(WAITS_FOR_THE_THREAD_OBJECT)
    do
    :: _waitUntil(!othersStop); if :: canOpen || timeIsUp -> break :: else -> QThread_wait() fi
    od;
#elif defined(FAILS_WHEN_A_STOP_BEGINS)
    _waitUntil(!othersStop); _waitUntil(isCommunicating || communication == Ended);
#else
    _waitUntil(canOpen);
#endif
    endWaits--; opening[_pid] = false; ready = canOpen;
    assert(ready || timeIsUp); // error 7 only when threadStopTimeout has passed
    left[_pid] = 0
}

// ---- start ----

inline _startThread() {
    if
    :: communication == Ending -> assert(_pid == THREAD); _changeCommunication(Restarting)
    :: else ->
#ifndef STARTS_WHILE_QT_FINISHES
        assert(communication == Ended && !qtRunning); // never two threads
#endif
        !qtRunning; qtRunning = true; started = true; // QThread::start waits while Qt finishes
        killed = false; runs++; _changeCommunication(Running)
    fi
}

inline openConnection() {
    atomic {
        lock();
        if
        :: _pid == THREAD -> ready = (stopsInProgress == 0 && (isCommunicating || communication == Ending))
        :: else -> _waitForEnding()
        fi;
        if
        :: ready && isCommunicating -> portOpen = true
        :: ready && !isCommunicating -> _startThread(); setPeriod(true); portOpen = true // _startCommunication
        :: !ready // error 7
        fi;
        unlock() }
}

// ---- stop and kill ----

inline _askThreadToEnd() { if :: isCommunicating -> _changeCommunication(Ending) :: else fi }
inline beginStop() { stopsInProgress++ }
inline endStop() { stopsInProgress--; wakeAll() }

inline _stopWorkerThread() {
    if
    :: isCommunicating || communication == Ending -> killed = true;
#ifdef KILLS_INTO_ENDING
        _askThreadToEnd()
#else
        _changeCommunication(Killed) // whatever a handler asks for now, the thread does not begin anew
#endif
    :: else
    fi;
    _waitForEnd(killTimeout)
}

inline _endCommunication() {
    beginStop();
    left[_pid] = timerPolls; polling++; unlock(); (!timerTicking || timeIsUp); lock(); polling--; left[_pid] = 0;
    _askThreadToEnd();
    thisRun = runs; _waitForEnd(threadStopTimeout);
    if
    :: isOver -> endStop()
    :: else -> _stopWorkerThread(); endStop(); driverOpened = false;
        if :: unlock(); openConnection(); lock() :: true fi // a handler of error(8)
    fi
}

inline stop() {
    atomic {
        lock();
        stops++; portOpen = false; _stopMainLoop();
        if :: _pid == THREAD -> _askThreadToEnd() :: else -> _endCommunication() fi;
        unlock() }
}

// ---- the clients, and the thread that owns the core: an open of its own, its event loop, the watchdog ----

inline open() { limit[_pid] = openLimit + 1; openConnection(); limit[_pid] = 0 }

active [2] proctype opener() { bool ready; open() }
active proctype stopper() { bool ready; byte thisRun; limit[_pid] = stopLimit + 1; stop(); limit[_pid] = 0 }

inline _restartStuckThread() {
    atomic {
        lock();
        thisRun = runs; oldStops = stops; _waitForEnd(threadStopTimeout);
        beginStop(); // who opens a port waits for the new run
        if :: !isOver && stops == oldStops -> _stopWorkerThread() :: else fi;
        unlock() }
    atomic { // _replaceThread, after the ports' signals
        lock();
        if :: stops == oldStops && communication == Ended -> _startThread() :: else fi;
        endStop(); unlock() }
}

active proctype owner() {
    bool ready, hasOpened;
    byte thisRun, oldStops;
end:
    do
    :: timerChangePosted -> apply()
    :: timerTicking && timerWanted && driverOpened && (stuck || communication == Ended) -> _restartStuckThread()
    :: !hasOpened -> hasOpened = true; open()
    od
}

// ---- the communication thread ----

inline getStuck(canBeKilled) { atomic { faults > 0 -> faults--; stuck = true; killable = canBeKilled } }
inline handler() { // of a client; no kill strikes in it
    if :: getStuck(false); !stuck :: true fi;
    if :: stop(); openConnection() :: stop() :: openConnection() :: true fi
}

active proctype communicationThread() {
    bool ready;
    byte thisRun;
end_idle:
    atomic { started -> started = false; driverOpened = true }
_connectedFunc:
end_communicating: // the driver reads or writes, the mutex released
    if
    :: killed -> goto killed_
    :: !killed && communication != Running
    :: atomic { !killed && messages > 0 -> messages-- }; handler(); goto _connectedFunc
    :: atomic { !killed && exits > 0 -> exits--; lock(); portOpen = false; driverOpened = false; // _leaveThread
        if :: communication == Running -> _changeCommunication(Ending) :: else fi; unlock() }; handler()
    :: if :: getStuck(true) :: getStuck(false) fi;
        if :: !stuck :: killed && killable -> stuck = false fi; goto _connectedFunc
    fi;
    atomic {
        lock();
        if
        :: killed -> unlock(); goto killed_
        :: !killed && communication == Restarting -> runs++; _changeCommunication(Running); unlock(); goto _connectedFunc
        :: else -> unlock()
        fi }
    atomic { // _endOfConnectedThread
        lock(); _stopMainLoop(); left[_pid] = timerPolls; unlock();
#ifdef POLLS_WHILE_AN_OPEN_WAITS
        (!timerTicking || stopsInProgress > 0 || timeIsUp || killed);
#else
        (!timerTicking || endWaits > 0 || timeIsUp || killed);
#endif
        left[_pid] = 0; if :: killed -> goto killed_ :: else fi; lock();
#ifdef STARTS_WHILE_QT_FINISHES
        _changeCommunication(Ended); // as QThread::isRunning says already
#else
        _changeCommunication(Finishing);
#endif
        unlock() }
killed_: // Qt finishes: clients' objects are deleted, whose destructors may call the core
    if :: atomic { deletions > 0 -> deletions-- }; handler() :: true fi;
    atomic { qtRunning = false; wakeAll() }
#ifndef STARTS_WHILE_QT_FINISHES
    atomic { lock(); _changeCommunication(Ended); unlock() } // _onThreadGone
#endif
    goto end_idle
}

// ---- time, which passes only when no thread can go on; a tick may free what is stuck ----

inline tick(i) {
    // An open waits for what is stuck, or for a stop whose timer is in an owner's thread that is busy; nothing else.
    assert(!opening[i] || stuck || (polling > 0 && !opening[OWNER]));
    if :: left[i] > 0 -> left[i]-- :: else fi;
    if :: limit[i] > 0 -> limit[i]--; assert(limit[i] > 0) :: else fi // every open and stop returns in time
}

active proctype clock() {
#define isTimeAwaited (left[0] + left[1] + left[2] + left[3] + left[4] > 0)
    do
    :: atomic { timeout && isTimeAwaited -> tick(0); tick(1); tick(2); tick(3); tick(4); if :: stuck = false :: true fi }
    :: timeout && !isTimeAwaited && stuck -> stuck = false
    :: timeout && !isTimeAwaited && !stuck -> assert(!portOpen || communication == Running); break
    od
}
