// SPDX-License-Identifier: MIT
#ifndef LOGTALLY_H
#define LOGTALLY_H

#include <QString>

#include <atomic>
#include <mutex>

/**
 * What the core logs, counted instead of written: the linker sends logLine() here, in the
 * client's thread and in the core's.
 */
class LogTally
{
public:
    static LogTally &instance();

    /**
     * Begins to count for a buffer of so many bytes. A host logs all the rest of the buffer for
     * each message that announces no number.
     */
    void beginBuffer(int size, bool isHost = false);
    /** Ends the process if the lines since then are more, or longer, than the buffer accounts for.
     */
    void checkBuffer() const;

    void add(const QString &message);

    /** While it lives, lines are not counted: a client's calls log on their own account. */
    class Pause
    {
    public:
        Pause() { ++instance()._pauses; }
        ~Pause() { --instance()._pauses; }
        Q_DISABLE_COPY(Pause)
    };

private:
    void _addRemaining(const QString &message);

    mutable std::mutex _mutex;
    std::atomic<int> _pauses{0};
    int _bufferSize = 0;
    bool _isHost = false;
    qint64 _lines = 0;
    qint64 _characters = 0;
    qint64 _remaining = 0; // bytes of the buffer, as last logged
    bool _stuck = false;   // a message took nothing
};

#endif
