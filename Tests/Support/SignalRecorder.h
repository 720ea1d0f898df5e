// SPDX-License-Identifier: MIT
#ifndef SIGNALRECORDER_H
#define SIGNALRECORDER_H

#include <UsbHalIntf.h>

#include <QMutex>
#include <QMutexLocker>
#include <QStringList>
#include <QTest>

#include <functional>
#include <memory>

/**
 * All nine signals of a core or of the facade in one list, in the order of their emission, written
 * like "socketStateChanged(1,OPENED)". What it collects lives as long as the source emits.
 */
class SignalRecorder
{
public:
    /** Called in the emitting thread after a signal was recorded. */
    using Handler = std::function<void(const QString &signal)>;

    template <typename Source>
    explicit SignalRecorder(Source *source)
    {
        connectLinkSignals(source);
        connectPortSignals(source);
    }

    QStringList all() const
    {
        const QMutexLocker locker(&_record->mutex);
        QStringList copies; // that share nothing with the record
        for (const QString &text : qAsConst(_record->signalTexts))
            copies.append(QString(text.constData(), text.size()));
        return copies;
    }

    /** The signals since the last take(). */
    QStringList take()
    {
        const QMutexLocker locker(&_record->mutex);
        QStringList taken;
        taken.swap(_record->signalTexts);
        return taken;
    }

    int count(const QString &signal) const { return all().count(signal); }

    bool waitFor(const QString &signal, int times = 1, int msecs = 5000) const
    {
        return QTest::qWaitFor([&] { return count(signal) >= times; }, msecs);
    }

    void setHandler(const Handler &handler)
    {
        const QMutexLocker locker(&_record->mutex);
        _record->handler = handler;
    }

private:
    struct Record
    {
        void add(const QString &text)
        {
            QMutexLocker locker(&mutex);
            signalTexts.append(QString(text.constData(), text.size()));
            const Handler current = handler;
            locker.unlock();
            if (current)
                current(text);
        }

        QMutex mutex;
        QStringList signalTexts;
        Handler handler;
    };

    template <typename Source>
    void connectLinkSignals(Source *source)
    {
        const auto record = _record;
        QObject::connect(source, QOverload<>::of(&Source::connected),
                         [record] { record->add("connected"); });
        QObject::connect(source, QOverload<>::of(&Source::disconnected),
                         [record] { record->add("disconnected"); });
        QObject::connect(source, QOverload<>::of(&Source::readyRead),
                         [record] { record->add("readyRead"); });
        QObject::connect(source, &Source::stateChanged, [record](DriverState state) {
            record->add("stateChanged(" + DriverStateStr[static_cast<int>(state)] + ')');
        });
        QObject::connect(source, &Source::error, [record](int code, void *data) {
            record->add(QString("error(%1,%2)").arg(code).arg(reinterpret_cast<qintptr>(data)));
        });
    }

    template <typename Source>
    void connectPortSignals(Source *source)
    {
        const auto record = _record;
        QObject::connect(source, QOverload<int>::of(&Source::connected), [record](int port) {
            record->add("connected(" + QString::number(port) + ')');
        });
        QObject::connect(source, QOverload<int>::of(&Source::disconnected), [record](int port) {
            record->add("disconnected(" + QString::number(port) + ')');
        });
        QObject::connect(source, QOverload<int>::of(&Source::readyRead), [record](int port) {
            record->add("readyRead(" + QString::number(port) + ')');
        });
        QObject::connect(source, &Source::socketStateChanged,
                         [record](UsbConnID port, SocketState state) {
                             record->add("socketStateChanged(" + QString::number(port) + ',' +
                                         SocketStateStr[static_cast<int>(state)] + ')');
                         });
    }

    std::shared_ptr<Record> _record = std::make_shared<Record>();
};

#endif
