// SPDX-License-Identifier: MIT
#ifndef USBHALPORTSTREAM_H
#define USBHALPORTSTREAM_H

#include "ByteChunks.h"
#include "PortHub.h"
#include "UsbHalPort.h"

#include <QPointer>
#include <QTimer>

/**
 * What is behind a UsbHalPort: its state, its buffers and the way from the hub's news to its
 * signals. All of it runs in the object's thread.
 */
class UsbHalPort::Stream
{
public:
    Stream(UsbHalPort *owner, int number);

    /** Opens the port in the library; begin() goes on when the device is open, too. */
    bool open(OpenMode mode);
    void begin();
    void close();

    qint64 read(char *data, qint64 maxSize);
    qint64 readLine(char *data, qint64 maxSize);
    qint64 write(const char *data, qint64 size);
    bool flush();

    bool waitForConnected(int msecs);
    bool waitForDisconnected(int msecs);
    bool waitForReadyRead(int msecs);
    bool waitForBytesWritten(int msecs);

    void clearError() { _fail(NoError, QString()); }
    void setReadLimit(qint64 bytes);
    qint64 unwritten() const { return _outgoing.size() + _queuedBytes; }

    UsbHalPort *const port;
    const int portNumber;
    State state = UnconnectedState;
    Error error = NoError;
    bool reopen = true;
    bool isClosing = false;
    qint64 readLimit = defaultLimit;
    qint64 writeLimit = defaultLimit;
    qint64 dropped = 0;
    ByteChunks incoming;

private:
    static constexpr qint64 defaultLimit = 1 << 20; // bytes

    // Tells after a signal whether its handlers have closed, reopened or destroyed the port.
    class Session
    {
    public:
        explicit Session(const Stream *stream)
            : _port(stream->port), _stream(stream), _number(stream->_session)
        {
        }
        bool isGone() const { return !_port; }
        bool isOver() const { return isGone() || _stream->_session != _number; }

    private:
        const QPointer<UsbHalPort> _port;
        const Stream *const _stream;
        const quint32 _number;
    };

    void _fail(Error what, const QString &sentence);
    void _follow();
    void _account(const PortHub::View &view);
    void _tellState(State next);
    void _tellWritten();
    void _tellLost();
    void _tellIncoming();
    void _tellLoss();
    void _tellHost();
    void _noteLoss(quint32 losses);
    void _leaveLibrary();
    void _dropStale();
    void _takeIn();
    void _noteRoom();
    qint64 _readRoom() const;
    bool _handOn(bool urgent);
    int _hand(const QByteArray &bytes, bool urgent);
    void _look(int libraryMessages);
    template <typename IsDone, typename IsVain>
    bool _waitUntil(int msecs, IsDone isDone, IsVain isVain);

    std::unique_ptr<PortRecord> _record; // while the port is open in the library
    quint32 _session = 0;                // counts opens and closes
    quint32 _losses = 0;                 // of the record, as far as they were noted
    int _payloadLimit = 1;
    ByteChunks _outgoing;
    qint64 _queuedBytes = 0; // handed to the library, neither taken nor lost so far
    qint64 _written = 0;     // to be told
    qint64 _lost = 0;        // to be told
    bool _arrived = false;   // to be told
    quint64 _takenBytes = 0; // ever
    quint64 _arrivedBytes = 0;
    quint32 _lossesTold = 0;
    bool _isStale = false;      // what is in incoming belongs to a link that is gone
    bool _isBacklogged = false; // messages were left in the library
    bool _inReadyRead = false;
    bool _inBytesWritten = false;
    QTimer _timer; // runs while bytes are on their way to the device node, and only then
};

#endif
