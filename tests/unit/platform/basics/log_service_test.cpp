#include <dbus/dbus.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <mutex>
#include <thread>

#include "log_fixture.h"
#include "platform/dbus_channel.h"

// The way to the logging service, over a real bus at the fixed address.

namespace Tessaro::Iot::Component {
namespace {

using test::wait_until;

const char* const bus_directory = "/tmp/var/run/mbusd";
const char* const bus_address = "unix:path=/tmp/var/run/mbusd/mbusd_socket";

class Bus {
 public:
  Bus() {
    std::filesystem::create_directories(bus_directory);
    const std::string config = std::string(bus_directory) + "/test.conf";
    test::write_file(config, std::string("<busconfig><listen>") + bus_address +
                                 "</listen><policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/>"
                                 "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/></policy></busconfig>");
    std::filesystem::remove(socket());
    pid_ = ::fork();
    if (pid_ == 0) {
      (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
      const std::string option = "--config-file=" + config;
      (void)::execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", option.c_str(), nullptr);
      ::_exit(1);
    }
    EXPECT_TRUE(wait_until([] { return test::exists(socket()); }));
  }
  ~Bus() {
    (void)::kill(pid_, SIGKILL);
    (void)::waitpid(pid_, nullptr, 0);
  }
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  void signal(int number) const { (void)::kill(pid_, number); }

 private:
  static std::string socket() { return std::string(bus_directory) + "/mbusd_socket"; }

  pid_t pid_ = -1;
};

struct Received {
  std::string module;
  int32_t level = -1;
  std::string tag;
  std::string text;
};

// A logging service that remembers what it is told.
class Service {
 public:
  Service() : channel_(bus_address, "iot.gateway.logger", "/iot/gateway/logger", {}) {
    channel_.register_method_callback("log", [this](CDBusRequest& request, CDBusResponse&, bool&) {
      Received line;
      const bool whole = request.get_string(line.module) && request.get_int32(line.level) &&
                         request.get_string(line.tag) && request.get_string(line.text);
      const std::lock_guard lock(mutex_);
      if (whole && dbus_message_get_no_reply(request.message()) == TRUE) lines_.push_back(line);
    });
    EXPECT_TRUE(channel_.start());
  }

  [[nodiscard]] bool heard(const std::string& text) {
    const std::lock_guard lock(mutex_);
    return std::any_of(lines_.begin(), lines_.end(), [&](const Received& line) { return line.text == text; });
  }

  [[nodiscard]] std::vector<Received> lines() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::vector<Received> lines_;
  CDBusChannel channel_;
};

class LogService : public test::LogTest {
 protected:
  static void bind() { log_init("quorvaned", 1, 0, 2); }

  // Logs until the service hears it: how a binding that goes its own way is waited for.
  static bool reaches(Service& service, const std::string& text) {
    return wait_until(
        [&] {
          log(1, text);
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
          return service.heard(text);
        },
        std::chrono::seconds(20));
  }
};

TEST_F(LogService, GetsEveryLineAfterTheBinding) {
  const Bus bus;
  Service service;
  log(2, "before");
  bind();
  log(0, "zero");
  log(1, "one");
  log(2, "two");
  ASSERT_TRUE(wait_until([&] { return service.heard("two"); }));
  const std::vector<Received> received = service.lines();
  ASSERT_EQ(received.size(), 3U);
  const char* const texts[] = {"zero", "one", "two"};
  for (size_t index = 0; index < 3; ++index) {
    EXPECT_EQ(received[index].module, "quorvaned");
    EXPECT_EQ(received[index].level, static_cast<int32_t>(index));
    EXPECT_EQ(received[index].tag, "tag");
    EXPECT_EQ(received[index].text, texts[index]);
  }
  EXPECT_EQ(lines().size(), 4U);
}

TEST_F(LogService, GetsTextThatTheBusAccepts) {
  const Bus bus;
  Service service;
  bind();
  log(1, "raw \xFF\xED\xB0\x80 and\na line");
  EXPECT_TRUE(wait_until([&] { return service.heard("raw ???? and?a line"); }));
}

TEST_F(LogService, GetsNothingWhenNotAskedFor) {
  const Bus bus;
  Service service;
  bind();
  ASSERT_TRUE(reaches(service, "bound"));
  log_init("quorvaned", 0, 0, 2);
  log(2, "file only");
  bind();
  ASSERT_TRUE(reaches(service, "bound again"));
  EXPECT_FALSE(service.heard("file only"));
}

TEST_F(LogService, IsReachedOverANewBusAfterANewBinding) {
  auto bus = std::make_unique<Bus>();
  auto service = std::make_unique<Service>();
  bind();
  ASSERT_TRUE(reaches(*service, "first bus"));
  service.reset();
  bus.reset();
  log(1, "nobody hears this");
  bus = std::make_unique<Bus>();
  service = std::make_unique<Service>();
  bind();
  EXPECT_TRUE(reaches(*service, "second bus"));
}

TEST_F(LogService, IsReachedLaterWhenThereWasNoBusAtTheBinding) {
  bind();
  log(1, "nobody hears this");
  const Bus bus;
  Service service;
  EXPECT_TRUE(reaches(service, "heard"));
}

TEST_F(LogService, MayBeAbsentFromItsBus) {
  const Bus bus;
  bind();
  for (int count = 0; count < 100; ++count) log(1, "nobody hears this");
  Service service;
  EXPECT_TRUE(reaches(service, "heard"));
}

// The processor time that this process has used, in milliseconds.
int64_t used_ms() {
  rusage usage{};
  (void)::getrusage(RUSAGE_SELF, &usage);  // cannot fail
  return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000;
}

int64_t resident_kib() {
  std::ifstream status("/proc/self/statm");
  int64_t total = 0;
  int64_t resident = 0;
  status >> total >> resident;
  return resident * ::sysconf(_SC_PAGESIZE) / 1024;
}

TEST_F(LogService, CostsNobodyAWaitWhenItsBusHangs) {
  const Bus bus;
  bus.signal(SIGSTOP);
  EXPECT_LT(test::least_milliseconds_of([] { bind(); }), 300);
  EXPECT_LT(test::least_milliseconds_of([] {
              bind();
              for (int count = 0; count < 20; ++count) log(1, "m");
            }),
            300);
  EXPECT_EQ(lines().size(), 100U);
  bus.signal(SIGCONT);
}

TEST_F(LogService, CostsNoMemoryAndNoTimeWhenItsBusIsDead) {
  bind();
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr int64_t most_growth_kib = 512 * 1024;  // the sanitizer keeps what was freed for a while
#else
  constexpr int64_t most_growth_kib = 16 * 1024;
#endif
  const int64_t before_kib = resident_kib();
  for (int count = 0; count < 20'000; ++count) log(0, std::string(1000, 'x'));
  EXPECT_LT(resident_kib() - before_kib, most_growth_kib);
  log_flush();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const int64_t before_ms = used_ms();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_LT(used_ms() - before_ms, 100) << "something turns without work";
}

TEST_F(LogService, BindingsFromManyThreadsAreSafe) {
  const Bus bus;
  Service service;
  std::vector<std::thread> threads;
  for (int index = 0; index < 4; ++index) {
    threads.emplace_back([] {
      for (int count = 0; count < 20; ++count) {
        bind();
        log(1, "m");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(reaches(service, "heard"));
}

}  // namespace
}  // namespace Tessaro::Iot::Component
