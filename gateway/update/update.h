// The files of an installation while an update replaces them.
//
// A new file is first laid beside its place as NAME.fota-new, whole and safe on the disk. Then, file by file, the old
// one gets a second name, NAME.fota-old, and the new one is renamed onto it: each place holds a whole file at any
// moment. Everything here can be repeated after an interruption.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "journal.h"
#include "manifest.h"

namespace gateway::update {

// What the entries change in the installation at `root`. None when a place is taken by something that is no regular
// file, or lies behind a link; `problem` then tells why.
[[nodiscard]] std::optional<Plan> make_plan(const std::string& root, const std::vector<Entry>& entries,
                                            std::string& problem);

// Makes the missing directories and lays the new files beside their places, with the staged files' modes as far as
// 0755 allows. They are summed once more on the way. False when one cannot be laid; what was made has then been
// removed, and `problem` tells why.
[[nodiscard]] bool stage(const std::string& directory, const std::vector<Entry>& entries, const Plan& plan,
                         std::string& problem);

// Removes what `stage` has made. For a plan of which nothing has been replaced.
void unstage(const Plan& plan);

// Puts the new files in place and keeps the old ones. False when it stopped in the middle; `problem` tells why, and
// `undo` is to be called.
[[nodiscard]] bool swap(const Plan& plan, std::string& problem);

// Puts every old file back and removes all that the update has brought, however far it had come. False when something
// could not be put back; `problem` then tells the first of it, and the rest has been put back.
[[nodiscard]] bool undo(const Plan& plan, std::string& problem);

// Removes the old files: the new ones are good.
void forget_old(const Plan& plan);

}  // namespace gateway::update
