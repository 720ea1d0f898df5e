// SPDX-License-Identifier: MIT
#ifndef NODEDAEMON_H
#define NODEDAEMON_H

#include "DependentProcess.h"
#include "FaultTable.h"

#include <SimNodeControl.h>

#include <QTemporaryDir>

#include <memory>

/** A simulated node that this process starts, serves itself with and may kill. One thread. */
class NodeDaemon
{
public:
    /** Throws std::runtime_error when the node does not start. */
    NodeDaemon();
    ~NodeDaemon();

    void start();
    void kill();
    bool isRunning() const { return _control != nullptr; }

    std::string folder() const { return _folder.path().toStdString(); }

    /** Throws std::runtime_error when the node does not take it. */
    void command(const std::string &text);
    /** How many such calls have arrived since the last reset. */
    int count(NodeCall call);
    int value(const char *key) { return std::stoi(_control->statusValue(key)); }

private:
    const QTemporaryDir _folder;
    DependentProcess _process;
    std::unique_ptr<SimNodeControl> _control;
};

#endif
