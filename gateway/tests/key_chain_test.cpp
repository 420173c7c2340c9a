#include "key_chain.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "temporary_directory.h"

namespace {

using gateway::deploy_key_chain;
using gateway::Deployed;
namespace fs = std::filesystem;

class KeyChain : public testing::Test {
 protected:
  [[nodiscard]] fs::path chain() const { return root / ".security" / "keychain"; }
  [[nodiscard]] fs::path copy() const { return root / ".sec_bak" / "keychain"; }

  static std::string content(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static void put(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }
  static unsigned mode(const fs::path& path) { return static_cast<unsigned>(fs::status(path).permissions()); }

  std::optional<Deployed> deploy() { return deploy_key_chain(root.string(), problem); }

  gateway::TemporaryDirectory temporary;
  const fs::path& root = temporary.path();
  std::string problem;
};

TEST_F(KeyChain, is_made_once_with_its_copy) {
  EXPECT_EQ(deploy(), Deployed::created);
  const std::string made = content(chain());
  EXPECT_TRUE(gateway::parse_key_chain(made));
  EXPECT_EQ(content(copy()), made);
  EXPECT_EQ(deploy(), Deployed::present);
  EXPECT_EQ(content(chain()), made);
}

TEST_F(KeyChain, is_another_one_in_another_gateway) {
  ASSERT_EQ(deploy(), Deployed::created);
  const std::string first = content(chain());
  fs::remove_all(root / ".security");
  fs::remove_all(root / ".sec_bak");
  ASSERT_EQ(deploy(), Deployed::created);
  EXPECT_NE(content(chain()), first);
}

TEST_F(KeyChain, is_for_its_owner_alone_whatever_the_modes_were) {
  const mode_t old = ::umask(0);
  fs::create_directory(root / ".security");
  deploy();
  ::umask(old);
  for (const fs::path& file : {chain(), copy()}) {
    EXPECT_EQ(mode(file), 0600U);
    EXPECT_EQ(mode(file.parent_path()), 0700U);
    fs::permissions(file, fs::perms::all);
  }
  EXPECT_EQ(deploy(), Deployed::present);
  EXPECT_EQ(mode(chain()), 0600U);
  EXPECT_EQ(mode(copy()), 0600U);
}

TEST_F(KeyChain, is_restored_from_its_copy_when_it_is_missing) {
  deploy();
  const std::string made = content(copy());
  fs::remove(chain());
  EXPECT_EQ(deploy(), Deployed::restored);
  EXPECT_EQ(content(chain()), made);
}

TEST_F(KeyChain, is_copied_again_when_the_copy_is_missing) {
  deploy();
  fs::remove_all(copy().parent_path());
  EXPECT_EQ(deploy(), Deployed::copied);
  EXPECT_EQ(content(copy()), content(chain()));
}

TEST_F(KeyChain, is_restored_when_it_is_damaged_and_the_damaged_one_is_kept) {
  deploy();
  const std::string made = content(copy());
  put(chain(), made.substr(0, made.size() / 2));
  EXPECT_EQ(deploy(), Deployed::restored);
  EXPECT_EQ(content(chain()), made);
  EXPECT_TRUE(fs::exists(chain().parent_path() / "keychain.damaged"));
}

TEST_F(KeyChain, is_not_made_anew_while_there_is_a_trace_of_an_earlier_one) {
  deploy();
  put(chain(), "");
  put(copy(), "");
  EXPECT_EQ(deploy(), std::nullopt);
  EXPECT_EQ(problem, chain().string() + " is damaged and there is no whole copy");
  fs::remove(chain());
  EXPECT_EQ(deploy(), std::nullopt);
  EXPECT_EQ(problem, copy().string() + " is damaged and the key chain is missing");
  EXPECT_FALSE(fs::exists(chain()));
}

TEST_F(KeyChain, is_left_as_it_is_when_its_copy_is_another) {
  deploy();
  const std::string other = gateway::format_key_chain(gateway::Key{});
  put(copy(), other);
  EXPECT_EQ(deploy(), std::nullopt);
  EXPECT_NE(content(chain()), other);
  EXPECT_EQ(content(copy()), other);
}

TEST_F(KeyChain, is_made_where_an_interrupted_call_has_left_half_a_file) {
  fs::create_directory(root / ".security");
  put(root / ".security" / "keychain.new", "quorvane key");
  EXPECT_EQ(deploy(), Deployed::created);
  EXPECT_FALSE(fs::exists(root / ".security" / "keychain.new"));
}

TEST_F(KeyChain, does_not_follow_links) {
  const fs::path elsewhere = root / "elsewhere";
  fs::create_directory(elsewhere);
  fs::create_directory_symlink(elsewhere, root / ".security");
  EXPECT_EQ(deploy(), std::nullopt);
  fs::remove(root / ".security");
  fs::create_directory(root / ".security");
  fs::create_symlink(elsewhere / "file", chain());
  EXPECT_EQ(deploy(), std::nullopt);
  EXPECT_TRUE(fs::is_empty(elsewhere));
}

TEST(KeyChainText, is_read_back) {
  gateway::Key key{};
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<std::uint8_t>(i * 37);
  EXPECT_EQ(gateway::parse_key_chain(gateway::format_key_chain(key)), key);
}

TEST(KeyChainText, is_refused_after_any_change_of_a_byte) {
  const std::string whole = gateway::format_key_chain(gateway::Key{});
  for (std::size_t i = 0; i < whole.size(); ++i) {
    std::string text = whole;
    text[i] = static_cast<char>(text[i] ^ 1);
    EXPECT_FALSE(gateway::parse_key_chain(text)) << i;
    EXPECT_FALSE(gateway::parse_key_chain(whole.substr(0, i))) << i;
  }
  EXPECT_FALSE(gateway::parse_key_chain(whole + "\n"));
}

}  // namespace
