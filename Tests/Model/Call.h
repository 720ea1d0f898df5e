// SPDX-License-Identifier: MIT
#ifndef CALL_H
#define CALL_H

#include <UsbHalIntf.h>

#include <QString>
#include <QStringList>

/** One call of a public operation, with its arguments. */
struct Call
{
    enum Kind {
        SetupConfig,
        GetDefaultSetup,
        Stop,
        Status,
        IsRunning,
        IsHost,
        DriverName,
        NbClients,
        GetErrorStr,
        GetSocketStateStr,
        WaitForConnected,
        WaitForDisconnected,
        OpenConnection,
        CloseConnection,
        DisconnectFromHost,
        PeerDisconnected,
        SocketStatus,
        Read,
        Peek,
        ReadAll,
        NbBytesReceived,
        WaitForReadyRead,
        Write,
        BytesToWrite,
        GetMaxWriteSize,
        Flush,
        Watchdog,
        KindCount
    };

    Kind kind = Status;
    int port = 0;
    int number = 0; ///< a size, a time in ms or a code
    QByteArray data = {};
    ParamHal param = {};

    QString text() const;
    static QString name(Kind kind);
};

/** Bytes as printable text. */
QString shown(const QByteArray &bytes);
/** The fields of a configuration that the core looks at. */
QString shown(const ParamHal &param);

inline QString result(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes);
}

inline QString result(DriverState state)
{
    return DriverStateStr[static_cast<int>(state)];
}

inline QString result(SocketState state)
{
    return SocketStateStr[static_cast<int>(state)];
}

inline QString result(const QString &text)
{
    return text;
}

inline QString result(const char *text)
{
    return QString::fromLatin1(text);
}

template <typename Number>
QString result(Number number)
{
    return QString::number(number);
}

/** Makes a call to a core, real or modelled; returns its result as text. */
template <typename Core>
QString invoke(Core &core, const Call &call)
{
    const auto size = static_cast<unsigned int>(call.number);
    ParamHal param = call.param;
    switch (call.kind) {
    case Call::SetupConfig:
        return result(core.setupConfig(call.param));
    case Call::GetDefaultSetup:
        core.getDefaultSetup(param);
        return shown(param);
    case Call::Stop:
        core.stop();
        return QString();
    case Call::Status:
        return result(core.status());
    case Call::IsRunning:
        return result(core.isRunning());
    case Call::IsHost:
        return result(core.isHost());
    case Call::DriverName:
        return result(core.driverName());
    case Call::NbClients:
        return result(core.nbClients());
    case Call::GetErrorStr:
        return result(core.getErrorStr(call.number));
    case Call::GetSocketStateStr:
        return result(core.getSocketStateStr(static_cast<SocketState>(call.number)));
    case Call::WaitForConnected:
        return result(core.waitForConnected(call.number));
    case Call::WaitForDisconnected:
        return result(core.waitForDisconnected(call.number));
    case Call::OpenConnection:
        return result(core.openConnection(call.port));
    case Call::CloseConnection:
        return result(core.closeConnection(call.port));
    case Call::DisconnectFromHost:
        core.disconnectFromHost(call.port);
        return QString();
    case Call::PeerDisconnected:
        core.peerDisconnected(call.port);
        return QString();
    case Call::SocketStatus:
        return result(core.socketStatus(call.port));
    case Call::Read:
        return result(core.read(call.port, size));
    case Call::Peek:
        return result(core.peek(call.port, size));
    case Call::ReadAll:
        return result(core.readAll(call.port));
    case Call::NbBytesReceived:
        return result(core.nbBytesReceived(call.port));
    case Call::WaitForReadyRead:
        return result(core.waitForReadyRead(call.port, call.number));
    case Call::Write:
        return result(core.write(call.port, call.data));
    case Call::BytesToWrite:
        return result(core.bytesToWrite());
    case Call::GetMaxWriteSize:
        return result(core.getMaxWriteSize());
    case Call::Flush:
        core.flush(call.number);
        return QString();
    case Call::Watchdog:
        core.watchdog(call.number != 0);
        return QString();
    case Call::KindCount:
        break;
    }
    return QString();
}

#endif
