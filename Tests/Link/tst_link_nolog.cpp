// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <ConsoleCapture.h>

namespace {

// A folder in which not even the superuser can create a file.
const QString closedFolder = "/proc/self";

} // namespace

/** A log that cannot be opened. */
class LinkNoLogTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void theFolderIsReportedOnStandardOutput();
    void theCoreRunsOnWithoutALog();
};

void LinkNoLogTest::theFolderIsReportedOnStandardOutput()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.logDir = closedFolder;
    ConsoleCapture capture;
    const bool configured = core.setupConfig(param);
    const QByteArray output = capture.finish();
    QVERIFY(configured);
    QCOMPARE(output, QByteArray("couldn't open log file in /proc/self\n"
                                "USBHAL] setupConfig - configuration is now set\n"));
    QVERIFY(!UsbHalLog::getInstance()->isLogCreated());
}

void LinkNoLogTest::theCoreRunsOnWithoutALog()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.logDir = closedFolder;
    ConsoleCapture capture;
    core.setupConfig(param);
    const bool connected = core.connectIdle();
    core.stop();
    const QByteArray output = capture.finish();
    QVERIFY(connected);
    QVERIFY(output.contains("USBHAL] _updateStatus - UsbHal switched to CONNECTED state\n"));
    QVERIFY(output.contains("USBHAL] stop - communication thread stopped\n"));
}

QTEST_GUILESS_MAIN(LinkNoLogTest)
#include "tst_link_nolog.moc"
