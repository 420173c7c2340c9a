#include "platform/spawn_plan.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cstdlib>

#include "process_fixture.h"

// What a child finds itself with.

namespace Tessaro::Iot::Component {
namespace {

using test::ProbeFacts;
using test::ScopedUmask;

class SpawnPlan : public test::ProcessTest {
 protected:
  // A plan that runs the probe; the facts are there once it has ended.
  CSpawnPlan probe(const std::vector<std::string>& arguments = {}) {
    CSpawnPlan plan = plan_of(CHILD_PROBE, {facts_path_});
    for (const std::string& argument : arguments) plan.add_argument(argument);
    return plan;
  }

  ProbeFacts facts_of(const CSpawnPlan& plan) {
    EXPECT_EQ(run(plan), 0);
    return ProbeFacts(facts_path_);
  }

  const std::string facts_path_ = temp_ / "facts";
};

TEST_F(SpawnPlan, ArgumentsArriveAsTheyAre) {
  const ProbeFacts facts = facts_of(probe({"-x", "", "with blank", "$HOME;*"}));
  EXPECT_EQ(facts["argc"], "6");
  EXPECT_EQ(facts["argv0"], CHILD_PROBE);
  EXPECT_EQ(facts["argv2"], "-x");
  EXPECT_EQ(facts["argv3"], "");
  EXPECT_EQ(facts["argv4"], "with blank");
  EXPECT_EQ(facts["argv5"], "$HOME;*");
}

TEST_F(SpawnPlan, ArgumentsAreCutAt255BytesAndAtANul) {
  const ProbeFacts facts =
      facts_of(probe({std::string(255, 'a'), std::string(256, 'b'), std::string(5000, 'c'), std::string("d\0e", 3)}));
  EXPECT_EQ(facts["argv2"], std::string(255, 'a'));
  EXPECT_EQ(facts["argv3"], std::string(255, 'b'));
  EXPECT_EQ(facts["argv4"], std::string(255, 'c'));
  EXPECT_EQ(facts["argv5"], "d");
}

TEST_F(SpawnPlan, ManyArgumentsArrive) {
  constexpr int count = 2000;
  CSpawnPlan plan = probe();
  for (int index = 0; index < count; ++index) plan.add_argument(std::to_string(index));
  const ProbeFacts facts = facts_of(plan);
  EXPECT_EQ(facts["argc"], std::to_string(count + 2));
  EXPECT_EQ(facts["argv2001"], "1999");
}

TEST_F(SpawnPlan, NoDescriptorOfTheDaemonIsPassedOn) {
  const int low = ::open("/dev/null", O_RDONLY);
  ASSERT_GE(::fcntl(low, F_DUPFD, 900), 900);
  const ProbeFacts facts = facts_of(probe());
  EXPECT_EQ(facts.descriptors(), (std::vector<std::string>{"fd0", "fd1", "fd2"}));
  (void)::close(low);
  (void)::close(900);
}

TEST_F(SpawnPlan, OutputIsDiscardedOrInherited) {
  CSpawnPlan plan = probe();
  const ProbeFacts discarded = facts_of(plan);
  EXPECT_EQ(discarded["fd1"], "/dev/null");
  EXPECT_EQ(discarded["fd2"], "/dev/null");

  const int file = ::open((temp_ / "output").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const int before = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  ASSERT_EQ(::dup2(file, STDOUT_FILENO), STDOUT_FILENO);
  plan.discard_output = false;
  const ProbeFacts inherited = facts_of(plan);
  ASSERT_EQ(::dup2(before, STDOUT_FILENO), STDOUT_FILENO);
  (void)::close(before);
  (void)::close(file);
  EXPECT_EQ(inherited["fd1"], temp_ / "output");
}

TEST_F(SpawnPlan, SignalsAreNeitherBlockedNorIgnoredNorPending) {
  sigset_t all;
  sigset_t before;
  (void)::sigfillset(&all);
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &all, &before), 0);
  for (const int number : {SIGPIPE, SIGUSR1, SIGTERM, SIGHUP}) ASSERT_NE(::signal(number, SIG_IGN), SIG_ERR);
  const ProbeFacts facts = facts_of(probe());
  for (const int number : {SIGPIPE, SIGUSR1, SIGTERM, SIGHUP}) ASSERT_NE(::signal(number, SIG_DFL), SIG_ERR);
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
  for (const char* set : {"SigBlk", "SigIgn", "SigPnd", "ShdPnd"}) EXPECT_EQ(facts[set], "0000000000000000") << set;
}

TEST_F(SpawnPlan, TheParentDeathSignalIsThatOfThePlan) {
  for (const int32_t number : {0, SIGTERM, SIGKILL}) {
    CSpawnPlan plan = probe();
    plan.parent_death_signal = number;
    EXPECT_EQ(facts_of(plan)["death_signal"], std::to_string(number));
  }
}

TEST_F(SpawnPlan, TheUmaskIsInheritedAndMayBeNarrowed) {
  const ScopedUmask umask(0022);
  CSpawnPlan plan = probe();
  EXPECT_EQ(facts_of(plan)["umask"], "22");
  plan.extra_umask = 0055;
  EXPECT_EQ(facts_of(plan)["umask"], "77");
  EXPECT_EQ(::umask(0022), 0022U) << "the daemon's own is left alone";
}

TEST_F(SpawnPlan, AnEnvironmentEntryTakesThePlaceOfItsVariable) {
  ASSERT_EQ(::setenv("LD_LIBRARY_PATH_OF_TEST", "old", 1), 0);
  ASSERT_EQ(::setenv("LD_LIBRARY_PATH_OF_TEST_2", "other", 1), 0);
  CSpawnPlan plan = probe();
  plan.environment_entry = "LD_LIBRARY_PATH_OF_TEST=new";
  const ProbeFacts facts = facts_of(plan);
  EXPECT_EQ(facts.environment("LD_LIBRARY_PATH_OF_TEST"), std::vector<std::string>{"new"});
  EXPECT_EQ(facts.environment("LD_LIBRARY_PATH_OF_TEST_2"), std::vector<std::string>{"other"});
  EXPECT_STREQ(::getenv("LD_LIBRARY_PATH_OF_TEST"), "old") << "the daemon's own is left alone";
  plan.environment_entry.clear();
  EXPECT_EQ(facts_of(plan).environment("LD_LIBRARY_PATH_OF_TEST"), std::vector<std::string>{"old"});
}

TEST_F(SpawnPlan, TheWorkingDirectoryIsEntered) {
  const std::string here = std::filesystem::current_path();
  CSpawnPlan plan = probe();
  EXPECT_EQ(facts_of(plan)["cwd"], here);
  plan.working_directory = temp_.path();
  EXPECT_EQ(facts_of(plan)["cwd"], temp_.path());
  EXPECT_EQ(std::filesystem::current_path(), here);
}

TEST_F(SpawnPlan, AMissingWorkingDirectoryIsIgnored) {
  CSpawnPlan plan = probe();
  plan.working_directory = temp_ / "missing";
  EXPECT_EQ(facts_of(plan)["cwd"], std::filesystem::current_path());
}

TEST_F(SpawnPlan, ARelativeProgramIsFoundFromTheWorkingDirectory) {
  ASSERT_EQ(::symlink(CHILD_PROBE, (temp_ / "probe").c_str()), 0);
  CSpawnPlan plan = plan_of("./probe", {facts_path_});
  plan.working_directory = temp_.path();
  EXPECT_EQ(facts_of(plan)["argv0"], "./probe");
}

TEST_F(SpawnPlan, AScriptWithoutAnInterpreterLineRuns) {
  test::write_file(temp_ / "script", "echo \"$1\" > '" + (temp_ / "said") + "'\n");
  ASSERT_EQ(::chmod((temp_ / "script").c_str(), 0755), 0);
  EXPECT_EQ(run(plan_of(temp_ / "script", {"hello"})), 0);
  EXPECT_EQ(test::read_file(temp_ / "said"), "hello\n");
}

TEST_F(SpawnPlan, AProgramThatCannotBeRunEndsWithStatus0) {
  test::write_file(temp_ / "plain", "not to be run");
  EXPECT_EQ(run(plan_of(temp_ / "missing")), 0);
  EXPECT_EQ(run(plan_of(temp_ / "plain")), 0);
  EXPECT_EQ(run(plan_of(temp_.path())), 0);
}

// A page that parent and children share.
std::atomic<int>* shared_count = nullptr;

TEST_F(SpawnPlan, NoHandlerOfTheDaemonEverRunsInAChild) {
  void* page = ::mmap(nullptr, sizeof *shared_count, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  shared_count = new (page) std::atomic<int>(0);
  struct sigaction action {};
  action.sa_handler = [](int) { ++*shared_count; };
  struct sigaction before {};
  ASSERT_EQ(::sigaction(SIGTERM, &action, &before), 0);
  constexpr int rounds = 200;
  const CSpawnPlan plan = plan_of("/bin/sleep", {"60"});
  for (int round = 0; round < rounds; ++round) {
    const test::ProcessRef child = host_.spawn(plan, nullptr);
    ASSERT_GT(child.pid, 0);
    ASSERT_EQ(host_.signal(child, SIGTERM), 0);
  }
  EXPECT_TRUE(serve_until([&] { return deaths_.size() == rounds; }));
  for (const test::Death& death : deaths_) EXPECT_EQ(death.raw_status, SIGTERM);
  EXPECT_EQ(*shared_count, 0);
  ASSERT_EQ(::sigaction(SIGTERM, &before, nullptr), 0);
  (void)::munmap(page, sizeof *shared_count);
}

}  // namespace
}  // namespace Tessaro::Iot::Component
