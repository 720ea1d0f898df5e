// SPDX-License-Identifier: MIT
#include "Call.h"

namespace {

constexpr int shownBytes = 60;

const char *const kindNames[Call::KindCount] = {"setupConfig",
                                                "getDefaultSetup",
                                                "stop",
                                                "status",
                                                "isRunning",
                                                "isHost",
                                                "driverName",
                                                "nbClients",
                                                "getErrorStr",
                                                "getSocketStateStr",
                                                "waitForConnected",
                                                "waitForDisconnected",
                                                "openConnection",
                                                "closeConnection",
                                                "disconnectFromHost",
                                                "peerDisconnected",
                                                "socketStatus",
                                                "read",
                                                "peek",
                                                "readAll",
                                                "nbBytesReceived",
                                                "waitForReadyRead",
                                                "write",
                                                "bytesToWrite",
                                                "getMaxWriteSize",
                                                "flush",
                                                "watchdog"};

} // namespace

QString shown(const QByteArray &bytes)
{
    QString text;
    for (const char c : bytes.left(shownBytes))
        text += c >= ' ' && c <= '~' ? QString(c) : "\\x" + QByteArray(1, c).toHex();
    if (bytes.size() > shownBytes)
        text += "...";
    return '"' + text + "\" (" + QString::number(bytes.size()) + " bytes)";
}

QString shown(const ParamHal &param)
{
    return QString("maxReadSize %1, maxWriteSize %2, wrTimeout %3, rdTimeout %4, "
                   "maxWatchdogErrors %5, threadStopTimeout %6, maxWriteFifoSize %7, nbRetry %8, "
                   "maxClients %9")
               .arg(param.maxReadSize)
               .arg(param.maxWriteSize)
               .arg(param.wrTimeout)
               .arg(param.rdTimeout)
               .arg(param.maxWatchdogErrors)
               .arg(param.threadStopTimeout)
               .arg(param.maxWriteFifoSize)
               .arg(param.nbRetry)
               .arg(param.maxClients) +
           ", mainLoopPeriod " + QString::number(param.mainLoopPeriod) + ", logDir " + param.logDir;
}

QString Call::name(Kind kind)
{
    return kindNames[kind];
}

QString Call::text() const
{
    switch (kind) {
    case SetupConfig:
    case GetDefaultSetup:
        return name(kind) + '(' + shown(param) + ')';
    case Write:
        return name(kind) + '(' + QString::number(port) + ", " + shown(data) + ')';
    default:
        return name(kind) + "(port " + QString::number(port) + ", " + QString::number(number) + ')';
    }
}
