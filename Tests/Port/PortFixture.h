// SPDX-License-Identifier: MIT
#ifndef PORTFIXTURE_H
#define PORTFIXTURE_H

#include <HostEnd.h>
#include <SimNodeControl.h>
#include <UsbHalPort.h>

#include <QTemporaryDir>
#include <QTest>

#include <functional>

/** Calls the function with the name and the arguments of each signal of a port, as a text. */
template <typename Function>
void watchSignals(UsbHalPort *port, Function seen)
{
    const auto watch = [&](auto signal, const QString &name) {
        QObject::connect(port, signal, port, [=](auto... values) {
            QString text = name;
            ((text += ' ' + QString::number(static_cast<qint64>(values))), ...);
            seen(text);
        });
    };
    watch(&UsbHalPort::connected, "connected");
    watch(&UsbHalPort::disconnected, "disconnected");
    watch(&UsbHalPort::errorOccurred, "error");
    watch(&UsbHalPort::stateChanged, "state");
    watch(&UsbHalPort::bytesLost, "lost");
    watch(&UsbHalPort::bytesWritten, "written");
    watch(&UsbHalPort::readyRead, "readyRead");
    watch(&UsbHalPort::readChannelFinished, "finished");
    watch(&UsbHalPort::aboutToClose, "aboutToClose");
}

/** Bytes in which no two pieces are alike, so that a gap or a repetition shows. */
inline QByteArray countedBytes(int size, int first = 0)
{
    QByteArray bytes;
    while (bytes.size() < size)
        bytes += QByteArray::number(first++) + ' ';
    return bytes.left(size);
}

/** The simulated node that serves this process, with a host at the far end. */
class PortFixture
{
public:
    /** With a configuration of its own, in which the link is lost at the second failure. */
    explicit PortFixture(const std::function<void(ParamHal &)> &change = {})
        : node(SimNodeControl::directoryFromEnvironment()),
          host(SimNodeControl::directoryFromEnvironment())
    {
        ParamHal param = UsbHalPort::configuration();
        param.nbRetry = 1;
        param.logDir = logFolder.path();
        if (change)
            change(param);
        UsbHalPort::setConfiguration(param);
    }
    ~PortFixture() { UsbHALIntf::getInstance()->stop(); }

    bool command(const std::string &text) { return node.command(text) == "ok"; }

    /** Opens a port and waits for the host, which is plugged in. */
    bool connect(UsbHalPort &port)
    {
        host.plugIn();
        return port.open(QIODevice::ReadWrite) && port.waitForConnected(20000);
    }

    /** Two failed writes are a lost link; it comes back when the host is there. */
    bool loseLink() { return command("write fail EIO 2"); }

    /** Loses the link and keeps it down until plugIn(). */
    bool loseHost()
    {
        // The device waits for the host now, and is given an answer to come to its writes.
        const bool lost = host.pause() && loseLink() && command("inject " + noData) &&
                          UsbHALIntf::getInstance()->waitForDisconnected(20000);
        host.unplug();
        host.resume();
        return lost;
    }

    const std::string noData = QByteArray("DEVICE_NODATA").toHex().toStdString();
    const QTemporaryDir logFolder;
    SimNodeControl node;
    HostEnd host;
};

#endif
