#include "startup_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <string>

#include "fake_world.h"

namespace Tessaro::Iot::Component {
namespace {

using Fakes::World;
using testing::EndsWith;
using testing::MatchesRegex;

class StartupLog : public testing::Test {
 protected:
  StartupLog() { World::get().reset(); }
  static const std::string& last() { return World::get().raw_lines.back(); }
};

TEST_F(StartupLog, LineHasTimePidFileLineAndMessage) {
  write_startup_log("service_manager.cpp", 42, "run %s pid %d", "svc", 7);
  const std::string pid = std::to_string(::getpid());
  EXPECT_THAT(last(), MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6} \\[pid=" + pid +
                                   "\\] \\[service_manager\\.cpp\\|42\\] run svc pid 7\n"));
}

TEST_F(StartupLog, LineNamesTheBaseNameOfTheSourceFile) {
  write_startup_log("some/where/main.cpp", 1, "x");
  EXPECT_THAT(last(), EndsWith("[main.cpp|1] x\n"));
}

TEST_F(StartupLog, MacroNamesTheCallersFileAndLine) {
  STARTUP_LOG("here");
  EXPECT_THAT(last(), EndsWith("[startup_log_test.cpp|" + std::to_string(__LINE__ - 1) + "] here\n"));
}

TEST_F(StartupLog, LongLineKeeps1022CharactersAndLosesItsNewline) {
  write_startup_log("main.cpp", 1, "%s", std::string(2000, 'x').c_str());
  EXPECT_EQ(last().size(), 1022U);
  EXPECT_EQ(last().back(), 'x');
}

TEST_F(StartupLog, LineThatJustFitsKeepsItsNewline) {
  write_startup_log("main.cpp", 1, "%s", "");
  const size_t prefix = last().size() - 1;
  write_startup_log("main.cpp", 1, "%s", std::string(1021 - prefix, 'x').c_str());
  EXPECT_EQ(last().size(), 1022U);
  EXPECT_EQ(last().back(), '\n');
  write_startup_log("main.cpp", 1, "%s", std::string(1022 - prefix, 'x').c_str());
  EXPECT_EQ(last().size(), 1022U);
  EXPECT_EQ(last().back(), 'x');
}

TEST_F(StartupLog, ValuesCannotForgeLines) {
  write_startup_log("main.cpp", 1, "argv:%s", "a\nb\rc\033d");
  EXPECT_THAT(last(), EndsWith("argv:a?b?c?d\n"));
}

TEST_F(StartupLog, ValuesAreNoFormats) {
  write_startup_log("main.cpp", 1, "%s", "%n%s%d");
  EXPECT_THAT(last(), EndsWith("] %n%s%d\n"));
}

// The handler's own calendar against the library's, hour by hour over leap years and year ends, in several zones.
TEST_F(StartupLog, LineOfAHandlerShowsTheSameTime) {
  for (const char* zone : {"UTC", "Etc/GMT-14", "Etc/GMT+12", "Asia/Kolkata"}) {
    ASSERT_EQ(::setenv("TZ", zone, 1), 0);
    ::tzset();
    std::string ordinary;
    std::string in_handler;
    do {  // again when the second changed in between
      write_startup_log("main.cpp", 1, "x");
      ordinary = last().substr(0, 19);
      write_startup_log_in_handler("main.cpp", 1, "x");
      in_handler = last().substr(0, 19);
      write_startup_log("main.cpp", 1, "x");
    } while (last().substr(0, 19) != ordinary);
    EXPECT_EQ(in_handler, ordinary) << zone;
  }
  ASSERT_EQ(::unsetenv("TZ"), 0);
  ::tzset();
}

TEST_F(StartupLog, LineOfAHandlerHasTheSameShape) {
  learn_time_zone();
  write_startup_log_in_handler("main.cpp", 9, "caught Terminated(15) signal, exit");
  EXPECT_THAT(last(), EndsWith("] [main.cpp|9] caught Terminated(15) signal, exit\n"));
  write_startup_log_in_handler("main.cpp", 9, std::string(3000, 'y'));
  EXPECT_EQ(last().size(), 1022U);
}

}  // namespace
}  // namespace Tessaro::Iot::Component
