// SPDX-License-Identifier: MIT
#include "ScriptRunner.h"

namespace simnode {

void ScriptRunner::run(Node &node, Node::Time now)
{
    while (_next < _commands.size() && _resumeAt <= now) {
        const Command &command = _commands[_next++];
        if (command.subject == Subject::Wait)
            _resumeAt = now + std::chrono::milliseconds(command.quantity);
        else
            node.execute(command, now);
    }
}

std::optional<Node::Time> ScriptRunner::nextDeadline() const
{
    return _next < _commands.size() ? std::optional<Node::Time>(_resumeAt) : std::nullopt;
}

} // namespace simnode
