// What the tests of the start-up controller need beyond its interface.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fake_channel.h"
#include "fake_world.h"
#include "service_manager_probe.h"
#include "start_up.h"

namespace Tessaro::Iot::Quorvaned {

class StartupProbe {
 public:
  explicit StartupProbe(CStartup& startup) : startup_(startup) {}
  // Runs the controller on the test's own thread. It comes back when an upgrade was requested.
  int32_t run() const { return startup_.threadProc(); }
  Component::CServiceManager& manager() const { return *startup_.service_manager; }
  const std::array<std::string, 3>& pending_identity() const { return startup_.pending.identity; }
  bool running() const { return startup_.running; }
  void set_running() const {
    startup_.running = true;
    startup_.exit_requested = false;
  }
  uint32_t keep_remote_debug() const { return startup_.keep_remote_debug; }
  void clear_running() const { startup_.running = false; }
  void request_exit() const { startup_.exit_requested = true; }
  void post() const { startup_.wakeup.post(); }

 private:
  CStartup& startup_;
};

class StartupTest : public testing::Test {
 protected:
  StartupTest() { world.reset(); }

  void make(const std::string& catalogue, const ServiceArguments& arguments = {}) {
    directory.write(catalogue);
    startup = create(arguments);
    ASSERT_EQ(probe().manager().load_services(), 1);
  }
  // As in the daemon: created and never destroyed.
  static CStartup* create(const ServiceArguments& arguments) {
    static auto* const all = new std::vector<std::unique_ptr<CStartup>>();
    all->push_back(std::make_unique<CStartup>(-1, arguments));
    return all->back().get();
  }
  StartupProbe probe() { return StartupProbe(*startup); }
  Fakes::FakeChannel& watchdog() { return Fakes::fake_channel("iot.gateway.watchdog"); }
  Fakes::FakeChannel& quorvaned() { return Fakes::fake_channel("iot.gateway.quorvaned"); }
  void end_by_upgrade_after_ms(int64_t delay_ms) {
    world.at_ms(world.now_ms + delay_ms, [this] { (void)quorvaned().call("start_upgrade"); });
  }
  // The lines of the controller itself, without those of processes and progress.
  std::vector<std::string> sequence() const {
    std::vector<std::string> lines;
    for (const std::string& line : world.lines) {
      if (line.rfind("run ", 0) != 0 && line.rfind("running ", 0) != 0 && line.rfind("kill ", 0) != 0) {
        lines.push_back(line);
      }
    }
    return lines;
  }

  Fakes::World& world = Fakes::World::get();
  Component::CatalogueDirectory directory;
  CStartup* startup = nullptr;
};

}  // namespace Tessaro::Iot::Quorvaned
