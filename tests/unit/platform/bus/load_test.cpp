#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "bus_test.h"

namespace test {
namespace {

using LoadTest = BusTest;
using Clock = std::chrono::steady_clock;

int64_t microseconds_since(Clock::time_point begin) {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin).count();
}

void send_numbers(CDBusChannel& sender, int count) {
  for (int32_t number = 0; number < count; ++number) {
    CDBusSignal signal(channel_path, channel_name, "number");
    ASSERT_TRUE(signal.set_int32(number));
    while (!sender.send(signal)) std::this_thread::yield();  // the bus is behind: a megabyte waits
  }
}

// The times that `count` calls take, in microseconds.
std::vector<int64_t> time_calls(CDBusChannel& channel, int caller, int count) {
  std::vector<int64_t> times;
  for (int number = 0; number < count; ++number) {
    const std::string text = std::to_string(caller) + "/" + std::to_string(number);
    CDBusRequest request(other_name, other_path, other_name, "echo");
    CDBusResponse response;
    std::string echoed;
    EXPECT_TRUE(request.set_string(text));
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(channel.call(request, response, 30'000), 0);
    times.push_back(microseconds_since(begin));
    EXPECT_TRUE(response.get_string(echoed));
    EXPECT_EQ(echoed, text);
  }
  return times;
}

TEST_F(LoadTest, loses_no_call_of_four_threads_beside_20000_signals) {
  constexpr int callers = 4;
  constexpr int calls = 2000;
  constexpr int signals = 20'000;
  std::atomic<int> heard{0};
  std::atomic<int> out_of_order{0};
  auto channel = new_channel();
  channel->register_signal_callback("number", [&](CDBusSignal& signal) {
    int32_t number = -1;
    if (!signal.get_int32(number) || number != heard++) ++out_of_order;
  });
  auto service = new_channel(other_name, other_path);
  service->register_method_callback("echo", [](CDBusRequest& request, CDBusResponse& response, bool&) {
    std::string text;
    if (request.get_string(text)) (void)response.set_string(text);
  });
  auto ticker = new_channel("iot.test.ticker", "/iot/test/ticker");
  ASSERT_TRUE(channel->start());
  ASSERT_TRUE(service->start());
  ASSERT_TRUE(ticker->start());

  std::thread sender([&ticker] { send_numbers(*ticker, signals); });
  std::vector<std::vector<int64_t>> times(callers);
  std::vector<std::thread> threads;
  for (int caller = 0; caller < callers; ++caller) {
    threads.emplace_back([&, caller] { times[static_cast<size_t>(caller)] = time_calls(*channel, caller, calls); });
  }
  for (std::thread& thread : threads) thread.join();
  sender.join();
  EXPECT_TRUE(wait_until([&heard] { return heard == signals; }, std::chrono::seconds(60)));
  EXPECT_EQ(out_of_order, 0);

  std::vector<int64_t> all;
  for (const auto& part : times) all.insert(all.end(), part.begin(), part.end());
  std::sort(all.begin(), all.end());
  RecordProperty("median_us", std::to_string(all[all.size() / 2]));
  RecordProperty("p99_us", std::to_string(all[all.size() * 99 / 100]));
  RecordProperty("longest_us", std::to_string(all.back()));
  EXPECT_LT(all.back(), 10'000'000);
}

TEST_F(LoadTest, survives_1000_handler_replacements_under_traffic) {
  std::atomic<int> heard{0};
  auto channel = new_channel();
  const auto replace = [&channel, &heard](int number) {
    // What a handler owns lives for as long as it runs, whoever replaces it meanwhile.
    auto owned = std::make_shared<std::string>(std::to_string(number));
    channel->register_signal_callback("tick", [owned, &heard](CDBusSignal&) {
      if (!owned->empty()) ++heard;
    });
    channel->register_method_callback(
        "ask", [owned](CDBusRequest&, CDBusResponse& response, bool&) { (void)response.set_string(*owned); });
  };
  replace(-1);
  ASSERT_TRUE(channel->start());
  std::atomic<bool> enough{false};
  std::thread traffic([this, &enough] {
    Peer caller(bus_.address());
    while (!enough) {
      for (int tick = 0; tick < 10; ++tick) EXPECT_TRUE(caller.emit("", channel_path, channel_name, "tick"));
      EXPECT_TRUE(caller.call(channel_name, channel_path, channel_name, "ask").ok());
    }
  });
  for (int number = 0; number < 1000; ++number) {
    replace(number);
    if (number % 50 == 0) {
      const int before = heard;
      EXPECT_TRUE(wait_until([&heard, before] { return heard > before; }));
    }
  }
  enough = true;
  traffic.join();
  EXPECT_GT(heard, 0);
}

TEST_F(LoadTest, refuses_signals_once_a_megabyte_waits_and_never_blocks) {
  auto channel = new_channel();
  ASSERT_TRUE(channel->start());
  bus_.freeze();
  CDBusSignal signal(channel_path, channel_name, "bulk");
  ASSERT_TRUE(signal.set_string(std::string(size_t{64} * 1024, 'x')));
  int taken = 0;
  const int64_t elapsed = milliseconds_of([&] {
    while (taken < 1000 && channel->send(signal)) ++taken;
  });
  EXPECT_GE(taken, 16);
  EXPECT_LT(taken, 100);
  EXPECT_LT(elapsed, promptly_ms);
  bus_.thaw();
  EXPECT_TRUE(wait_until([&] { return channel->send(signal); }));
}

TEST_F(LoadTest, starts_and_stops_under_calls_of_other_threads) {
  auto channel = new_channel();
  std::atomic<bool> enough{false};
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 3; ++caller) {
    callers.emplace_back([&channel, &enough] {
      while (!enough) {
        CDBusRequest request(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetId");
        CDBusSignal signal(channel_path, channel_name, "tick");
        CDBusResponse response;
        const int32_t result = channel->call(request, response, 30'000);
        EXPECT_TRUE(result == 0 || result == CDBusChannel::call_closed) << result;
        (void)channel->send(signal);
      }
    });
  }
  for (int cycle = 0; cycle < 50; ++cycle) {
    ASSERT_TRUE(channel->start()) << cycle;
    EXPECT_TRUE(peer().settle(channel_name));
    channel->stop();
  }
  enough = true;
  for (std::thread& caller : callers) caller.join();
}

}  // namespace
}  // namespace test
