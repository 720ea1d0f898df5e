// SPDX-License-Identifier: MIT
#ifndef RANDOM_H
#define RANDOM_H

#include <QtGlobal>

#include <initializer_list>

/** Numbers that follow from a seed alone, cheap to begin anew for each sequence (splitmix64). */
class Random
{
public:
    explicit Random(quint64 seed) : _state(seed) {}

    quint64 next()
    {
        _state += 0x9e3779b97f4a7c15u;
        quint64 mixed = _state;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9u;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebu;
        return mixed ^ (mixed >> 31);
    }
    /** A number from 0 to limit - 1. */
    int below(int limit) { return static_cast<int>(next() % static_cast<quint64>(limit)); }
    bool oneIn(int chances) { return below(chances) == 0; }

    template <typename Value>
    Value pick(std::initializer_list<Value> values)
    {
        return values.begin()[below(static_cast<int>(values.size()))];
    }

private:
    quint64 _state;
};

#endif
