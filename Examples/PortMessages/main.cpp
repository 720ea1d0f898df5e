// SPDX-License-Identifier: MIT
//
// Messages of a QDataStream over a port: answers each request, a number and a text, with the same
// number, the text's length and the text in capitals. Runs until the host sends an empty text.
#include <UsbHalPort.h>

#include <QCoreApplication>
#include <QDataStream>

namespace {

class Answerer
{
public:
    explicit Answerer(UsbHalPort *port) : _stream(port)
    {
        _stream.setVersion(QDataStream::Qt_5_12);
        QObject::connect(port, &UsbHalPort::readyRead, port, [this] { answerAll(); });
    }

private:
    void answerAll()
    {
        quint32 number;
        QString text;
        for (;;) {
            // A message that has not come whole is put back, to be read with the next bytes.
            _stream.startTransaction();
            _stream >> number >> text;
            if (!_stream.commitTransaction())
                return;
            if (text.isEmpty())
                return QCoreApplication::quit();
            _stream << number << text.size() << text.toUpper();
        }
    }

    QDataStream _stream;
};

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    UsbHalPort port(1);
    const Answerer answerer(&port);
    if (!port.open(QIODevice::ReadWrite)) {
        qCritical("%s", qPrintable(port.errorString()));
        return 1;
    }
    return QCoreApplication::exec();
}
