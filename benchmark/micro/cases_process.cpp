// Processes: the scan for them, and the start of one.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "cases.h"
#include "process_scan.h"
#include "shared.h"

namespace Micro {

using namespace Tessaro::Iot::Component;

namespace {

constexpr int scanned_processes = 50;

// They end with this process.
bool start_crowd() {
  const CSpawnPlan idle = plan_of(program("idle_service"));
  for (int number = 0; number < scanned_processes; ++number) {
    if (host().spawn(idle, nullptr).pid < 1) std::abort();
  }
  return true;
}

Call prepare_scan() {
  static const bool started = start_crowd();
  (void)started;  // once, however often the case is prepared
  return {[] {
    std::vector<int32_t> pids;
    if (!find_processes_by_name("quorvaned", pids)) std::abort();
    benchmark::DoNotOptimize(pids.data());
  }};
}

// To the end of a program that ends at once.
Call prepare_start() {
  return {[plan = plan_of(program("report_start"))] { host().run_to_end(plan); }};
}

}  // namespace

Cases process_cases() {
  return {{"start of a process, to its end", 10, prepare_start},
          {"scan of " + std::to_string(scanned_processes) + " processes", 10, prepare_scan}};
}

}  // namespace Micro
