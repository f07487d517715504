// PathWalker: turns the paths named on a command line into the files to read, in a stable order.
//
// A directory walk lists every regular file below the directory, sorted by the bytes of the path
// relative to it (so the order is the same on every run and machine). What the walk meets but
// does not read becomes an item of its own at its place in that order: a directory that cannot be
// listed is an error, a symbolic link that is not followed or a special file (FIFO, socket,
// device) is a notice.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace corvane::tool {

struct WalkSettings {
  bool recursive = false;       // descend into directories named as operands
  bool followSymlinks = false;  // follow links met while descending (operands are always followed)
};

struct WalkItem {
  enum class Kind { kFile, kError, kNotice };
  Kind kind = Kind::kFile;
  std::string path;        // to open and to print: the operand joined with `relative`
  std::string relative;    // below the walked directory; the operand itself for a file operand
  std::uint64_t size = 0;  // kFile: the size seen by the walk (0 when not known)
  std::string message;     // kError and kNotice: the reason
};

// Operands in the order given; a directory operand is walked when `settings.recursive`, else it
// is one kFile item (reading it reports "Is a directory"). A file operand is a kFile item even if
// it does not exist, so that the reason is found where it is read.
std::vector<WalkItem> walkOperands(const std::vector<std::string>& operands,
                                   const WalkSettings& settings);

// Every item below the directory `root` (which must be one), sorted by `relative`.
std::vector<WalkItem> walkDirectory(const std::string& root, bool followSymlinks);

// How many kFile items `items` holds and the sum of their sizes: the totals of a run's progress.
struct WalkTotals {
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
};
WalkTotals totalsOf(const std::vector<WalkItem>& items);

// `directory` + "/" + `name`, without doubling a trailing slash.
std::string joinPath(const std::string& directory, const std::string& name);

}  // namespace corvane::tool
