// SPDX-License-Identifier: MIT
#ifndef MANAGEROUTPUT_H
#define MANAGEROUTPUT_H

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>

/** Follows the file into which the connection manager prints. */
class ManagerOutput
{
public:
    /** A file that cannot be read yields no lines. */
    explicit ManagerOutput(const QString &path);

    /** The lines that were completed since the last call. */
    QStringList newLines();

private:
    QFile _file;
    QByteArray _partialLine;
};

#endif
