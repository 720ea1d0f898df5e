// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_EXPORT_H
#define USBHALHOST_EXPORT_H

/** What the shared library shows to programs; everything else in it is hidden, and so is what a
 * shown class keeps to itself. */
#define USBHALHOST_EXPORT __attribute__((visibility("default")))
#define USBHALHOST_LOCAL __attribute__((visibility("hidden")))

#endif
