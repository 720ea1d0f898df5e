// SPDX-License-Identifier: MIT
#include "Output.h"

#include <QDateTime>

#include <cstdio>

namespace {

bool detailsShown = false;

} // namespace

void say(const QString &text)
{
    const QString time = QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss.zzz");
    std::printf("%s %s\n", qPrintable(time), qPrintable(text));
    std::fflush(stdout);
}

void sayDetail(const QString &text)
{
    if (detailsShown)
        say(text);
}

void showDetails()
{
    detailsShown = true;
}
