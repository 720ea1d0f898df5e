// SPDX-License-Identifier: MIT
#include "CommandLine.h"
#include "Demo.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const CommandLine commandLine = parseCommandLine(QCoreApplication::arguments());
    if (!commandLine.run) {
        std::fputs(qPrintable(commandLine.text), commandLine.exitStatus == 0 ? stdout : stderr);
        return commandLine.exitStatus;
    }
    Demo demo(commandLine.options);
    return demo.run() ? 0 : 1;
}
