// SPDX-License-Identifier: MIT
#include "Report.h"

#include "Protocol.h"

#include <QStringList>

#include <algorithm>

namespace {

// The device pauses 10 ms after each read and 10 ms after each write.
constexpr double cycle = 0.020; // s

double rateOf(qint64 bytes, qint64 milliseconds)
{
    return milliseconds > 0
               ? 1000.0 * static_cast<double>(bytes) / static_cast<double>(milliseconds)
               : 0;
}

QString seconds(qint64 milliseconds)
{
    return QString::number(static_cast<double>(milliseconds) / 1000, 'f', 2);
}

QString whole(double number)
{
    return QString::number(number, 'f', 0);
}

QString row(const QStringList &cells)
{
    static const int widths[] = {4, 16, 7, 7, 14, 7, 7, 7};
    QString text;
    for (int i = 0; i < cells.size(); ++i)
        text += cells[i].rightJustified(widths[i] + 2);
    return text;
}

QString portRow(const PortResult &result)
{
    const FlowResult &out = result.toDevice;
    const FlowResult &in = result.toHost;
    const bool equal = out.sumsEqual && in.sumsEqual;
    return row({QString::number(result.port), QString::number(out.bytes), seconds(out.milliseconds),
                whole(rateOf(out.bytes, out.milliseconds)), QString::number(in.bytes),
                seconds(in.milliseconds), whole(rateOf(in.bytes, in.milliseconds)),
                equal ? "equal" : "DIFFER"});
}

// All ports as one flow: their bytes together, until the last byte of the last of them.
FlowResult sumOf(const QVector<PortResult> &results, FlowResult PortResult::*direction)
{
    FlowResult sum;
    for (const PortResult &result : results) {
        const FlowResult &flow = result.*direction;
        sum.bytes += flow.bytes;
        sum.milliseconds = std::max(sum.milliseconds, flow.milliseconds);
    }
    return sum;
}

QString totalLine(const char *name, const FlowResult &sum, double ceiling)
{
    const double rate = rateOf(sum.bytes, sum.milliseconds);
    return QString("%1: %2 bytes in %3 s, %4 of at most %5 bytes/s, %6 %")
        .arg(name)
        .arg(sum.bytes)
        .arg(seconds(sum.milliseconds), whole(rate), whole(ceiling))
        .arg(ceiling > 0 ? 100 * rate / ceiling : 0, 0, 'f', 1);
}

} // namespace

double ceilingOf(qint64 maxTransferSize)
{
    const qint64 payload = maxTransferSize - static_cast<qint64>(usbhalhost::headerSize);
    return static_cast<double>(payload) / cycle;
}

QString tableOf(int round, const QVector<PortResult> &results, const Ceilings &ceilings)
{
    QStringList lines{QString("Round %1, at most %2 bytes/s to device and %3 bytes/s to host")
                          .arg(round)
                          .arg(whole(ceilings.toDevice), whole(ceilings.toHost))};
    lines << row({"port", "to device: bytes", "seconds", "bytes/s", "to host: bytes", "seconds",
                  "bytes/s", "SHA-256"});
    for (const PortResult &result : results)
        lines << portRow(result);
    lines << totalLine("all ports to device", sumOf(results, &PortResult::toDevice),
                       ceilings.toDevice);
    lines << totalLine("all ports to host  ", sumOf(results, &PortResult::toHost), ceilings.toHost);
    return lines.join('\n');
}

bool allEqual(const QVector<PortResult> &results)
{
    return !results.isEmpty() &&
           std::all_of(results.begin(), results.end(), [](const PortResult &result) {
               return result.toDevice.sumsEqual && result.toHost.sumsEqual;
           });
}
