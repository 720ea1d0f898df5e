// SPDX-License-Identifier: MIT
#ifndef SIMNODE_PROGRAM_H
#define SIMNODE_PROGRAM_H

#include <filesystem>
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

/// The preload library under a path that the loader takes as one: it ends a path at a blank and at
/// a colon, so a library with such a path gets a link in a new folder, which goes with this object.
/// Throws std::runtime_error for a library that cannot be loaded, and where no link can be made.
class PreloadPath
{
public:
    explicit PreloadPath(const std::string &preloadLibrary);
    ~PreloadPath();
    PreloadPath(const PreloadPath &) = delete;
    PreloadPath &operator=(const PreloadPath &) = delete;

    const std::string &get() const { return _path; }

private:
    std::string _path;
    std::filesystem::path _linkFolder;
};

/// Starts a program whose calls on the node go to the daemon in `directory`. Returns its process
/// id; throws CannotRun if it cannot be started. The program is killed when the calling thread
/// ends, however that happens.
pid_t startProgram(const std::vector<std::string> &commandLine, const std::string &directory,
                   const std::string &preloadLibrary);

} // namespace simnode

#endif
