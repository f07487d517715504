#include "PathWalker.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace corvane::tool {
namespace {

constexpr const char* kLinkSkipped = "symbolic link skipped (use --follow-symlinks)";
constexpr const char* kSpecialSkipped = "not a regular file, skipped";
constexpr const char* kLoopSkipped = "directory loop through a symbolic link, not followed";

struct DirectoryId {
  dev_t device;
  ino_t inode;
  bool operator==(const DirectoryId&) const = default;
};

class TreeWalk {
 public:
  TreeWalk(std::string root, bool followSymlinks)
      : root_(std::move(root)), followSymlinks_(followSymlinks) {}

  std::vector<WalkItem> run() {
    struct stat status {};
    if (::stat(root_.c_str(), &status) != 0) {
      add(WalkItem::Kind::kError, "", std::strerror(errno));
    } else {
      ancestors_.push_back({status.st_dev, status.st_ino});
      listDirectory(root_, "");
    }
    std::stable_sort(items_.begin(), items_.end(),
                     [](const WalkItem& a, const WalkItem& b) { return a.relative < b.relative; });
    return std::move(items_);
  }

 private:
  void add(WalkItem::Kind kind, const std::string& relative, std::string message,
           std::uint64_t size = 0) {
    items_.push_back({.kind = kind,
                      .path = relative.empty() ? root_ : joinPath(root_, relative),
                      .relative = relative,
                      .size = size,
                      .message = std::move(message)});
  }

  void listDirectory(const std::string& directory, const std::string& relativePrefix) {
    DIR* stream = ::opendir(directory.c_str());
    if (stream == nullptr) {
      add(WalkItem::Kind::kError,
          relativePrefix.empty() ? "" : relativePrefix.substr(0, relativePrefix.size() - 1),
          std::strerror(errno));
      return;
    }
    const int directoryDescriptor = ::dirfd(stream);
    std::vector<std::pair<std::string, DirectoryId>> subdirectories;
    errno = 0;
    while (const dirent* entry = ::readdir(stream)) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      const std::string relative = relativePrefix + name;
      struct stat status {};
      if (::fstatat(directoryDescriptor, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        add(WalkItem::Kind::kError, relative, std::strerror(errno));
        continue;
      }
      if (S_ISLNK(status.st_mode)) {
        if (!followSymlinks_) {
          add(WalkItem::Kind::kNotice, relative, kLinkSkipped);
          continue;
        }
        if (::fstatat(directoryDescriptor, entry->d_name, &status, 0) != 0) {
          add(WalkItem::Kind::kError, relative, std::strerror(errno));
          continue;
        }
      }
      if (S_ISDIR(status.st_mode)) {
        subdirectories.push_back({relative, {status.st_dev, status.st_ino}});
      } else if (S_ISREG(status.st_mode)) {
        add(WalkItem::Kind::kFile, relative, "", static_cast<std::uint64_t>(status.st_size));
      } else {
        add(WalkItem::Kind::kNotice, relative, kSpecialSkipped);
      }
      errno = 0;
    }
    if (errno != 0) {
      add(WalkItem::Kind::kError,
          relativePrefix.empty() ? "" : relativePrefix.substr(0, relativePrefix.size() - 1),
          std::strerror(errno));
    }
    ::closedir(stream);

    for (const auto& [relative, id] : subdirectories) {
      if (std::find(ancestors_.begin(), ancestors_.end(), id) != ancestors_.end()) {
        add(WalkItem::Kind::kNotice, relative, kLoopSkipped);
        continue;
      }
      ancestors_.push_back(id);
      listDirectory(joinPath(root_, relative), relative + "/");
      ancestors_.pop_back();
    }
  }

  std::string root_;
  bool followSymlinks_;
  std::vector<DirectoryId> ancestors_;
  std::vector<WalkItem> items_;
};

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

std::string joinPath(const std::string& directory, const std::string& name) {
  if (directory.empty()) return name;
  if (directory.back() == '/') return directory + name;
  return directory + "/" + name;
}

WalkTotals totalsOf(const std::vector<WalkItem>& items) {
  WalkTotals totals;
  for (const WalkItem& item : items) {
    if (item.kind != WalkItem::Kind::kFile) continue;
    ++totals.files;
    totals.bytes += item.size;
  }
  return totals;
}

std::vector<WalkItem> walkDirectory(const std::string& root, bool followSymlinks) {
  return TreeWalk(root, followSymlinks).run();
}

std::vector<WalkItem> walkOperands(const std::vector<std::string>& operands,
                                   const WalkSettings& settings) {
  std::vector<WalkItem> items;
  for (const std::string& operand : operands) {
    if (settings.recursive && isDirectory(operand)) {
      auto walked = walkDirectory(operand, settings.followSymlinks);
      std::move(walked.begin(), walked.end(), std::back_inserter(items));
      continue;
    }
    struct stat status {};
    const std::uint64_t size = ::stat(operand.c_str(), &status) == 0 && S_ISREG(status.st_mode)
                                   ? static_cast<std::uint64_t>(status.st_size)
                                   : 0;
    items.push_back({.kind = WalkItem::Kind::kFile,
                     .path = operand,
                     .relative = operand,
                     .size = size,
                     .message = {}});
  }
  return items;
}

}  // namespace corvane::tool
