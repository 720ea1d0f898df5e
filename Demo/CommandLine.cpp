// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include "Protocol.h"

#include <ProgramOptions.h>

#include <QFileInfo>

namespace {

constexpr int smallestWrite = static_cast<int>(hostpeer::headerSize) + 1;
constexpr int largestWrite = 65536;

const char description[] =
    "Plays the USB host of a simulated node: exchanges one file each way with the file service of "
    "each named port, pulls the cable, puts it back, and exchanges the files once more. Exit "
    "status 0 when every file arrived unchanged.";

void refusePort(const std::string &text)
{
    programoptions::refuse(
        "--port",
        "N=TO_DEVICE:TO_HOST:STORED with N from 0 to " + std::to_string(hostpeer::maxPort), text);
}

void addPort(const PortFiles &files, QVector<PortFiles> &ports)
{
    for (const QString &file : {files.toDevice, files.toHost}) {
        if (!QFileInfo(file).isFile())
            programoptions::refuse("--port", "files that are there", file.toStdString());
    }
    for (const PortFiles &other : qAsConst(ports)) {
        if (other.port == files.port)
            throw CLI::ValidationError("--port",
                                       "is given twice for port " + std::to_string(files.port));
    }
    ports.append(files);
}

void readPort(const std::string &text, QVector<PortFiles> &ports)
{
    const QString whole = QString::fromStdString(text);
    const int equals = whole.indexOf('=');
    bool ok = false;
    const int port = whole.left(equals).toInt(&ok);
    const QStringList files = whole.mid(equals + 1).split(':');
    if (equals < 1 || !ok || port < 0 || port > hostpeer::maxPort || files.size() != 3 ||
        files[2].isEmpty())
        refusePort(text);
    addPort({port, files[0], files[1], files[2]}, ports);
}

void readManagerOutput(const std::string &text, Options &options)
{
    options.managerOutput = QString::fromStdString(text);
    const QFileInfo file(options.managerOutput);
    if (!file.isFile() || !file.isReadable())
        programoptions::refuse("--manager-output", "a file that can be read", text);
}

void declareFiles(CLI::App &application, Options &options)
{
    application
        .add_option_function<std::string>(
            "--node",
            [&options](const std::string &text) {
                options.socketPath = QString::fromStdString(text) + "/host";
            },
            "Folder of the simulated node")
        ->type_name("DIR")
        ->required();
    application
        .add_option_function<std::string>(
            "--manager-output",
            [&options](const std::string &text) { readManagerOutput(text, options); },
            "File with the output of the connection manager, shown as it grows and waited upon")
        ->type_name("FILE")
        ->required();
}

void declarePorts(CLI::App &application, Options &options)
{
    application
        .add_option_function<std::vector<std::string>>(
            "--port",
            [&options](const auto &texts) {
                for (const std::string &text : texts)
                    readPort(text, options.ports);
            },
            "Files of one port: TO_DEVICE is sent, TO_HOST is the file that the service sends, "
            "STORED is where it stores what it receives; once for each port")
        ->type_name("N=TO_DEVICE:TO_HOST:STORED")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->required();
    programoptions::addNumber(application, "--device-max-write", options.deviceMaxWrite,
                              smallestWrite, largestWrite,
                              "Largest transfer of the device, in bytes");
}

} // namespace

CommandLine parseCommandLine(const QStringList &arguments)
{
    std::vector<std::string> words;
    for (const QString &argument : arguments)
        words.push_back(argument.toStdString());
    CommandLine result;
    CLI::App application(description, arguments.value(0).section('/', -1).toStdString());
    programoptions::prepare(application);
    declareFiles(application, result.options);
    declarePorts(application, result.options);
    if (const auto ending = programoptions::parse(application, words)) {
        result.text = QString::fromStdString(ending->text);
        result.exitStatus = ending->status;
        return result;
    }
    result.run = true;
    return result;
}
