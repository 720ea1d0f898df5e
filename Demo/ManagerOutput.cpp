// SPDX-License-Identifier: MIT
#include "ManagerOutput.h"

ManagerOutput::ManagerOutput(const QString &path) : _file(path)
{
    _file.open(QIODevice::ReadOnly | QIODevice::Unbuffered);
}

QStringList ManagerOutput::newLines()
{
    if (!_file.isOpen())
        return {};
    QList<QByteArray> parts = (_partialLine + _file.readAll()).split('\n');
    _partialLine = parts.takeLast();
    QStringList lines;
    for (const QByteArray &part : qAsConst(parts))
        lines << QString::fromUtf8(part);
    return lines;
}
