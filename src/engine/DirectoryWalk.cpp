// DirectoryWalk: a lazy depth-first walk over a stack of open levels, one per folder on the way
// from the root to the current entry.
//
// Each folder is listed once, completely, when the walk reaches it: getdents64 on a descriptor
// opened with openat() relative to its parent, and every name examined with fstatat() relative to
// that same descriptor. Nothing is ever looked up by its full path below the root, so paths longer
// than PATH_MAX walk like any other and a folder renamed meanwhile cannot send the walk elsewhere.
// The listing is then sorted and handed out one entry per next(); a level keeps its descriptor
// only while some folder of its listing is still to be opened through it, so a deep chain of
// folders holds a descriptor or two, not one per level.
//
// Order: siblings sort by the bytes of their names, a folder's name taken as name + "/" because
// that is where its contents start ("a.txt" < "a/z"). Names hold no '/', so this yields exactly
// the byte order of the full relative paths, the folder entry coming where its contents begin.
//
// A folder is examined completely before it is yielded: only a folder that could be opened and
// listed to the end comes as `directory`; one that could not (EACCES when opening, an error while
// listing) comes as a single `unreadable` entry and nothing below it is yielded. A listing broken
// off midway is discarded rather than yielded in part, because a caller comparing two trees
// would otherwise take the names not reached for missing files.
#include "corvane/DirectoryWalk.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

namespace corvane {
namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
// getdents64 buffer: large enough that a folder of thousands of names takes few system calls.
constexpr std::size_t kListingBufferBytes = 64 * 1024;

// Owns one open descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      reset();
      descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }
  void reset() {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = -1;
  }

 private:
  int descriptor_ = -1;
};

// What the listing learnt about one name.
struct ListedEntry {
  std::size_t nameOffset = 0;  // in Level::names
  std::uint32_t nameLength = 0;
  // `directory` means "a folder to open when reached"; it may still become unreadable or a cycle.
  WalkEntry::Kind kind = WalkEntry::Kind::file;
  WalkProblem problem = WalkProblem::none;
  int error = 0;
  // Sorts as name + "/" and is told to the ignore hook as a folder.
  bool isDirectory = false;
  // Reached through a followed link, so it is opened without O_NOFOLLOW.
  bool throughLink = false;
  std::uint64_t size = 0;
  FileTime modified;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
};

// One folder on the path from the root to the current entry, with its sorted listing.
struct Level {
  Descriptor descriptor;  // reset once no folder of the listing is left to open through it
  std::string relativePath;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::string names;  // every name of the listing, back to back
  std::vector<ListedEntry> entries;
  std::size_t cursor = 0;
  std::size_t foldersEnd = 0;  // one past the last entry that is opened through `descriptor`

  std::string_view nameOf(const ListedEntry& entry) const {
    return std::string_view(names).substr(entry.nameOffset, entry.nameLength);
  }
};

FileTime modificationTime(const struct stat& status) {
  return {.seconds = static_cast<std::int64_t>(status.st_mtim.tv_sec),
          .nanoseconds = static_cast<std::int64_t>(status.st_mtim.tv_nsec)};
}

// Byte order of name + "/" for folders and of name alone otherwise.
bool sortsBefore(std::string_view a, bool aIsDirectory, std::string_view b, bool bIsDirectory) {
  const std::size_t common = std::min(a.size(), b.size());
  if (common > 0) {
    if (const int order = std::memcmp(a.data(), b.data(), common); order != 0) return order < 0;
  }
  // One name starts the other (or they are equal): the next byte decides, which is '/' for a
  // folder whose name ends there and nothing (before every byte) for anything else.
  const auto nextByte = [common](std::string_view name, bool isDirectory) {
    if (common < name.size()) return static_cast<int>(static_cast<unsigned char>(name[common]));
    return isDirectory ? static_cast<int>('/') : -1;
  };
  return nextByte(a, aIsDirectory) < nextByte(b, bIsDirectory);
}

void markUnreadable(ListedEntry& entry, WalkProblem problem, int error) {
  entry.kind = WalkEntry::Kind::unreadable;
  entry.problem = problem;
  entry.error = problem == WalkProblem::systemError ? error : 0;
}

// Examines `name` in the open folder `folder`; `type` is the listing's d_type, used only to tell
// whether an entry that cannot be examined is a folder.
ListedEntry examine(int folder, const char* name, unsigned char type, SymlinkPolicy symlinks) {
  ListedEntry entry;
  struct stat status {};
  if (::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    markUnreadable(entry, WalkProblem::systemError, errno);
    entry.isDirectory = type == DT_DIR;
    return entry;
  }
  entry.device = static_cast<std::uint64_t>(status.st_dev);
  if (S_ISLNK(status.st_mode)) {
    if (symlinks == SymlinkPolicy::skip) {
      entry.kind = WalkEntry::Kind::skipped;
      entry.problem = WalkProblem::symbolicLink;
      return entry;
    }
    if (::fstatat(folder, name, &status, 0) != 0) {
      const int error = errno;
      markUnreadable(entry,
                     error == ENOENT  ? WalkProblem::danglingLink
                     : error == ELOOP ? WalkProblem::linkLoop
                                      : WalkProblem::systemError,
                     error);
      return entry;
    }
    entry.throughLink = true;
    entry.device = static_cast<std::uint64_t>(status.st_dev);
  }
  if (S_ISDIR(status.st_mode)) {
    entry.kind = WalkEntry::Kind::directory;
    entry.isDirectory = true;
    entry.modified = modificationTime(status);
    entry.inode = static_cast<std::uint64_t>(status.st_ino);
  } else if (S_ISREG(status.st_mode)) {
    entry.kind = WalkEntry::Kind::file;
    entry.size = static_cast<std::uint64_t>(status.st_size);
    entry.modified = modificationTime(status);
  } else {
    entry.kind = WalkEntry::Kind::skipped;
    entry.problem = WalkProblem::specialFile;
  }
  return entry;
}

// Lists the open folder `folder` into `level` (names examined and sorted) and gives the folder's
// descriptor to it. Returns 0, or the errno that stopped the listing (the level is then unusable).
int listFolder(Descriptor folder, SymlinkPolicy symlinks, std::vector<std::uint64_t>& buffer,
               Level& level) {
  struct stat status {};
  if (::fstat(folder.get(), &status) != 0) return errno;
  level.device = static_cast<std::uint64_t>(status.st_dev);
  level.inode = static_cast<std::uint64_t>(status.st_ino);
  if (buffer.empty()) buffer.resize(kListingBufferBytes / sizeof(std::uint64_t));
  char* const bytes = reinterpret_cast<char*>(buffer.data());
  for (;;) {
    const ssize_t filled = ::getdents64(folder.get(), bytes, buffer.size() * sizeof(buffer[0]));
    if (filled < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (filled == 0) break;
    for (ssize_t offset = 0; offset < filled;) {
      const auto* record = reinterpret_cast<const struct dirent64*>(bytes + offset);
      offset += record->d_reclen;
      const char* name = record->d_name;
      if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
      ListedEntry entry = examine(folder.get(), name, record->d_type, symlinks);
      entry.nameOffset = level.names.size();
      entry.nameLength = static_cast<std::uint32_t>(std::strlen(name));
      level.names.append(name, entry.nameLength);
      level.entries.push_back(entry);
    }
  }
  std::sort(level.entries.begin(), level.entries.end(),
            [&level](const ListedEntry& a, const ListedEntry& b) {
              return sortsBefore(level.nameOf(a), a.isDirectory, level.nameOf(b), b.isDirectory);
            });
  for (std::size_t index = level.entries.size(); index > 0; --index) {
    if (level.entries[index - 1].kind == WalkEntry::Kind::directory) {
      level.foldersEnd = index;
      break;
    }
  }
  if (level.foldersEnd > 0) level.descriptor = std::move(folder);
  return 0;
}

}  // namespace

struct DirectoryWalk::State {
  std::string root;
  WalkOptions options;
  bool started = false;
  std::vector<Level> levels;
  std::vector<std::uint64_t> listingBuffer;  // getdents64 records, 8-byte aligned

  WalkEntry rootProblem(int error, std::uint64_t device) const {
    WalkEntry entry;
    entry.kind = WalkEntry::Kind::unreadable;
    entry.path = root;
    entry.device = device;
    entry.problem = WalkProblem::systemError;
    entry.error = error;
    return entry;
  }

  // Lists the root (a link as root is followed). Returns its problem as the walk's only entry.
  std::optional<WalkEntry> start() {
    struct stat status {};
    if (::stat(root.c_str(), &status) != 0) return rootProblem(errno, 0);
    const auto device = static_cast<std::uint64_t>(status.st_dev);
    if (!S_ISDIR(status.st_mode)) return rootProblem(ENOTDIR, device);
    Descriptor folder(::open(root.c_str(), kDirectoryFlags));
    if (!folder) return rootProblem(errno, device);
    Level level;
    if (const int error = listFolder(std::move(folder), options.symlinks, listingBuffer, level)) {
      return rootProblem(error, device);
    }
    levels.push_back(std::move(level));
    return std::nullopt;
  }

  bool onCurrentPath(std::uint64_t device, std::uint64_t inode) const {
    return std::any_of(levels.begin(), levels.end(), [&](const Level& level) {
      return level.device == device && level.inode == inode;
    });
  }

  static void markCycle(WalkEntry& entry) {
    entry.kind = WalkEntry::Kind::skipped;
    entry.problem = WalkProblem::directoryCycle;
    entry.modified = {};
  }

  static void markUnlistable(WalkEntry& entry, int error) {
    entry.kind = WalkEntry::Kind::unreadable;
    entry.problem = WalkProblem::systemError;
    entry.error = error;
    entry.modified = {};
  }

  // `entry` is the folder `listed` of the innermost level: opens and lists it, and either turns
  // the entry into what stops the descent or pushes the folder's level. The parent's descriptor
  // is released here when it has no folder left to open, before the push moves the levels.
  void enter(const ListedEntry& listed, const std::string& name, WalkEntry& entry) {
    Level& parent = levels.back();
    if (onCurrentPath(listed.device, listed.inode)) {
      markCycle(entry);
      releaseIfDone(parent);
      return;
    }
    const int flags = kDirectoryFlags | (listed.throughLink ? 0 : O_NOFOLLOW);
    Descriptor folder(::openat(parent.descriptor.get(), name.c_str(), flags));
    releaseIfDone(parent);
    if (!folder) {
      markUnlistable(entry, errno);
      return;
    }
    Level level;
    level.relativePath = entry.relativePath;
    if (const int error = listFolder(std::move(folder), options.symlinks, listingBuffer, level)) {
      markUnlistable(entry, error);
      return;
    }
    // The folder opened may differ from the one examined if it was replaced meanwhile.
    if (onCurrentPath(level.device, level.inode)) {
      markCycle(entry);
      return;
    }
    levels.push_back(std::move(level));
  }

  static void releaseIfDone(Level& level) {
    if (level.cursor >= level.foldersEnd) level.descriptor.reset();
  }

  WalkEntry entryFor(const ListedEntry& listed, std::string relativePath) const {
    WalkEntry entry;
    entry.kind = listed.kind;
    entry.path = joinPath(root, relativePath);
    entry.relativePath = std::move(relativePath);
    entry.size = listed.kind == WalkEntry::Kind::file ? listed.size : 0;
    if (listed.kind == WalkEntry::Kind::file || listed.kind == WalkEntry::Kind::directory) {
      entry.modified = listed.modified;
    }
    entry.device = listed.device;
    entry.problem = listed.problem;
    entry.error = listed.error;
    return entry;
  }

  std::optional<WalkEntry> next() {
    if (!started) {
      started = true;
      if (std::optional<WalkEntry> problem = start()) return problem;
    }
    while (!levels.empty()) {
      Level& level = levels.back();
      if (level.cursor == level.entries.size()) {
        levels.pop_back();
        continue;
      }
      const ListedEntry listed = level.entries[level.cursor++];
      const std::string name(level.nameOf(listed));
      std::string relativePath =
          level.relativePath.empty() ? name : level.relativePath + "/" + name;
      if (options.ignore && options.ignore(relativePath, listed.isDirectory)) {
        releaseIfDone(level);
        continue;
      }
      WalkEntry entry = entryFor(listed, std::move(relativePath));
      if (listed.kind == WalkEntry::Kind::directory) {
        enter(listed, name, entry);
      } else {
        releaseIfDone(level);
      }
      return entry;
    }
    return std::nullopt;
  }
};

DirectoryWalk::DirectoryWalk(std::string root, WalkOptions options)
    : state_(std::make_unique<State>()) {
  state_->root = std::move(root);
  state_->options = std::move(options);
}

DirectoryWalk::~DirectoryWalk() = default;
DirectoryWalk::DirectoryWalk(DirectoryWalk&&) noexcept = default;
DirectoryWalk& DirectoryWalk::operator=(DirectoryWalk&&) noexcept = default;

std::optional<WalkEntry> DirectoryWalk::next() {
  if (!state_) return std::nullopt;  // moved from
  return state_->next();
}

const std::string& DirectoryWalk::root() const {
  static const std::string kMovedFrom;
  return state_ ? state_->root : kMovedFrom;
}

std::string WalkEntry::reason() const {
  switch (problem) {
    case WalkProblem::none:
      return {};
    case WalkProblem::symbolicLink:
      return "symbolic link skipped";
    case WalkProblem::specialFile:
      return "not a regular file, skipped";
    case WalkProblem::directoryCycle:
      return "directory loop through a symbolic link, not followed";
    case WalkProblem::danglingLink:
      return "dangling symbolic link";
    case WalkProblem::linkLoop:
      return "symbolic link loop";
    case WalkProblem::systemError:
      return std::strerror(error);
  }
  return {};
}

std::string joinPath(const std::string& directory, const std::string& name) {
  if (directory.empty()) return name;
  if (directory.back() == '/') return directory + name;
  return directory + "/" + name;
}

}  // namespace corvane
