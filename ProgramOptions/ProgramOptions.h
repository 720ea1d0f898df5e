// SPDX-License-Identifier: MIT
#ifndef PROGRAMOPTIONS_H
#define PROGRAMOPTIONS_H

#include <CLI/CLI.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/**
 * What the command lines of all programs have in common: --help with the defaults, --version, and
 * errors of two lines, which name the wrong word and point to --help.
 */
namespace programoptions {

constexpr int exitUsage = 2;

/** The end of a program that its command line does not let run. */
struct Ending
{
    /** Writes the text, to standard error when it tells of a wrong command line. */
    void print() const;

    std::string text;
    int status = 0;
};

/** Call it before options and subcommands are added. */
void prepare(CLI::App &application);

/** Reads the words, of which the first is the program's. No ending means: run. */
std::optional<Ending> parse(CLI::App &application, const std::vector<std::string> &words);

/** The ending for an error that the program itself has found in what it was given. */
Ending wrongUsage(const CLI::App &application, const std::string &error);

/** The error of an option, for the functions that take its text. */
[[noreturn]] void refuse(const std::string &option, const std::string &need,
                         const std::string &text);

/** The number that the text is, in decimal and without sign; refuses all others. */
std::int64_t wholeNumber(const std::string &option, const std::string &text, std::int64_t minimum,
                         std::int64_t maximum);

/** Adds an option whose value is a whole number; what it is now stands in --help. */
template <typename Number>
CLI::Option *addNumber(CLI::App &application, const std::string &name, Number &value,
                       std::int64_t minimum, std::int64_t maximum, const std::string &help)
{
    const auto take = [&value, name, minimum, maximum](const std::string &text) {
        value = static_cast<Number>(wholeNumber(name, text, minimum, maximum));
    };
    return application.add_option_function<std::string>(name, take, help)
        ->type_name("NUMBER")
        ->default_str(std::to_string(value));
}

/** The same for seconds, which may have decimals. */
CLI::Option *addSeconds(CLI::App &application, const std::string &name, double &value,
                        double maximum, const std::string &help);

/** Adds an option that is one of some words. */
CLI::Option *addChoice(CLI::App &application, const std::string &name, std::string &value,
                       const std::vector<std::string> &choices, const std::string &help);

} // namespace programoptions

#endif
