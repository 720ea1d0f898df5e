// SPDX-License-Identifier: MIT
#include "ProgramOptions.h"

#include <algorithm>
#include <charconv>
#include <iostream>
#include <sstream>

namespace programoptions {

namespace {

constexpr std::size_t nameWidth = 30;
constexpr std::size_t textWidth = 66;

std::string quoted(const std::string &text)
{
    return '"' + text + '"';
}

// The words of a text in lines of a width; its own ends of line stay.
std::string wrapped(const std::string &text, std::size_t width)
{
    std::string result;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        while (line.size() > width) {
            const std::size_t blank = line.rfind(' ', width);
            if (blank == std::string::npos || blank == 0)
                break;
            result += line.substr(0, blank) + '\n';
            line.erase(0, blank + 1);
        }
        result += line + '\n';
    }
    if (!result.empty())
        result.pop_back();
    return result;
}

// An option's default stands behind its description and not, like an assignment, behind its name.
class Formatter : public CLI::Formatter
{
public:
    Formatter() { column_width(nameWidth); }

    std::string make_description(const CLI::App *application) const override
    {
        return wrapped(application->get_description(), nameWidth + textWidth) + "\n\n";
    }

    std::string make_option_opts(const CLI::Option *option) const override
    {
        const bool hasType = option->get_type_size() != 0 && !option->get_positional();
        return hasType ? ' ' + option->get_type_name() : "";
    }

    std::string make_option_desc(const CLI::Option *option) const override
    {
        std::string text = option->get_description();
        if (!option->get_default_str().empty())
            text += "; by default " + option->get_default_str();
        else if (option->get_required() && !option->get_positional())
            text += "; required";
        return wrapped(text, textWidth);
    }
};

const CLI::App &chosenCommand(const CLI::App &application)
{
    const std::vector<CLI::App *> commands = application.get_subcommands();
    return commands.empty() ? application : *commands.front();
}

std::string fullName(const CLI::App &application)
{
    const CLI::App &command = chosenCommand(application);
    const std::string name = application.get_name();
    return &command == &application ? name : name + ' ' + command.get_name();
}

std::string commandsOf(const CLI::App &application)
{
    std::string names;
    for (const CLI::App *command :
         application.get_subcommands([](const CLI::App *) { return true; }))
        names += (names.empty() ? "" : ", ") + command->get_name();
    return names;
}

// The first word that means nothing to the parser. It returns the mark between options and
// arguments, too.
std::optional<std::string> unknownWord(const CLI::App &application)
{
    const std::vector<std::string> words = application.remaining(true);
    const auto found = std::find_if(words.begin(), words.end(),
                                    [](const std::string &word) { return word != "--"; });
    return found == words.end() ? std::nullopt : std::optional(*found);
}

std::string whyUnknown(const CLI::App &application, const std::string &word)
{
    const std::string commands = commandsOf(application);
    if (word.size() > 1 && word[0] == '-')
        return "there is no option " + quoted(word);
    if (!commands.empty() && application.get_subcommands().empty())
        return "there is no command " + quoted(word) + ", it should be one of " + commands;
    return "unexpected argument " + quoted(word);
}

// Of the parser's texts only the option's name is of use, and what our own functions say behind it.
std::string reasonOf(const CLI::ParseError &error)
{
    const std::string text = error.what();
    const std::size_t dashes = text.find("--");
    const std::size_t begin = dashes == std::string::npos ? 0 : dashes;
    const std::size_t end = text.find_first_of(": ", begin);
    const std::string name = text.substr(begin, end - begin);
    if (dynamic_cast<const CLI::RequiredError *>(&error) != nullptr)
        return name + " is missing";
    if (dynamic_cast<const CLI::ArgumentMismatch *>(&error) != nullptr)
        return name + " needs a value";
    if (dynamic_cast<const CLI::ValidationError *>(&error) != nullptr && end != std::string::npos)
        return name + text.substr(end + 1);
    return name + " takes no value";
}

Ending endingOf(const CLI::App &application, const CLI::ParseError &error)
{
    if (dynamic_cast<const CLI::Success *>(&error) != nullptr) {
        std::ostringstream text;
        application.exit(error, text, text);
        return {text.str(), 0};
    }
    // A misspelt option is the reason for the one that is missing.
    const std::optional<std::string> unknown = unknownWord(application);
    return wrongUsage(application, unknown ? whyUnknown(application, *unknown) : reasonOf(error));
}

} // namespace

void Ending::print() const
{
    (status == 0 ? std::cout : std::cerr) << text << std::flush;
}

void prepare(CLI::App &application)
{
    application.formatter(std::make_shared<Formatter>());
    application.allow_extras();
    application.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    application.set_help_flag("-h,--help", "Print this text and exit");
    application.set_version_flag("--version", application.get_name() + " " PROGRAM_VERSION,
                                 "Print the version and exit");
}

std::optional<Ending> parse(CLI::App &application, const std::vector<std::string> &words)
{
    // The parser takes them from the end.
    std::vector<std::string> arguments(words.rbegin(),
                                       words.empty() ? words.rend() : std::prev(words.rend()));
    try {
        application.parse(arguments);
    } catch (const CLI::ParseError &error) {
        return endingOf(application, error);
    }
    if (const std::optional<std::string> unknown = unknownWord(application))
        return wrongUsage(application, whyUnknown(application, *unknown));
    const std::string commands = commandsOf(application);
    if (!commands.empty() && application.get_subcommands().empty())
        return wrongUsage(application, "the command is missing, it should be one of " + commands);
    return std::nullopt;
}

Ending wrongUsage(const CLI::App &application, const std::string &error)
{
    return {application.get_name() + ": " + error + "\nTry " +
                quoted(fullName(application) + " --help") + ".\n",
            exitUsage};
}

void refuse(const std::string &option, const std::string &need, const std::string &text)
{
    throw CLI::ValidationError(option, "needs " + need + ", not " + quoted(text));
}

std::int64_t wholeNumber(const std::string &option, const std::string &text, std::int64_t minimum,
                         std::int64_t maximum)
{
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    std::int64_t number = 0;
    const char *const end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, number);
    if (!std::all_of(text.begin(), text.end(), isDigit) || result.ec != std::errc() ||
        result.ptr != end || number < minimum || number > maximum)
        refuse(option,
               "a whole number from " + std::to_string(minimum) + " to " + std::to_string(maximum),
               text);
    return number;
}

CLI::Option *addSeconds(CLI::App &application, const std::string &name, double &value,
                        double maximum, const std::string &help)
{
    const auto take = [&value, name, maximum](const std::string &text) {
        double seconds = 0;
        const char *const end = text.data() + text.size();
        const std::from_chars_result result = std::from_chars(text.data(), end, seconds);
        const bool isInRange = seconds >= 0 && seconds <= maximum; // which "nan" is not
        if (result.ec != std::errc() || result.ptr != end || !isInRange)
            refuse(name, "seconds from 0 to " + CLI::detail::to_string(maximum), text);
        value = seconds;
    };
    return application.add_option_function<std::string>(name, take, help)
        ->type_name("SECONDS")
        ->default_str(CLI::detail::to_string(value));
}

CLI::Option *addChoice(CLI::App &application, const std::string &name, std::string &value,
                       const std::vector<std::string> &choices, const std::string &help)
{
    const auto take = [&value, name, choices](const std::string &text) {
        if (std::find(choices.begin(), choices.end(), text) == choices.end())
            refuse(name, CLI::detail::join(choices, " or "), text);
        value = text;
    };
    return application.add_option_function<std::string>(name, take, help)
        ->type_name(CLI::detail::join(choices, "|"))
        ->default_str(value);
}

} // namespace programoptions
