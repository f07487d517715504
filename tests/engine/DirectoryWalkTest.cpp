// DirectoryWalk: order, what each kind of entry becomes, unreadable roots and folders, links
// under both policies, special files that must never be opened, the ignore hook, deep trees and
// large folders.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <future>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvane/DirectoryWalk.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/UnprivilegedUser.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using testsupport::ScratchDirectory;
using Kind = WalkEntry::Kind;

std::vector<WalkEntry> walkAll(const std::string& root, WalkOptions options = {}) {
  std::vector<WalkEntry> entries;
  DirectoryWalk walk(root, std::move(options));
  while (std::optional<WalkEntry> entry = walk.next()) entries.push_back(std::move(*entry));
  return entries;
}

WalkOptions following() { return {.symlinks = SymlinkPolicy::follow, .ignore = {}}; }

const char* kindName(Kind kind) {
  switch (kind) {
    case Kind::file:
      return "file";
    case Kind::directory:
      return "directory";
    case Kind::skipped:
      return "skipped";
    case Kind::unreadable:
      return "unreadable";
  }
  return "?";
}

// "kind relativePath (reason)" per line, for failure messages.
std::string describe(const std::vector<WalkEntry>& entries) {
  std::string text;
  for (const WalkEntry& entry : entries) {
    text += std::string(kindName(entry.kind)) + " '" + entry.relativePath + "'";
    if (!entry.reason().empty()) text += " (" + entry.reason() + ")";
    text += "\n";
  }
  return text;
}

std::vector<std::string> relativePaths(const std::vector<WalkEntry>& entries) {
  std::vector<std::string> paths;
  for (const WalkEntry& entry : entries) paths.push_back(entry.relativePath);
  return paths;
}

// Plain byte order: every byte compared as an unsigned value, a prefix first.
bool byteOrder(const std::string& a, const std::string& b) {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return static_cast<unsigned char>(x) < static_cast<unsigned char>(y);
  });
}

std::string makeFolder(const std::string& path) {
  EXPECT_EQ(::mkdir(path.c_str(), 0755), 0) << path << ": " << std::strerror(errno);
  return path;
}

void makeLink(const std::string& target, const std::string& path) {
  EXPECT_EQ(::symlink(target.c_str(), path.c_str()), 0) << path << ": " << std::strerror(errno);
}

// The entry with `relativePath`, or a failure.
const WalkEntry* find(const std::vector<WalkEntry>& entries, const std::string& relativePath) {
  for (const WalkEntry& entry : entries) {
    if (entry.relativePath == relativePath) return &entry;
  }
  ADD_FAILURE() << "no entry '" << relativePath << "' in\n" << describe(entries);
  return nullptr;
}

// Removes `name` in `parent` and everything below it through descriptors, for trees whose paths
// are longer than PATH_MAX (which path-based removal cannot reach).
void removeTreeAt(int parent, const char* name) {
  const int folder = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (folder < 0) {
    ::unlinkat(parent, name, 0);
    return;
  }
  DIR* listing = ::fdopendir(folder);
  if (listing == nullptr) {
    ::close(folder);
    return;
  }
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(listing)) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
      names.emplace_back(entry->d_name);
    }
  }
  for (const std::string& child : names) removeTreeAt(::dirfd(listing), child.c_str());
  ::closedir(listing);
  ::unlinkat(parent, name, AT_REMOVEDIR);
}

int openDescriptorCount() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

TEST(DirectoryWalk, RandomTreeComesInByteOrderOfRelativePaths) {
  const std::uint64_t seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  std::mt19937_64 random(seed);
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("tree"));

  // Pieces whose bytes sit on both sides of '/' (0x2f): space, '-', '.', digits, upper and lower
  // case, '~', DEL and bytes from 0x80 up (UTF-8 and not).
  const std::vector<std::string> pieces = {"a", "A",    " ",    ".",    "-", "0",     "b",  "Z",
                                           "~", "\x7f", "\x80", "\xff", "é", "a.txt", "a b"};
  std::vector<std::string> folders = {""};
  std::vector<std::string> keys;  // relative path, with "/" after a folder's
  std::vector<std::string> files;
  std::set<std::string> taken;
  const auto add = [&](const std::string& relative, bool isFolder) {
    taken.insert(relative);
    if (isFolder) {
      makeFolder(joinPath(root, relative));
      folders.push_back(relative);
      keys.push_back(relative + "/");
    } else {
      scratch.writeText("tree/" + relative, relative);
      files.push_back(relative);
      keys.push_back(relative);
    }
  };
  // The neighbours that make a folder's place differ from its bare name's: "a" holds files and
  // sorts after "a b", "a-" and "a.txt" ("a/" > "a.txt"), before "a0".
  add("a", true);
  add("a/x", false);
  add("a b", false);
  add("a-", false);
  add("a.txt", false);
  add("a0", false);
  while (keys.size() < 300) {
    const std::string& parent = folders[random() % folders.size()];
    std::string name;
    for (std::size_t count = 1 + random() % 3; count > 0; --count) {
      name += pieces[random() % pieces.size()];
    }
    if (name == "." || name == "..") continue;
    const std::string relative = parent.empty() ? name : parent + "/" + name;
    if (taken.count(relative) != 0) continue;
    add(relative, random() % 10 < 3);
  }

  const std::vector<WalkEntry> entries = walkAll(root);
  std::vector<std::string> walkedKeys;
  std::vector<std::string> walkedFiles;
  for (const WalkEntry& entry : entries) {
    ASSERT_TRUE(entry.kind == Kind::file || entry.kind == Kind::directory) << describe(entries);
    walkedKeys.push_back(entry.relativePath + (entry.kind == Kind::directory ? "/" : ""));
    if (entry.kind == Kind::file) walkedFiles.push_back(entry.relativePath);
  }
  std::sort(keys.begin(), keys.end(), byteOrder);
  std::sort(files.begin(), files.end(), byteOrder);
  EXPECT_EQ(walkedFiles, files);
  EXPECT_EQ(walkedKeys, keys);
}

TEST(DirectoryWalk, FolderComesWhereItsContentsStart) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("tree"));
  makeFolder(root + "/a");
  scratch.writeText("tree/a/z", "");
  scratch.writeText("tree/a.txt", "");
  scratch.writeText("tree/a b", "");
  scratch.writeText("tree/A.txt", "");
  scratch.writeText("tree/a0", "");
  const std::vector<WalkEntry> entries = walkAll(root);
  EXPECT_EQ(relativePaths(entries),
            (std::vector<std::string>{"A.txt", "a b", "a.txt", "a", "a/z", "a0"}));
  ASSERT_EQ(entries.size(), 6U);
  EXPECT_EQ(entries[3].kind, Kind::directory);
  EXPECT_EQ(entries[3].path, root + "/a");
  EXPECT_EQ(entries[4].path, root + "/a/z");
}

TEST(DirectoryWalk, DirectoryEntriesComeBeforeTheirContents) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("tree"));
  scratch.writeText("tree/top/middle/bottom.txt", "deep");
  scratch.writeText("tree/top/side.txt", "side");
  makeFolder(root + "/top/empty");
  const std::vector<WalkEntry> entries = walkAll(root);
  ASSERT_EQ(relativePaths(entries),
            (std::vector<std::string>{"top", "top/empty", "top/middle", "top/middle/bottom.txt",
                                      "top/side.txt"}))
      << describe(entries);
  for (const std::string relative : {"top", "top/empty", "top/middle"}) {
    const WalkEntry* entry = find(entries, relative);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->kind, Kind::directory) << relative;
    EXPECT_EQ(entry->path, root + "/" + relative);
    EXPECT_EQ(entry->problem, WalkProblem::none);
    EXPECT_EQ(entry->size, 0U);
    EXPECT_NE(entry->modified.seconds, 0) << relative;
    EXPECT_TRUE(entry->reason().empty());
  }
}

TEST(DirectoryWalk, EntriesCarrySizeModificationTimeAndDevice) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("tree"));
  const std::string path = scratch.writeText("tree/data.bin", "twelve bytes");
  const timespec times[2] = {{.tv_sec = 1600000000, .tv_nsec = 0},
                             {.tv_sec = 1700000000, .tv_nsec = 123456789}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);

  const std::vector<WalkEntry> entries = walkAll(root);
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].kind, Kind::file);
  EXPECT_EQ(entries[0].path, path);
  EXPECT_EQ(entries[0].relativePath, "data.bin");
  EXPECT_EQ(entries[0].size, 12U);
  EXPECT_EQ(entries[0].modified, (FileTime{.seconds = 1700000000, .nanoseconds = 123456789}));
  EXPECT_EQ(entries[0].device, static_cast<std::uint64_t>(status.st_dev));
  EXPECT_EQ(entries[0].problem, WalkProblem::none);
  EXPECT_EQ(entries[0].error, 0);
}

TEST(DirectoryWalk, EmptyRootYieldsNothing) {
  ScratchDirectory scratch;
  DirectoryWalk walk(makeFolder(scratch.file("empty")));
  EXPECT_FALSE(walk.next().has_value());
  EXPECT_FALSE(walk.next().has_value());  // and stays at its end
}

TEST(DirectoryWalk, MissingRootIsOneUnreadableEntry) {
  ScratchDirectory scratch;
  const std::string root = scratch.file("does-not-exist");
  const std::vector<WalkEntry> entries = walkAll(root);
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].kind, Kind::unreadable);
  EXPECT_EQ(entries[0].problem, WalkProblem::systemError);
  EXPECT_EQ(entries[0].error, ENOENT);
  EXPECT_EQ(entries[0].relativePath, "");
  EXPECT_EQ(entries[0].path, root);
  EXPECT_EQ(entries[0].reason(), std::strerror(ENOENT));
}

TEST(DirectoryWalk, RootThatIsAFileIsOneUnreadableEntry) {
  ScratchDirectory scratch;
  const std::string root = scratch.writeText("plain.txt", "not a folder");
  const std::vector<WalkEntry> entries = walkAll(root);
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].kind, Kind::unreadable);
  EXPECT_EQ(entries[0].error, ENOTDIR);
  EXPECT_EQ(entries[0].relativePath, "");
  EXPECT_EQ(entries[0].path, root);
}

TEST(DirectoryWalk, UnlistableRootIsOneUnreadableEntry) {
  ScratchDirectory scratch;
  ASSERT_EQ(::chmod(scratch.path().c_str(), 0711), 0);  // others may pass, not list
  const std::string root = makeFolder(scratch.file("locked"));
  scratch.writeText("locked/inside.txt", "secret");
  ASSERT_EQ(::chmod(root.c_str(), 0), 0);
  std::vector<WalkEntry> entries;
  {
    testsupport::EffectiveUserWithoutPrivileges unprivileged;
    if (!unprivileged.active()) GTEST_SKIP() << "cannot give up root to test permissions";
    entries = walkAll(root);
  }
  ASSERT_EQ(entries.size(), 1U) << describe(entries);
  EXPECT_EQ(entries[0].kind, Kind::unreadable);
  EXPECT_EQ(entries[0].problem, WalkProblem::systemError);
  EXPECT_EQ(entries[0].error, EACCES);
  EXPECT_EQ(entries[0].relativePath, "");
  EXPECT_EQ(entries[0].path, root);
}

TEST(DirectoryWalk, RootGivenAsALinkIsFollowedEvenUnderSkip) {
  ScratchDirectory scratch;
  makeFolder(scratch.file("tree"));
  scratch.writeText("tree/inside.txt", "x");
  makeLink("tree", scratch.file("link-to-tree"));
  const std::vector<WalkEntry> entries = walkAll(scratch.file("link-to-tree"));
  ASSERT_EQ(entries.size(), 1U) << describe(entries);
  EXPECT_EQ(entries[0].kind, Kind::file);
  EXPECT_EQ(entries[0].path, scratch.file("link-to-tree") + "/inside.txt");
}

TEST(DirectoryWalk, RootWithATrailingSlashGivesSinglySeparatedPaths) {
  ScratchDirectory scratch;
  makeFolder(scratch.file("tree"));
  scratch.writeText("tree/inside.txt", "x");
  const std::vector<WalkEntry> entries = walkAll(scratch.file("tree") + "/");
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].path, scratch.file("tree") + "/inside.txt");
  EXPECT_EQ(entries[0].relativePath, "inside.txt");
}

TEST(DirectoryWalk, UnreadableSubfolderIsOneEntryAndSiblingsAreWalked) {
  ScratchDirectory scratch;
  ASSERT_EQ(::chmod(scratch.path().c_str(), 0711), 0);
  const std::string root = makeFolder(scratch.file("tree"));
  scratch.writeText("tree/a.txt", "a");
  scratch.writeText("tree/locked/hidden.txt", "h");
  scratch.writeText("tree/z/z.txt", "z");
  ASSERT_EQ(::chmod((root + "/locked").c_str(), 0), 0);
  std::vector<WalkEntry> entries;
  {
    testsupport::EffectiveUserWithoutPrivileges unprivileged;
    if (!unprivileged.active()) GTEST_SKIP() << "cannot give up root to test permissions";
    entries = walkAll(root);
  }
  ASSERT_EQ(relativePaths(entries), (std::vector<std::string>{"a.txt", "locked", "z", "z/z.txt"}))
      << describe(entries);
  EXPECT_EQ(entries[0].kind, Kind::file);
  EXPECT_EQ(entries[1].kind, Kind::unreadable);
  EXPECT_EQ(entries[1].problem, WalkProblem::systemError);
  EXPECT_EQ(entries[1].error, EACCES);
  EXPECT_EQ(entries[1].path, root + "/locked");
  EXPECT_EQ(entries[1].reason(), std::strerror(EACCES));
  EXPECT_EQ(entries[2].kind, Kind::directory);
  EXPECT_EQ(entries[3].kind, Kind::file);
}

TEST(DirectoryWalk, FolderThatCanBeListedButNotEnteredReportsEachEntryByItsOwnPath) {
  ScratchDirectory scratch;
  ASSERT_EQ(::chmod(scratch.path().c_str(), 0711), 0);
  const std::string root = makeFolder(scratch.file("tree"));
  scratch.writeText("tree/listed/x.txt", "x");
  makeFolder(root + "/listed/y");
  ASSERT_EQ(::chmod((root + "/listed").c_str(), 0744), 0);  // others read names, cannot enter
  std::vector<WalkEntry> entries;
  {
    testsupport::EffectiveUserWithoutPrivileges unprivileged;
    if (!unprivileged.active()) GTEST_SKIP() << "cannot give up root to test permissions";
    entries = walkAll(root);
  }
  ASSERT_EQ(relativePaths(entries),
            (std::vector<std::string>{"listed", "listed/x.txt", "listed/y"}))
      << describe(entries);
  EXPECT_EQ(entries[0].kind, Kind::directory);
  for (std::size_t index : {1U, 2U}) {
    EXPECT_EQ(entries[index].kind, Kind::unreadable) << entries[index].relativePath;
    EXPECT_EQ(entries[index].error, EACCES) << entries[index].relativePath;
  }
}

TEST(DirectoryWalk, DanglingLinkIsReportedOnceByItsOwnPath) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("folder"));
  scratch.writeText("folder/real.txt", "real");
  makeLink("nowhere", root + "/d");
  const std::vector<WalkEntry> entries = walkAll(root, following());
  ASSERT_EQ(entries.size(), 2U) << describe(entries);
  EXPECT_EQ(entries[0].relativePath, "d");
  EXPECT_EQ(entries[0].path, root + "/d");
  EXPECT_EQ(entries[0].kind, Kind::unreadable);
  EXPECT_EQ(entries[0].problem, WalkProblem::danglingLink);
  EXPECT_EQ(entries[0].reason(), "dangling symbolic link");
  EXPECT_EQ(entries[1].relativePath, "real.txt");
  EXPECT_EQ(entries[1].kind, Kind::file);
  EXPECT_EQ(entries[1].size, 4U);
}

TEST(DirectoryWalk, DanglingLinkInASubfolderLeavesTheSubfolderADirectory) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("tree"));
  scratch.writeText("tree/folder/real.txt", "real");
  makeLink("nowhere", root + "/folder/d");
  const std::vector<WalkEntry> entries = walkAll(root, following());
  ASSERT_EQ(relativePaths(entries),
            (std::vector<std::string>{"folder", "folder/d", "folder/real.txt"}))
      << describe(entries);
  EXPECT_EQ(entries[0].kind, Kind::directory);
  EXPECT_EQ(entries[1].problem, WalkProblem::danglingLink);
  EXPECT_EQ(entries[2].kind, Kind::file);
}

TEST(DirectoryWalk, LinksPointingAtEachOtherAreLinkLoops) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("tree"));
  makeLink("b", root + "/a");
  makeLink("a", root + "/b");
  const std::vector<WalkEntry> entries = walkAll(root, following());
  ASSERT_EQ(relativePaths(entries), (std::vector<std::string>{"a", "b"})) << describe(entries);
  for (const WalkEntry& entry : entries) {
    EXPECT_EQ(entry.kind, Kind::unreadable) << entry.relativePath;
    EXPECT_EQ(entry.problem, WalkProblem::linkLoop) << entry.relativePath;
    EXPECT_EQ(entry.reason(), "symbolic link loop");
  }
}

TEST(DirectoryWalk, LinkToItselfIsALinkLoop) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("tree"));
  makeLink("self", root + "/self");
  const std::vector<WalkEntry> entries = walkAll(root, following());
  ASSERT_EQ(entries.size(), 1U) << describe(entries);
  EXPECT_EQ(entries[0].relativePath, "self");
  EXPECT_EQ(entries[0].kind, Kind::unreadable);
  EXPECT_EQ(entries[0].problem, WalkProblem::linkLoop);
}

TEST(DirectoryWalk, LinkToAFolderOnTheCurrentPathIsASkippedCycle) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("tree"));
  scratch.writeText("tree/other/o.txt", "o");
  scratch.writeText("tree/sub/s.txt", "s");
  makeLink("..", root + "/sub/up");             // the root
  makeLink(".", root + "/sub/here");            // sub itself
  makeLink("../other", root + "/sub/sibling");  // not on the path: walked again through the link
  const std::vector<WalkEntry> entries = walkAll(root, following());
  ASSERT_EQ(relativePaths(entries),
            (std::vector<std::string>{"other", "other/o.txt", "sub", "sub/here", "sub/s.txt",
                                      "sub/sibling", "sub/sibling/o.txt", "sub/up"}))
      << describe(entries);
  for (const std::string relative : {"sub/here", "sub/up"}) {
    const WalkEntry* entry = find(entries, relative);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->kind, Kind::skipped) << relative;
    EXPECT_EQ(entry->problem, WalkProblem::directoryCycle) << relative;
    EXPECT_EQ(entry->reason(), "directory loop through a symbolic link, not followed");
  }
  EXPECT_EQ(find(entries, "sub/sibling")->kind, Kind::directory);
}

TEST(DirectoryWalk, FollowedLinksAreWhatTheyPointTo) {
  ScratchDirectory scratch;
  scratch.writeText("outside/o.txt", "outside");
  const std::string root = makeFolder(scratch.file("tree"));
  scratch.writeText("tree/real/r.txt", "r");
  makeLink("../outside/o.txt", root + "/to-file");
  makeLink("../outside", root + "/to-folder");
  std::vector<std::pair<std::string, bool>> asked;
  WalkOptions options = following();
  options.ignore = [&asked](std::string_view relative, bool isDirectory) {
    asked.emplace_back(std::string(relative), isDirectory);
    return false;
  };
  const std::vector<WalkEntry> entries = walkAll(root, options);
  ASSERT_EQ(relativePaths(entries), (std::vector<std::string>{"real", "real/r.txt", "to-file",
                                                              "to-folder", "to-folder/o.txt"}))
      << describe(entries);
  EXPECT_EQ(entries[2].kind, Kind::file);
  EXPECT_EQ(entries[2].size, 7U);
  EXPECT_EQ(entries[3].kind, Kind::directory);
  EXPECT_EQ(entries[4].kind, Kind::file);
  EXPECT_EQ(entries[4].path, root + "/to-folder/o.txt");
  const std::vector<std::pair<std::string, bool>> expected = {{"real", true},
                                                              {"real/r.txt", false},
                                                              {"to-file", false},
                                                              {"to-folder", true},
                                                              {"to-folder/o.txt", false}};
  EXPECT_EQ(asked, expected);
}

TEST(DirectoryWalk, LinksUnderSkipAreSkippedAndNotDescended) {
  ScratchDirectory scratch;
  scratch.writeText("outside/o.txt", "outside");
  const std::string root = makeFolder(scratch.file("tree"));
  scratch.writeText("tree/real.txt", "r");
  makeLink("../outside/o.txt", root + "/to-file");
  makeLink("../outside", root + "/to-folder");
  makeLink("nowhere", root + "/dangling");
  std::vector<std::pair<std::string, bool>> asked;
  WalkOptions options;
  options.ignore = [&asked](std::string_view relative, bool isDirectory) {
    asked.emplace_back(std::string(relative), isDirectory);
    return false;
  };
  const std::vector<WalkEntry> entries = walkAll(root, options);
  ASSERT_EQ(relativePaths(entries),
            (std::vector<std::string>{"dangling", "real.txt", "to-file", "to-folder"}))
      << describe(entries);
  for (const std::string relative : {"dangling", "to-file", "to-folder"}) {
    const WalkEntry* entry = find(entries, relative);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->kind, Kind::skipped) << relative;
    EXPECT_EQ(entry->problem, WalkProblem::symbolicLink) << relative;
    EXPECT_EQ(entry->reason(), "symbolic link skipped");
  }
  for (const auto& [relative, isDirectory] : asked) EXPECT_FALSE(isDirectory) << relative;
}

TEST(DirectoryWalk, FifoIsSkippedWithoutBeingOpened) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("tree"));
  const std::string fifo = root + "/pipe";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0) << std::strerror(errno);
  makeLink("pipe", root + "/pipe-link");
  // Opening a FIFO for reading waits for a writer, and there is none: a walk that opened it would
  // not come back.
  auto walked = std::async(std::launch::async, [&root] { return walkAll(root, following()); });
  if (walked.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
    const int writer = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);  // set it free
    if (writer >= 0) ::close(writer);
    FAIL() << "the walk waited on the FIFO";
  }
  const std::vector<WalkEntry> entries = walked.get();
  ASSERT_EQ(relativePaths(entries), (std::vector<std::string>{"pipe", "pipe-link"}))
      << describe(entries);
  for (const WalkEntry& entry : entries) {
    EXPECT_EQ(entry.kind, Kind::skipped) << entry.relativePath;
    EXPECT_EQ(entry.problem, WalkProblem::specialFile) << entry.relativePath;
    EXPECT_EQ(entry.reason(), "not a regular file, skipped");
  }
}

TEST(DirectoryWalk, SocketIsSkippedAsASpecialFile) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("tree"));
  const std::string path = root + "/socket";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) GTEST_SKIP() << "socket path too long: " << path;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(socket, 0) << std::strerror(errno);
  ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
      << std::strerror(errno);
  const std::vector<WalkEntry> entries = walkAll(root);
  ::close(socket);
  ASSERT_EQ(entries.size(), 1U) << describe(entries);
  EXPECT_EQ(entries[0].relativePath, "socket");
  EXPECT_EQ(entries[0].kind, Kind::skipped);
  EXPECT_EQ(entries[0].problem, WalkProblem::specialFile);
}

TEST(DirectoryWalk, DeviceIsSkippedAsASpecialFile) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("tree"));
  const std::string path = root + "/null";
  if (::mknod(path.c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0) {
    GTEST_SKIP() << "cannot create a device here: " << std::strerror(errno);
  }
  const std::vector<WalkEntry> entries = walkAll(root);
  ASSERT_EQ(entries.size(), 1U) << describe(entries);
  EXPECT_EQ(entries[0].relativePath, "null");
  EXPECT_EQ(entries[0].kind, Kind::skipped);
  EXPECT_EQ(entries[0].problem, WalkProblem::specialFile);
}

TEST(DirectoryWalk, IgnoreHookLeavesOutAFileAndAFolderWithItsContents) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("tree"));
  for (const char* name : {"keep.txt", "skip.txt", "keepdir/inner.txt", "keepdir/skip.txt",
                           "skipdir/inner.txt", "skipdir/deeper/more.txt"}) {
    scratch.writeText(std::string("tree/") + name, name);
  }
  std::vector<std::pair<std::string, bool>> asked;
  WalkOptions options;
  options.ignore = [&asked](std::string_view relative, bool isDirectory) {
    asked.emplace_back(std::string(relative), isDirectory);
    return relative == "skip.txt" || relative == "skipdir";
  };
  const std::vector<WalkEntry> entries = walkAll(root, options);
  EXPECT_EQ(
      relativePaths(entries),
      (std::vector<std::string>{"keep.txt", "keepdir", "keepdir/inner.txt", "keepdir/skip.txt"}))
      << describe(entries);
  const std::vector<std::pair<std::string, bool>> expected = {
      {"keep.txt", false},         {"keepdir", true},   {"keepdir/inner.txt", false},
      {"keepdir/skip.txt", false}, {"skip.txt", false}, {"skipdir", true}};
  EXPECT_EQ(asked, expected);
}

TEST(DirectoryWalk, IgnoredUnreadableFolderIsNotReported) {
  ScratchDirectory scratch;
  ASSERT_EQ(::chmod(scratch.path().c_str(), 0711), 0);
  const std::string root = makeFolder(scratch.file("tree"));
  scratch.writeText("tree/locked/hidden.txt", "h");
  scratch.writeText("tree/seen.txt", "s");
  ASSERT_EQ(::chmod((root + "/locked").c_str(), 0), 0);
  WalkOptions options;
  options.ignore = [](std::string_view relative, bool) { return relative == "locked"; };
  std::vector<WalkEntry> entries;
  {
    testsupport::EffectiveUserWithoutPrivileges unprivileged;
    if (!unprivileged.active()) GTEST_SKIP() << "cannot give up root to test permissions";
    entries = walkAll(root, options);
  }
  EXPECT_EQ(relativePaths(entries), (std::vector<std::string>{"seen.txt"})) << describe(entries);
}

TEST(DirectoryWalk, TreeDeeperThanPathMaxIsWalkedWithFewDescriptors) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("deep"));
  const std::string name = "a-folder-name-long-enough-to-pass-path-max-soon";
  constexpr int kLevels = 200;
  // Built through descriptors: the full paths are longer than any path the system would take.
  std::vector<std::string> expected;
  {
    int folder = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(folder, 0);
    std::string relative;
    for (int level = 0; level < kLevels; ++level) {
      const int file = ::openat(folder, "file.txt", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
      ASSERT_GE(file, 0);
      ::close(file);
      if (level > 0) expected.push_back(relative + "/file.txt");
      ASSERT_EQ(::mkdirat(folder, name.c_str(), 0755), 0) << std::strerror(errno);
      const int next = ::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      ::close(folder);
      ASSERT_GE(next, 0);
      folder = next;
      relative = relative.empty() ? name : relative + "/" + name;
      expected.push_back(relative + "/");
    }
    ::close(folder);
  }
  expected.push_back("file.txt");
  // Removed through descriptors too, whatever the outcome.
  struct RemoveDeep {
    std::string root;
    std::string name;
    ~RemoveDeep() {
      const int folder = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (folder < 0) return;
      removeTreeAt(folder, name.c_str());
      ::close(folder);
    }
  } removeDeep{root, name};
  std::sort(expected.begin(), expected.end(), byteOrder);

  const int descriptorsBefore = openDescriptorCount();
  int mostDescriptors = 0;
  std::vector<std::string> keys;
  std::size_t longestPath = 0;
  DirectoryWalk walk(root);
  while (std::optional<WalkEntry> entry = walk.next()) {
    keys.push_back(entry->relativePath + (entry->kind == Kind::directory ? "/" : ""));
    longestPath = std::max(longestPath, entry->path.size());
    mostDescriptors = std::max(mostDescriptors, openDescriptorCount());
    ASSERT_TRUE(entry->kind == Kind::file || entry->kind == Kind::directory)
        << entry->relativePath.size() << " " << entry->reason();
  }
  EXPECT_EQ(keys, expected);
  EXPECT_GT(longestPath, static_cast<std::size_t>(PATH_MAX));
  // A folder's descriptor is closed once no subfolder of it is left to open.
  EXPECT_LE(mostDescriptors - descriptorsBefore, 3);
}

TEST(DirectoryWalk, FolderOfHundredThousandFilesIsWalked) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("many"));
  constexpr int kFiles = 100000;
  {
    // Hard links to a few files keep the setup quick (a new inode costs far more than a name);
    // the walk examines every name alike.
    const int folder = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(folder, 0);
    char name[32];
    char linked[32] = "";
    for (int index = 0; index < kFiles; ++index) {
      std::snprintf(name, sizeof name, "file-%06d", (index * 7919) % kFiles);
      if (index % 20000 == 0) {
        const int file = ::openat(folder, name, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        ASSERT_GE(file, 0) << name << ": " << std::strerror(errno);
        ::close(file);
        std::memcpy(linked, name, sizeof name);
      } else {
        ASSERT_EQ(::linkat(folder, linked, folder, name, 0), 0)
            << name << ": " << std::strerror(errno);
      }
    }
    ::close(folder);
  }
  // Entries are looked at and dropped, one at a time.
  std::size_t count = 0;
  std::string previous;
  DirectoryWalk walk(root);
  while (std::optional<WalkEntry> entry = walk.next()) {
    ASSERT_EQ(entry->kind, Kind::file) << entry->relativePath;
    ASSERT_TRUE(byteOrder(previous, entry->relativePath)) << previous << " " << entry->relativePath;
    previous = std::move(entry->relativePath);
    ++count;
  }
  EXPECT_EQ(count, static_cast<std::size_t>(kFiles));
  EXPECT_EQ(previous, "file-099999");
}

TEST(DirectoryWalk, MovedWalkGoesOnWhereItStood) {
  ScratchDirectory scratch;
  const std::string root = makeFolder(scratch.file("tree"));
  for (const char* name : {"a/1", "a/2", "b", "c/d/e"})
    scratch.writeText(std::string("tree/") + name, "");
  const std::vector<WalkEntry> all = walkAll(root);
  DirectoryWalk first(root);
  std::vector<std::string> seen;
  for (int step = 0; step < 2; ++step) seen.push_back(first.next()->relativePath);
  DirectoryWalk second(std::move(first));
  EXPECT_EQ(second.root(), root);
  EXPECT_FALSE(first.next().has_value());  // a moved-from walk is at its end
  DirectoryWalk third(scratch.file("other"));
  third = std::move(second);
  while (std::optional<WalkEntry> entry = third.next()) seen.push_back(entry->relativePath);
  EXPECT_EQ(seen, relativePaths(all));
}

TEST(DirectoryWalk, ReasonNamesTheProblem) {
  WalkEntry entry;
  EXPECT_EQ(entry.reason(), "");
  entry.kind = Kind::unreadable;
  entry.problem = WalkProblem::systemError;
  entry.error = EACCES;
  EXPECT_EQ(entry.reason(), std::strerror(EACCES));
  entry.problem = WalkProblem::specialFile;
  EXPECT_EQ(entry.reason(), "not a regular file, skipped");
}

TEST(DirectoryWalk, JoinPathAddsOneSlash) {
  EXPECT_EQ(joinPath("root", "a"), "root/a");
  EXPECT_EQ(joinPath("root/", "a"), "root/a");
  EXPECT_EQ(joinPath("/", "a"), "/a");
  EXPECT_EQ(joinPath("", "a"), "a");
  EXPECT_EQ(joinPath("root", "a/b"), "root/a/b");
}

}  // namespace
}  // namespace corvane
