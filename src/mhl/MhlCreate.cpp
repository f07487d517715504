// createMhlGeneration: hash the scope, check what the history recorded, append a generation.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <set>

#include "checksum/TextUnits.hpp"
#include "corvane/MhlDirectoryHash.hpp"
#include "corvane/MhlHashFormat.hpp"
#include "corvane/MhlIgnorePatterns.hpp"
#include "corvane/Version.hpp"
#include "mhl/MhlHistorySupport.hpp"
#include "mhl/MhlXmlSupport.hpp"
#include "util/DurableFile.hpp"

namespace corvane {
namespace {

using mhl::problem;

// The manifest written for one history: its path and the C4 ID of its bytes (for the parent's
// reference).
struct Written {
  std::string fileName;
  std::string c4;
};

// The ASC MHL formats in the order files are hashed with: those asked for, then those the file
// was recorded with (so that it can be verified).
std::vector<ChecksumType> formatsFor(const std::vector<ChecksumType>& asked,
                                     const MhlFileRecord* record) {
  std::vector<ChecksumType> formats = asked;
  if (record != nullptr) {
    for (const auto& [raw, value] : record->usableHashes) {
      const ChecksumType type(raw);
      if (std::find(formats.begin(), formats.end(), type) == formats.end()) {
        formats.push_back(type);
      }
    }
  }
  return formats;
}

// Removes the manifests a writer killed between writing its manifest and the chain left in
// `folder`: names "<sequence>_....mhl" with a sequence number beyond the last one of the chain,
// which the chain does not list. They are not part of the history (ASC MHL 5.3.1: the chain and
// the manifests it lists), and one named like the manifest about to be written (same sequence,
// same second) would make that write fail.
void removeUnlistedManifests(const std::string& folder, std::uint64_t lastSequence) {
  DIR* stream = ::opendir(folder.c_str());
  if (stream == nullptr) return;
  bool removed = false;
  while (const dirent* entry = ::readdir(stream)) {
    const std::string_view name = entry->d_name;
    const auto underscore = name.find('_');
    if (!name.ends_with(".mhl") || underscore == std::string_view::npos || underscore < 4) continue;
    std::uint64_t sequence = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + underscore, sequence);
    if (error != std::errc() || end != name.data() + underscore || sequence <= lastSequence) {
      continue;
    }
    removed = ::unlinkat(::dirfd(stream), entry->d_name, 0) == 0 || removed;
  }
  ::closedir(stream);
  if (removed) detail::syncFolder(folder);
}

// Whether `name` can stand in an ASC MHL document: UTF-8 of characters XML 1.0 allows. Other
// names (bytes a file system accepts but no XML text holds) are reported, not recorded, so that
// one such name does not cost the whole generation.
bool recordableName(const std::string& name) {
  bool recordable = true;
  detail::forEachCodePoint(name, [&recordable](char32_t c, bool wellFormed) {
    const bool allowed = c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
                         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
    if (!wellFormed || !allowed) recordable = false;
  });
  return recordable;
}

// Whether `path` (relative) lies in the folder `folder` (relative, "" = the top) or below it.
bool inside(const std::string& path, const std::string& folder) {
  return folder.empty() ||
         (path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/');
}

class GenerationMaker {
 public:
  GenerationMaker(const MhlCreateOptions& options, std::map<std::string, mhl::ScopeWalk> scopes,
                  std::stop_token stop, MhlReport& report)
      : options_(options),
        scopes_(std::move(scopes)),
        stop_(std::move(stop)),
        report_(report),
        started_(std::chrono::system_clock::now()) {}

  // Appends a generation to the history of `root` (and first to its nested histories);
  // `historyPath` is `root` relative to the top root ("" for the top).
  std::optional<Written> make(const std::string& root, const std::string& historyPath,
                              const MhlHistory& history) {
    const std::string folder = mhl::historyFolder(root);
    if (!writable(root, folder, history)) return std::nullopt;
    // One operation, one date and time in the names of all its manifests (ASC MHL 6.3).
    const auto started = started_;

    std::vector<MhlHashListReference> references;
    for (const MhlHistory& child : history.children) {
      const std::string childPath = mhl::nestedPath(history, child);
      if (std::optional<Written> written =
              make(child.root, mhl::below(historyPath, childPath), child)) {
        MhlHashListReference reference;
        reference.path =
            joinPath(joinPath(childPath, std::string(kMhlHistoryFolderName)), written->fileName);
        reference.c4.value = written->c4;
        references.push_back(std::move(reference));
      }
      if (stop_.stop_requested()) return std::nullopt;
    }

    const std::vector<std::string> patterns =
        MhlIgnorePatterns::mergePatterns(history.ignorePatterns(), options_.ignorePatterns);
    // The walk made while the history was read, when there was one.
    const auto walked = scopes_.find(root);
    const mhl::ScopeWalk scope =
        walked != scopes_.end() ? std::move(walked->second) : mhl::walkScope(root, patterns);
    const std::map<std::string, MhlFileRecord> records = mhlFileRecords(history);

    MhlManifest manifest;
    manifest.creatorInfo = mhl::creatorInfo(started);
    manifest.creatorInfo.authors = options_.authors;
    manifest.creatorInfo.location = options_.location;
    manifest.creatorInfo.comment = options_.comment;
    manifest.processInfo.process = options_.process;
    manifest.processInfo.ignorePatterns = patterns;
    manifest.references = std::move(references);

    for (const WalkEntry& entry : scope.problems) {
      report(historyPath, entry.relativePath, MhlFileOutcome::unreadable, entry.reason(), {});
    }
    MhlDirectoryTree tree;
    std::vector<std::string> unreadableFiles;
    std::set<std::string> seen;
    hashFiles(scope, records, historyPath, manifest, tree, unreadableFiles, seen);
    if (stop_.stop_requested()) {
      report_.stopped = true;
      return std::nullopt;
    }
    const MhlIgnorePatterns ignore(patterns);
    for (const auto& [path, record] : records) {
      if (seen.contains(path) || ignore.ignores(path, false)) continue;
      report(historyPath, path, MhlFileOutcome::missing, "", {});
    }
    if (options_.directoryHashes) {
      addDirectoryHashes(scope, tree, unreadableFiles, manifest);
    }
    return write(root, historyPath, history, started, manifest);
  }

 private:
  bool writable(const std::string& root, const std::string& folder, const MhlHistory& history) {
    struct stat status {};
    const bool exists = ::stat(folder.c_str(), &status) == 0;
    const std::string& target = exists ? folder : root;
    // The effective user writes the files, so its rights count (access() asks about the real
    // user, which differs in a set-user-ID program or after seteuid()).
    if (::faccessat(AT_FDCWD, target.c_str(), W_OK, AT_EACCESS) != 0) {
      report_.problems.push_back(
          problem(MhlErrorKind::unreadable, target,
                  std::string("cannot write the history: ") + std::strerror(errno), errno));
      return false;
    }
    if (exists) {
      detail::removeStaleTemporaries(folder);
      removeUnlistedManifests(folder, mhl::lastSequence(history));
    }
    return true;
  }

  void report(const std::string& historyPath, const std::string& path, MhlFileOutcome outcome,
              std::string detail, ChecksumLookup checksums) {
    MhlFileReport file{path, historyPath, outcome, std::move(detail), std::move(checksums)};
    if (options_.onFile) options_.onFile(file);
    report_.files.push_back(std::move(file));
  }

  // The formats `entry` must be hashed with, and what the caller already knows of it when that
  // covers them and still describes the file.
  std::optional<FileSetResult> knownResult(const WalkEntry& entry, const std::string& historyPath,
                                           const std::vector<ChecksumType>& formats) const {
    if (!options_.knownChecksums) return std::nullopt;
    std::optional<MhlKnownFile> known =
        options_.knownChecksums(mhl::below(historyPath, entry.relativePath));
    if (!known || known->size != entry.size || !(known->modified == entry.modified)) {
      return std::nullopt;
    }
    FileSetResult result;
    result.entry = entry;
    result.size = known->size;
    result.modified = known->modified;
    for (const ChecksumType type : formats) {
      const auto value = known->checksums.find(type);
      if (value == known->checksums.end()) return std::nullopt;
      result.checksums.insert(*value);
    }
    return result;
  }

  void hashFiles(const mhl::ScopeWalk& scope, const std::map<std::string, MhlFileRecord>& records,
                 const std::string& historyPath, MhlManifest& manifest, MhlDirectoryTree& tree,
                 std::vector<std::string>& unreadableFiles, std::set<std::string>& seen) {
    // Results by position in the scope: those the caller knew are there from the start, the
    // engine fills in the rest; each is recorded as soon as every earlier one was.
    const std::size_t count = scope.files.size();
    std::vector<std::optional<FileSetResult>> results(count);
    std::vector<bool> settled(count, false);
    std::vector<std::size_t> toRead;
    for (std::size_t k = 0; k < count; ++k) {
      const WalkEntry& entry = scope.files[k];
      if (!recordableName(entry.relativePath)) {
        settled[k] = true;  // reported when its turn comes
        continue;
      }
      const auto record = records.find(entry.relativePath);
      const std::vector<ChecksumType> formats =
          formatsFor(options_.formats, record == records.end() ? nullptr : &record->second);
      if ((results[k] = knownResult(entry, historyPath, formats))) {
        settled[k] = true;
      } else {
        toRead.push_back(k);
      }
    }
    std::size_t nextToRecord = 0;
    const auto recordSettled = [&] {
      for (; nextToRecord < count && settled[nextToRecord]; ++nextToRecord) {
        const WalkEntry& entry = scope.files[nextToRecord];
        seen.insert(entry.relativePath);
        if (!results[nextToRecord]) {
          unreadableFiles.push_back(entry.relativePath);
          report(historyPath, entry.relativePath, MhlFileOutcome::unreadable,
                 "the name is not UTF-8 text that ASC MHL can record", {});
          continue;
        }
        recordResult(std::move(*results[nextToRecord]), records, historyPath, manifest, tree,
                     unreadableFiles);
        results[nextToRecord].reset();
      }
    };
    recordSettled();

    FileSetSettings settings = options_.engine;
    settings.algorithms = options_.formats;
    const FileSetHasher hasher(settings);
    std::size_t next = 0;
    hasher.run(
        FileSetInput::generator([&]() -> std::optional<FileSetItem> {
          if (next >= toRead.size()) return std::nullopt;
          const WalkEntry& entry = scope.files[toRead[next++]];
          FileSetItem item;
          item.entry = entry;
          item.regularOnly = true;
          const auto record = records.find(entry.relativePath);
          item.algorithms =
              formatsFor(options_.formats, record == records.end() ? nullptr : &record->second);
          return item;
        }),
        [&](FileSetResult&& result) {
          const std::size_t k = toRead[result.index];
          results[k] = std::move(result);
          settled[k] = true;
          recordSettled();
        },
        stop_);
    if (!stop_.stop_requested()) recordSettled();
  }

  // Records one hashed (or failed) file: its entry in the manifest, its verdict against the
  // history's records, its place in the directory hashes.
  void recordResult(FileSetResult&& result, const std::map<std::string, MhlFileRecord>& records,
                    const std::string& historyPath, MhlManifest& manifest, MhlDirectoryTree& tree,
                    std::vector<std::string>& unreadableFiles) {
    const std::string& path = result.entry.relativePath;
    if (!result.ok()) {
      unreadableFiles.push_back(path);
      report(historyPath, path, MhlFileOutcome::unreadable, result.error.message, {});
      return;
    }
    const auto record = records.find(path);
    MhlHashEntry entry;
    entry.path = path;
    entry.size = result.size;
    if (result.modified) entry.lastModificationDate = mhl::dateTimeOf(*result.modified);
    MhlFileOutcome outcome = MhlFileOutcome::original;
    std::string detail;
    for (const auto& [type, value] : result.checksums) {
      MhlHash hash;
      hash.format = mhl::formatNameOf(type);
      hash.value = value;
      hash.action = MhlHashAction::original;
      if (record != records.end()) {
        const auto recorded = record->second.usableHashes.find(type.rawValue());
        if (recorded != record->second.usableHashes.end()) {
          if (recorded->second == value) {
            hash.action = MhlHashAction::verified;
            if (outcome == MhlFileOutcome::original) outcome = MhlFileOutcome::verified;
          } else {
            hash.action = MhlHashAction::failed;
            outcome = MhlFileOutcome::failed;
            detail = hash.format + " " + recorded->second + " != " + value;
          }
        }
      }
      if (std::find(options_.formats.begin(), options_.formats.end(), type) !=
          options_.formats.end()) {
        tree.addFile(path, type, value);
      }
      entry.hashes.push_back(std::move(hash));
    }
    if (outcome == MhlFileOutcome::failed) {
      // A format new to a failing file would get an `original` of the changed bytes, which
      // verification could then use: changed files are never rehabilitated (ASC MHL 5.6.4).
      std::erase_if(entry.hashes,
                    [](const MhlHash& hash) { return hash.action == MhlHashAction::original; });
    }
    manifest.hashes.push_back(std::move(entry));
    report(historyPath, path, outcome, std::move(detail), result.checksums);
  }

  void addDirectoryHashes(const mhl::ScopeWalk& scope, MhlDirectoryTree& tree,
                          const std::vector<std::string>& unreadableFiles, MhlManifest& manifest) {
    for (const WalkEntry& folder : scope.folders) tree.addFolder(folder.relativePath);
    for (MhlFolderHashes& folder : computeMhlDirectoryHashes(tree, options_.formats)) {
      // A folder holding a file that could not be read has no honest directory hash.
      if (std::any_of(
              unreadableFiles.begin(), unreadableFiles.end(),
              [&folder](const std::string& path) { return inside(path, folder.relativePath); })) {
        continue;
      }
      if (folder.hashes.empty()) continue;
      std::vector<MhlHash> content;
      std::vector<MhlHash> structure;
      for (const MhlDirectoryHashPair& pair : folder.hashes) {
        const std::string format = mhl::formatNameOf(pair.format);
        content.push_back({format, pair.content, std::nullopt, std::nullopt, std::nullopt});
        structure.push_back({format, pair.structure, std::nullopt, std::nullopt, std::nullopt});
      }
      if (folder.relativePath.empty()) {
        manifest.processInfo.rootHash = MhlRootHash{std::move(content), std::move(structure)};
        continue;
      }
      MhlDirectoryHashEntry entry;
      entry.path = folder.relativePath;
      entry.content = std::move(content);
      entry.structure = std::move(structure);
      manifest.directoryHashes.push_back(std::move(entry));
    }
  }

  // The manifest first (never replacing one), then the chain: a crash between the two leaves a
  // manifest the chain does not list, which no reader looks at.
  std::optional<Written> write(const std::string& root, const std::string& historyPath,
                               const MhlHistory& history,
                               std::chrono::system_clock::time_point started,
                               const MhlManifest& manifest) {
    const std::string folder = mhl::historyFolder(root);
    MhlResult<std::string> bytes = mhl::serializeCheckedManifest(manifest);
    if (!bytes) {
      report_.problems.push_back(bytes.error());
      return std::nullopt;
    }
    if (::mkdir(folder.c_str(), 0755) == 0) {
      detail::syncFolder(root);
    } else if (errno != EEXIST) {
      report_.problems.push_back(
          problem(MhlErrorKind::unreadable, folder, std::strerror(errno), errno));
      return std::nullopt;
    }
    const std::uint64_t sequence = mhl::lastSequence(history) + 1;
    Written written{mhlManifestFileName(sequence, mhl::scopeFolderName(root), started),
                    mhl::c4IdOf(*bytes)};
    const std::string manifestPath = joinPath(folder, written.fileName);
    if (const auto error =
            detail::writeFileDurably(manifestPath, *bytes, detail::ReplacePolicy::neverReplace)) {
      report_.problems.push_back(problem(MhlErrorKind::unreadable, manifestPath,
                                         "cannot write the manifest: " + error.message,
                                         error.code));
      return std::nullopt;
    }
    MhlChain chain;
    for (const MhlGeneration& generation : history.generations) {
      MhlChainEntry entry;
      entry.sequenceNumber = generation.sequence;
      entry.path = generation.fileName;
      // The C4 IDs were checked against the files when the history was read.
      entry.c4.value = generation.c4;
      chain.entries.push_back(std::move(entry));
    }
    MhlChainEntry entry;
    entry.sequenceNumber = sequence;
    entry.path = written.fileName;
    entry.c4.value = written.c4;
    chain.entries.push_back(std::move(entry));
    MhlResult<std::string> chainBytes = writeMhlChain(chain);
    const std::string chainPath = joinPath(folder, std::string(kMhlChainFileName));
    if (!chainBytes) {
      report_.problems.push_back(chainBytes.error());
      return std::nullopt;
    }
    if (const auto error =
            detail::writeFileDurably(chainPath, *chainBytes, detail::ReplacePolicy::replace)) {
      report_.problems.push_back(problem(MhlErrorKind::unreadable, chainPath,
                                         "cannot write the chain: " + error.message, error.code));
      return std::nullopt;
    }
    report_.manifestsWritten.push_back(
        joinPath(joinPath(historyPath, std::string(kMhlHistoryFolderName)), written.fileName));
    return written;
  }

  const MhlCreateOptions& options_;
  std::map<std::string, mhl::ScopeWalk> scopes_;
  std::stop_token stop_;
  MhlReport& report_;
  const std::chrono::system_clock::time_point started_;
};

}  // namespace

MhlReport createMhlGeneration(const std::string& root, const MhlCreateOptions& options,
                              std::stop_token stop) {
  MhlReport report;
  for (const ChecksumType type : options.formats) {
    const auto checked = checkMhlFormat(type);
    if (const auto* refusal = std::get_if<MhlFormatRefusal>(&checked)) {
      report.problems.push_back(mhl::problem(MhlErrorKind::invalidContent, "", refusal->message));
      return report;
    }
  }
  if (options.formats.empty()) {
    report.problems.push_back(mhl::problem(MhlErrorKind::invalidContent, "", "no hash format"));
    return report;
  }
  std::vector<MhlError> problems;
  std::map<std::string, mhl::ScopeWalk> scopes;
  const MhlHistory history = mhl::loadHistory(root, problems, options.ignorePatterns, &scopes);
  if (!problems.empty()) {
    // Appending to a history that does not verify would hide what broke it.
    report.problems = std::move(problems);
    return report;
  }
  GenerationMaker(options, std::move(scopes), std::move(stop), report).make(root, "", history);
  return report;
}

}  // namespace corvane
