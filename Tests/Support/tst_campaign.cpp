// SPDX-License-Identifier: MIT
#include "Campaign.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

/** What the scripts get of a program's figures. */
class CampaignTest : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { qunsetenv("USBHAL_FIGURES"); }

    void eachFigureIsALineOfTheFile();
    void withoutAFileNothingIsKept();
};

void CampaignTest::eachFigureIsALineOfTheFile()
{
    const QTemporaryDir folder;
    QFile file(folder.filePath("figures"));
    qputenv("USBHAL_FIGURES", file.fileName().toLocal8Bit());
    Campaign::printFigure("messages \"both\" ways", quint64(12216555));
    Campaign::printFigure("time, µs", 0.25);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QJsonObject whole{{"figure", "messages \"both\" ways"}, {"value", 12216555}};
    QCOMPARE(QJsonDocument::fromJson(file.readLine()).object(), whole);
    const QJsonObject broken{{"figure", "time, µs"}, {"value", 0.25}};
    QCOMPARE(QJsonDocument::fromJson(file.readLine()).object(), broken);
    QVERIFY(file.atEnd());
}

void CampaignTest::withoutAFileNothingIsKept()
{
    const QTemporaryDir folder;
    const QString before = QDir::currentPath();
    QVERIFY(QDir::setCurrent(folder.path()));
    Campaign::printFigure("messages", 1);
    QVERIFY(QDir::setCurrent(before));
    QVERIFY(QDir(folder.path()).isEmpty());
}

QTEST_GUILESS_MAIN(CampaignTest)
#include "tst_campaign.moc"
