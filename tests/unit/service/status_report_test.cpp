#include "status_report.h"

#include <gtest/gtest.h>

namespace Tessaro::Iot::Component {
namespace {

std::string line(const std::string& exec, int32_t status, int32_t pid) {
  ServiceRecord record;
  record.exec = exec;
  record.status = status;
  record.pid = pid;
  return status_line(record);
}

TEST(StatusLine, OfAnActiveServiceShowsItsPid) {
  EXPECT_EQ(line("bin/svc", 0, 321), "[  \033[32m+\033[0m  ]  Service bin/svc is \033[32mactive\033[0m, pid is 321\n");
}

TEST(StatusLine, OfAFailedForkIsActiveWithPidZero) {
  EXPECT_EQ(line("svc", 0, 0), "[  \033[32m+\033[0m  ]  Service svc is \033[32mactive\033[0m, pid is 0\n");
}

TEST(StatusLine, OfTheSceneScriptNeverShowsAPid) {
  EXPECT_EQ(line("startSC.sh", 0, 321), "[  \033[32m+\033[0m  ]  Service startSC.sh is \033[32mactive\033[0m\n");
}

TEST(StatusLine, OfAnotherProgramOfThatNameShowsItsPid) {
  EXPECT_EQ(line("bin/startSC.sh", 0, 321),
            "[  \033[32m+\033[0m  ]  Service bin/startSC.sh is \033[32mactive\033[0m, pid is 321\n");
}

TEST(StatusLine, OfAStoppedOrAbnormalServiceIsInactive) {
  for (const int32_t status : {-1, 1}) {
    EXPECT_EQ(line("svc", status, 5), "[  \033[0;31m-\033[0m  ]  Service svc is \033[0;31minactive\033[0m\n");
    EXPECT_EQ(line("startSC.sh", status, 5),
              "[  \033[0;31m-\033[0m  ]  Service startSC.sh is \033[0;31minactive\033[0m\n");
  }
}

TEST(StatusLine, IsCutAt1022Bytes) { EXPECT_EQ(line(std::string(3000, 'x'), 0, 1).size(), 1022U); }

}  // namespace
}  // namespace Tessaro::Iot::Component
