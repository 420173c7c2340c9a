// The gateway's key chain: the secret under which protected values are sealed at rest.
//
// It is one small file, kept twice below the run-time root: in ".security", and as a copy in ".sec_bak". Both
// directories survive the cleaning of the run-time root. A key chain is made once in the life of a gateway. Whatever
// was sealed under it is lost with it, so a file that is there is never written over, and no new key chain is made
// while there is any trace of an earlier one.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace gateway {

inline constexpr std::size_t key_size = 32;
using Key = std::array<std::uint8_t, key_size>;

// The key chain file's text for the key: a title line, the key and a check sum, both in hexadecimal.
std::string format_key_chain(const Key& key);

// The key of a key chain file's text. None when the text is not whole.
std::optional<Key> parse_key_chain(std::string_view text);

// What `deploy_key_chain` has done.
enum class Deployed {
  present,   // both were there
  created,   // there was none; a new one has been made, with its copy
  copied,    // the copy was missing or damaged and has been made again
  restored,  // the key chain was missing or damaged and has been restored from its copy
};

// Sees to it that the key chain and its copy are there below the root: mode 0600 in directories of mode 0700, made
// with an umask that leaves the own user his rights. What is damaged is kept beside it under another name. Whenever it
// is interrupted, each file is whole or not there, and the next call goes on. Only one such call works at a time.
// None when it cannot be done; `problem` then tells why, in one line.
std::optional<Deployed> deploy_key_chain(const std::string& root, std::string& problem);

}  // namespace gateway
