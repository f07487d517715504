// flattenMhlHistory: one manifest of every file of a history and its nested histories.
#include <unistd.h>

#include "corvane/MhlHashFormat.hpp"
#include "corvane/Version.hpp"
#include "mhl/MhlHistorySupport.hpp"
#include "util/DurableFile.hpp"

namespace corvane {
namespace {

// Adds the records of `history` to `byPath` under `prefix`: the earliest hash of each format per
// file, failed hashes dropped (ASC MHL 5.6.7), renames followed.
void collect(const MhlHistory& history, const std::string& prefix,
             std::map<std::string, MhlHashEntry>& byPath) {
  std::map<std::string, std::string> currentName;  // path in history -> path in byPath
  for (const MhlGeneration& generation : history.generations) {
    for (const MhlHashEntry& entry : generation.manifest.hashes) {
      const std::string path = prefix.empty() ? entry.path : prefix + "/" + entry.path;
      if (entry.previousPath) {
        const std::string previous =
            prefix.empty() ? *entry.previousPath : prefix + "/" + *entry.previousPath;
        if (auto node = byPath.extract(previous)) {
          node.key() = path;
          node.mapped().path = path;
          node.mapped().previousPath = entry.previousPath;
          byPath.insert(std::move(node));
        }
      }
      MhlHashEntry& flat = byPath[path];
      flat.path = path;
      if (entry.size) flat.size = entry.size;
      if (entry.lastModificationDate) flat.lastModificationDate = entry.lastModificationDate;
      for (const MhlHash& hash : entry.hashes) {
        if (hash.action == MhlHashAction::failed) continue;
        const bool known =
            std::any_of(flat.hashes.begin(), flat.hashes.end(),
                        [&hash](const MhlHash& h) { return h.format == hash.format; });
        if (known) continue;
        MhlHash copy = hash;
        if (!copy.hashDate) copy.hashDate = generation.manifest.creatorInfo.creationDate;
        flat.hashes.push_back(std::move(copy));
      }
    }
  }
  for (const MhlHistory& child : history.children) {
    collect(child, mhl::below(prefix, mhl::nestedPath(history, child)), byPath);
  }
}

}  // namespace

MhlResult<std::string> flattenMhlHistory(const std::string& root, const std::string& destination) {
  MhlResult<MhlHistory> history = readMhlHistory(root);
  if (!history) return history.error();
  const auto started = std::chrono::system_clock::now();
  std::map<std::string, MhlHashEntry> byPath;
  collect(*history, "", byPath);

  MhlManifest manifest;
  manifest.creatorInfo = mhl::creatorInfo(started);
  manifest.processInfo.process = MhlProcess::flatten;
  manifest.processInfo.ignorePatterns = history->ignorePatterns();
  for (auto& [path, entry] : byPath) {
    if (!entry.hashes.empty()) manifest.hashes.push_back(std::move(entry));
  }
  MhlResult<std::string> bytes = writeMhlManifest(manifest);
  if (!bytes) return bytes.error();
  // A flattened manifest stands alone: no sequence number of a history.
  std::string name = mhlManifestFileName(0, mhl::scopeFolderName(root), started);
  name = name.substr(name.find('_') + 1);
  const std::string path = joinPath(destination, name);
  if (const auto error =
          detail::writeFileDurably(path, *bytes, detail::ReplacePolicy::neverReplace)) {
    return mhl::problem(MhlErrorKind::unreadable, path, error.message, error.code);
  }
  return path;
}

}  // namespace corvane
