// DirectoryWalk: the entries of a folder tree, one at a time, in a stable order, with every rule
// about what is read and what is only reported stated here once, so that every application (and
// every command of the tool) treats links, special files and unreadable folders alike.
//
// Order: the byte order of the relative paths ("A.txt" < "a b/c" < "a.txt" < "a/z"), the same on
// every run and machine. A folder's own entry comes right before its contents, that is where its
// path followed by '/' sorts: folder "a" comes after "a.txt" and "a b", before "a/z" and "a0".
// Merging two walks by path therefore compares relativePath + "/" for directory entries.
// The walk is lazy: each folder is listed once, when the walk reaches it, and only the sorted
// listings of the folders on the way to the current entry are held, so a tree of millions of
// files costs little memory. Folders are opened and examined relative to their parent's
// descriptor, so paths longer than PATH_MAX are walked (`path` is then too long to open by name).
//
// What the walk yields (WalkEntry::Kind):
// - file: a regular file (or, with SymlinkPolicy::follow, a link to one). Only these are meant
//   to be opened and read.
// - directory: a folder below the root (never the root itself), before its contents. A folder is
//   listed completely before its entry is yielded; one that cannot be opened or whose listing
//   fails midway comes as one `unreadable` entry instead (with the errno), and nothing below it
//   is yielded: a partial listing would make the names not reached look deleted.
// - skipped: not read and not an error: a symbolic link under SymlinkPolicy::skip (also one to a
//   folder, which is then not descended), a special file (FIFO, socket, device), a folder that is
//   already on the path from the root to this entry (a cycle through a followed link). Reported
//   so that the caller can say so; never opened (a FIFO would block, a device would never end).
//   A folder reached a second time by another way (a link to a sibling) is walked again.
// - unreadable: an entry that could not be examined or a folder that could not be listed (with
//   the errno), a dangling symbolic link (WalkProblem::danglingLink) or a link loop
//   (WalkProblem::linkLoop) under SymlinkPolicy::follow. Reported once, by the entry's own path;
//   never blamed on the folder that holds it.
// The ignore hook is called once for every entry, in walk order, before it is yielded and before a
// folder is opened: an ignored entry is not yielded, and an ignored folder is neither opened nor
// descended (so an ignored unreadable folder is not reported either).
//
// Thread safety: one walk is used by one thread at a time. No exception for file-system problems:
// they are entries.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/Export.hpp"

namespace corvane {

// What to do with a symbolic link met inside a walked folder (a root given as a link is always
// followed, as `ls -L` or `sha256sum` do).
enum class SymlinkPolicy {
  skip,    // yield it as `skipped` (WalkProblem::symbolicLink) and do not read it
  follow,  // treat it as what it points to; dangling links and loops are `unreadable`
};

// Why an entry is skipped or unreadable.
enum class WalkProblem {
  none,
  symbolicLink,    // skipped: a link under SymlinkPolicy::skip
  specialFile,     // skipped: FIFO, socket, character or block device
  directoryCycle,  // skipped: a folder met again through a followed link
  danglingLink,    // unreadable: a followed link whose target does not exist
  linkLoop,        // unreadable: a followed link that resolves to itself (ELOOP)
  systemError,     // unreadable: examining or listing failed; see WalkEntry::error
};

// Modification time: seconds and nanoseconds since the epoch, UTC.
struct FileTime {
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;  // 0 ... 999,999,999
  friend bool operator==(const FileTime&, const FileTime&) = default;
};

struct CORVANE_API WalkEntry {
  enum class Kind { file, directory, skipped, unreadable };

  Kind kind = Kind::file;
  // The path to open or print: the root joined with relativePath ("root/a/b").
  std::string path;
  // Below the root, '/'-separated, never empty for an entry below the root. For the root itself
  // (only when the root cannot be walked) it is empty and `path` is the root as given.
  std::string relativePath;
  // file: the size seen by the walk; 0 otherwise.
  std::uint64_t size = 0;
  // file and directory: the modification time seen by the walk.
  FileTime modified;
  // The device of the entry (st_dev), for storage-aware scheduling; 0 when unknown.
  std::uint64_t device = 0;
  WalkProblem problem = WalkProblem::none;
  // systemError: the errno (EACCES, ...); 0 otherwise.
  int error = 0;

  // A short reason for skipped and unreadable entries: "symbolic link skipped", "not a regular
  // file, skipped", "directory loop through a symbolic link, not followed", "dangling symbolic
  // link", "symbolic link loop", or strerror(error). Empty for files and folders.
  std::string reason() const;
};

// Decides whether a walk leaves out an entry (and, for a folder, everything below it). Called
// with the entry's relative path and whether it is a folder (a link counts as what it points to
// under SymlinkPolicy::follow, as a non-folder otherwise; an entry that could not be examined
// counts as a folder when the listing said it is one). May throw: the exception leaves next().
using WalkIgnoreRule = std::function<bool(std::string_view relativePath, bool isDirectory)>;

struct WalkOptions {
  SymlinkPolicy symlinks = SymlinkPolicy::skip;
  WalkIgnoreRule ignore = {};  // empty: nothing is ignored
};

class CORVANE_API DirectoryWalk {
 public:
  // Prepares a walk of the folder `root`; nothing is read until next(). A root that is not a
  // folder or cannot be listed gives a single `unreadable` entry (relative path "") with the
  // reason (ENOTDIR, ENOENT, EACCES...).
  DirectoryWalk(std::string root, WalkOptions options = {});
  ~DirectoryWalk();
  DirectoryWalk(DirectoryWalk&&) noexcept;
  DirectoryWalk& operator=(DirectoryWalk&&) noexcept;

  // The next entry in byte order of relative paths, or nothing at the end.
  std::optional<WalkEntry> next();

  const std::string& root() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// `directory` + "/" + `name`, without doubling a trailing slash; `name` alone when `directory` is
// empty.
CORVANE_API std::string joinPath(const std::string& directory, const std::string& name);

}  // namespace corvane
