#include "configuration.h"

#include <algorithm>

namespace gateway {
namespace {

bool is_good(std::string_view key) {
  return !key.empty() && key.size() <= key_limit &&
         std::ranges::none_of(key, [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

}  // namespace

Code Configuration::get(std::string_view key, std::string& value) {
  wipe(value);
  if (!is_good(key)) return Code::bad_key;
  Entry entry;
  const Code code = store_.get(key, entry);
  if (code != Code::success) return code;
  if (entry.sealed) return sealer_.unseal(key, entry.bytes, value);
  value = std::move(entry.bytes);
  return Code::success;
}

Code Configuration::set(std::string_view key, std::string_view value, bool is_protected) {
  if (!is_good(key)) return Code::bad_key;
  if (value.size() > value_limit) return Code::value_too_long;
  Entry entry{{}, is_protected};
  if (is_protected) {
    const Code code = sealer_.seal(key, value, entry.bytes);
    if (code != Code::success) return code;
  } else {
    entry.bytes = value;
  }
  return store_.set(key, entry);
}

}  // namespace gateway
