// SPDX-License-Identifier: MIT
#include "Completion.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <sstream>
#include <vector>

namespace {

// Without a filter CLI11 gives those commands alone that were on the command line.
std::vector<const CLI::App *> commandsOf(const CLI::App &application)
{
    return application.get_subcommands([](const CLI::App *) { return true; });
}

std::string optionWords(const CLI::App &command)
{
    std::string words;
    for (const CLI::Option *option : command.get_options()) {
        for (const std::string &name : option->get_lnames())
            words += (words.empty() ? "--" : " --") + name;
    }
    return words;
}

std::string zshEntry(const std::string &word, const std::string &description)
{
    return " '" + word + ":" + description + "'";
}

std::string zshOptions(const CLI::App &command)
{
    std::string entries;
    for (const CLI::Option *option : command.get_options()) {
        for (const std::string &name : option->get_lnames())
            entries += zshEntry("--" + name, option->get_description());
    }
    return entries;
}

} // namespace

std::string bashCompletionOf(const CLI::App &application)
{
    std::ostringstream names;
    std::ostringstream cases;
    // A command takes its own options and the program's; help is the first of both.
    const std::string own = optionWords(application);
    const std::string common = own.substr(own.find(' '));
    for (const CLI::App *command : commandsOf(application)) {
        names << (names.tellp() > 0 ? " " : "") << command->get_name();
        cases << "    " << command->get_name() << ") words=\"" << optionWords(*command) << common
              << "\" ;;\n";
    }
    std::string pattern = names.str();
    std::replace(pattern.begin(), pattern.end(), ' ', '|');
    return "# Completion of usbhal for bash; 'usbhal completion bash' prints it.\n_usbhal() {\n"
           "    local word=${COMP_WORDS[COMP_CWORD]} command='' words='' each\n"
           "    for each in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
           "        case $each in " +
           pattern + ") command=$each; break ;; esac\n    done\n    case $command in\n" +
           cases.str() + "    *) words=\"" + names.str() + ' ' + own +
           "\" ;;\n    esac\n    mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
           "    [ \"${#COMPREPLY[@]}\" -gt 0 ] || compopt -o default 2>/dev/null\n}\n"
           "complete -F _usbhal usbhal\n";
}

std::string zshCompletionOf(const CLI::App &application)
{
    std::ostringstream commands;
    std::ostringstream cases;
    for (const CLI::App *command : commandsOf(application)) {
        commands << zshEntry(command->get_name(), command->get_description());
        cases << "    " << command->get_name() << ") options+=(" << zshOptions(*command)
              << " ) ;;\n";
    }
    return "#compdef usbhal\n# Completion of usbhal for zsh; 'usbhal completion zsh' prints it.\n"
           "local -a commands options\ncommands=(" +
           commands.str() + " )\noptions=(" + zshOptions(application) +
           " )\nif (( CURRENT == 2 )); then\n    _describe command commands\nelse\n"
           "    case $words[2] in\n" +
           cases.str() + "    esac\n    _describe -o option options || _files\nfi\n";
}
