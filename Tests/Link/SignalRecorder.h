// SPDX-License-Identifier: MIT
#ifndef SIGNALRECORDER_H
#define SIGNALRECORDER_H

#include <UsbHal.h>

#include <QStringList>
#include <QTest>

#include <memory>

/**
 * Every signal of a core in the order of its emission, whatever thread it came from. The core may
 * still emit signals while the recorder is destroyed.
 */
class SignalRecorder
{
public:
    explicit SignalRecorder(UsbHAL &core)
    {
        const auto record = [this, &core](auto signal, auto text) {
            QObject::connect(&core, signal, &_context, text, Qt::DirectConnection);
        };
        const auto add = [record = _record](const QString &signal) { record->add(signal); };
        record(QOverload<>::of(&UsbHAL::connected), [add] { add("connected()"); });
        record(QOverload<>::of(&UsbHAL::disconnected), [add] { add("disconnected()"); });
        record(QOverload<int>::of(&UsbHAL::connected),
               [add](int port) { add(QString("connected(%1)").arg(port)); });
        record(QOverload<int>::of(&UsbHAL::disconnected),
               [add](int port) { add(QString("disconnected(%1)").arg(port)); });
        record(QOverload<int>::of(&UsbHAL::readyRead),
               [add](int port) { add(QString("readyRead(%1)").arg(port)); });
        record(&UsbHAL::error, [add](int num, void *data) {
            add(QString("error(%1, %2)").arg(num).arg(reinterpret_cast<qintptr>(data)));
        });
        record(&UsbHAL::stateChanged, [add](DriverState state) {
            add("stateChanged(" + DriverStateStr[static_cast<int>(state)] + ")");
        });
        record(&UsbHAL::socketStateChanged, [add](UsbConnID port, SocketState state) {
            add(QString("socketStateChanged(%1, %2)")
                    .arg(port)
                    .arg(SocketStateStr[static_cast<int>(state)]));
        });
    }

    QStringList all() const { return _record->all(); }
    void clear() { _record->clear(); }
    bool waitFor(const QString &signal, int msecs = 5000) const
    {
        return QTest::qWaitFor([&] { return all().contains(signal); }, msecs);
    }

private:
    class Record
    {
    public:
        void add(const QString &signal)
        {
            const QMutexLocker locker(&_mutex);
            _signals.append(signal);
        }
        QStringList all() const
        {
            const QMutexLocker locker(&_mutex);
            QStringList copies; // that share nothing with the record
            for (const QString &signal : _signals)
                copies.append(QString(signal.constData(), signal.size()));
            return copies;
        }
        void clear()
        {
            const QMutexLocker locker(&_mutex);
            _signals.clear();
        }

    private:
        mutable QMutex _mutex;
        QStringList _signals;
    };

    const std::shared_ptr<Record> _record = std::make_shared<Record>();
    QObject _context;
};

#endif
