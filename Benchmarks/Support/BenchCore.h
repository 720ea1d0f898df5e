// SPDX-License-Identifier: MIT
#ifndef BENCHCORE_H
#define BENCHCORE_H

#include "LogSink.h"
#include "Require.h"

#include <CoreProbe.h>
#include <WireMessages.h>

#include <QDir>

/**
 * A core with port 1 open and the link up, but without a communication thread, which would take
 * time of its own. The log's lines go nowhere unless they are asked for.
 */
class BenchCore : public CoreProbe
{
public:
    static constexpr int port = 1;

    explicit BenchCore(bool logs = false) : _logs(logs)
    {
        configure();
        _clearWriteFifo(); // as the start of the communication does
        _hwDriver = driver.data();
        driver->setMaxWriteSize(20000);
        _socketStates[port] = SocketState::OPENED;
        _readQueues[port] = QSharedPointer<ReadQueue>::create();
        _driverState = DriverState::CONNECTED;
        LogSink::setActive(!logs);
        _logSize = logSize();
    }
    ~BenchCore() override
    {
        require(_logs != (logSize() == _logSize), "lines reach the log if, and only if, asked for");
        LogSink::setActive(false);
        stop();
    }

    /** Frames a payload into the FIFO. */
    int queue(const QByteArray &payload) { return _queueMessages(port, payload, _payloadLimit()); }

    /** Whether so many messages wait to be written, of which the last ends with the payload. */
    bool holdsWritten(int count, const QByteArray &payload)
    {
        return _writeFifo.size() == count && _writeFifo.constLast() == dataMessage(port, payload);
    }

    /** Whether so many messages wait to be read, of which the last is the payload. */
    bool holdsReceived(int count, const QByteArray &payload)
    {
        const ReadQueue &queue = *_readQueues.value(port);
        return queue.size() == count && queue.constLast() == payload;
    }

    using UsbHAL::_clearWriteFifo;
    using UsbHAL::_payloadLimit;
    using UsbHAL::_queueMessages;

private:
    qint64 logSize() const
    {
        qint64 size = 0;
        const QFileInfoList files = QDir(log.folder()).entryInfoList(QDir::Files);
        for (const QFileInfo &file : files)
            size += file.size();
        return size;
    }

    const bool _logs;
    qint64 _logSize = 0;
};

#endif
