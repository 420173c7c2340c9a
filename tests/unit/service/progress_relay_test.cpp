#include "progress_relay.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace Tessaro::Iot::Quorvaned {
namespace {

struct Pipe {
  int ends[2] = {-1, -1};
  Pipe() { EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0); }
  ~Pipe() {
    close_reader();
    close_writer();
  }
  void close_reader() { close_end(0); }
  void close_writer() { close_end(1); }
  void close_end(int which) {
    if (ends[which] >= 0) (void)::close(ends[which]);
    ends[which] = -1;
  }
  void write(const std::string& text) const {
    ASSERT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  std::string read_all() const {
    std::string text;
    char buffer[4096];
    for (ssize_t count = 0; (count = ::read(ends[0], buffer, sizeof buffer)) > 0;)
      text.append(buffer, static_cast<size_t>(count));
    return text;
  }
};

std::string relayed(const std::string& text) {
  Pipe progress;
  Pipe terminal;
  progress.write(text);
  progress.close_writer();
  relay_progress(progress.ends[0], terminal.ends[1], relay_silence_ms);
  terminal.close_writer();
  return terminal.read_all();
}

TEST(ProgressRelay, PrefixesEachLine) {
  EXPECT_EQ(relayed("running dbus daemon\nrunning a service\n"),
            "quorvaned: running dbus daemon\nquorvaned: running a service\nquorvaned: start up completed\n");
}

TEST(ProgressRelay, PrefixesEmptyLinesToo) {
  EXPECT_EQ(relayed("\n\n"), "quorvaned: \nquorvaned: \nquorvaned: start up completed\n");
}

TEST(ProgressRelay, AddsNoNewlineToTextThatEndsWithoutOne) {
  EXPECT_EQ(relayed("half"), "quorvaned: halfquorvaned: start up completed\n");
}

TEST(ProgressRelay, ReportsCompletionWithoutAnyProgress) { EXPECT_EQ(relayed(""), "quorvaned: start up completed\n"); }

TEST(ProgressRelay, PassesBytesOnBeforeTheLineIsComplete) {
  Pipe progress;
  Pipe terminal;
  std::thread relay([&] { relay_progress(progress.ends[0], terminal.ends[1], relay_silence_ms); });
  progress.write("run");
  std::string seen;
  char byte = 0;
  while (seen != "quorvaned: run" && ::read(terminal.ends[0], &byte, 1) == 1) seen += byte;  // would block for ever
  progress.write("ning\n");
  progress.close_writer();
  relay.join();
  terminal.close_writer();
  EXPECT_EQ(seen + terminal.read_all(), "quorvaned: running\nquorvaned: start up completed\n");
}

TEST(ProgressRelay, ReportsCompletionAfterSilenceAlthoughThePipeIsOpen) {
  Pipe progress;
  Pipe terminal;
  progress.write("running a service\n");
  relay_progress(progress.ends[0], terminal.ends[1], 50);
  terminal.close_writer();
  EXPECT_EQ(terminal.read_all(), "quorvaned: running a service\nquorvaned: start up completed\n");
}

TEST(ProgressRelay, WaitsHalfAMinuteForTheNextByte) { EXPECT_EQ(relay_silence_ms, 30000); }

}  // namespace
}  // namespace Tessaro::Iot::Quorvaned
