// SPDX-License-Identifier: MIT
#ifndef NODETIME_H
#define NODETIME_H

/**
 * Makes the node's time-outs pass faster, for programs that are linked with --wrap=ioctl: what the
 * program programs from now on reaches the node divided.
 */
void setNodeTimeDivisor(unsigned divisor);

#endif
