#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>

#include "descriptor.h"
#include "relay.h"
#include "session.h"
#include "temporary_directory.h"
#include "terminal_socket.h"

namespace {

using gateway::Descriptor;
using gateway::Relay;
using gateway::Session;
namespace fs = std::filesystem;

std::pair<Descriptor, Descriptor> socket_pair() {
  std::array<int, 2> ends{};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()), 0);
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

std::string read_all(const Descriptor& from) {
  std::string text;
  std::array<char, 65536> buffer{};
  for (ssize_t count = 0; (count = ::read(from.get(), buffer.data(), buffer.size())) > 0;) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return text;
}

void write_text(const Descriptor& to, const std::string& text) {
  ASSERT_EQ(::write(to.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

TEST(RelayOfBytes, passes_on_what_comes_and_then_the_end) {
  auto [in, source] = socket_pair();
  auto [target, out] = socket_pair();
  Relay relay;
  EXPECT_EQ(relay.reads(), POLLIN);
  EXPECT_EQ(relay.writes(), 0);
  write_text(in, "hello");
  relay.fill(source.get());
  EXPECT_EQ(relay.reads(), 0);
  EXPECT_EQ(relay.writes(), POLLOUT);
  EXPECT_TRUE(relay.drain(target.get()));
  EXPECT_EQ(read_all(out), "hello");
  EXPECT_FALSE(relay.done());
  relay.fill(source.get());  // nothing there, and no end
  EXPECT_FALSE(relay.done());
  in = Descriptor();
  relay.fill(source.get());
  EXPECT_TRUE(relay.done());
  EXPECT_EQ(relay.reads(), 0);
}

TEST(RelayOfBytes, reads_nothing_more_while_the_other_side_takes_nothing) {
  auto [in, source] = socket_pair();
  auto [target, out] = socket_pair();
  const std::string block(4096, 'x');
  while (::write(target.get(), block.data(), block.size()) > 0) {
  }
  Relay relay;
  write_text(in, "first");
  relay.fill(source.get());
  write_text(in, "second");
  EXPECT_TRUE(relay.drain(target.get()));
  EXPECT_EQ(relay.writes(), POLLOUT);
  relay.fill(source.get());
  const std::string taken = read_all(out);
  EXPECT_FALSE(taken.empty());
  EXPECT_TRUE(relay.drain(target.get()));
  EXPECT_EQ(read_all(out), "first");
  relay.fill(source.get());
  EXPECT_TRUE(relay.drain(target.get()));
  EXPECT_EQ(read_all(out), "second");
}

TEST(RelayOfBytes, tells_when_nobody_takes_them_and_survives_it) {
  auto [in, source] = socket_pair();
  auto [target, out] = socket_pair();
  out = Descriptor();
  Relay relay;
  write_text(in, "lost");
  relay.fill(source.get());
  EXPECT_FALSE(relay.drain(target.get()));
}

// Serves the session until it has ended; what the shell has said.
std::string serve_to_its_end(Session session, const Descriptor& client) {
  std::string said;
  for (bool goes_on = true; goes_on;) {
    std::array<pollfd, 2> wishes = {session.connection_wish(), session.terminal_wish()};
    if (::poll(wishes.data(), wishes.size(), 10'000) <= 0) {
      ADD_FAILURE() << "the shell says nothing: " << said;
      break;
    }
    goes_on = session.serve(wishes[0], wishes[1]);
    said += read_all(client);
  }
  return said;
}

TEST(TerminalSession, is_a_shell_on_a_terminal_with_its_path_that_ends_with_its_exit) {
  auto [client, connection] = socket_pair();
  write_text(client, "tty; echo $PATH-$((40 + 2)); umask; pwd; exit\n");
  auto session = Session::start(std::move(connection), "/some/path:/bin:/usr/bin");
  ASSERT_TRUE(session);
  const std::string said = serve_to_its_end(std::move(*session), client);
  ::wait(nullptr);
  EXPECT_NE(said.find("/dev/pts/"), std::string::npos) << said;
  EXPECT_NE(said.find("/some/path:/bin:/usr/bin-42\r\n"), std::string::npos) << said;
  EXPECT_NE(said.find("0022\r\n/\r\n"), std::string::npos) << said;
}

TEST(TerminalSession, ends_after_the_input_and_not_before_its_output) {
  auto [client, connection] = socket_pair();
  write_text(client, "echo first; sleep 0.2; echo second-$((1 + 1))\necho third-$((1 + 2))");
  ASSERT_EQ(::shutdown(client.get(), SHUT_WR), 0);
  auto session = Session::start(std::move(connection), "/bin:/usr/bin");
  ASSERT_TRUE(session);
  const std::string said = serve_to_its_end(std::move(*session), client);
  ::wait(nullptr);
  EXPECT_NE(said.find("second-2\r\n"), std::string::npos) << said;
  EXPECT_NE(said.find("third-3\r\n"), std::string::npos) << said;
}

TEST(TerminalSession, waits_for_its_client_alone_while_that_does_not_read) {
  auto [client, connection] = socket_pair();
  const std::string block(4096, 'x');
  while (::write(connection.get(), block.data(), block.size()) > 0) {
  }
  auto session = Session::start(std::move(connection), "/bin:/usr/bin");
  ASSERT_TRUE(session);
  pollfd terminal = session->terminal_wish();
  ASSERT_GT(::poll(&terminal, 1, 10'000), 0);  // the prompt
  EXPECT_TRUE(session->serve({}, terminal));
  EXPECT_EQ(session->terminal_wish().fd, -1);
  EXPECT_EQ(session->connection_wish().events, POLLIN | POLLOUT);
  EXPECT_FALSE(read_all(client).empty());
  EXPECT_TRUE(session->serve({}, {}));
  EXPECT_EQ(session->terminal_wish().events, POLLIN);
  session.reset();
  ::wait(nullptr);
}

TEST(TerminalSession, hangs_up_on_its_shell_when_the_client_has_gone) {
  auto [client, connection] = socket_pair();
  {
    auto session = Session::start(std::move(connection), "/bin:/usr/bin");
    ASSERT_TRUE(session);
    client = Descriptor();
    pollfd wish = session->connection_wish();
    ASSERT_GT(::poll(&wish, 1, 10'000), 0);
    EXPECT_FALSE(session->serve(wish, {}));
  }
  int status = 0;
  EXPECT_GT(::wait(&status), 0);
}

class TerminalPlace : public testing::Test {
 protected:
  [[nodiscard]] std::string path(const std::string& name) const { return (root / "console" / name).string(); }

  // Whether the lock can be had by another process.
  [[nodiscard]] bool is_free() const {
    const pid_t child = ::fork();
    if (child == 0) {
      const gateway::Lock lock = gateway::take_lock(path("lock"));
      ::_exit(lock.file.valid() == lock.taken ? 2 : lock.taken ? 1 : 0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_NE(WEXITSTATUS(status), 2);
    return status == 0;
  }

  gateway::TemporaryDirectory temporary;
  const fs::path& root = temporary.path();
};

TEST_F(TerminalPlace, is_locked_by_one_process_as_long_as_it_lives) {
  {
    const gateway::Lock lock = gateway::take_lock(path("lock"));
    EXPECT_TRUE(lock.file.valid());
    EXPECT_FALSE(is_free());
  }
  EXPECT_TRUE(is_free());
}

TEST_F(TerminalPlace, cannot_be_locked_where_it_cannot_be_made_or_is_a_link) {
  const gateway::Lock nowhere = gateway::take_lock("/proc/nothing/lock");
  EXPECT_FALSE(nowhere.file.valid() || nowhere.taken);
  fs::create_directory(root / "console");
  fs::create_symlink(root / "elsewhere", path("lock"));
  const gateway::Lock link = gateway::take_lock(path("lock"));
  EXPECT_FALSE(link.file.valid() || link.taken);
}

TEST_F(TerminalPlace, is_for_its_owner_and_takes_the_place_of_an_old_one) {
  const mode_t old = ::umask(0);
  fs::create_directory(root / "console");
  Descriptor first = gateway::listen_at(path("socket"));
  ASSERT_TRUE(first.valid());
  const Descriptor second = gateway::listen_at(path("socket"));
  EXPECT_TRUE(second.valid());
  EXPECT_EQ(::umask(old), 0U);
  EXPECT_EQ(static_cast<unsigned>(fs::status(path("socket")).permissions()), 0600U);
  EXPECT_FALSE(gateway::accept_friend(second).valid());  // there is none
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path("socket").c_str(), sizeof address.sun_path - 1);
  const Descriptor client(::socket(AF_UNIX, SOCK_STREAM, 0));
  ASSERT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_TRUE(gateway::accept_friend(second).valid());
  EXPECT_FALSE(gateway::listen_at(path(std::string(200, 'x'))).valid());
}

}  // namespace
