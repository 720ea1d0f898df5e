// SPDX-License-Identifier: MIT
#ifndef FLATRESOURCES_H
#define FLATRESOURCES_H

#include <Campaign.h>

#include <QList>

#include <string>

/**
 * Whether a storm leaves memory and descriptors as they were: looks at them after each of its
 * tenths, and prints what it saw at the first and at the last.
 */
class FlatResources
{
public:
    /**
     * What the heap may gain while it settles, kB: arenas of threads that come and go, blocks that
     * are split otherwise. It shows a loss of 1 KiB at each of 1,000 events, of 11 bytes at
     * 100,000.
     */
    static constexpr long defaultGrowth = 1024;

    /** The memory may gain so many kB; see defaultGrowth. */
    FlatResources(const std::string &storm, quint64 events, long growth = defaultGrowth)
        : _storm(storm), _events(events), _allowedGrowth(Campaign::memoryLimit(growth))
    {
    }

    /** One event of the storm is over, with all that it took given back. */
    void count()
    {
        ++_counted;
        const quint64 tenth = 10 * _counted / _events;
        if (tenth == 10 * (_counted - 1) / _events)
            return;
        _memory.append(Campaign::residentMemory());
        _descriptors.append(Campaign::openDescriptors());
    }

    bool areFlat() const
    {
        if (_memory.isEmpty())
            return false;
        print("memory in kB", _memory);
        print("descriptors", _descriptors);
        const bool sameDescriptors =
            _descriptors.count(_descriptors.first()) == _descriptors.size();
        return sameDescriptors && _growth() <= _allowedGrowth;
    }

private:
    long _growth() const { return _memory.last() - _memory.first(); }

    template <typename Value>
    void print(const std::string &what, const QList<Value> &values) const
    {
        const std::string prefix = _storm + ", " + what + " after the ";
        Campaign::printFigure(prefix + "first tenth", values.first());
        Campaign::printFigure(prefix + "last tenth", values.last());
    }

    std::string _storm;
    quint64 _events;
    long _allowedGrowth; // kB
    quint64 _counted = 0;
    QList<long> _memory;
    QList<int> _descriptors;
};

#endif
