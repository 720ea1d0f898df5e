// SPDX-License-Identifier: MIT
#ifndef CAMPAIGNSUMMARY_H
#define CAMPAIGNSUMMARY_H

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QSet>

#include <string>

/** Sums up what the processes of a campaign say of the cases that they were given. */
class CampaignSummary
{
public:
    explicit CampaignSummary(const QList<int> &cases);

    /** Takes one line of a process's output in; lines for the reader are passed on. */
    void take(const QByteArray &line);

    /** Whether every case was played to its end and passed. */
    bool isGood() const { return _unfinished.isEmpty() && _failed.isEmpty(); }
    /** The cases of which no process said how they ended. */
    QList<int> unfinished() const { return _unfinished.values(); }

    void print(const std::string &campaign, int casesOfCampaign) const;

private:
    void addFigure(const QByteArray &name, int value);

    const int _caseCount;
    QSet<int> _unfinished;
    QSet<int> _failed;
    QHash<QByteArray, int> _sums;
    QHash<QByteArray, int> _largest;
};

#endif
