// SPDX-License-Identifier: MIT
#ifndef USBHAL_CONSOLE_H
#define USBHAL_CONSOLE_H

#include <string>

/** Writes one line to standard error, with the program's name before it. */
void tell(const std::string &text);

/** From now on adds such lines to a file, too, with their time. Failure when that cannot be done.
 */
void logTo(const std::string &path);

/** The begin of some bytes, in quotation marks; what cannot be printed as \xNN. */
std::string excerptOf(const std::string &bytes);

#endif
