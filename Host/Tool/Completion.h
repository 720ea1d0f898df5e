// SPDX-License-Identifier: MIT
#ifndef USBHAL_COMPLETION_H
#define USBHAL_COMPLETION_H

#include <string>

namespace CLI {
class App;
}

/** The script that completes the program's command lines in bash. */
std::string bashCompletionOf(const CLI::App &application);

/** The function that completes the program's command lines in zsh. */
std::string zshCompletionOf(const CLI::App &application);

#endif
