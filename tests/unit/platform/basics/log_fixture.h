// The log's fixed directory, empty before each test. The tests run where that path is private, each in its own process:
// the library's state is that of a process.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/log.h"
#include "temp_dir.h"
#include "wait_until.h"

namespace test {

class LogTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::remove_all(directory_);
    std::filesystem::create_directories(directory_);
  }

  [[nodiscard]] std::string path(int old = 0) const {
    return directory_ + (old == 0 ? "/quorvaned.log" : "/quorvaned." + std::to_string(old) + ".log");
  }

  [[nodiscard]] std::vector<std::string> lines(int old = 0) const {
    Tessaro::Iot::Component::log_flush();
    std::istringstream text(read_file(path(old)));
    std::vector<std::string> found;
    for (std::string line; std::getline(text, line);) found.push_back(line);
    return found;
  }

  // Logs `message` with everything else fixed.
  static void log(int32_t level, const std::string& message) {
    Tessaro::Iot::Component::log_print(level, "color", "tag", "/src/service/start_up.cpp", "handler", 12, "%s",
                                       message.c_str());
  }

  const std::string directory_ = "/quorvane/run/logger";
};

}  // namespace test
