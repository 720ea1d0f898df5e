// SPDX-License-Identifier: MIT
#ifndef PORTERRORS_H
#define PORTERRORS_H

#include "UsbHalPort.h"

/** What a refused open of the facade, with that error code, is to the port's user. */
UsbHalPort::Error errorOf(int code);

/** What a user is told of an error, with %1 for the port's number; empty for NoError. */
QString sentenceOf(UsbHalPort::Error error);

#endif
