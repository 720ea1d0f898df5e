// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <QFile>
#include <QTemporaryFile>

#include <cstdio>
#include <iostream>
#include <unistd.h>

namespace {

/** Takes what is written to standard output until take(). */
class OutputCapture
{
public:
    OutputCapture() : _former(dup(STDOUT_FILENO))
    {
        _file.open();
        _flush();
        dup2(_file.handle(), STDOUT_FILENO);
    }
    ~OutputCapture() { _restore(); }
    Q_DISABLE_COPY(OutputCapture)

    QByteArray take()
    {
        _restore();
        _file.seek(0);
        return _file.readAll();
    }

private:
    static void _flush()
    {
        std::fflush(stdout);
        std::cout.flush();
    }
    void _restore()
    {
        if (_former < 0)
            return;
        _flush();
        dup2(_former, STDOUT_FILENO);
        ::close(_former);
        _former = -1;
    }

    QTemporaryFile _file;
    int _former;
};

// A folder in which not even the superuser can create a file.
const QString closedFolder = "/proc/self";

} // namespace

/** A log that cannot be opened. */
class NoLog : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void theFolderIsReportedOnStandardOutput();
    void theCoreRunsOnWithoutALog();
};

void NoLog::theFolderIsReportedOnStandardOutput()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.logDir = closedFolder;
    OutputCapture capture;
    const bool configured = core.setupConfig(param);
    const QByteArray output = capture.take();
    QVERIFY(configured);
    QCOMPARE(output, QByteArray("couldn't open log file in /proc/self\n"
                                "USBHAL] setupConfig - configuration is now set\n"));
    QVERIFY(!UsbHalLog::getInstance()->isLogCreated());
}

void NoLog::theCoreRunsOnWithoutALog()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.logDir = closedFolder;
    OutputCapture capture;
    core.setupConfig(param);
    const bool connected = core.connectIdle();
    core.stop();
    const QByteArray output = capture.take();
    QVERIFY(connected);
    QVERIFY(output.contains("USBHAL] _updateStatus - UsbHal switched to CONNECTED state\n"));
    QVERIFY(output.contains("USBHAL] stop - communication thread stopped\n"));
}

QTEST_GUILESS_MAIN(NoLog)
#include "tst_link_nolog.moc"
