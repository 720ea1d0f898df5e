// SPDX-License-Identifier: MIT
#ifndef FACADEFIXTURE_H
#define FACADEFIXTURE_H

#include "HostEnd.h"

#include <SignalRecorder.h>
#include <SimNodeControl.h>
#include <UsbHalIntf.h>

#include <QTemporaryDir>

/**
 * The facade of this process over the simulated node that serves it, with a host at the far end.
 */
class FacadeFixture
{
public:
    FacadeFixture()
        : facade(UsbHALIntf::getInstance()),
          node(SimNodeControl::directoryFromEnvironment()),
          host(SimNodeControl::directoryFromEnvironment()),
          signalsSeen(facade)
    {
    }
    ~FacadeFixture() { facade->stop(); }

    /** The node takes its time-outs at its second open; a link is lost at the second silence. */
    ParamHal testSetup() const
    {
        ParamHal param;
        facade->getDefaultSetup(param);
        param.rdTimeout = 200;
        param.nbRetry = 1;
        // More than a silent read takes, so that no thread is killed.
        param.threadStopTimeout = 8000;
        param.logDir = logFolder.path();
        return param;
    }

    bool configure() { return facade->setupConfig(testSetup()); }

    /** Configures, opens the ports and waits for a link with the host plugged in. */
    bool connectPorts(const QList<int> &ports)
    {
        configure();
        for (const int port : ports) {
            if (!facade->openConnection(port))
                return false;
        }
        host.plugIn();
        return facade->waitForConnected(20000) && signalsSeen.waitFor("connected");
    }

    bool command(const std::string &text) { return node.command(text) == "ok"; }

    UsbHALIntf *const facade;
    const QTemporaryDir logFolder;
    SimNodeControl node;
    HostEnd host;
    SignalRecorder signalsSeen;
};

#endif
