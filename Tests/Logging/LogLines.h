// SPDX-License-Identifier: MIT
#ifndef LOGLINES_H
#define LOGLINES_H

#include <UsbHalLog.h>

/** The name that the library gives its log. */
inline const QString logName = QStringLiteral("UsbHal");

/** Logs the numbers from first to last, one a line. */
inline void logNumbers(UsbHalLog &log, int first, int last)
{
    for (int i = first; i <= last; ++i)
        log.log(QStringLiteral("count"), 1, QString::number(i));
}

#endif
