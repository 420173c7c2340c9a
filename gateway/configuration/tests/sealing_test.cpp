#include "sealing.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "temporary_root.h"

namespace gateway {
namespace {

class Sealing : public ::testing::Test {
 protected:
  std::string seal(const std::string& key, const std::string& secret) {
    std::string sealed;
    EXPECT_EQ(sealer.seal(key, secret, sealed), Code::success);
    return sealed;
  }

  TemporaryRoot root;
  Sealer sealer{root.path()};
  std::string value;
};

TEST_F(Sealing, what_is_sealed_can_be_unsealed_and_is_not_readable) {
  root.make_key_chain(1);
  for (const std::size_t size : {0U, 1U, 100U, 65536U}) {
    const std::string secret(size, 's');
    const std::string sealed = seal("key", secret);
    EXPECT_TRUE(secret.size() < 10 || sealed.find("sss") == std::string::npos);
    ASSERT_EQ(sealer.unseal("key", sealed, value), Code::success);
    EXPECT_EQ(value, secret);
  }
}

TEST_F(Sealing, the_same_value_is_sealed_differently_each_time) {
  root.make_key_chain(1);
  EXPECT_NE(seal("key", "secret"), seal("key", "secret"));
}

TEST_F(Sealing, a_value_cannot_be_unsealed_for_another_key) {
  root.make_key_chain(1);
  EXPECT_EQ(sealer.unseal("other", seal("key", "secret"), value), Code::cannot_be_unsealed);
  EXPECT_EQ(value, "");
}

TEST_F(Sealing, a_value_cannot_be_unsealed_under_another_key_chain_but_under_its_own_again) {
  root.make_key_chain(1);
  const std::string sealed = seal("key", "secret");
  root.make_key_chain(2);
  EXPECT_EQ(sealer.unseal("key", sealed, value), Code::cannot_be_unsealed);
  root.make_key_chain(1);
  EXPECT_EQ(sealer.unseal("key", sealed, value), Code::success);
  EXPECT_EQ(value, "secret");
}

TEST_F(Sealing, no_bit_of_what_is_sealed_can_be_changed) {
  root.make_key_chain(1);
  const std::string sealed = seal("key", "secret");
  for (std::size_t i = 0; i < sealed.size(); ++i) {
    std::string changed = sealed;
    changed[i] = static_cast<char>(changed[i] ^ 1);
    EXPECT_EQ(sealer.unseal("key", changed, value), Code::cannot_be_unsealed) << i;
    EXPECT_EQ(sealer.unseal("key", sealed.substr(0, i), value), Code::cannot_be_unsealed) << i;
  }
}

TEST_F(Sealing, without_a_key_chain_nothing_is_sealed_or_unsealed) {
  root.make_key_chain(1);
  const std::string sealed = seal("key", "secret");
  std::filesystem::remove_all(root.path() + "/.security");
  std::string more;
  EXPECT_EQ(sealer.seal("key", "secret", more), Code::no_key_chain);
  EXPECT_EQ(sealer.unseal("key", sealed, value), Code::no_key_chain);
}

TEST_F(Sealing, the_copy_of_the_key_chain_stands_in_for_one_that_is_missing_or_damaged) {
  root.make_key_chain(1);
  root.make_key_chain(1, ".sec_bak");
  const std::string sealed = seal("key", "secret");
  TemporaryRoot::write(root.path() + "/.security/keychain", "quorvane key chain 1\nkey 00");
  EXPECT_EQ(sealer.unseal("key", sealed, value), Code::success);
  std::filesystem::remove_all(root.path() + "/.security");
  EXPECT_EQ(sealer.unseal("key", sealed, value), Code::success);
  EXPECT_EQ(value, "secret");
}

TEST_F(Sealing, a_key_chain_that_is_a_link_or_a_directory_is_none) {
  std::string sealed;
  root.make_key_chain(1, "elsewhere");
  std::filesystem::create_directories(root.path() + "/.security");
  std::filesystem::create_symlink("../elsewhere/keychain", root.path() + "/.security/keychain");
  EXPECT_EQ(sealer.seal("key", "secret", sealed), Code::no_key_chain);
  std::filesystem::remove(root.path() + "/.security/keychain");
  std::filesystem::create_directories(root.path() + "/.security/keychain");
  EXPECT_EQ(sealer.seal("key", "secret", sealed), Code::no_key_chain);
}

TEST_F(Sealing, a_wiped_text_is_empty_and_so_is_its_memory) {
  std::string text(1000, 'x');
  text.resize(500);
  const char* const memory = text.data();
  wipe(text);
  EXPECT_TRUE(text.empty());
  EXPECT_EQ(text.data(), memory);
  EXPECT_EQ(std::string(memory, 1000).find('x'), std::string::npos);
}

}  // namespace
}  // namespace gateway
