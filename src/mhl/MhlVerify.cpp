// verifyMhlHistory and diffMhlHistory: what the file system holds against what a history recorded.
#include <algorithm>
#include <set>

#include "corvane/MhlDirectoryHash.hpp"
#include "corvane/MhlHashFormat.hpp"
#include "corvane/MhlIgnorePatterns.hpp"
#include "mhl/MhlHistorySupport.hpp"

namespace corvane {
namespace {

// Formats from the cheapest to the dearest to compute: a file is verified with the first of
// these it has a usable hash of.
const std::vector<ChecksumType>& formatsByCost() {
  static const std::vector<ChecksumType> kOrder = {ChecksumTypeXXHashH3128, ChecksumTypeXXHashH364,
                                                   ChecksumTypeXXHash64,    ChecksumTypeSHA1,
                                                   ChecksumTypeMD5,         ChecksumTypeC4};
  return kOrder;
}

class HistoryChecker {
 public:
  HistoryChecker(const MhlVerifyOptions* options, std::map<std::string, mhl::ScopeWalk> scopes,
                 std::stop_token stop, MhlReport& report)
      : options_(options), scopes_(std::move(scopes)), stop_(std::move(stop)), report_(report) {}

  // Verifies (options != null) or diffs (null) `history` and its nested histories.
  void check(const MhlHistory& history, const std::string& historyPath) {
    for (const MhlHistory& child : history.children) {
      check(child, mhl::below(historyPath, mhl::nestedPath(history, child)));
      if (stop_.stop_requested()) return;
    }
    const std::vector<std::string> patterns = history.ignorePatterns();
    // The walk made while the history was read, when there was one.
    const auto walked = scopes_.find(history.root);
    const mhl::ScopeWalk scope = walked != scopes_.end() ? std::move(walked->second)
                                                         : mhl::walkScope(history.root, patterns);
    const std::map<std::string, MhlFileRecord> records = mhlFileRecords(history);
    for (const WalkEntry& entry : scope.problems) {
      report(historyPath, entry.relativePath, MhlFileOutcome::unreadable, entry.reason(), {});
    }
    std::set<std::string> present;
    for (const WalkEntry& file : scope.files) present.insert(file.relativePath);
    for (const WalkEntry& file : scope.files) {
      if (!records.contains(file.relativePath)) {
        report(historyPath, file.relativePath, MhlFileOutcome::newFile, "", {});
      }
    }
    if (options_ != nullptr) verifyFiles(history, historyPath, scope, records);
    const MhlIgnorePatterns ignore(patterns);
    for (const auto& [path, record] : records) {
      if (present.contains(path) || ignore.ignores(path, false)) continue;
      report(historyPath, path, MhlFileOutcome::missing, "", {});
    }
  }

 private:
  void report(const std::string& historyPath, const std::string& path, MhlFileOutcome outcome,
              std::string detail, ChecksumLookup checksums) {
    MhlFileReport file{path, historyPath, outcome, std::move(detail), std::move(checksums)};
    if (options_ != nullptr && options_->onFile) options_->onFile(file);
    report_.files.push_back(std::move(file));
  }

  void verifyFiles(const MhlHistory& history, const std::string& historyPath,
                   const mhl::ScopeWalk& scope,
                   const std::map<std::string, MhlFileRecord>& records) {
    // One usable format per recorded file (the cheapest), and with --directory-hashes every format
    // the latest directory hashes were recorded in.
    std::vector<ChecksumType> directoryFormats;
    const MhlManifest* latestWithRoot = nullptr;
    if (options_->directoryHashes) {
      for (const MhlGeneration& generation : history.generations) {
        if (generation.manifest.processInfo.rootHash) latestWithRoot = &generation.manifest;
      }
      if (latestWithRoot != nullptr) {
        for (const MhlHash& hash : latestWithRoot->processInfo.rootHash->content) {
          if (const auto type = checksumTypeForMhlFormat(hash.format)) {
            directoryFormats.push_back(*type);
          }
        }
      }
    }
    // New files are read too when directory hashes are checked: the folders' hashes hold them.
    std::vector<const WalkEntry*> toRead;
    for (const WalkEntry& file : scope.files) {
      if (records.contains(file.relativePath) || !directoryFormats.empty()) toRead.push_back(&file);
    }
    FileSetSettings settings = options_->engine;
    const FileSetHasher hasher(settings);
    MhlDirectoryTree tree;
    bool treeComplete = true;
    std::size_t next = 0;
    hasher.run(
        FileSetInput::generator([&]() -> std::optional<FileSetItem> {
          if (next >= toRead.size()) return std::nullopt;
          const WalkEntry& entry = *toRead[next++];
          FileSetItem item;
          item.entry = entry;
          item.regularOnly = true;
          const auto record = records.find(entry.relativePath);
          for (const ChecksumType type : formatsByCost()) {
            if (record != records.end() && record->second.usableHashes.contains(type.rawValue())) {
              item.algorithms.push_back(type);
              break;
            }
          }
          for (const ChecksumType type : directoryFormats) {
            if (std::find(item.algorithms.begin(), item.algorithms.end(), type) ==
                item.algorithms.end()) {
              item.algorithms.push_back(type);
            }
          }
          if (item.algorithms.empty()) item.algorithms.push_back(ChecksumTypeXXHash64);
          return item;
        }),
        [&](FileSetResult&& result) {
          const std::string& path = result.entry.relativePath;
          const auto found = records.find(path);
          if (found == records.end()) {  // a new file (reported already), for the folders only
            if (!result.ok()) treeComplete = false;
            for (const auto& [type, value] : result.checksums) tree.addFile(path, type, value);
            return;
          }
          if (!result.ok()) {
            treeComplete = false;
            report(historyPath, path, MhlFileOutcome::unreadable, result.error.message, {});
            return;
          }
          const MhlFileRecord& record = found->second;
          MhlFileOutcome outcome = MhlFileOutcome::failed;
          std::string detail = "no usable hash recorded (every recorded hash failed)";
          bool failed = false;
          for (const auto& [type, value] : result.checksums) {
            if (std::find(directoryFormats.begin(), directoryFormats.end(), type) !=
                directoryFormats.end()) {
              tree.addFile(path, type, value);
            }
            const auto recorded = record.usableHashes.find(type.rawValue());
            if (recorded == record.usableHashes.end()) continue;
            if (recorded->second == value) {
              if (!failed) {
                outcome = MhlFileOutcome::verified;
                detail.clear();
              }
            } else {
              outcome = MhlFileOutcome::failed;
              detail = mhl::formatNameOf(type) + " " + recorded->second + " != " + value;
              failed = true;
            }
          }
          report(historyPath, path, outcome, std::move(detail), result.checksums);
        },
        stop_);
    if (stop_.stop_requested()) report_.stopped = true;
    if (latestWithRoot != nullptr && treeComplete && !stop_.stop_requested()) {
      checkDirectoryHashes(history, historyPath, scope, *latestWithRoot, tree, directoryFormats);
    }
  }

  void checkDirectoryHashes(const MhlHistory& history, const std::string& historyPath,
                            const mhl::ScopeWalk& scope, const MhlManifest& manifest,
                            MhlDirectoryTree& tree, const std::vector<ChecksumType>& formats) {
    for (const WalkEntry& folder : scope.folders) tree.addFolder(folder.relativePath);
    const std::vector<MhlFolderHashes> computed = computeMhlDirectoryHashes(tree, formats);
    const auto compare = [&](const std::string& path, const std::vector<MhlHash>& content,
                             const std::vector<MhlHash>& structure) {
      const auto found = std::find_if(
          computed.begin(), computed.end(),
          [&path](const MhlFolderHashes& folder) { return folder.relativePath == path; });
      for (const auto& [recorded, isContent] :
           {std::pair{&content, true}, std::pair{&structure, false}}) {
        for (const MhlHash& hash : *recorded) {
          const auto type = checksumTypeForMhlFormat(hash.format);
          const MhlDirectoryHashPair* pair =
              found == computed.end() || !type ? nullptr : found->find(*type);
          const std::string value =
              pair == nullptr ? "" : (isContent ? pair->content : pair->structure);
          if (value == hash.value) continue;
          report_.problems.push_back(mhl::problem(
              MhlErrorKind::invalidContent,
              path.empty() ? history.root : joinPath(history.root, path),
              std::string("directory ") + (isContent ? "content" : "structure") + " hash " +
                  hash.format + " " + hash.value + " != " + (value.empty() ? "(none)" : value)));
        }
      }
    };
    (void)historyPath;
    compare("", manifest.processInfo.rootHash->content, manifest.processInfo.rootHash->structure);
    for (const MhlDirectoryHashEntry& entry : manifest.directoryHashes) {
      std::string path = entry.path;
      while (!path.empty() && path.back() == '/') path.pop_back();
      compare(path, entry.content, entry.structure);
    }
  }

  const MhlVerifyOptions* options_;
  std::map<std::string, mhl::ScopeWalk> scopes_;
  std::stop_token stop_;
  MhlReport& report_;
};

}  // namespace

MhlReport verifyMhlHistory(const std::string& root, const MhlVerifyOptions& options,
                           std::stop_token stop) {
  MhlReport report;
  std::map<std::string, mhl::ScopeWalk> scopes;
  const MhlHistory history = mhl::loadHistory(root, report.problems, {}, &scopes);
  HistoryChecker(&options, std::move(scopes), std::move(stop), report).check(history, "");
  return report;
}

MhlReport diffMhlHistory(const std::string& root) {
  MhlReport report;
  std::map<std::string, mhl::ScopeWalk> scopes;
  const MhlHistory history = mhl::loadHistory(root, report.problems, {}, &scopes);
  HistoryChecker(nullptr, std::move(scopes), {}, report).check(history, "");
  return report;
}

}  // namespace corvane
