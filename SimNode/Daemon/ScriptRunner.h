// SPDX-License-Identifier: MIT
#ifndef SIMNODE_SCRIPTRUNNER_H
#define SIMNODE_SCRIPTRUNNER_H

#include "Command.h"
#include "Node.h"

#include <optional>
#include <vector>

namespace simnode {

/// Feeds a script's commands to the node, each when its time has come.
class ScriptRunner
{
public:
    explicit ScriptRunner(std::vector<Command> commands) : _commands(std::move(commands)) {}

    /// Executes all commands up to the next `wait` that is not over.
    void run(Node &node, Node::Time now);
    /// When run() has work again; nothing after the last command.
    std::optional<Node::Time> nextDeadline() const;

private:
    std::vector<Command> _commands;
    std::size_t _next = 0;
    Node::Time _resumeAt{};
};

} // namespace simnode

#endif
