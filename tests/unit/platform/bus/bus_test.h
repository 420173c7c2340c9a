// What the tests of the bus share: a bus, a peer on it, and the names of the channel under test.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "peer.h"
#include "platform/dbus_channel.h"
#include "private_bus.h"
#include "wait_until.h"

namespace test {

using Tessaro::Iot::Component::CDBusChannel;
using Tessaro::Iot::Component::CDBusRequest;
using Tessaro::Iot::Component::CDBusResponse;
using Tessaro::Iot::Component::CDBusSignal;

constexpr const char* channel_name = "iot.test.channel";
constexpr const char* channel_path = "/iot/test/channel";
constexpr const char* other_name = "iot.test.other";
constexpr const char* other_path = "/iot/test/other";

// For what cannot be repeated: far less than the waits that it must not sit out.
constexpr int64_t promptly_ms = 10'000;

// True when `action`, which can be repeated, once takes `limit_ms` at most: a busy machine may hold up any single try.
template <class Action>
bool in_time(int64_t limit_ms, Action action) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    if (milliseconds_of(action) <= limit_ms) return true;
  }
  return false;
}

// A door that one thread opens for others.
class Gate {
 public:
  void open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();  // under the lock: who passes may take the gate away at once
  }
  // Returns false when it is still shut after `limit`.
  bool pass(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_until(lock, std::chrono::steady_clock::now() + limit, [this] { return open_; });
  }
  [[nodiscard]] bool is_open() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return open_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

// What handlers of another thread have noted.
class Notes {
 public:
  void add(std::string note) {
    const std::lock_guard<std::mutex> lock(mutex_);
    notes_.push_back(std::move(note));
  }
  [[nodiscard]] std::vector<std::string> all() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return notes_;
  }
  [[nodiscard]] size_t size() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return notes_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> notes_;
};

class BusTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.ok());
    ASSERT_TRUE(peer_->ok());
  }

  [[nodiscard]] std::unique_ptr<CDBusChannel> new_channel(const std::string& name = channel_name,
                                                          const std::string& path = channel_path,
                                                          const std::vector<std::string>& rules = {}) const {
    return std::make_unique<CDBusChannel>(bus_.address(), name, path, rules);
  }
  [[nodiscard]] Peer& peer() { return *peer_; }

  PrivateBus bus_;
  std::unique_ptr<Peer> peer_ = std::make_unique<Peer>(bus_.address());
};

}  // namespace test
