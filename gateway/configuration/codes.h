// What the configuration service answers. The values are part of its interface: clients match on them.
#pragma once

#include <cstdint>

namespace gateway {

enum class Code : std::int32_t {
  success = 0,
  no_value = 100100,            // the key has no value
  bad_key = 100101,             // the key is empty, too long, or has control characters
  storage_failure = 100102,     // the store cannot be read or written; what it held, it still holds
  cannot_be_unsealed = 100103,  // the value was sealed under another key chain; it is kept
  no_key_chain = 100104,        // a protected value, and there is no whole key chain
  value_too_long = 100105,
  newer_store = 100106,  // the store was written by a newer version; it is left alone
};

// What the code means, for a person; never null.
inline const char* describe(Code code) {
  switch (code) {
    case Code::success:
      return "success";
    case Code::no_value:
      return "the key has no value";
    case Code::bad_key:
      return "the key is empty, too long, or has control characters";
    case Code::storage_failure:
      return "the store cannot be read or written";
    case Code::cannot_be_unsealed:
      return "the value was sealed under another key chain";
    case Code::no_key_chain:
      return "there is no key chain for protected values";
    case Code::value_too_long:
      return "the value is too long";
    case Code::newer_store:
      return "the store was written by a newer version";
  }
  return "unknown code";
}

}  // namespace gateway
