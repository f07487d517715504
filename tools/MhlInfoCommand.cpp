// mhl info: the generations of a history and of its nested histories, or every hash recorded for
// one file across the generations (renames followed through previousPath).
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "ExitStatus.hpp"
#include "MhlCommand.hpp"
#include "OutputFormat.hpp"
#include "corvane/MhlHistory.hpp"

namespace corvane::tool {
namespace {

// `path` below the scope `root` of a parent history, relative to it (the library names nested
// histories by the path of their scope).
std::string relativeTo(const std::string& path, const std::string& root) {
  const std::string prefix = !root.empty() && root.back() == '/' ? root : root + "/";
  return path.starts_with(prefix) ? path.substr(prefix.size()) : path;
}

// A history with its scope's path relative to ROOT ("" for ROOT itself).
struct PlacedHistory {
  const MhlHistory* history;
  std::string path;
};

// `history` and every nested history below it, each before its own nested histories.
void placeHistories(const MhlHistory& history, const std::string& path,
                    std::vector<PlacedHistory>& placed) {
  placed.push_back({&history, path});
  for (const MhlHistory& child : history.children) {
    placeHistories(child, pathBelow(path, relativeTo(child.root, history.root)), placed);
  }
}

std::string toolText(const MhlTool& tool) {
  return tool.version ? tool.name + ' ' + *tool.version : tool.name;
}

std::string actionText(const MhlHash& hash) {
  return hash.action ? std::string(mhlHashActionName(*hash.action)) : "-";
}

// The date a hash was computed: its own, else its manifest's creation date.
const std::string& hashDateText(const MhlHash& hash, const MhlManifest& manifest) {
  return hash.hashDate ? hash.hashDate->text() : manifest.creatorInfo.creationDate.text();
}

nlohmann::ordered_json generationJson(const MhlGeneration& generation) {
  const MhlManifest& manifest = generation.manifest;
  const MhlCreatorInfo& creator = manifest.creatorInfo;
  nlohmann::ordered_json object = nlohmann::ordered_json::object();
  object["sequence"] = generation.sequence;
  putName(object, "manifest", generation.fileName);
  object["creationDate"] = creator.creationDate.text();
  object["hostName"] = creator.hostName;
  object["tool"] = creator.tool.name;
  object["toolVersion"] = creator.tool.version ? nlohmann::ordered_json(*creator.tool.version)
                                               : nlohmann::ordered_json();
  object["process"] = mhlProcessName(manifest.processInfo.process);
  nlohmann::ordered_json authors = nlohmann::ordered_json::array();
  for (const MhlAuthor& author : creator.authors) {
    nlohmann::ordered_json entry = {{"name", author.name}};
    if (author.email) entry["email"] = *author.email;
    if (author.phone) entry["phone"] = *author.phone;
    if (author.role) entry["role"] = *author.role;
    authors.push_back(std::move(entry));
  }
  object["authors"] = std::move(authors);
  if (creator.location) object["location"] = *creator.location;
  if (creator.comment) object["comment"] = *creator.comment;
  object["ignorePatterns"] = manifest.processInfo.ignorePatterns;
  object["files"] = manifest.hashes.size();
  object["folders"] = manifest.directoryHashes.size();
  nlohmann::ordered_json references = nlohmann::ordered_json::array();
  for (const MhlHashListReference& reference : manifest.references) {
    nlohmann::ordered_json entry = nlohmann::ordered_json::object();
    putName(entry, "path", reference.path);
    entry["c4"] = reference.c4.value;
    references.push_back(std::move(entry));
  }
  object["references"] = std::move(references);
  return object;
}

void printGenerations(const MhlOptions& options, const std::vector<PlacedHistory>& placed,
                      std::ostream& out) {
  if (options.json) {
    nlohmann::ordered_json histories = nlohmann::ordered_json::array();
    for (const PlacedHistory& entry : placed) {
      nlohmann::ordered_json history = nlohmann::ordered_json::object();
      putName(history, "path", entry.path);
      nlohmann::ordered_json generations = nlohmann::ordered_json::array();
      for (const MhlGeneration& generation : entry.history->generations) {
        generations.push_back(generationJson(generation));
      }
      history["generations"] = std::move(generations);
      histories.push_back(std::move(history));
    }
    nlohmann::ordered_json document = nlohmann::ordered_json::object();
    document["command"] = "info";
    putName(document, "root", options.root);
    document["histories"] = std::move(histories);
    out << dumpJson(document) << '\n';
    return;
  }
  for (const PlacedHistory& entry : placed) {
    const std::size_t count = entry.history->generations.size();
    out << (entry.path.empty() ? "history: " : "nested history: ")
        << pathBelow(options.root, entry.path) << " ("
        << counted(count, "generation", "generations") << ")\n";
    for (const MhlGeneration& generation : entry.history->generations) {
      const MhlManifest& manifest = generation.manifest;
      out << "  " << generation.sequence << "  " << generation.fileName << "  "
          << manifest.creatorInfo.creationDate.text() << "  "
          << mhlProcessName(manifest.processInfo.process) << "  "
          << toolText(manifest.creatorInfo.tool) << "  "
          << counted(manifest.hashes.size(), "file", "files") << ", "
          << counted(manifest.directoryHashes.size(), "folder", "folders") << ", "
          << counted(manifest.references.size(), "reference", "references") << '\n';
      for (const MhlHashListReference& reference : manifest.references) {
        out << "    reference: " << reference.path << '\n';
      }
    }
  }
}

// One record of the file asked for, in one generation.
struct FileRecord {
  const MhlGeneration* generation;
  const MhlHashEntry* entry;
  std::string path;  // relative to ROOT
};

// The records of `path` (relative to ROOT) in the history that holds it, earliest first.
std::vector<FileRecord> recordsOf(const MhlHistory& top, std::string path) {
  // The closest history holds the records of a file (ASC MHL 5.3.2).
  const MhlHistory* history = &top;
  std::string prefix;
  for (bool descended = true; descended;) {
    descended = false;
    for (const MhlHistory& child : history->children) {
      const std::string scope = relativeTo(child.root, history->root);
      if (path.size() > scope.size() && path.starts_with(scope) && path[scope.size()] == '/') {
        path = path.substr(scope.size() + 1);
        prefix = pathBelow(prefix, scope);
        history = &child;
        descended = true;
        break;
      }
    }
  }
  std::vector<FileRecord> records;
  std::string name = path;
  for (auto generation = history->generations.rbegin(); generation != history->generations.rend();
       ++generation) {
    const auto& hashes = generation->manifest.hashes;
    const auto entry = std::find_if(hashes.begin(), hashes.end(),
                                    [&name](const MhlHashEntry& e) { return e.path == name; });
    if (entry == hashes.end()) continue;
    records.push_back({&*generation, &*entry, pathBelow(prefix, entry->path)});
    if (entry->previousPath) name = *entry->previousPath;
  }
  std::reverse(records.begin(), records.end());
  return records;
}

int printFileHistory(const MhlOptions& options, const MhlHistory& history, std::ostream& out,
                     std::ostream& err) {
  std::string path = *options.file;
  while (path.starts_with("./")) path.erase(0, 2);
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const std::vector<FileRecord> records = recordsOf(history, path);
  if (records.empty()) {
    err << kProgramName << ": " << path << ": not recorded in the history of " << options.root
        << '\n';
  }
  if (options.json) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const FileRecord& record : records) {
      const MhlManifest& manifest = record.generation->manifest;
      for (const MhlHash& hash : record.entry->hashes) {
        nlohmann::ordered_json object = nlohmann::ordered_json::object();
        object["generation"] = record.generation->sequence;
        putName(object, "manifest", record.generation->fileName);
        putName(object, "path", record.path);
        if (record.entry->previousPath) {
          putName(object, "previousPath", *record.entry->previousPath);
        }
        if (record.entry->size) object["size"] = *record.entry->size;
        object["format"] = hash.format;
        object["action"] =
            hash.action ? nlohmann::ordered_json(actionText(hash)) : nlohmann::ordered_json();
        object["value"] = hash.value;
        object["hashDate"] = hashDateText(hash, manifest);
        list.push_back(std::move(object));
      }
    }
    nlohmann::ordered_json document = nlohmann::ordered_json::object();
    document["command"] = "info";
    putName(document, "root", options.root);
    putName(document, "file", path);
    document["records"] = std::move(list);
    out << dumpJson(document) << '\n';
  } else {
    for (const FileRecord& record : records) {
      const std::uint64_t sequence = record.generation->sequence;
      if (record.entry->previousPath) {
        out << sequence << "  " << record.path << "  renamed from " << *record.entry->previousPath
            << '\n';
      }
      for (const MhlHash& hash : record.entry->hashes) {
        out << sequence << "  " << record.path << "  " << hash.format << "  " << actionText(hash)
            << "  " << hash.value << "  " << hashDateText(hash, record.generation->manifest)
            << '\n';
      }
    }
  }
  out.flush();
  return records.empty() ? kExitFailed : kExitOk;
}

}  // namespace

int runMhlInfo(const MhlOptions& options, std::ostream& out, std::ostream& err) {
  const MhlResult<MhlHistory> history = readMhlHistory(options.root);
  if (!history) {
    err << kProgramName << ": " << history.error().description() << '\n';
    if (options.json) {
      nlohmann::ordered_json document = nlohmann::ordered_json::object();
      document["command"] = "info";
      putName(document, "root", options.root);
      document["problems"] = nlohmann::ordered_json::array({problemJson(history.error())});
      out << dumpJson(document) << '\n';
      out.flush();
    }
    return kExitFailed;
  }
  if (options.file) return printFileHistory(options, *history, out, err);
  std::vector<PlacedHistory> placed;
  placeHistories(*history, "", placed);
  printGenerations(options, placed, out);
  out.flush();
  return kExitOk;
}

}  // namespace corvane::tool
