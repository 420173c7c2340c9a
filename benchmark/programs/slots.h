// The file in which services tell when they started: one slot for each.
#ifndef QUORVANED_BENCHMARK_SLOTS_H
#define QUORVANED_BENCHMARK_SLOTS_H

#include <stdint.h>

struct Slot {
  int64_t started_ns;  // of the monotonic clock; 0: not yet
  int32_t pid;
  int32_t unused;
};

#endif
