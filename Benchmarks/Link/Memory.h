// SPDX-License-Identifier: MIT
#ifndef MEMORY_H
#define MEMORY_H

#include <Campaign.h>

#include <fstream>
#include <malloc.h>
#include <string>

/** Memory of this process, kB, as figures: what is resident, and what of it no other may share. */
inline void printMemory(const std::string &candidate)
{
    Campaign::printFigure("memory." + candidate, Campaign::residentMemory());
    std::ifstream file("/proc/self/smaps_rollup");
    for (std::string word; file >> word;) {
        long size = 0;
        if (word == "Private_Dirty:" && file >> size)
            Campaign::printFigure("memory.private." + candidate, size);
    }
}

/** Bytes that malloc has given out to this process. */
inline double heldMemory()
{
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

#endif
