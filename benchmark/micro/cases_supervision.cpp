// What becomes of the services while they run: a death, a pass of the monitor, a stop.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "cases.h"
#include "platform/time.h"
#include "shared.h"

namespace Micro {

using namespace Tessaro::Iot::Component;

namespace {

constexpr int64_t longest_wait_ms = 10'000;
constexpr int32_t feed_s = 100'000;

// Makes a new process of that program the service's.
ProcessRef start(ServiceRecord& record, const std::string& path) {
  const ProcessRef process = host().spawn(plan_of(path), nullptr);
  if (process.pid < 1) std::abort();
  const std::lock_guard guard(record.lock);
  record.status = status_started;
  record.process = process;
  record.pid = process.pid;
  return process;
}

void collect_the_dead() {
  host().serve(0, [](int32_t /*pid*/, int32_t /*status*/) {});
}

// From the look for ended children to the reap, with all that the manager does about the one in the table's middle.
Call prepare_death(int services) {
  const auto manager = manager_of(services);
  const auto end_one = [manager, services] {
    ServiceRecord& record = ServiceManagerProbe::record(*manager, static_cast<size_t>(services / 2));
    host().wait_until_ended(start(record, program("report_start")), longest_wait_ms);
  };
  const auto take_death = [manager] {
    host().serve(0, [&](int32_t pid, int32_t /*status*/) { manager->process_exit(pid); });
  };
  return {take_death, end_one};
}

// A pass that finds nothing to do. Each service has an item that it feeds.
Call prepare_pass(int services) {
  const auto manager = manager_of(services);
  for (int number = 0; number < services; ++number) {
    manager->feed_dog("iot.gateway.s" + std::to_string(number), "main", feed_s);
  }
  const auto now = static_cast<uint32_t>(CTime::getSystemStartupMilliSecond() / 1000);
  return {[manager, now] {
    if (ServiceManagerProbe::look_at_all(*manager, now) != 0) std::abort();
  }};
}

// To its signal: nobody waits for its end.
Call prepare_stop() {
  const auto manager = manager_of(1);
  const auto start_one = [manager] {
    collect_the_dead();
    (void)start(ServiceManagerProbe::record(*manager, 0), program("idle_service"));
  };
  return {[manager] { ServiceManagerProbe::stop(*manager, ServiceManagerProbe::record(*manager, 0)); }, start_one};
}

}  // namespace

Cases supervision_cases() {
  return {{"death of one of 20 services", 1, [] { return prepare_death(20); }},
          {"death of one of 500 services", 1, [] { return prepare_death(500); }},
          {"pass of the monitor over 20 services", 100, [] { return prepare_pass(20); }},
          {"pass of the monitor over 500 services", 10, [] { return prepare_pass(500); }},
          {"stop of a service", 1, prepare_stop}};
}

}  // namespace Micro
