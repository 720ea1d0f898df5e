// SPDX-License-Identifier: MIT
#include "LogFixture.h"

#include <QTest>

void logNumbers(UsbHalLog &log, int first, int last)
{
    for (int i = first; i <= last; ++i)
        log.log(QStringLiteral("count"), 1, QString::number(i));
}

void LogFixture::init()
{
    folder.emplace();
    log.emplace();
}

// The logger closes its file before the folder goes.
void LogFixture::cleanup()
{
    log.reset();
    folder.reset();
}

bool LogFixture::openLog()
{
    return log->open(folder->path(), logName);
}

bool LogFixture::openLog(int maxLines)
{
    limitLines(maxLines);
    return openLog();
}

void LogFixture::limitLines(int maxLines)
{
    ParamHal param;
    param.maxLogLines = maxLines;
    QCOMPARE(log->setupConfig(param), false);
}
