// SPDX-License-Identifier: MIT
#ifndef MAINLOOPTIMER_H
#define MAINLOOPTIMER_H

#include <QTimer>

#include <atomic>

/**
 * The watchdog's timer. It fires in the thread that made it; a change that another thread asks for
 * is posted there and waits until that thread handles its events.
 */
class MainLoopTimer : public QTimer
{
    Q_OBJECT

public:
    MainLoopTimer();
    ~MainLoopTimer() override;

    /**
     * Starts it with a period in ms, or stops it with 0. Any thread may call it; in the timer's own
     * it takes effect at once, but starts nothing where no events can be handled.
     */
    void setPeriod(quint32 period);

    /** The period last asked for in ms, 0 for none. Any thread may call it. */
    int period() const { return _period; }

    /** Whether it fires, which follows the period late. Any thread may call it. */
    bool isTicking() const { return _ticking; }

    /** In the timer's own thread: does now what was posted. In any other: nothing. */
    void catchUp();

protected:
    bool event(QEvent *event) override;

private:
    class Change;

    void _apply();
    void _retire();

    std::atomic<int> _period{0};
    std::atomic<bool> _ticking{false};
    std::atomic<bool> _changePosted{false};
};

#endif
