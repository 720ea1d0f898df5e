// SPDX-License-Identifier: MIT
#ifndef BARELOOP_H
#define BARELOOP_H

#include <QByteArray>

#include <atomic>
#include <thread>
#include <vector>

/**
 * The least that keeps a link going: read, 10 ms, write, 10 ms on the node, in a thread of its own.
 */
class BareLoop
{
public:
    /** Opens the node and writes that message in each cycle. */
    explicit BareLoop(const QByteArray &message);
    /** Ends the loop after its cycle and closes the node. */
    ~BareLoop();
    Q_DISABLE_COPY(BareLoop)

    /** Ends the loop after its cycle; then the median ns of a read and of a write that follows one
     * can be had. */
    void stop();
    qint64 readTime() const;
    qint64 writeTime() const;

private:
    void run();

    const QByteArray _message;
    const int _node;
    std::atomic<bool> _running{true};
    std::vector<qint64> _readTimes;
    std::vector<qint64> _writeTimes;
    std::thread _thread;
};

#endif
