#include "configuration.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "temporary_root.h"

namespace gateway {
namespace {

class Configured : public ::testing::Test {
 protected:
  Configured() { start(); }
  void start() {
    configuration.reset();
    configuration = std::make_unique<Configuration>(root.path(), [](const std::string&) {});
  }
  std::string get(const std::string& key) {
    std::string value = "what was there before";
    code = configuration->get(key, value);
    return value;
  }

  TemporaryRoot root;
  std::unique_ptr<Configuration> configuration;
  Code code{};
};

TEST_F(Configured, a_key_without_a_value_gives_an_empty_one_and_says_so) {
  EXPECT_EQ(get("a"), "");
  EXPECT_EQ(code, Code::no_value);
}

TEST_F(Configured, an_empty_value_is_a_value) {
  root.make_key_chain(1);
  ASSERT_EQ(configuration->set("a", "1", false), Code::success);
  EXPECT_EQ(get("a"), "1");
  for (const bool is_protected : {false, true}) {
    EXPECT_EQ(configuration->set("a", "", is_protected), Code::success);
    EXPECT_EQ(get("a"), "");
    EXPECT_EQ(code, Code::success);
  }
}

TEST_F(Configured, keys_and_values_have_limits) {
  for (const std::string& key : {std::string(), std::string(256, 'k'), std::string("a\nb"), std::string("\x7f")}) {
    EXPECT_EQ(configuration->set(key, "1", false), Code::bad_key) << key;
    EXPECT_EQ(get(key), "");
    EXPECT_EQ(code, Code::bad_key) << key;
  }
  for (const std::string& key : {std::string(255, 'k'), std::string("with blanks and \xc3\xa4")}) {
    EXPECT_EQ(configuration->set(key, "1", false), Code::success) << key;
    EXPECT_EQ(get(key), "1") << key;
  }
  EXPECT_EQ(configuration->set("a", std::string(value_limit, 'v'), false), Code::success);
  EXPECT_EQ(configuration->set("a", std::string(value_limit + 1, 'v'), false), Code::value_too_long);
  EXPECT_EQ(get("a"), std::string(value_limit, 'v'));
}

TEST_F(Configured, a_protected_value_is_in_no_file_in_clear) {
  root.make_key_chain(1);
  ASSERT_EQ(configuration->set("a", "the secret itself", true), Code::success);
  EXPECT_EQ(get("a"), "the secret itself");
  EXPECT_FALSE(root.holds("the secret"));
  ASSERT_EQ(configuration->store().flush(), Code::success);
  EXPECT_FALSE(root.holds("the secret"));
  start();
  EXPECT_EQ(get("a"), "the secret itself");
  EXPECT_FALSE(root.holds("the secret"));
}

TEST_F(Configured, each_write_decides_anew_whether_the_value_is_protected) {
  root.make_key_chain(1);
  ASSERT_EQ(configuration->set("a", "in clear", false), Code::success);
  ASSERT_EQ(configuration->set("a", "not in clear", true), Code::success);
  EXPECT_EQ(get("a"), "not in clear");
  ASSERT_EQ(configuration->store().flush(), Code::success);
  EXPECT_FALSE(root.holds("in clear"));
  ASSERT_EQ(configuration->set("a", "in clear again", false), Code::success);
  std::filesystem::remove_all(root.path() + "/.security");
  EXPECT_EQ(get("a"), "in clear again");
}

TEST_F(Configured, without_a_key_chain_everything_but_protected_values_works) {
  root.make_key_chain(1);
  ASSERT_EQ(configuration->set("sealed", "secret", true), Code::success);
  std::filesystem::remove_all(root.path() + "/.security");
  EXPECT_EQ(configuration->set("other", "secret", true), Code::no_key_chain);
  EXPECT_EQ(configuration->set("sealed", "other", true), Code::no_key_chain);
  EXPECT_EQ(get("sealed"), "");
  EXPECT_EQ(code, Code::no_key_chain);
  EXPECT_EQ(configuration->set("plain", "1", false), Code::success);
  EXPECT_EQ(get("plain"), "1");
  root.make_key_chain(1);
  EXPECT_EQ(get("sealed"), "secret");
}

TEST_F(Configured, a_value_of_another_key_chain_is_kept_and_can_be_replaced) {
  root.make_key_chain(1);
  ASSERT_EQ(configuration->set("a", "secret", true), Code::success);
  root.make_key_chain(2);
  EXPECT_EQ(get("a"), "");
  EXPECT_EQ(code, Code::cannot_be_unsealed);
  root.make_key_chain(1);
  EXPECT_EQ(get("a"), "secret");
  root.make_key_chain(2);
  EXPECT_EQ(configuration->set("a", "new", true), Code::success);
  EXPECT_EQ(get("a"), "new");
}

}  // namespace
}  // namespace gateway
