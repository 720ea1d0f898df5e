// SPDX-License-Identifier: MIT
#include "PortErrors.h"

UsbHalPort::Error errorOf(int code)
{
    switch (code) {
    case 3:
        return UsbHalPort::NotEnoughMemoryError;
    case 4:
        return UsbHalPort::AlreadyOpenError;
    case 5:
        return UsbHalPort::TooManyPortsError;
    default:
        return UsbHalPort::NotRunningError;
    }
}

QString sentenceOf(UsbHalPort::Error error)
{
    switch (error) {
    case UsbHalPort::InvalidPortError:
        return UsbHalPort::tr("Port %1 cannot be opened so; give a number of 0 to 9999 and a mode "
                              "that reads or writes.");
    case UsbHalPort::AlreadyOpenError:
        return UsbHalPort::tr("Port %1 is open already; close it where it was opened.");
    case UsbHalPort::TooManyPortsError:
        return UsbHalPort::tr(
            "Port %1 could not be opened beside so many others; close one of them "
            "or raise ParamHal::maxClients, to 5 at most.");
    case UsbHalPort::NotRunningError:
        return UsbHalPort::tr("Port %1 could not be opened, because the communication with the "
                              "device does not start; open it again when no stop is under way.");
    case UsbHalPort::NotEnoughMemoryError:
        return UsbHalPort::tr("Port %1 could not be opened for want of memory; free some.");
    case UsbHalPort::HostLostError:
        return UsbHalPort::tr("Port %1 lost the USB host; check the cable and the host's program.");
    case UsbHalPort::TimeoutError:
        return UsbHalPort::tr("Port %1 waited in vain; wait longer or check the USB host.");
    case UsbHalPort::NoError:
        break;
    }
    return QString();
}
