// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include "Protocol.h"

#include <QCommandLineParser>
#include <QFileInfo>

namespace {

constexpr int wrongCommandLine = 2;
constexpr int smallestWrite = static_cast<int>(usbhalhost::headerSize) + 1;
constexpr int largestWrite = 65536;

const char description[] =
    "Plays the USB host of a simulated node: exchanges one file each way with the file service of "
    "each named port, pulls the cable, puts it back, and exchanges the files once more. Exit "
    "status 0 when every file arrived unchanged.";

CommandLine wrong(const QString &program, const QString &error)
{
    CommandLine result;
    result.text = QString("%1: %2\nTry \"%1 --help\".\n").arg(program, error);
    result.exitStatus = wrongCommandLine;
    return result;
}

void declareOptions(QCommandLineParser &parser)
{
    parser.setApplicationDescription(description);
    parser.addHelpOption();
    parser.addOption({"node", "Folder of the simulated node.", "DIR"});
    parser.addOption({"port",
                      "Files of one port: TO_DEVICE is sent, TO_HOST is the file that the service "
                      "sends, STORED is where it stores what it receives. Once for each port.",
                      "N=TO_DEVICE:TO_HOST:STORED"});
    parser.addOption({"manager-output",
                      "File with the output of the connection manager, shown as it grows and "
                      "waited upon.",
                      "FILE"});
    parser.addOption(
        {"device-max-write", "Largest transfer of the device in bytes, default 10000.", "BYTES"});
}

// Each reader returns what is wrong, and an empty text when nothing is.
QString readPort(const QString &text, QVector<PortFiles> &ports)
{
    QString expected =
        QString("--port needs N=TO_DEVICE:TO_HOST:STORED with N from 0 to %1, not \"%2\"")
            .arg(usbhalhost::maxPort)
            .arg(text);
    const int equals = text.indexOf('=');
    bool ok = false;
    const int port = text.left(equals).toInt(&ok);
    const QStringList files = text.mid(equals + 1).split(':');
    if (equals < 1 || !ok || port < 0 || port > usbhalhost::maxPort || files.size() != 3)
        return expected;
    if (files[2].isEmpty())
        return expected;
    for (const QString &file : {files[0], files[1]}) {
        if (!QFileInfo(file).isFile())
            return QString("--port %1: there is no file \"%2\"").arg(port).arg(file);
    }
    for (const PortFiles &other : qAsConst(ports)) {
        if (other.port == port)
            return QString("--port is given twice for port %1").arg(port);
    }
    ports.append({port, files[0], files[1], files[2]});
    return QString();
}

QString readDeviceMaxWrite(const QCommandLineParser &parser, int &value)
{
    if (!parser.isSet("device-max-write"))
        return QString();
    const QString text = parser.value("device-max-write");
    bool ok = false;
    const int number = text.toInt(&ok);
    if (!ok || number < smallestWrite || number > largestWrite)
        return QString("--device-max-write needs a whole number from %1 to %2, not \"%3\"")
            .arg(smallestWrite)
            .arg(largestWrite)
            .arg(text);
    value = number;
    return QString();
}

QString readOptions(const QCommandLineParser &parser, Options &options)
{
    if (!parser.positionalArguments().isEmpty())
        return "unexpected argument \"" + parser.positionalArguments().first() +
               "\"; everything is given by options";
    if (parser.value("node").isEmpty())
        return "--node DIR is missing";
    options.socketPath = parser.value("node") + "/host";
    options.managerOutput = parser.value("manager-output");
    const QFileInfo managerOutput(options.managerOutput);
    if (!managerOutput.isFile() || !managerOutput.isReadable())
        return "--manager-output needs a file that can be read, not \"" + options.managerOutput +
               '"';
    const QStringList ports = parser.values("port");
    if (ports.isEmpty())
        return "at least one --port N=TO_DEVICE:TO_HOST:STORED is needed";
    for (const QString &port : ports) {
        QString error = readPort(port, options.ports);
        if (!error.isEmpty())
            return error;
    }
    return readDeviceMaxWrite(parser, options.deviceMaxWrite);
}

} // namespace

CommandLine parseCommandLine(const QStringList &arguments)
{
    const QString program = arguments.value(0).section('/', -1);
    QCommandLineParser parser;
    declareOptions(parser);
    if (!parser.parse(arguments))
        return wrong(program, parser.errorText());
    CommandLine result;
    if (parser.isSet("help")) {
        result.text = parser.helpText();
        return result;
    }
    const QString error = readOptions(parser, result.options);
    if (!error.isEmpty())
        return wrong(program, error);
    result.run = true;
    return result;
}
