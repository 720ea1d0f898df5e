// SPDX-License-Identifier: MIT
#ifndef WARNINGTRAP_H
#define WARNINGTRAP_H

#include <QMutex>
#include <QMutexLocker>
#include <QStringList>

/** Collects what Qt has to complain about, in any thread, between set() and take(). */
class WarningTrap
{
public:
    static void set()
    {
        const QMutexLocker locker(&_mutex());
        _texts().clear();
        _former() = qInstallMessageHandler(&WarningTrap::_handle);
    }
    static QStringList take()
    {
        qInstallMessageHandler(_former());
        const QMutexLocker locker(&_mutex());
        return _texts();
    }

private:
    static void _handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        if (type == QtDebugMsg || type == QtInfoMsg) {
            _former()(type, context, text);
            return;
        }
        const QMutexLocker locker(&_mutex());
        _texts().append(text);
    }
    static QMutex &_mutex()
    {
        static QMutex mutex;
        return mutex;
    }
    static QStringList &_texts()
    {
        static QStringList texts;
        return texts;
    }
    static QtMessageHandler &_former()
    {
        static QtMessageHandler former = nullptr;
        return former;
    }
};

#endif
