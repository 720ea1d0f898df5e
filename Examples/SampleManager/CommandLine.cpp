// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include "Service.h"

#include <QCommandLineParser>

namespace {

constexpr int wrongCommandLine = 2;
constexpr quint32 largestMilliseconds = 3600 * 1000;

struct NumberOption
{
    const char *name;
    const char *description;
    quint32 ParamHal::*field;
    quint32 minimum;
    quint32 maximum;
};

const NumberOption numberOptions[] = {
    {"max-read-size", "Largest transfer from the host, in bytes.", &ParamHal::maxReadSize, 14,
     65536},
    {"max-write-size", "Largest transfer to the host, in bytes.", &ParamHal::maxWriteSize, 14,
     65536},
    {"read-timeout", "Read time-out of the device node, in ms; 2000 at its first open.",
     &ParamHal::rdTimeout, 1, largestMilliseconds},
    {"write-timeout", "Write time-out of the device node, in ms; 2000 at its first open.",
     &ParamHal::wrTimeout, 1, largestMilliseconds},
    {"retries", "Failed reads or writes in a row that the link survives.", &ParamHal::nbRetry, 0,
     1000},
    {"main-loop-period", "Period of the watchdog, in ms.", &ParamHal::mainLoopPeriod, 1,
     largestMilliseconds},
    {"watchdog-errors", "Periods without progress before the library restarts its thread.",
     &ParamHal::maxWatchdogErrors, 1, 1000000},
    {"stop-timeout", "Longest wait for the library's thread to end, in ms.",
     &ParamHal::threadStopTimeout, 1, largestMilliseconds},
};

const char portHelp[] =
    "Service of one port, 1 to 5: N=echo, N=sink, N=source or N=file:SEND_PATH:RECEIVE_PATH. "
    "May be given for several ports.";

const char description[] =
    "Sample connection manager: opens ports 1 to 5 of /dev/brn7200 and serves each until SIGINT or "
    "SIGTERM.\n\n"
    "Services:\n"
    "  echo    sends back what it receives\n"
    "  sink    discards what it receives\n"
    "  source  on \"GIVE <count>\\n\" sends count bytes of the sequence 0, 1, ... 255, 0, ...\n"
    "  file    on \"SEND\\n\" sends \"FILE <n>\\n\" and the n bytes of SEND_PATH;\n"
    "          on \"FILE <n>\\n\" stores the n bytes that follow in RECEIVE_PATH and answers\n"
    "          \"STORED <n>\\n\"; \"ERROR <text>\\n\" when it cannot go on\n"
    "Defaults: 1=echo 2=sink 3=source 4=file:/etc/os-release:received.bin 5=echo";

// The first error found; empty while there is none.
class OptionReader
{
public:
    explicit OptionReader(const QCommandLineParser &parser) : _parser(parser) {}

    QString error() const { return _error; }

    void readSetting(const NumberOption &option, QVector<Setting> &settings)
    {
        if (!_parser.isSet(option.name))
            return;
        Setting setting{option.field, 0};
        readNumber(option.name, option.minimum, option.maximum, setting.value);
        settings.append(setting);
    }

    void readNumber(const QString &name, quint32 minimum, quint32 maximum, quint32 &value)
    {
        if (!_parser.isSet(name) || !_error.isEmpty())
            return;
        const QString text = _parser.value(name);
        const qint64 number = parseCount(text.toUtf8(), maximum);
        if (number < minimum) {
            _error = QString("--%1 needs a whole number from %2 to %3, not \"%4\"")
                         .arg(name)
                         .arg(minimum)
                         .arg(maximum)
                         .arg(text);
            return;
        }
        value = static_cast<quint32>(number);
    }

    void readPorts(QMap<int, ServiceOptions> &services)
    {
        const QStringList texts = _parser.values("port");
        for (const QString &text : texts) {
            if (!_readPort(text, services) && _error.isEmpty())
                _error = QString("--port needs N=echo, N=sink, N=source or "
                                 "N=file:SEND_PATH:RECEIVE_PATH with N from 1 to 5, not \"%1\"")
                             .arg(text);
        }
    }

private:
    static bool _readPort(const QString &text, QMap<int, ServiceOptions> &services)
    {
        if (text.size() < 3 || text[0] < '1' || text[0] > '5' || text[1] != '=')
            return false;
        return _readService(text.mid(2).split(':'), services[text[0].digitValue()]);
    }

    static bool _readService(const QStringList &parts, ServiceOptions &service)
    {
        static const QMap<QString, ServiceKind> plainKinds = {{"echo", ServiceKind::Echo},
                                                              {"sink", ServiceKind::Sink},
                                                              {"source", ServiceKind::Source}};
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

    const QCommandLineParser &_parser;
    QString _error;
};

QMap<int, ServiceOptions> defaultServices()
{
    return {{1, {ServiceKind::Echo}},
            {2, {ServiceKind::Sink}},
            {3, {ServiceKind::Source}},
            {4, {ServiceKind::File, "/etc/os-release", "received.bin"}},
            {5, {ServiceKind::Echo}}};
}

void declareOptions(QCommandLineParser &parser)
{
    parser.setApplicationDescription(description);
    parser.addHelpOption();
    parser.addOption({"port", portHelp, "N=SERVICE"});
    parser.addOption(
        {"log-dir", "Folder of the library's log files, default: the working directory.", "DIR"});
    parser.addOption({"wait", "Longest wait for the host at the start, in ms.", "NUMBER"});
    for (const NumberOption &option : numberOptions)
        parser.addOption({option.name, option.description, "NUMBER"});
}

CommandLine wrong(const QString &program, const QString &error)
{
    CommandLine result;
    result.text = QString("%1: %2\nTry \"%1 --help\".\n").arg(program, error);
    result.exitStatus = wrongCommandLine;
    return result;
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
    const QString program = arguments.value(0).section('/', -1);
    QCommandLineParser parser;
    declareOptions(parser);
    if (!parser.parse(arguments))
        return wrong(program, parser.errorText());
    if (!parser.positionalArguments().isEmpty())
        return wrong(program, "unexpected argument \"" + parser.positionalArguments().first() +
                                  "\"; everything is given by options");
    CommandLine result;
    if (parser.isSet("help")) {
        result.text = parser.helpText();
        return result;
    }
    result.options.services = defaultServices();
    result.options.logDir = parser.value("log-dir");

    OptionReader reader(parser);
    for (const NumberOption &option : numberOptions)
        reader.readSetting(option, result.options.settings);
    auto firstWait = static_cast<quint32>(result.options.firstWait);
    reader.readNumber("wait", 0, largestMilliseconds, firstWait);
    result.options.firstWait = static_cast<int>(firstWait);
    reader.readPorts(result.options.services);
    if (!reader.error().isEmpty())
        return wrong(program, reader.error());
    result.run = true;
    return result;
}
