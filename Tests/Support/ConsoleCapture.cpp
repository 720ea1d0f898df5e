// SPDX-License-Identifier: MIT
#include "ConsoleCapture.h"

#include <QFile>

#include <cstdio>
#include <iostream>
#include <unistd.h>

namespace {

void flushStreams()
{
    std::cout.flush();
    std::fflush(stdout);
}

} // namespace

ConsoleCapture::ConsoleCapture()
{
    flushStreams();
    _console = ::dup(STDOUT_FILENO);
    if (!_file.open() || _console < 0 || ::dup2(_file.handle(), STDOUT_FILENO) < 0)
        qFatal("standard output cannot be captured");
}

ConsoleCapture::~ConsoleCapture()
{
    finish();
}

// Without a flush of std::cout: the logger has to flush its lines itself.
QByteArray ConsoleCapture::text()
{
    QFile file(_file.fileName());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray ConsoleCapture::finish()
{
    if (_console >= 0) {
        flushStreams();
        ::dup2(_console, STDOUT_FILENO);
        ::close(_console);
        _console = -1;
    }
    return text();
}
