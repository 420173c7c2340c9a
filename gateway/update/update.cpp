#include "update.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>

namespace gateway::update {
namespace {

constexpr mode_t directory_mode = 0755;
constexpr mode_t kept_mode = 0755;

// A place below the install root: its directory and its name there.
struct Place {
  Descriptor directory;
  std::string name;
  [[nodiscard]] bool valid() const { return directory.valid(); }
  [[nodiscard]] int at() const { return directory.get(); }
  [[nodiscard]] std::string fresh() const { return name + ".fota-new"; }
  [[nodiscard]] std::string old() const { return name + ".fota-old"; }
};

Place place_of(const Plan& plan, const std::string& path) {
  const auto [parent, name] = split_path(path);
  const Descriptor root = open_directory(plan.root);
  return {root.valid() ? open_below(root.get(), parent) : Descriptor(), name};
}

// The directories that the path needs and that are missing, and whether there is a file at its end. False, with errno
// set, when the place cannot be used.
bool look_at(int root, const std::string& path, Plan& plan, std::set<std::string>& missing) {
  for (auto slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string directory = path.substr(0, slash);
    if (missing.contains(directory)) continue;
    if (open_below(root, directory).valid()) continue;
    if (errno != ENOENT) return false;
    missing.insert(directory);
    plan.directories.push_back(directory);
  }
  const bool is_there = open_file_below(root, path).valid();
  if (!is_there && errno != ENOENT) return false;
  plan.changes.push_back({path, is_there});
  return true;
}

bool fail(const std::string& path, std::string& problem) {
  problem = error_text(path);
  return false;
}

bool lay(int update, const Entry& entry, const Plan& plan, std::string& problem) {
  const Descriptor source = open_file_below(update, entry.path);
  struct stat status {};
  if (!source.valid() || ::fstat(source.get(), &status) != 0) return fail(entry.path, problem);
  const Place place = place_of(plan, entry.path);
  if (!place.valid()) return fail(entry.path, problem);
  // Those that are there are nobody's: only one update works at a time, and of an unfinished one nothing is left. An
  // old file of another time must not be there when this update is undone.
  (void)::unlinkat(place.at(), place.fresh().c_str(), 0);
  (void)::unlinkat(place.at(), place.old().c_str(), 0);
  const Descriptor target(
      ::openat(place.at(), place.fresh().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!target.valid()) return fail(entry.path, problem);
  const auto sum = copy_and_sum(source.get(), target.get());
  if (!sum || ::fchmod(target.get(), status.st_mode & kept_mode) != 0 || ::fsync(target.get()) != 0) {
    return fail(entry.path, problem);
  }
  if (*sum != entry.sum) problem = entry.path + ": it has changed meanwhile";
  return *sum == entry.sum;
}

bool make_directories(const Plan& plan, std::string& problem) {
  for (const std::string& directory : plan.directories) {
    const Place place = place_of(plan, directory);
    if (!place.valid() || ::mkdirat(place.at(), place.name.c_str(), directory_mode) != 0 || ::fsync(place.at()) != 0) {
      return fail(directory, problem);
    }
  }
  return true;
}

void remove_directories(const Plan& plan) {
  std::for_each(plan.directories.rbegin(), plan.directories.rend(), [&plan](const std::string& directory) {
    const Place place = place_of(plan, directory);
    // One that somebody has put something into stays.
    if (place.valid()) (void)::unlinkat(place.at(), place.name.c_str(), AT_REMOVEDIR);
  });
}

// Makes what was done to the names safe from a power cut.
bool sync_directories(const Plan& plan, std::string& problem) {
  std::set<std::string> parents;
  for (const Change& change : plan.changes) {
    if (!parents.insert(split_path(change.path).first).second) continue;
    const Place place = place_of(plan, change.path);
    if (!place.valid() || ::fsync(place.at()) != 0) return fail(change.path, problem);
  }
  return true;
}

// A second name, not another one: a process that runs the old file goes on being known by the name that it had.
bool keep_old(const Place& place) {
  return ::linkat(place.at(), place.name.c_str(), place.at(), place.old().c_str(), 0) == 0;
}

bool put_new(const Place& place) {
  return ::renameat(place.at(), place.fresh().c_str(), place.at(), place.name.c_str()) == 0;
}

bool remove_name(const Place& place, const std::string& name) {
  return ::unlinkat(place.at(), name.c_str(), 0) == 0 || errno == ENOENT;
}

bool undo_one(const Place& place, bool replaces) {
  if (!remove_name(place, place.fresh())) return false;
  if (!replaces) return remove_name(place, place.name);
  // Without an old file nothing has been replaced here, or it has been put back already.
  const bool put_back = ::renameat(place.at(), place.old().c_str(), place.at(), place.name.c_str()) == 0;
  if (!put_back) return errno == ENOENT;
  // Renaming does nothing, and leaves both, when they are two names of the same file.
  return remove_name(place, place.old());
}

}  // namespace

std::optional<Plan> make_plan(const std::string& root, const std::vector<Entry>& entries, std::string& problem) {
  Plan plan{root, {}, {}};
  const Descriptor directory = open_directory(root);
  if (!directory.valid()) {
    problem = error_text(root);
    return std::nullopt;
  }
  std::set<std::string> missing;
  for (const Entry& entry : entries) {
    if (look_at(directory.get(), entry.path, plan, missing)) continue;
    problem = error_text("the place of " + entry.path);
    return std::nullopt;
  }
  return plan;
}

bool stage(const std::string& directory, const std::vector<Entry>& entries, const Plan& plan, std::string& problem) {
  const Descriptor update = open_directory(directory);
  bool laid = update.valid() || fail(directory, problem);
  laid = laid && make_directories(plan, problem);
  laid = laid && std::all_of(entries.begin(), entries.end(),
                             [&](const Entry& entry) { return lay(update.get(), entry, plan, problem); });
  laid = laid && sync_directories(plan, problem);
  if (!laid) unstage(plan);
  return laid;
}

void unstage(const Plan& plan) {
  for (const Change& change : plan.changes) {
    const Place place = place_of(plan, change.path);
    if (place.valid()) (void)remove_name(place, place.fresh());
  }
  remove_directories(plan);
}

bool swap(const Plan& plan, std::string& problem) {
  for (const Change& change : plan.changes) {
    const Place place = place_of(plan, change.path);
    if (!place.valid() || (change.replaces && !keep_old(place))) return fail(change.path, problem);
  }
  // Between the two: no power cut may leave a new file whose old one is not kept.
  if (!sync_directories(plan, problem)) return false;
  for (const Change& change : plan.changes) {
    const Place place = place_of(plan, change.path);
    if (!place.valid() || !put_new(place)) return fail(change.path, problem);
  }
  return sync_directories(plan, problem);
}

bool undo(const Plan& plan, std::string& problem) {
  bool whole = true;
  for (const Change& change : plan.changes) {
    const Place place = place_of(plan, change.path);
    // No directory: the update was to make it, and had not come so far, or it has been removed again.
    if (place.valid() ? undo_one(place, change.replaces) : errno == ENOENT && !change.replaces) continue;
    if (whole) problem = error_text(change.path);
    whole = false;
  }
  std::string ignored;
  if (whole) remove_directories(plan);
  if (whole) (void)sync_directories(plan, ignored);  // a power cut that undoes this finds the journal again
  return whole;
}

void forget_old(const Plan& plan) {
  for (const Change& change : plan.changes) {
    const Place place = place_of(plan, change.path);
    if (place.valid()) (void)remove_name(place, place.old());
  }
}

}  // namespace gateway::update
