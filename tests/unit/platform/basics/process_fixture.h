// A process host whose main loop the test turns, with real children.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/process_host.h"
#include "temp_dir.h"

namespace test {

using Tessaro::Iot::Component::CProcessHost;
using Tessaro::Iot::Component::CSpawnPlan;
using Tessaro::Iot::Component::ProcessRef;

struct Death {
  int32_t pid;
  int32_t raw_status;
};

class ProcessTest : public testing::Test {
 protected:
  void SetUp() override {
    (void)::pthread_sigmask(SIG_SETMASK, nullptr, &mask_before_);
    ASSERT_TRUE(host_.bind_to_this_thread());
  }

  void TearDown() override {
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    (void)::pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
  }

  static CSpawnPlan plan_of(const std::string& program, const std::vector<std::string>& arguments = {}) {
    CSpawnPlan plan;
    plan.program = program;
    plan.add_argument(program);
    for (const std::string& argument : arguments) plan.add_argument(argument);
    return plan;
  }

  static CSpawnPlan shell(const std::string& script) { return plan_of("/bin/sh", {"-c", script}); }

  // Turns the main loop until `enough` holds or ten seconds are over; returns whether it holds.
  template <class Predicate>
  bool serve_until(Predicate enough) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!enough()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      host_.serve(20, [this](int32_t pid, int32_t raw_status) { deaths_.push_back(Death{pid, raw_status}); });
    }
    return true;
  }

  // Runs a child to its end; returns its raw wait status, -1 when it did not start or end.
  int32_t run(const CSpawnPlan& plan) {
    const size_t before = deaths_.size();
    const ProcessRef process = host_.spawn(plan, nullptr);
    if (process.pid < 1 || !serve_until([&] { return deaths_.size() > before; })) return -1;
    return deaths_.back().raw_status;
  }

  // Whether `pid` is a process that has not ended.
  static bool is_alive(int32_t pid) {
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    const size_t name_end = stat.rfind(") ");
    return name_end != std::string::npos && stat[name_end + 2] != 'Z';
  }

  CProcessHost host_;
  std::vector<Death> deaths_;
  TempDir temp_;

 private:
  sigset_t mask_before_{};
};

// What a child_probe found: the last value of each key, and every "env".
class ProbeFacts {
 public:
  explicit ProbeFacts(const std::string& path) {
    std::istringstream lines(read_file(path));
    for (std::string line; std::getline(lines, line);) {
      const size_t blank = line.find(' ');
      const std::string key = line.substr(0, blank);
      const std::string value = line.substr(blank + 1);
      facts_[key] = value;
      if (key == "env") environment_.push_back(value);
    }
  }

  [[nodiscard]] std::string operator[](const std::string& key) const {
    const auto found = facts_.find(key);
    return found == facts_.end() ? "(none)" : found->second;
  }

  // The descriptors that were open.
  [[nodiscard]] std::vector<std::string> descriptors() const {
    std::vector<std::string> names;
    for (const auto& [key, value] : facts_) {
      if (key.starts_with("fd")) names.push_back(key);
    }
    return names;
  }

  // The values of every environment variable of that name.
  [[nodiscard]] std::vector<std::string> environment(const std::string& name) const {
    std::vector<std::string> values;
    for (const std::string& entry : environment_) {
      if (entry.starts_with(name + "=")) values.push_back(entry.substr(name.size() + 1));
    }
    return values;
  }

 private:
  std::map<std::string, std::string> facts_;
  std::vector<std::string> environment_;
};

}  // namespace test
