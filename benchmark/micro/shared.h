// What the cases of several files need: processes, and the service table with a way in.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/process_host.h"
#include "service_manager.h"

namespace Tessaro::Iot::Component {

// The way in that the manager leaves open.
class ServiceManagerProbe {
 public:
  // Frees the records, which live as long as the process otherwise.
  static void free_all(CServiceManager& manager);
  // Puts the records into the state of services that run.
  static void run_all(CServiceManager& manager);
  [[nodiscard]] static ServiceRecord& record(CServiceManager& manager, size_t place);
  // What the monitor does once a second; returns how many services it would start again.
  [[nodiscard]] static int32_t look_at_all(CServiceManager& manager, uint32_t now);
  static void stop(CServiceManager& manager, ServiceRecord& record);
};

}  // namespace Tessaro::Iot::Component

namespace Micro {

// The path of a program of the benchmark.
[[nodiscard]] std::string program(const char* name);

// The process host, which is this thread's.
[[nodiscard]] Tessaro::Iot::Component::CProcessHost& host();

[[nodiscard]] Tessaro::Iot::Component::CSpawnPlan plan_of(const std::string& path);

// A manager whose table holds so many services, as if they ran.
[[nodiscard]] std::shared_ptr<Tessaro::Iot::Component::CServiceManager> manager_of(int services);

}  // namespace Micro
