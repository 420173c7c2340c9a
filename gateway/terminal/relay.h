// One direction of a conversation between two descriptors.
#pragma once

#include <array>
#include <cstddef>

namespace gateway {

// Moves bytes from one non-blocking descriptor to another, and holds what the second does not take yet. While it holds
// anything it reads nothing more, so a side that does not read stops the other instead of filling memory.
class Relay {
 public:
  // What to wait for, as poll's events, at the descriptor that is read and at the one that is written.
  [[nodiscard]] short reads() const;
  [[nodiscard]] short writes() const;

  // Reads once, if there is room and no end was seen. The end, or an error, is remembered.
  void fill(int source);

  // Writes what it can. False: nobody takes it any more.
  [[nodiscard]] bool drain(int target);

  // Nothing more comes, and everything that came has been passed on.
  [[nodiscard]] bool done() const { return ended_ && begin_ == end_; }

 private:
  std::array<char, 4096> bytes_{};
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  bool ended_ = false;
};

}  // namespace gateway
