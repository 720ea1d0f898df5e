// SPDX-License-Identifier: MIT
#include "LockStep.h"

#include <UsbHalLog.h>

#include <QElapsedTimer>

#include <cerrno>
#include <ctime>

// The linker sends the library's calls of these functions here (--wrap); __real_ is their own.
extern "C" {
void __wrap__ZN7QThread18yieldCurrentThreadEv();
void __wrap__Z7logLinePKcSt16initializer_listI7LogPartEj(const char *function, LogPart::List text,
                                                         unsigned int line);
bool __wrap__ZN9UsbHalLog4openE7QStringS0_(UsbHalLog *self, QString dir, QString name);
qint64 __wrap__ZNK13QElapsedTimer12nsecsElapsedEv(const QElapsedTimer *self);
}

qint64 watchdogClock = 0;

namespace {

constexpr time_t patience = 60;           // s
constexpr unsigned long joinTime = 60000; // ms

LockStep *currentSteps = nullptr;

} // namespace

LockStep::LockStep(const Setup &setup, Trace &events) : trace(events), _setup(setup)
{
    currentSteps = this;
}

LockStep::~LockStep()
{
    currentSteps = nullptr;
}

LockStep *LockStep::current()
{
    return currentSteps;
}

void LockStep::Baton::take()
{
    timespec limit;
    clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += patience;
    while (sem_timedwait(&_semaphore, &limit) != 0) {
        if (errno != EINTR)
            qFatal("a thread neither rests nor ends");
    }
}

Outcome LockStep::await(Transfer transfer)
{
    if (_ending && !isRunning())
        return outcomeAtTheEnd(_setup, _answersAtTheEnd++, transfer);
    _transfer = transfer;
    _toTest.give();
    _toThread.take();
    return _outcome;
}

void LockStep::settle()
{
    if (thread && !_resting && thread->isRunning())
        _waitForRest();
}

void LockStep::turn(const Outcome &outcome)
{
    settle();
    if (_resting)
        _continue(outcome);
}

bool LockStep::waitForEnd()
{
    settle();
    if (_resting && !isRunning()) {
        _ending = true;
        _answersAtTheEnd = 0;
        _continue(outcomeAtTheEnd(_setup, _answersAtTheEnd++, _transfer));
        _ending = false;
    }
    return !_resting;
}

void LockStep::_continue(const Outcome &outcome)
{
    _outcome = outcome;
    _resting = false;
    _toThread.give();
    _waitForRest();
}

void LockStep::_waitForRest()
{
    _toTest.take();
    _resting = !_ended;
    if (_ended && !thread->wait(joinTime))
        qFatal("the communication thread does not end");
    _ended = false;
}

bool LockStep::takeFailingClose()
{
    if (_failingCloses == 0)
        return false;
    --_failingCloses;
    return true;
}

void LockStep::log(const QString &function, const QString &message)
{
    trace.add("log " + function + ": " + message);
    // The last line of the thread.
    if (function == QLatin1String("_endOfConnectedThread") && message.startsWith("watchdog")) {
        _ended = true;
        _toTest.give();
    }
}

// ---- the driver ----

LockStepDriver::LockStepDriver(const QString &name, const Setup &setup, LockStep &steps)
    : _steps(steps)
{
    _setDriverName(name);
    _avoidClosingDuringHandshake = setup.avoidClosingDuringHandshake;
    _closeDriverAfterConnectionError = setup.closeDriverAfterConnectionError;
}

bool LockStepDriver::open()
{
    _note("open");
    return _steps.await(Transfer::Open).good;
}

// Under the core's mutex, where the thread cannot rest: the clients would not get it.
bool LockStepDriver::close()
{
    const bool fails = _steps.takeFailingClose();
    _note("close", fails ? " fails" : "");
    return !fails;
}

int LockStepDriver::write(QByteArray data)
{
    _note("write", ' ' + QString::fromLatin1(data));
    return _steps.await(Transfer::Write).good ? data.size() : 0;
}

int LockStepDriver::read(QByteArray *data)
{
    _note("read");
    const QByteArray block = _steps.await(Transfer::Read).block;
    // Like a real driver it hands out a buffer of its own, which the next read changes.
    _block.fill('#');
    _block = QByteArray(block.constData(), block.size());
    if (!_block.isEmpty())
        data->setRawData(_block.constData(), static_cast<uint>(_block.size()));
    return _block.size();
}

void LockStepDriver::cancelPendingIo()
{
    _note("cancel");
}

QString LockStepDriver::getDrvDetailedError(int /*code*/) const
{
    return QString();
}

void LockStepDriver::_note(const char *call, const QString &more)
{
    _steps.trace.add(QString("driver %1 ").arg(call) + getDriverName() + more);
}

// ---- the library's calls ----

// The other thread rests anyway, and on a busy machine a yield costs more than all the rest.
void __wrap__ZN7QThread18yieldCurrentThreadEv() {}

void __wrap__Z7logLinePKcSt16initializer_listI7LogPartEj(const char *function, LogPart::List text,
                                                         unsigned int /*line*/)
{
    if (LockStep *const steps = LockStep::current())
        steps->log(QString::fromLatin1(function), toString(text));
}

bool __wrap__ZN9UsbHalLog4openE7QStringS0_(UsbHalLog * /*self*/, QString dir, QString name)
{
    if (LockStep *const steps = LockStep::current())
        steps->trace.add("log opened in " + dir + " as " + name);
    return true;
}

qint64 __wrap__ZNK13QElapsedTimer12nsecsElapsedEv(const QElapsedTimer * /*self*/)
{
    return watchdogClock;
}
