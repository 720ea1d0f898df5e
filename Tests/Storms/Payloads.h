// SPDX-License-Identifier: MIT
#ifndef PAYLOADS_H
#define PAYLOADS_H

#include <QByteArray>

/** Which way messages go; the two ways carry different bytes. */
enum class Way : quint64 { ToDevice, ToHost };

/**
 * The payload of a port's message number so-and-so, always the same: 1 to 987 bytes of all values.
 * Seven in a hundred are of a size that the library writes into its log.
 */
QByteArray payloadOf(Way way, int port, quint64 number);

#endif
