// SPDX-License-Identifier: MIT
#ifndef CLIENTHANDLERS_H
#define CLIENTHANDLERS_H

#include "Call.h"
#include "Trace.h"

#include <QList>

/** A client's handler: makes a call when the signal arises, and again as many times as told. */
struct Handler
{
    QString signal;
    Call call;
    int times = 1;
};

/** The handlers of one core, real or modelled. */
class ClientHandlers
{
public:
    void add(const Handler &handler) { _handlers.append(handler); }
    void clear() { _handlers.clear(); }

    /** Records the signal and lets the first handler for it that has times left make its call. */
    template <typename Core>
    void onSignal(Core &core, const QString &signal, Trace &trace)
    {
        trace.add("signal " + signal);
        for (Handler &handler : _handlers) {
            if (handler.signal != signal || handler.times == 0)
                continue;
            --handler.times;
            const Call call = handler.call; // the call may lead back here
            trace.add("handler returns " + invoke(core, call));
            return;
        }
    }

private:
    QList<Handler> _handlers;
};

#endif
