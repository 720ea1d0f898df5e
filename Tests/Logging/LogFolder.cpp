// SPDX-License-Identifier: MIT
#include "LogFolder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

QStringList LogFolder::names() const
{
    return QDir(path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name);
}

QByteArray LogFolder::content(const QString &fileName) const
{
    QFile source(file(fileName));
    return source.open(QIODevice::ReadOnly) ? source.readAll() : QByteArray();
}

QStringList LogFolder::lines(const QString &fileName) const
{
    QStringList lines = QString::fromUtf8(content(fileName)).split('\n');
    lines.removeLast();
    return lines;
}

QStringList LogFolder::messages(const QString &fileName) const
{
    static const QRegularExpression head("^.*? \\[THREAD -?\\d+\\] \\[[^:]*:\\d+\\] ");
    return lines(fileName).replaceInStrings(head, QString());
}

int LogFolder::openDescriptors() const
{
    const QDir descriptors(QStringLiteral("/proc/self/fd"));
    int count = 0;
    const QStringList entries = descriptors.entryList(QDir::AllEntries | QDir::System);
    for (const QString &entry : entries) {
        if (QFile::symLinkTarget(descriptors.filePath(entry)).startsWith(path() + '/'))
            ++count;
    }
    return count;
}

bool LogFolder::write(const QString &fileName, const QByteArray &content) const
{
    QFile target(file(fileName));
    return target.open(QIODevice::WriteOnly) && target.write(content) == content.size();
}

bool LogFolder::obstruct(const QString &fileName) const
{
    return QDir().mkpath(file(fileName) + "/inner");
}

bool LogFolder::replaceByObstruction(const QString &fileName) const
{
    return QFile::remove(file(fileName)) && obstruct(fileName);
}

WorkingDirectory::WorkingDirectory(const QString &folder) : _former(QDir::currentPath())
{
    if (!QDir::setCurrent(folder))
        qFatal("the working directory cannot be changed");
}

WorkingDirectory::~WorkingDirectory()
{
    QDir::setCurrent(_former);
}
