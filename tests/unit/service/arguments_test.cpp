#include "arguments.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Tessaro::Iot::Quorvaned {
namespace {

// An argument vector that may be written to.
class Vector {
 public:
  explicit Vector(std::vector<std::string> words) : words_(std::move(words)) {
    words_.insert(words_.begin(), "quorvaned");
    for (std::string& word : words_) pointers_.push_back(word.data());
    pointers_.push_back(nullptr);
  }
  int32_t argc() const { return static_cast<int32_t>(words_.size()); }
  char** argv() { return pointers_.data(); }
  const std::string& word(size_t position) const { return words_[position]; }

 private:
  std::vector<std::string> words_;
  std::vector<char*> pointers_;
};

Mode mode(std::vector<std::string> words) {
  Vector vector(std::move(words));
  return mode_of(vector.argc(), vector.argv());
}

StartRequest request(std::vector<std::string> words) {
  Vector vector(std::move(words));
  return read_start_request(vector.argc(), vector.argv());
}

TEST(Mode, IsChosenByTheWholeSoleWord) {
  EXPECT_EQ(mode({"stop_all"}), Mode::stop_all);
  EXPECT_EQ(mode({"stop_except_remotedebug"}), Mode::stop_except_remotedebug);
  EXPECT_EQ(mode({"status"}), Mode::status);
  EXPECT_EQ(mode({"--nofork"}), Mode::start);
  EXPECT_EQ(mode({}), Mode::start);
}

TEST(Mode, OfAnyOtherSoleWordIsAnError) {
  for (const char* word : {"Status", "status ", "statu", "--help", "", "stop", "--NOFORK"}) {
    EXPECT_EQ(mode({word}), Mode::error) << word;
  }
}

TEST(Mode, OfSeveralWordsIsAStart) {
  EXPECT_EQ(mode({"status", "--nofork"}), Mode::start);
  EXPECT_EQ(mode({"stop_all", "extra"}), Mode::start);
}

TEST(StartRequest, CountsWithoutTheNoForkWord) {
  EXPECT_EQ(request({}).legal_count, 0);
  EXPECT_FALSE(request({}).nofork);
  EXPECT_EQ(request({"--nofork"}).legal_count, 0);
  EXPECT_TRUE(request({"--nofork"}).nofork);
  EXPECT_EQ(request({"a", "b", "c", "--nofork"}).legal_count, 3);
  EXPECT_EQ(request({"a", "--nofork", "b", "--nofork"}).legal_count, 3);  // one less, however often it is given
}

TEST(StartRequest, IsLegalForWholeGroupsUpToThree) {
  for (int32_t count = 0; count <= 12; ++count) {
    const bool legal = count == 0 || count == 3 || count == 6 || count == 9;
    EXPECT_EQ(request(std::vector<std::string>(static_cast<size_t>(count), "x")).is_legal(), legal) << count;
  }
}

TEST(ServiceArguments, AreTakenInGroupsByPosition) {
  Vector vector({"a", "b", "c", "d", "e", "f"});
  const ServiceArguments taken =
      take_service_arguments(read_start_request(vector.argc(), vector.argv()), vector.argc(), vector.argv());
  EXPECT_EQ(taken, (ServiceArguments{"a", "b", "c", "d", "e", "f", "", "", ""}));
}

TEST(ServiceArguments, MaskTheSecretOnlyAndWithItsLength) {
  Vector vector({"key", "name", "secret", "host", "port", "ver", "cloud", "443", "tls"});
  const ServiceArguments taken =
      take_service_arguments(read_start_request(vector.argc(), vector.argv()), vector.argc(), vector.argv());
  EXPECT_EQ(taken[2], "secret");
  EXPECT_EQ(vector.word(3), "******");
  EXPECT_EQ(vector.word(6), "ver");
  EXPECT_EQ(vector.word(9), "tls");
}

TEST(ServiceArguments, OfNoGroupMaskNothing) {
  Vector vector({"--nofork"});
  const ServiceArguments taken =
      take_service_arguments(read_start_request(vector.argc(), vector.argv()), vector.argc(), vector.argv());
  EXPECT_EQ(taken, ServiceArguments());
  EXPECT_EQ(vector.word(1), "--nofork");
}

TEST(ServiceArguments, TakeAnEarlyNoForkWordAsOneOfTheStrings) {
  Vector vector({"--nofork", "a", "b", "c"});
  const ServiceArguments taken =
      take_service_arguments(read_start_request(vector.argc(), vector.argv()), vector.argc(), vector.argv());
  EXPECT_EQ(taken, (ServiceArguments{"--nofork", "a", "b", "", "", "", "", "", ""}));
  EXPECT_EQ(vector.word(3), "*");
  EXPECT_EQ(vector.word(4), "c");
}

}  // namespace
}  // namespace Tessaro::Iot::Quorvaned
