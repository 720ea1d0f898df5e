// SPDX-License-Identifier: MIT
#include "Campaign.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <fstream>
#include <malloc.h>
#include <random>
#include <unistd.h>

quint64 Campaign::scaled(quint64 fullCount)
{
    bool given = false;
    const uint scale = qEnvironmentVariable("USBHAL_SCALE").toUInt(&given);
    return qMax<quint64>(fullCount / (given && scale > 0 ? scale : 100), 1);
}

quint32 Campaign::seed()
{
    bool given = false;
    quint32 seed = qEnvironmentVariable("USBHAL_SEED").toUInt(&given);
    if (!given)
        seed = std::random_device()();
    std::cout << "USBHAL_SEED=" << seed << std::endl;
    return seed;
}

long Campaign::residentMemory()
{
    constexpr bool isEmulated = sizeof USBHAL_EMULATOR > 1;
    if (isEmulated) {
        const struct mallinfo2 heap = mallinfo2();
        return static_cast<long>((heap.uordblks + heap.hblkhd) / 1024);
    }
    std::ifstream file("/proc/self/statm");
    long total = 0;
    long resident = 0;
    file >> total >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

void Campaign::recordFigure(const std::string &what, double value)
{
    QFile file(qEnvironmentVariable("USBHAL_FIGURES"));
    if (file.fileName().isEmpty())
        return;
    const QJsonObject figure{{"figure", QString::fromStdString(what)}, {"value", value}};
    // Unbuffered, so that a line is one system call.
    const QByteArray line = QJsonDocument(figure).toJson(QJsonDocument::Compact) + '\n';
    if (!file.open(QIODevice::Append | QIODevice::Unbuffered) || file.write(line) != line.size())
        qFatal("cannot write %s: %s", qPrintable(file.fileName()), qPrintable(file.errorString()));
}

int Campaign::openDescriptors()
{
    // Less the one that reads the folder.
    return QDir("/proc/self/fd")
               .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)
               .size() -
           1;
}
