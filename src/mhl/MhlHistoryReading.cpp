#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <thread>

#include "corvane/ChecksumGenerator.hpp"
#include "corvane/MhlHashFormat.hpp"
#include "corvane/MhlIgnorePatterns.hpp"
#include "corvane/Version.hpp"
#include "mhl/MhlHistorySupport.hpp"

namespace corvane {
namespace mhl {

std::string historyFolder(const std::string& root) {
  return joinPath(root, std::string(kMhlHistoryFolderName));
}

MhlError problem(MhlErrorKind kind, std::string source, std::string message, int code) {
  MhlError error;
  error.kind = kind;
  error.source = std::move(source);
  error.message = std::move(message);
  error.code = code;
  return error;
}

std::string c4IdOf(std::string_view bytes) {
  const Bytes data(bytes.begin(), bytes.end());
  return ChecksumGenerator::generateChecksumForData(data, ChecksumTypeC4).value_or("");
}

std::string formatNameOf(ChecksumType type) { return std::string(mhlFormatName(type).value()); }

MhlDateTime dateTimeOf(const FileTime& time) {
  return MhlDateTime::fromTimePoint(std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(
          std::chrono::seconds(time.seconds) + std::chrono::nanoseconds(time.nanoseconds))));
}

std::string nestedPath(const MhlHistory& parent, const MhlHistory& child) {
  const std::string prefix = parent.root.back() == '/' ? parent.root : parent.root + "/";
  return child.root.starts_with(prefix) ? child.root.substr(prefix.size()) : child.root;
}

std::string below(const std::string& folder, const std::string& path) {
  return folder.empty() ? path : folder + "/" + path;
}

MhlCreatorInfo creatorInfo(std::chrono::system_clock::time_point time) {
  MhlCreatorInfo info;
  info.creationDate = MhlDateTime::fromTimePoint(time);
  char host[256] = {};
  info.hostName = ::gethostname(host, sizeof host - 1) == 0 && host[0] != '\0' ? host : "localhost";
  info.tool = {"CorvaneSecurity", std::string(CorvaneSecurityVersionString)};
  return info;
}

MhlDateTime now() { return MhlDateTime::fromTimePoint(std::chrono::system_clock::now()); }

std::string scopeFolderName(const std::string& root) {
  char resolved[PATH_MAX];
  std::string path = ::realpath(root.c_str(), resolved) != nullptr ? resolved : root;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const auto slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  return name.empty() ? "root" : name;
}

std::uint64_t lastSequence(const MhlHistory& history) {
  return history.generations.empty() ? 0 : history.generations.back().sequence;
}

ScopeWalk walkScope(const std::string& root, const std::vector<std::string>& patterns) {
  ScopeWalk scope;
  const MhlIgnorePatterns ignore(patterns);
  WalkOptions options;
  // A folder holding its own ascmhl folder is the scope of a nested history: its records live
  // there (ASC MHL 5.3.2), so the walk neither yields nor descends it.
  options.ignore = [&root, &ignore, &scope](std::string_view relativePath, bool isDirectory) {
    if (ignore.ignores(relativePath, isDirectory)) return true;
    if (!isDirectory) return false;
    struct stat status {};
    const std::string nested =
        joinPath(joinPath(root, std::string(relativePath)), std::string(kMhlHistoryFolderName));
    if (::stat(nested.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
      scope.nestedRoots.emplace_back(relativePath);
      return true;
    }
    return false;
  };
  DirectoryWalk walk(root, std::move(options));
  while (std::optional<WalkEntry> entry = walk.next()) {
    switch (entry->kind) {
      case WalkEntry::Kind::file:
        scope.files.push_back(std::move(*entry));
        break;
      case WalkEntry::Kind::directory:
        scope.folders.push_back(std::move(*entry));
        break;
      case WalkEntry::Kind::unreadable:
        scope.problems.push_back(std::move(*entry));
        break;
      case WalkEntry::Kind::skipped:
        break;  // links and special files are not part of a managed data set
    }
  }
  return scope;
}

namespace {

// The whole content of `path`, or an error.
MhlResult<std::string> readBytes(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return problem(MhlErrorKind::unreadable, path, std::strerror(errno), errno);
  }
  std::string bytes;
  char buffer[65536];
  while (true) {
    const ssize_t got = ::read(descriptor, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      const int code = errno;
      ::close(descriptor);
      return problem(MhlErrorKind::unreadable, path, std::strerror(code), code);
    }
    if (got == 0) break;
    bytes.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(descriptor);
  return bytes;
}

// The manifest at `path`, checked against the C4 ID the chain holds for it, parsed.
MhlResult<MhlManifest> loadManifest(const std::string& path, const std::string& c4) {
  MhlResult<std::string> bytes = readBytes(path);
  if (!bytes) return bytes.error();
  if (c4IdOf(*bytes) != c4) {
    return problem(MhlErrorKind::invalidContent, path,
                   "the manifest's C4 ID does not match the chain's (" + c4 +
                       "): the file was changed");
  }
  return parseMhlManifest(*bytes, path);
}

}  // namespace

MhlHistory loadHistory(const std::string& root, std::vector<MhlError>& problems,
                       const std::vector<std::string>& extraPatterns,
                       std::map<std::string, ScopeWalk>* scopes) {
  MhlHistory history;
  history.root = root;
  const std::string folder = historyFolder(root);
  struct stat status {};
  const std::string chainPath = joinPath(folder, std::string(kMhlChainFileName));
  // A history folder without a chain holds no generation: the chain lists the manifests that
  // belong to the history (ASC MHL 5.3.1), and a writer killed between its first manifest and
  // the chain leaves exactly that (create removes the unlisted manifest and starts again).
  const bool chained = ::stat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
                       !(::stat(chainPath.c_str(), &status) != 0 && errno == ENOENT);
  if (chained) {
    MhlResult<MhlChain> chain = readMhlChain(chainPath);
    if (!chain) {
      problems.push_back(chain.error());
    } else {
      // Each manifest is read, checked and parsed on its own, so the generations of a long
      // history are parsed on all processors at once; results keep the chain's order.
      const std::vector<MhlChainEntry>& entries = chain->entries;
      std::vector<std::optional<MhlResult<MhlManifest>>> parsed(entries.size());
      std::atomic<std::size_t> next = 0;
      const auto work = [&] {
        for (std::size_t k; (k = next.fetch_add(1)) < entries.size();) {
          parsed[k] = loadManifest(joinPath(folder, entries[k].path), entries[k].c4.value);
        }
      };
      const std::size_t helpers =
          std::min<std::size_t>(entries.size(), std::max(1U, std::thread::hardware_concurrency())) -
          (entries.empty() ? 0 : 1);
      std::vector<std::thread> threads;
      for (std::size_t k = 0; k < helpers; ++k) threads.emplace_back(work);
      work();
      for (std::thread& thread : threads) thread.join();
      for (std::size_t k = 0; k < entries.size(); ++k) {
        MhlResult<MhlManifest>& manifest = *parsed[k];
        if (!manifest) {
          problems.push_back(manifest.error());
          continue;
        }
        history.generations.push_back({entries[k].sequenceNumber, entries[k].path,
                                       entries[k].c4.value, std::move(*manifest)});
      }
    }
  }
  // Nested histories: folders below the scope that hold their own history.
  ScopeWalk scope = walkScope(
      root, MhlIgnorePatterns::mergePatterns(history.ignorePatterns(), extraPatterns));
  for (const std::string& nested : scope.nestedRoots) {
    history.children.push_back(
        loadHistory(joinPath(root, nested), problems, extraPatterns, scopes));
  }
  if (scopes != nullptr) (*scopes)[root] = std::move(scope);
  return history;
}

}  // namespace mhl

std::string mhlManifestFileName(std::uint64_t sequence, std::string_view folderName,
                                std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d_%H%M%S", &parts);
  char number[24];
  std::snprintf(number, sizeof number, "%04llu", static_cast<unsigned long long>(sequence));
  std::string name = number;
  name += '_';
  name += folderName;
  name += '_';
  name += stamp;
  name += "Z.mhl";
  return name;
}

std::vector<std::string> MhlHistory::ignorePatterns() const {
  std::vector<std::string> patterns = MhlIgnorePatterns::defaultPatterns();
  for (const MhlGeneration& generation : generations) {
    patterns =
        MhlIgnorePatterns::mergePatterns(patterns, generation.manifest.processInfo.ignorePatterns);
  }
  return patterns;
}

MhlResult<MhlHistory> readMhlHistory(const std::string& root) {
  std::vector<MhlError> problems;
  MhlHistory history = mhl::loadHistory(root, problems);
  if (!problems.empty()) return problems.front();
  return history;
}

std::map<std::string, MhlFileRecord> mhlFileRecords(const MhlHistory& history) {
  std::map<std::string, MhlFileRecord> records;
  for (const MhlGeneration& generation : history.generations) {
    for (const MhlHashEntry& entry : generation.manifest.hashes) {
      // A rename carries the file's records over to its new path (ASC MHL 5.6.6).
      if (entry.previousPath && records.contains(*entry.previousPath)) {
        auto node = records.extract(*entry.previousPath);
        node.key() = entry.path;
        node.mapped().path = entry.path;
        records.insert(std::move(node));
      }
      MhlFileRecord& record = records[entry.path];
      record.path = entry.path;
      if (entry.size) record.size = entry.size;
      for (const MhlHash& hash : entry.hashes) {
        const std::optional<ChecksumType> type = checksumTypeForMhlFormat(hash.format);
        if (!type || hash.action == MhlHashAction::failed) continue;
        record.usableHashes[type->rawValue()] = hash.value;
      }
    }
  }
  return records;
}

std::size_t MhlReport::count(MhlFileOutcome outcome) const {
  std::size_t total = 0;
  for (const MhlFileReport& file : files) total += file.outcome == outcome ? 1 : 0;
  return total;
}

bool MhlReport::clean() const {
  return problems.empty() && count(MhlFileOutcome::failed) == 0 &&
         count(MhlFileOutcome::missing) == 0 && count(MhlFileOutcome::unreadable) == 0;
}

}  // namespace corvane
