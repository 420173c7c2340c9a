#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "bus_test.h"
#include "platform/dbus_connection.h"
#include "platform/unique_fd.h"

namespace test {
namespace {

using Tessaro::Iot::Component::add_bus_match;
using Tessaro::Iot::Component::DBusConnectionPtr;
using Tessaro::Iot::Component::open_private_connection;
using Tessaro::Iot::Component::request_bus_name;
using Tessaro::Iot::Component::UniqueFd;

constexpr int64_t timeout_ms = 2000;
constexpr int64_t late_ms = timeout_ms + 500;

using ConnectionTest = BusTest;

DBusConnectionPtr open(const std::string& address, int64_t limit_ms = timeout_ms) {
  return DBusConnectionPtr(open_private_connection(address, limit_ms));
}

sockaddr_un address_of(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

// A socket that listens where a bus should.
UniqueFd listen_at(const std::string& path) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = address_of(path);
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return {};
  return ::listen(fd.get(), 8) == 0 ? std::move(fd) : UniqueFd();
}

// Connections that nobody accepts, until no more fit into the backlog.
std::vector<UniqueFd> fill_backlog(const std::string& path) {
  std::vector<UniqueFd> waiting;
  const sockaddr_un address = address_of(path);
  for (;;) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return waiting;
    waiting.push_back(std::move(fd));
  }
}

TEST_F(ConnectionTest, opens_with_a_unique_name) {
  const DBusConnectionPtr connection = open(bus_.address());
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(dbus_bus_get_unique_name(connection.get())[0], ':');
}

TEST_F(ConnectionTest, fails_at_once_where_there_is_no_bus) {
  const std::string long_path(200, 'p');
  for (const std::string& address :
       {std::string(), std::string("unix:path=/nonexistent/socket"), std::string("nonsense"), std::string("unix:"),
        std::string("tcp:host=localhost,port=1"), std::string("unix:path=\xff"), "unix:path=/" + long_path,
        "unix:path=/nonexistent/socket;" + bus_.address(), std::string("unix:path=%zz")}) {
    EXPECT_TRUE(in_time(200, [&address] { EXPECT_EQ(open(address), nullptr) << address; })) << address;
  }
}

TEST_F(ConnectionTest, fails_in_time_on_a_listener_that_never_answers) {
  const TempDir dir;
  const UniqueFd listener = listen_at(dir / "mute");
  ASSERT_TRUE(listener.valid());
  const auto try_in_vain = [&dir] { EXPECT_EQ(open("unix:path=" + (dir / "mute"), 300), nullptr); };
  EXPECT_GE(milliseconds_of(try_in_vain), 299);
  EXPECT_TRUE(in_time(500, try_in_vain));
}

TEST_F(ConnectionTest, fails_in_time_on_a_listener_that_is_no_bus) {
  const TempDir dir;
  const UniqueFd listener = listen_at(dir / "liar");
  ASSERT_TRUE(listener.valid());
  std::thread liar([&listener] {
    const UniqueFd client(::accept(listener.get(), nullptr, nullptr));
    (void)::send(client.get(), "HTTP/1.1 400\r\n\r\n", 16, MSG_NOSIGNAL);
  });
  EXPECT_LT(milliseconds_of([&dir] { EXPECT_EQ(open("unix:path=" + (dir / "liar"), 300), nullptr); }), promptly_ms);
  liar.join();
}

TEST_F(ConnectionTest, fails_in_time_on_a_listener_that_falls_silent_after_the_first_answer) {
  const TempDir dir;
  const UniqueFd listener = listen_at(dir / "fading");
  ASSERT_TRUE(listener.valid());
  std::thread fading([&listener] {
    const UniqueFd probe(::accept(listener.get(), nullptr, nullptr));
    (void)::send(probe.get(), "OK 00\r\n", 7, MSG_NOSIGNAL);
  });
  EXPECT_LT(milliseconds_of([&dir] { EXPECT_EQ(open("unix:path=" + (dir / "fading"), 300), nullptr); }), promptly_ms);
  fading.join();
}

TEST_F(ConnectionTest, fails_in_time_on_a_stopped_bus_however_often_it_is_tried) {
  bus_.freeze();
  for (int attempt = 0; attempt < 40; ++attempt) {
    EXPECT_TRUE(in_time(250, [this] { EXPECT_EQ(open(bus_.address(), 50), nullptr); })) << attempt;
  }
  bus_.thaw();
  EXPECT_NE(open(bus_.address(), 10'000), nullptr);
}

TEST_F(ConnectionTest, fails_in_time_on_a_stopped_bus_with_a_full_backlog) {
  bus_.freeze();
  {
    const std::vector<UniqueFd> waiting = fill_backlog(bus_.socket_path());
    EXPECT_TRUE(in_time(late_ms, [this] { EXPECT_EQ(open(bus_.address()), nullptr); }));
    for (int attempt = 0; attempt < 40; ++attempt) {
      EXPECT_TRUE(in_time(250, [this] { EXPECT_EQ(open(bus_.address(), 50), nullptr); })) << attempt;
    }
  }
  bus_.thaw();
  EXPECT_NE(open(bus_.address(), 10'000), nullptr);
}

TEST_F(ConnectionTest, gets_through_when_the_bus_goes_on_in_time) {
  bus_.freeze();
  (void)fill_backlog(bus_.socket_path());  // closed connections fill it as well until they are accepted
  Gate opening;
  std::thread opener([this, &opening] {
    opening.open();
    EXPECT_NE(open(bus_.address(), 20'000), nullptr);
  });
  EXPECT_TRUE(opening.pass());
  bus_.thaw();
  opener.join();
}

TEST_F(ConnectionTest, takes_a_free_name_and_no_other) {
  const DBusConnectionPtr first = open(bus_.address());
  const DBusConnectionPtr second = open(bus_.address());
  EXPECT_EQ(request_bus_name(first.get(), channel_name, timeout_ms), DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER);
  EXPECT_EQ(request_bus_name(first.get(), channel_name, timeout_ms), DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER);
  EXPECT_EQ(request_bus_name(second.get(), channel_name, timeout_ms), DBUS_REQUEST_NAME_REPLY_EXISTS);
  for (const std::string bad : {"", "bad", "iot.\xff", "org.freedesktop.DBus"}) {
    EXPECT_EQ(request_bus_name(second.get(), bad, timeout_ms), -1) << bad;
  }
}

TEST_F(ConnectionTest, takes_match_rules_that_the_bus_understands) {
  const DBusConnectionPtr connection = open(bus_.address());
  EXPECT_TRUE(add_bus_match(connection.get(), "type='signal'", timeout_ms));
  EXPECT_FALSE(add_bus_match(connection.get(), "nonsense", timeout_ms));
  EXPECT_FALSE(add_bus_match(connection.get(), "type='\xff'", timeout_ms));
}

TEST_F(ConnectionTest, gives_up_in_time_when_the_bus_stops_answering) {
  const DBusConnectionPtr connection = open(bus_.address());
  bus_.freeze();
  EXPECT_TRUE(in_time(400, [&] { EXPECT_EQ(request_bus_name(connection.get(), channel_name, 200), -1); }));
  EXPECT_TRUE(in_time(400, [&] { EXPECT_FALSE(add_bus_match(connection.get(), "type='signal'", 200)); }));
  EXPECT_EQ(request_bus_name(connection.get(), channel_name, 0), -1);
  bus_.thaw();
}

TEST_F(ConnectionTest, leaves_the_disposition_of_broken_pipes_alone) {
  struct sigaction action {};
  ASSERT_NE(open(bus_.address()), nullptr);
  ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &action), 0);
  EXPECT_EQ(action.sa_handler, SIG_DFL);
}

}  // namespace
}  // namespace test
