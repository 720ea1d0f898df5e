// SPDX-License-Identifier: MIT
#include "NodeDaemon.h"

#include <stdexcept>

namespace {

constexpr int startTimeout = 20000; // ms

} // namespace

NodeDaemon::NodeDaemon()
{
    qputenv("SIMNODE_DIR", _folder.path().toUtf8());
    start();
}

NodeDaemon::~NodeDaemon()
{
    kill();
}

void NodeDaemon::start()
{
    _process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    startBuilt(_process, SIMNODE_PROGRAM, {"serve", "--dir", _folder.path()});
    if (!_process.waitForReadyRead(startTimeout))
        throw std::runtime_error("the simulated node did not start");
    _process.readAllStandardOutput();
    _control = std::make_unique<SimNodeControl>(folder());
}

void NodeDaemon::kill()
{
    _control.reset();
    _process.kill();
    _process.waitForFinished(startTimeout);
}

void NodeDaemon::command(const std::string &text)
{
    const std::string answer = _control->command(text);
    if (answer.compare(0, 2, "ok") != 0)
        throw std::runtime_error("the node does not take \"" + text + "\": " + answer);
}

int NodeDaemon::count(NodeCall call)
{
    switch (call) {
    case NodeCall::None:
        break;
    case NodeCall::Open:
        return value("opens");
    case NodeCall::Read:
        return value("reads");
    case NodeCall::Write:
        return value("writes");
    }
    return 0;
}
