// SPDX-License-Identifier: MIT
#ifndef SCHEDULENOISE_H
#define SCHEDULENOISE_H

#include <QtGlobal>

/**
 * Disturbs the order in which threads run, for programs that link UsbHalScheduleNoise and the
 * library's objects: wherever one of those takes a QMutex or has let go of it, and after each wait
 * with a time limit, the thread may yield or sleep for a moment, as a seed decides.
 */
namespace ScheduleNoise {

/**
 * Begins anew: each thread draws from that seed and from its number among those that come by from
 * now on. 0: no noise, as at first. Any thread may call it.
 */
void setSeed(quint32 seed);

} // namespace ScheduleNoise

#endif
