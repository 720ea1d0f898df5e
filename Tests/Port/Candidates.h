// SPDX-License-Identifier: MIT
#ifndef CANDIDATES_H
#define CANDIDATES_H

#include "PortFixture.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <QMetaEnum>
#include <QTcpServer>
#include <QTcpSocket>

/** A connected device with its far end, and what its signals told since the last take(). */
class Candidate
{
public:
    virtual ~Candidate() = default;
    virtual QIODevice *device() = 0;
    /** Connects the device with its far end. */
    virtual bool connect() = 0;
    virtual void send(const QByteArray &bytes) = 0;
    virtual bool waitForReceived(const QByteArray &bytes) = 0;
    /** Cuts the device off from its far end. */
    virtual void cutOff() = 0;
    virtual bool waitForDisconnected() = 0;
    virtual void setReadBufferSize(qint64 bytes) = 0;

    QStringList take() { return std::exchange(_seen, {}); }

protected:
    void note(const QString &text) { _seen += text; }

    template <typename Device>
    void watch(Device *watched)
    {
        const auto noting = [this](const QString &text) { return [=] { note(text); }; };
        QObject::connect(watched, &Device::readyRead, noting("readyRead"));
        QObject::connect(watched, &Device::aboutToClose, noting("aboutToClose"));
        QObject::connect(watched, &Device::readChannelFinished, noting("readChannelFinished"));
        QObject::connect(watched, &Device::disconnected, noting("disconnected"));
        QObject::connect(watched, &Device::errorOccurred, noting("errorOccurred"));
        QObject::connect(watched, &Device::bytesWritten,
                         [this](qint64 size) { note("bytesWritten " + QString::number(size)); });
        QObject::connect(watched, &Device::stateChanged,
                         [this](auto state) { note(nameOf(state)); });
    }

private:
    static QString nameOf(UsbHalPort::State state)
    {
        return QMetaEnum::fromType<UsbHalPort::State>().valueToKey(state);
    }
    // A local socket's states have the names and values of a TCP socket's.
    template <typename State>
    static QString nameOf(State state)
    {
        return QMetaEnum::fromType<QAbstractSocket::SocketState>().valueToKey(
            static_cast<int>(state));
    }

    QStringList _seen;
};

class PortCandidate : public Candidate
{
public:
    explicit PortCandidate(PortFixture &fixture) : _fixture(fixture)
    {
        _port.setReopen(false);
        watch(&_port);
        QObject::connect(&_port, &UsbHalPort::bytesLost, [this] { note("bytesLost"); });
    }
    QIODevice *device() override { return &_port; }
    bool connect() override
    {
        const bool connected = _fixture.connect(_port);
        _before = _fixture.host.received(1).size();
        return connected;
    }
    void send(const QByteArray &bytes) override { _fixture.host.send(1, bytes); }
    bool waitForReceived(const QByteArray &bytes) override
    {
        return QTest::qWaitFor([&] { return _fixture.host.received(1).mid(_before) == bytes; },
                               20000);
    }
    void cutOff() override { _fixture.loseLink(); }
    bool waitForDisconnected() override { return _port.waitForDisconnected(); }
    void setReadBufferSize(qint64 bytes) override { _port.setReadBufferSize(bytes); }

private:
    PortFixture &_fixture;
    UsbHalPort _port{1};
    int _before = 0; // bytes that the host had got from others
};

/** A socket to a server in this thread. */
template <typename Socket, typename Server>
class SocketCandidate : public Candidate
{
public:
    SocketCandidate() { watch(&socket); }
    QIODevice *device() override { return &socket; }
    bool connect() override
    {
        beginToConnect();
        return socket.waitForConnected(20000) && server.waitForNewConnection(20000) &&
               (_farEnd = server.nextPendingConnection());
    }
    void send(const QByteArray &bytes) override
    {
        _farEnd->write(bytes);
        while (_farEnd->bytesToWrite() > 0 && _farEnd->waitForBytesWritten(20000)) {
        }
    }
    bool waitForReceived(const QByteArray &bytes) override
    {
        QByteArray got;
        return QTest::qWaitFor([&] { return (got += _farEnd->readAll()) == bytes; }, 20000);
    }
    void cutOff() override { _farEnd->close(); }
    bool waitForDisconnected() override
    {
        // A socket that has noticed already would only warn.
        return socket.state() == Socket::UnconnectedState || socket.waitForDisconnected(20000);
    }
    void setReadBufferSize(qint64 bytes) override { socket.setReadBufferSize(bytes); }

protected:
    virtual void beginToConnect() = 0;

    Server server;
    Socket socket;

private:
    Socket *_farEnd = nullptr;
};

class TcpCandidate : public SocketCandidate<QTcpSocket, QTcpServer>
{
    void beginToConnect() override
    {
        server.listen(QHostAddress::LocalHost);
        socket.connectToHost(server.serverAddress(), server.serverPort());
    }
};

class LocalCandidate : public SocketCandidate<QLocalSocket, QLocalServer>
{
    void beginToConnect() override
    {
        server.listen(_folder.filePath("socket"));
        socket.connectToServer(server.serverName());
    }

    const QTemporaryDir _folder;
};

#endif
