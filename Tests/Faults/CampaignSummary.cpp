// SPDX-License-Identifier: MIT
#include "CampaignSummary.h"

#include "FaultTable.h"

#include <Campaign.h>

CampaignSummary::CampaignSummary(const QList<int> &cases)
    : _caseCount(cases.size()), _unfinished(cases.begin(), cases.end())
{
}

void CampaignSummary::take(const QByteArray &line)
{
    const QList<QByteArray> words = line.simplified().split(' ');
    const bool isVerdict = words.size() == 2;
    if (isVerdict && words.first() == "passed") {
        _unfinished.remove(words.at(1).toInt());
        return;
    }
    if (words.first() == "figure" && words.size() == 3) {
        addFigure(words.at(1), words.at(2).toInt());
        return;
    }
    if (isVerdict && words.first() == "failed") {
        _unfinished.remove(words.at(1).toInt());
        _failed.insert(words.at(1).toInt());
    }
    std::cout << line.constData() << std::flush;
}

void CampaignSummary::addFigure(const QByteArray &name, int value)
{
    _sums[name] += value;
    _largest[name] = qMax(_largest.value(name), value);
}

void CampaignSummary::print(const std::string &campaign, int casesOfCampaign) const
{
    const auto print = [&](const char *what, auto value) {
        Campaign::printFigure("faults, " + campaign + ": " + what, value);
    };
    const auto pairs = allFaults().size() * allFaults().size();
    print("steps of a session", allSteps().size());
    print("faults", allFaults().size());
    print("ordered pairs of faults", pairs);
    print("pairs at steps, in both campaigns", pairs * allSteps().size());
    print("cases, overlapping and in turn, in both campaigns", caseCount());
    print("cases of this campaign", casesOfCampaign);
    print("cases run", _caseCount);
    print("cases failed", _failed.size() + _unfinished.size());
    print("faults that met a call", _sums.value("met"));
    print("links lost", _sums.value("losses"));
    print("threads killed", _sums.value("kills"));
    print("restarts by the client", _sums.value("restarts"));
    print("records that arrived", _sums.value("records"));
    print("slowest recovery, ms", _largest.value("slowest"));
    print("its bound, ms", _largest.value("bound"));
}
