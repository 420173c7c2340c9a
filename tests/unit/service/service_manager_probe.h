// What the tests of the service manager need beyond its interface.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include "fake_world.h"
#include "platform/config_agent.h"
#include "platform/dbus_channel.h"
#include "service_manager.h"

namespace Tessaro::Iot::Component {

class ServiceManagerProbe {
 public:
  explicit ServiceManagerProbe(CServiceManager& manager) : manager_(manager) {}
  ServiceRecord& record(size_t index) const { return *manager_.services.at(index); }
  size_t record_count() const { return manager_.services.size(); }
  int32_t progress_fd() const { return manager_.progress_fd; }
  // Runs the monitor on the test's own thread until `running` says no.
  int32_t run_monitor() const {
    (void)manager_.createThread();  // no thread here, but the body may loop
    return manager_.threadProc();
  }
  // The records live as long as the process; a test has many processes' worth of them.
  void free_records() const {
    for (ServiceRecord* record : manager_.services) delete record;
    manager_.services.clear();
  }

 private:
  CServiceManager& manager_;
};

// A working directory whose "../config/services.json" is the test's.
class CatalogueDirectory {
 public:
  CatalogueDirectory() {
    char path[] = "/tmp/catalogueXXXXXX";
    root_ = ::mkdtemp(path);
    std::filesystem::create_directories(root_ / "bin");
    std::filesystem::create_directories(root_ / "config");
    std::filesystem::current_path(root_ / "bin");
  }
  ~CatalogueDirectory() {
    std::filesystem::current_path("/");
    std::filesystem::remove_all(root_);
  }
  CatalogueDirectory(const CatalogueDirectory&) = delete;
  CatalogueDirectory& operator=(const CatalogueDirectory&) = delete;
  void write(const std::string& text) const { std::ofstream(root_ / "config/services.json") << text; }
  void remove() const { std::filesystem::remove(root_ / "config/services.json"); }

 private:
  std::filesystem::path root_;
};

}  // namespace Tessaro::Iot::Component
