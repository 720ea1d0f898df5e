// SPDX-License-Identifier: MIT
#ifndef USBHAL_CONSOLE_H
#define USBHAL_CONSOLE_H

#include <string>

/** Writes one line to standard error, with the program's name before it. */
void tell(const std::string &text);

/** The begin of some bytes, in quotation marks; what cannot be printed as \xNN. */
std::string excerptOf(const std::string &bytes);

#endif
