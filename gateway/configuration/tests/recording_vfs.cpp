#include "recording_vfs.h"

#include <algorithm>
#include <new>
#include <stdexcept>

namespace gateway {
namespace {

constexpr std::size_t sector = 512;

enum class Kind { write, truncate, sync, remove };

struct Step {
  Kind kind;
  std::string path;
  std::size_t place = 0;  // of a write; the new size of a truncation
  std::string bytes = {};
};

// SQLite gives its callbacks no way back to an object that is not a file.
std::vector<Step> recorded;
sqlite3_vfs* real = nullptr;

struct File {
  sqlite3_file base;
  std::string* path;

  // The real one lies behind this in the same piece of memory.
  sqlite3_file* inner() { return reinterpret_cast<sqlite3_file*>(this + 1); }
  static File& of(sqlite3_file* file) { return *reinterpret_cast<File*>(file); }
};

// Calls the real file's method.
template <auto method, class... Arguments>
int forward(sqlite3_file* file, Arguments... arguments) {
  sqlite3_file* const inner = File::of(file).inner();
  return (inner->pMethods->*method)(inner, arguments...);
}

int close(sqlite3_file* file) {
  const int result = forward<&sqlite3_io_methods::xClose>(file);
  delete File::of(file).path;
  return result;
}

int write(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 place) {
  recorded.push_back({Kind::write, *File::of(file).path, static_cast<std::size_t>(place),
                      std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(count))});
  return forward<&sqlite3_io_methods::xWrite>(file, bytes, count, place);
}

int truncate(sqlite3_file* file, sqlite3_int64 size) {
  recorded.push_back({Kind::truncate, *File::of(file).path, static_cast<std::size_t>(size)});
  return forward<&sqlite3_io_methods::xTruncate>(file, size);
}

int sync(sqlite3_file* file, int flags) {
  recorded.push_back({Kind::sync, *File::of(file).path});
  return forward<&sqlite3_io_methods::xSync>(file, flags);
}

sqlite3_io_methods make_methods() {
  sqlite3_io_methods methods{};
  methods.iVersion = 1;
  methods.xClose = close;
  methods.xRead = forward<&sqlite3_io_methods::xRead, void*, int, sqlite3_int64>;
  methods.xWrite = write;
  methods.xTruncate = truncate;
  methods.xSync = sync;
  methods.xFileSize = forward<&sqlite3_io_methods::xFileSize, sqlite3_int64*>;
  methods.xLock = forward<&sqlite3_io_methods::xLock, int>;
  methods.xUnlock = forward<&sqlite3_io_methods::xUnlock, int>;
  methods.xCheckReservedLock = forward<&sqlite3_io_methods::xCheckReservedLock, int*>;
  methods.xFileControl = forward<&sqlite3_io_methods::xFileControl, int, void*>;
  methods.xSectorSize = forward<&sqlite3_io_methods::xSectorSize>;
  methods.xDeviceCharacteristics = forward<&sqlite3_io_methods::xDeviceCharacteristics>;
  return methods;
}

int open(sqlite3_vfs*, const char* path, sqlite3_file* file, int flags, int* out_flags) {
  static const sqlite3_io_methods methods = make_methods();
  File& made = *new (file) File{};
  const int result = real->xOpen(real, path, made.inner(), flags, out_flags);
  if (result != SQLITE_OK) return result;
  made.base.pMethods = &methods;
  made.path = new std::string(path == nullptr ? "" : path);
  return result;
}

int remove(sqlite3_vfs*, const char* path, int and_sync) {
  recorded.push_back({Kind::remove, path});
  return real->xDelete(real, path, and_sync);
}

void put(std::string& content, std::size_t place, const std::string& bytes, std::size_t from, std::size_t count) {
  if (content.size() < place + from + count) content.resize(place + from + count, '\0');
  content.replace(place + from, count, bytes, from, count);
}

// `chance` in a hundred, that a sector or another change is on the disk.
void apply(const Step& step, Image& image, unsigned chance, std::mt19937& random) {
  const auto happens = [&] { return random() % 100 < chance; };
  switch (step.kind) {
    case Kind::write:
      for (std::size_t from = 0; from < step.bytes.size();) {
        // Sectors of the disk, not of the write.
        const std::size_t count = std::min(sector - (step.place + from) % sector, step.bytes.size() - from);
        if (happens()) put(image[step.path], step.place, step.bytes, from, count);
        from += count;
      }
      break;
    case Kind::truncate:
      if (happens()) image[step.path].resize(step.place, '\0');
      break;
    case Kind::remove:
      if (happens()) image.erase(step.path);
      break;
    case Kind::sync:
      break;
  }
}

}  // namespace

RecordingVfs::RecordingVfs() {
  recorded.clear();
  real = sqlite3_vfs_find(nullptr);
  if (real == nullptr) throw std::runtime_error("SQLite has no file system");
  vfs_ = *real;
  vfs_.zName = "recording";
  vfs_.szOsFile = static_cast<int>(sizeof(File)) + real->szOsFile;
  vfs_.pNext = nullptr;
  vfs_.xOpen = open;
  vfs_.xDelete = remove;
  sqlite3_vfs_register(&vfs_, 1);
}

RecordingVfs::~RecordingVfs() {
  sqlite3_vfs_unregister(&vfs_);
  sqlite3_vfs_register(real, 1);
}

std::size_t RecordingVfs::steps() const { return recorded.size(); }

Image RecordingVfs::after_power_loss(Image before, std::size_t steps, std::mt19937& random) const {
  const unsigned chance = std::vector<unsigned>{0, 10, 50, 90, 100}[random() % 5];
  for (std::size_t i = 0; i < steps; ++i) {
    bool synced = false;
    for (std::size_t later = i + 1; later < steps && !synced; ++later) {
      synced = recorded[later].kind == Kind::sync && recorded[later].path == recorded[i].path;
    }
    apply(recorded[i], before, synced ? 100 : chance, random);
  }
  return before;
}

}  // namespace gateway
