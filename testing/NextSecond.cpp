// SPDX-License-Identifier: Apache-2.0
#include "testing/NextSecond.h"

#include <sched.h>
#include <time.h>

#include <cerrno>

void waitForTheNextSecond() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  const time_t start = now.tv_sec;
  const timespec next = {start + 1, 0};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr) == EINTR) {
  }
  // The coarse clock lags the precise one by up to a tick.
  for (;;) {
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    if (now.tv_sec != start) return;
    sched_yield();
  }
}
