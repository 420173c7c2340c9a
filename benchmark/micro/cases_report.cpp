// The service table: its report, and a keep-alive.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "cases.h"
#include "catalogue_text.h"
#include "service_manager.h"

namespace Tessaro::Iot::Component {

// The way in that the manager leaves open: to put its records into the state of services that run, and to free them,
// which live as long as the process otherwise.
class ServiceManagerProbe {
 public:
  static void free_all(CServiceManager& manager) {
    for (const ServiceRecord* record : manager.services) delete record;
    manager.services.clear();
  }
  static void run_all(CServiceManager& manager) {
    int32_t pid = 1000;
    for (ServiceRecord* record : manager.services) {
      const std::lock_guard guard(record->lock);
      record->status = status_started;
      record->pid = ++pid;
    }
  }
};

}  // namespace Tessaro::Iot::Component

namespace Micro {

using namespace Tessaro::Iot::Component;

namespace {

// A manager whose table holds so many services, as if they ran.
std::shared_ptr<CServiceManager> manager_of(int services) {
  namespace fs = std::filesystem;
  const fs::path root = fs::temp_directory_path() / "micro";
  fs::create_directories(root / "bin");
  fs::create_directories(root / "config");
  fs::current_path(root / "bin");
  std::ofstream(root / "config/services.json") << catalogue_text(services);
  std::shared_ptr<CServiceManager> manager(new CServiceManager(nullptr, -1, TFunction0<bool>(), nullptr),
                                           [](CServiceManager* ended) {
                                             ServiceManagerProbe::free_all(*ended);
                                             delete ended;
                                           });
  if (manager->load_services() != 1) std::abort();
  ServiceManagerProbe::run_all(*manager);
  return manager;
}

Call prepare_report(int services) {
  return [manager = manager_of(services)] {
    std::string report;
    manager->get_status(report);
    benchmark::DoNotOptimize(report.data());
  };
}

// The service in the middle of the table.
Call prepare_feeding(int services) {
  return [manager = manager_of(services), name = "iot.gateway.s" + std::to_string(services / 2),
          item = std::string("main")] { manager->feed_dog(name, item, 15); };
}

}  // namespace

Cases report_cases() {
  return {{"report of 20 services", 100, [] { return prepare_report(20); }},
          {"report of 1000 services", 5, [] { return prepare_report(1000); }},
          {"keep-alive of one of 20 services", 200, [] { return prepare_feeding(20); }},
          {"keep-alive of one of 1000 services", 100, [] { return prepare_feeding(1000); }}};
}

}  // namespace Micro
