// SPDX-License-Identifier: MIT
#ifndef OUTPUT_H
#define OUTPUT_H

#include <QString>

/** Prints a line with the time before it, at once. */
void say(const QString &text);

/** The same for what is shown only after showDetails(). */
void sayDetail(const QString &text);

/** Has sayDetail() print. */
void showDetails();

#endif
