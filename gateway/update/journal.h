// The journal of an update: what is being changed, and how far it has come, so that whoever comes after an interruption
// (a crash, a power cut) can tell and make the installation whole again.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace gateway::update {

// One file of the installation that the update touches.
struct Change {
  std::string path;  // plain, relative to the install root
  bool replaces;     // there was one before
};

// All that an update changes. A plan is made before anything is.
struct Plan {
  std::string root;                      // the install root
  std::vector<std::string> directories;  // that are missing below it and will be made, outer ones first
  std::vector<Change> changes;
};

// How far it has come.
enum class Phase {
  staged,    // new files lie, or will lie, beside their places; nothing has been replaced
  swapping,  // some files may have been replaced: to be undone
  swapped,   // all have been replaced; whether the supervisor comes up with them is not known
  done,      // it came up; only the old files are still to be removed
};

// The journal as a file.
class Journal {
 public:
  // At that path; its directory has to be there.
  explicit Journal(std::string path) : path_(std::move(path)) {}

  // Writes the plan, at phase `staged`. False when it cannot be written; there is none then, and `problem` tells why.
  [[nodiscard]] bool begin(const Plan& plan, std::string& problem) const;

  // Notes that the phase is reached. Takes no space on the disk, so it works on a full one. False when it cannot be
  // noted; `problem` tells why.
  [[nodiscard]] bool reach(Phase phase, std::string& problem) const;

  // Removes it: everything is whole.
  void end() const;

  struct Content {
    Phase phase;
    Plan plan;
  };
  enum class State { missing, whole, damaged };
  // Reads it. `content` is filled when it is whole.
  [[nodiscard]] State read(Content& content) const;

  // Moves a journal that nobody can act on out of the way, as PATH.damaged.
  void set_aside() const;

 private:
  std::string path_;
};

}  // namespace gateway::update
