// SPDX-License-Identifier: MIT
#ifndef DIVIDEDTIME_H
#define DIVIDEDTIME_H

/**
 * The library's pauses and the node's time-outs at a part of their length: what the driver programs
 * is divided on its way to the node. The watchdog and the waits for a thread stay real.
 */
namespace DividedTime {

constexpr int divisor = 20;

/** From now on, for the whole process. */
void begin();

} // namespace DividedTime

#endif
