// SPDX-License-Identifier: MIT
#ifndef STEPPEDDRIVER_H
#define STEPPEDDRIVER_H

#include <AbstractDriver.h>

#include <condition_variable>
#include <mutex>

/**
 * The one driver of this program's facade: the linker puts it in the place of the gadget's. Each
 * read and write waits until another thread ends it, so that the communication thread stands still
 * but from the end of one call to the next.
 */
class SteppedDriver : public AbstractDriver
{
public:
    enum class Call { None, Read, Write };

    /** Lives as long as the process, as the facade does. */
    static SteppedDriver &instance();

    // ---- in the thread that ends the calls

    /** Waits for the communication thread to be in a call, and returns which. */
    Call waitForCall();
    /** What the write that waits would write. */
    QByteArray message() const { return _message; }
    /** Ends the read that waits, as a failure when the block is empty, and waits for the next call.
     */
    void endRead(const QByteArray &block);
    /** Ends the write that waits, and waits for the next call. */
    void endWrite(bool works);
    /** Has this call and all others fail at once. */
    void release();

    // ---- AbstractDriver

    bool open() override { return true; }
    bool close() override { return true; }
    int read(QByteArray *data) override;
    int write(QByteArray data) override;
    void cancelPendingIo() override {}
    QString getDrvDetailedError(int) const override { return QString(); }

private:
    void _wait(Call call);
    void _end(bool works);

    std::mutex _mutex;
    std::condition_variable _changed;
    Call _call = Call::None;
    bool _released = false;
    bool _works = false;
    QByteArray _block;
    QByteArray _message;
};

#endif
