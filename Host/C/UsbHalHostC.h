/* SPDX-License-Identifier: MIT */
#ifndef USBHALHOST_USBHALHOSTC_H
#define USBHALHOST_USBHALHOSTC_H

#include "UsbHalHostExport.h"

#include <stddef.h> /* NOLINT(modernize-deprecated-headers): for C, too */

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Ports of a device for languages that call C. A device has a thread of its own, which takes the
 * turns and finds a device that was lost. All functions may be called from any thread, but
 * usbhal_close() when no other call with the device is under way. Times are in seconds; those of
 * more than a year are a year.
 */
typedef struct usbhal_device usbhal_device; /* NOLINT(modernize-use-using): for C, too */

/** What a function returns when it does not return a number of bytes. */
enum usbhal_result {
    usbhal_done = 0,
    usbhal_failed = -1, /**< the device cannot be reached, and waiting does not help */
    usbhal_wrong = -2,  /**< a name that names no device, or a port outside of 0 to 9999 */
    usbhal_lost = -3,   /**< there is no link, or what was on its way is lost with it */
    usbhal_timed_out = -4,
    usbhal_not_open = -5 /**< the port was not opened, or is closed */
};

/**
 * Begins to look for a device by its name, such as usb:1d6b:0104 or sim:DIR. Null for what is no
 * name; the text then says why, in at most size bytes with the zero byte at its end.
 */
USBHALHOST_EXPORT usbhal_device *usbhal_open(const char *name, char *text, size_t size);
/** Closes the link. */
USBHALHOST_EXPORT void usbhal_close(usbhal_device *device);

/** Waits until the device answers (1), or does not any more (0). */
USBHALHOST_EXPORT int usbhal_wait(usbhal_device *device, int connected, double seconds);
/** Whether the device answers. */
USBHALHOST_EXPORT int usbhal_is_connected(usbhal_device *device);
/** Why there is no link, in at most size bytes with the zero byte at its end. */
USBHALHOST_EXPORT void usbhal_reason(usbhal_device *device, char *text, size_t size);

/** From now on keeps what the device sends to a port; 1 MiB at most, then it waits for a reader. */
USBHALHOST_EXPORT int usbhal_open_port(usbhal_device *device, int port);
/** Throws away what was not read and what still comes, and ends the calls that wait for the port.
 */
USBHALHOST_EXPORT int usbhal_close_port(usbhal_device *device, int port);
/** Sends bytes and waits until the device has answered the last of them. */
USBHALHOST_EXPORT int usbhal_write(usbhal_device *device, int port, const void *bytes, size_t size,
                                   double seconds);
/** Waits for bytes, and takes as many as there are, up to size. Returns how many, or a result.
 * What came before a loss is there until the next link. After each, one read fails as lost. */
USBHALHOST_EXPORT long usbhal_read(usbhal_device *device, int port, void *bytes, size_t size,
                                   double seconds);

#ifdef __cplusplus
}
#endif

#endif
