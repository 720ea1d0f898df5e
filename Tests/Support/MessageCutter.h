// SPDX-License-Identifier: MIT
#ifndef MESSAGECUTTER_H
#define MESSAGECUTTER_H

#include <QByteArray>

/** The message at the front of received bytes. */
struct CutMessage
{
    enum class Kind { NoData, Wait, Data, NotValid, WrongSize, InvalidPort };

    Kind kind = Kind::NotValid;
    int size = 0; ///< bytes of the whole message; with no valid front 0
    int port = -1;
    QByteArray payload;
};

/**
 * Cuts the first message off, worked out a second time without anything of the library's code: what
 * the models of the core have in common. A host's NODATA carries a size of five digits.
 */
CutMessage cutMessage(const QByteArray &bytes, bool atHost = false);

/** The value of a field, -1 for anything but digits. */
int decimal(const QByteArray &field);

#endif
