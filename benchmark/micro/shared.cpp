#include "shared.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "catalogue_text.h"

namespace Tessaro::Iot::Component {

void ServiceManagerProbe::free_all(CServiceManager& manager) {
  for (const ServiceRecord* record : manager.services) delete record;
  manager.services.clear();
}

void ServiceManagerProbe::run_all(CServiceManager& manager) {
  int32_t pid = 1000;
  for (ServiceRecord* record : manager.services) {
    const std::lock_guard guard(record->lock);
    record->status = status_started;
    record->pid = ++pid;
  }
}

ServiceRecord& ServiceManagerProbe::record(CServiceManager& manager, size_t place) {
  return *manager.services.at(place);
}

int32_t ServiceManagerProbe::look_at_all(CServiceManager& manager, uint32_t now) {
  int32_t due = 0;
  for (ServiceRecord* record : manager.services) {
    int32_t status = 0;
    if (manager.still_running() && manager.is_due(record, now, status)) ++due;
  }
  return due;
}

void ServiceManagerProbe::stop(CServiceManager& manager, ServiceRecord& record) {
  manager.service_control->stop_service(&record, false);
}

}  // namespace Tessaro::Iot::Component

namespace Micro {

using namespace Tessaro::Iot::Component;

// They lie beside this one's directory.
std::string program(const char* name) {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / name;
}

CProcessHost& host() {
  static const bool bound = CProcessHost::instance().bind_to_this_thread();
  if (!bound) std::abort();
  return CProcessHost::instance();
}

CSpawnPlan plan_of(const std::string& path) {
  CSpawnPlan plan;
  plan.program = path;
  plan.add_argument("service");
  plan.parent_death_signal = SIGKILL;
  return plan;
}

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

}  // namespace Micro
