// SPDX-License-Identifier: MIT
#ifndef USBHAL_DEVICECHOICE_H
#define USBHAL_DEVICECHOICE_H

#include "DeviceName.h"

#include <optional>
#include <string>

/**
 * The device that the user means: the one that is named, else the only one there is. Empty while
 * there is none to choose; a Failure names those that there are when there are several.
 */
std::optional<usbhalhost::DeviceName> chooseDevice(const std::string &name);

/**
 * Where a device is now, by a name that is the same whichever of its names was given. Empty when it
 * is nowhere, or one of several.
 */
std::string placeOf(const usbhalhost::DeviceName &name);

/** A device's name in a sentence; the name may be empty. */
std::string wordsFor(const std::string &name);

#endif
