// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include <ProgramOptions.h>

namespace {

using programoptions::addNumber;

constexpr quint32 largestMilliseconds = 3600 * 1000;
constexpr qint64 largestFileSize = qint64(1) << 40;

struct NumberOption
{
    const char *name;
    const char *help;
    quint32 ParamHal::*field;
    quint32 value; // by default
    quint32 minimum;
    quint32 maximum;
};

// The library's own defaults, but for the stop's: a silent read lasts up to 3 s, time-out and
// pause, and a shorter wait would kill the thread.
const NumberOption numberOptions[] = {
    {"--max-read-size", "Largest transfer from the host, in bytes", &ParamHal::maxReadSize, 10000,
     14, 65536},
    {"--max-write-size", "Largest transfer to the host, in bytes", &ParamHal::maxWriteSize, 10000,
     14, 65536},
    {"--read-timeout", "Read time-out of the device node, in ms; at its first open 2000",
     &ParamHal::rdTimeout, 2000, 1, largestMilliseconds},
    {"--write-timeout", "Write time-out of the device node, in ms; at its first open 2000",
     &ParamHal::wrTimeout, 2000, 1, largestMilliseconds},
    {"--retries", "Failed reads or writes in a row that the link survives", &ParamHal::nbRetry, 4,
     0, 1000},
    {"--main-loop-period", "Period of the watchdog, in ms", &ParamHal::mainLoopPeriod, 100, 1,
     largestMilliseconds},
    {"--watchdog-errors", "Periods without progress before the library restarts its thread",
     &ParamHal::maxWatchdogErrors, 40, 1, 1000000},
    {"--stop-timeout", "Longest wait for the library's thread to end, in ms",
     &ParamHal::threadStopTimeout, 4000, 1, largestMilliseconds},
};

const char portHelp[] =
    "Service of one port, 1 to 5, which is N=echo, N=sink, N=source or "
    "N=file:SEND_PATH:RECEIVE_PATH; may be given for several ports; by default 1=echo 2=sink "
    "3=source 4=file:/etc/os-release:received.bin 5=echo";

const char description[] =
    "Sample connection manager: waits for the device node /dev/brn7200, opens ports 1 to 5 and "
    "serves "
    "each until SIGINT or SIGTERM.\n\n"
    "Services:\n"
    "  echo    sends back what it receives\n"
    "  sink    discards what it receives\n"
    "  source  on \"GIVE <count>\\n\" sends count bytes of the sequence 0, 1, ... 255, 0, ...\n"
    "  file    on \"SEND\\n\" sends \"FILE <n>\\n\" and the n bytes of SEND_PATH;\n"
    "          on \"FILE <n>\\n\" stores the n bytes that follow in RECEIVE_PATH and answers\n"
    "          \"STORED <n>\\n\"; what cannot be done is answered by \"ERROR <text>\\n\"";

bool readService(const QStringList &parts, ServiceOptions &service)
{
    static const QMap<QString, ServiceKind> plainKinds = {
        {"echo", ServiceKind::Echo}, {"sink", ServiceKind::Sink}, {"source", ServiceKind::Source}};
    if (parts.size() == 1 && plainKinds.contains(parts[0])) {
        service = {plainKinds[parts[0]]};
        return true;
    }
    const bool isFile = parts.size() == 3 && parts[0] == "file";
    if (!isFile || parts[1].isEmpty() || parts[2].isEmpty())
        return false;
    service = {ServiceKind::File, parts[1], parts[2]};
    return true;
}

bool readPort(const QString &text, QMap<int, ServiceOptions> &services)
{
    if (text.size() < 3 || text[0] < '1' || text[0] > '5' || text[1] != '=')
        return false;
    return readService(text.mid(2).split(':'), services[text[0].digitValue()]);
}

void readPorts(const std::vector<std::string> &texts, QMap<int, ServiceOptions> &services)
{
    for (const std::string &text : texts) {
        if (!readPort(QString::fromStdString(text), services))
            programoptions::refuse("--port",
                                   "N=echo, N=sink, N=source or N=file:SEND_PATH:RECEIVE_PATH with "
                                   "N from 1 to 5",
                                   text);
    }
}

Options defaultOptions()
{
    Options options;
    options.services = {{1, {ServiceKind::Echo}},
                        {2, {ServiceKind::Sink}},
                        {3, {ServiceKind::Source}},
                        {4, {ServiceKind::File, "/etc/os-release", "received.bin"}},
                        {5, {ServiceKind::Echo}}};
    for (const NumberOption &option : numberOptions)
        options.settings.append({option.field, option.value});
    return options;
}

void declareTexts(CLI::App &application, Options &options)
{
    application
        .add_option_function<std::vector<std::string>>(
            "--port",
            [&options](const auto &texts) {
                readPorts(texts, options.services);
                return true;
            },
            portHelp)
        ->type_name("N=SERVICE")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    application
        .add_option_function<std::string>(
            "--log-dir",
            [&options](const std::string &text) { options.logDir = QString::fromStdString(text); },
            "Folder of the library's log files")
        ->type_name("DIR")
        ->default_str("the working directory");
}

void declareNumbers(CLI::App &application, Options &options)
{
    addNumber(application, "--max-file-size", options.largestFile, 0, largestFileSize,
              "Largest file that the host may have stored, in bytes");
    addNumber(application, "--wait", options.firstWait, 0, largestMilliseconds,
              "Time after which it is told that no host has come, in ms");
    addNumber(application, "--silence", options.silenceLimit, 1, largestMilliseconds,
              "Time without a message after which it is told that the link is silent, in ms");
    for (int i = 0; i < options.settings.size(); ++i) {
        const NumberOption &option = numberOptions[i];
        addNumber(application, option.name, options.settings[i].value, option.minimum,
                  option.maximum, option.help);
    }
}

} // namespace

void Options::applyTo(ParamHal &param) const
{
    param.logDir = logDir;
    for (const Setting &setting : settings)
        param.*setting.field = setting.value;
}

CommandLine parseCommandLine(const QStringList &arguments)
{
    std::vector<std::string> words;
    for (const QString &argument : arguments)
        words.push_back(argument.toStdString());
    CommandLine result;
    result.options = defaultOptions();
    CLI::App application(description, arguments.value(0).section('/', -1).toStdString());
    programoptions::prepare(application);
    declareTexts(application, result.options);
    application.add_flag("--verbose", result.options.verbose, "Print every message, too");
    declareNumbers(application, result.options);
    if (const auto ending = programoptions::parse(application, words)) {
        result.text = QString::fromStdString(ending->text);
        result.exitStatus = ending->status;
        return result;
    }
    result.run = true;
    return result;
}
