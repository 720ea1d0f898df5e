// SPDX-License-Identifier: MIT
#ifndef SIMNODE_PROGRAM_H
#define SIMNODE_PROGRAM_H

#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <vector>

namespace simnode {

/// Thrown for a program that cannot be started; holds a text for the user.
struct CannotRun : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

/// Path of the preload library: $SIMNODE_PRELOAD, or its place beside this executable, in the build
/// or installed. Throws std::runtime_error if there is none.
std::string findPreloadLibrary();

/// Starts a program whose calls on the node go to the daemon in `directory`. Returns its process
/// id; throws CannotRun if it cannot be started. The program is killed when the calling thread
/// ends, however that happens.
pid_t startProgram(const std::vector<std::string> &commandLine, const std::string &directory,
                   const std::string &preloadLibrary);

} // namespace simnode

#endif
