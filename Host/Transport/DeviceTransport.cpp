// SPDX-License-Identifier: MIT
#include "DeviceTransport.h"

namespace usbhalhost {

// Here, so that the tables of these classes are in the library alone.
MessageTransport::~MessageTransport() = default;
DeviceTransport::~DeviceTransport() = default;

} // namespace usbhalhost
