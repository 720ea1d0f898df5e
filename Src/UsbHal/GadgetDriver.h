// SPDX-License-Identifier: MIT
#ifndef GADGETDRIVER_H
#define GADGETDRIVER_H

#include "AbstractDriver.h"

#include <QList>

/**
 * Driver over the gadget device node. It opens every instance, keeps the first that delivers data
 * and never looks inside the data. Threads: see AbstractDriver.
 */
class GadgetDriver : public AbstractDriver
{
    Q_OBJECT

public:
    GadgetDriver();
    /** Does not close the descriptors; close() does. */
    ~GadgetDriver() override;

    /** Opens and drains every instance, one second each at most. True when all of them opened. */
    bool open() override;
    /** Closes every descriptor; always true. */
    bool close() override;
    /** See AbstractDriver; a write that fails without taking a byte pauses 17 ms. */
    int write(QByteArray data) override;
    /** See AbstractDriver; a read without data pauses one second. */
    int read(QByteArray *data) override;
    /** Only logs: a blocking read is not interrupted. */
    void cancelPendingIo() override;
    /** "ok" for a code of 0 or more, else errno and its text. */
    QString getDrvDetailedError(int code) const override;

private:
    bool _openDrvInstance(QString path, int index);
    void _flushReadBuffer();
    QString _bufferedText() const;
    int _read(QByteArray *data);
    int _selectDriver(QByteArray *data);

    int _currentFd = 0; // 0: no instance is selected
    QList<int> _openedFds;
};

#endif
