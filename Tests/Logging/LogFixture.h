// SPDX-License-Identifier: MIT
#ifndef LOGFIXTURE_H
#define LOGFIXTURE_H

#include "LogFolder.h"

#include <UsbHalLog.h>

#include <QObject>

#include <optional>

/** The name that the library gives its log. */
inline const QString logName = QStringLiteral("UsbHal");

/** Logs the numbers from first to last, one a line. */
void logNumbers(UsbHalLog &log, int first, int last);

/** Gives each test function, and each of its rows, a logger of its own and a folder for its files.
 */
class LogFixture : public QObject
{
    Q_OBJECT

protected:
    bool openLog();
    /** The same with so many lines in a file. */
    bool openLog(int maxLines);
    void limitLines(int maxLines);

    std::optional<LogFolder> folder;
    std::optional<UsbHalLog> log;

private slots:
    void init();
    void cleanup();
};

#endif
