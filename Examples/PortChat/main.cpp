// SPDX-License-Identifier: MIT
#include <UsbHalPort.h>

#include <QTextStream>

int main()
{
    UsbHalPort port(1);
    QTextStream console(stdout);
    if (!port.open(QIODevice::ReadWrite) || !port.waitForConnected(10000)) {
        console << port.errorString() << '\n';
        return 1;
    }
    QTextStream(&port) << "hello, host\n";
    while (port.canReadLine() || port.waitForReadyRead(5000)) {
        if (!port.canReadLine())
            continue;
        const QString line = QString::fromUtf8(port.readLine()).trimmed();
        console << "the host says: " << line << '\n';
        console.flush();
        QTextStream(&port) << "you said: " << line << '\n';
    }
    return 0;
}
