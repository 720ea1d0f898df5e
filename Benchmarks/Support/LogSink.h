// SPDX-License-Identifier: MIT
#ifndef LOGSINK_H
#define LOGSINK_H

#include <QtGlobal>

/**
 * Where the log's lines go in programs that link UsbHalLogSink: into the log while it is not
 * active, as at first, else nowhere.
 */
namespace LogSink {

void setActive(bool active);

/** Lines that went nowhere so far. */
quint64 swallowedLines();

} // namespace LogSink

#endif
