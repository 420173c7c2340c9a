// A run-time root of a test's own, with a key chain if it is to have one.
#pragma once

#include <gtest/gtest.h>
#include <sodium.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "key_chain.h"
#include "temporary_directory.h"

namespace gateway {

class TemporaryRoot {
 public:
  TemporaryRoot() {
    if (sodium_init() < 0) throw std::runtime_error("sodium_init");
  }

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string store() const { return path_ + "/config-manager"; }
  [[nodiscard]] std::string database() const { return store() + "/config.db"; }

  // Makes the key chain that this byte stands for, in the directory.
  void make_key_chain(std::uint8_t byte, const std::string& directory = ".security") const {
    Key key{};
    key.fill(byte);
    std::filesystem::create_directories(path_ + "/" + directory);
    write(path_ + "/" + directory + "/keychain", format_key_chain(key));
  }

  static std::string read(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  static void write(const std::string& file, const std::string& content) {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
  }

  // The base names of the files of the store.
  [[nodiscard]] std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(store())) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  // True when a file of the store has the bytes.
  [[nodiscard]] bool holds(const std::string& bytes) const {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path_)) {
      if (entry.is_regular_file() && read(entry.path()).find(bytes) != std::string::npos) return true;
    }
    return false;
  }

 private:
  TemporaryDirectory directory_;
  std::string path_ = directory_.path().string();
};

}  // namespace gateway
