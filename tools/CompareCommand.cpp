#include "CompareCommand.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string_view>
#include <variant>

#include "EngineInput.hpp"
#include "ExitStatus.hpp"
#include "NameMatching.hpp"
#include "OutputFormat.hpp"
#include "corvane/ChecksumLookup.hpp"
#include "corvane/IOValidationAttributes.hpp"

namespace corvane::tool {
namespace {

enum class Outcome {
  kOk,
  kMissing,
  kNew,
  kSizeDiffers,
  kChecksumDiffers,
  kUnreadable,
  kCollision,
  kNotice,
  kFolder,         // a folder on both sides: nothing to report
  kMissingFolder,  // a folder in SRC, not in DST
  kNewFolder,      // a folder in DST, not in SRC
  kTypeDiffers,    // a folder on one side, something else on the other
};
constexpr std::size_t kOutcomeCount = 12;

const char* outcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::kOk:
      return "ok";
    case Outcome::kMissing:
      return "missing";
    case Outcome::kNew:
      return "new";
    case Outcome::kSizeDiffers:
      return "size differs";
    case Outcome::kChecksumDiffers:
      return "checksum differs";
    case Outcome::kUnreadable:
      return "unreadable";
    case Outcome::kCollision:
      return "name collision";
    case Outcome::kNotice:
      return "skipped";
    case Outcome::kFolder:
      return "folder";
    case Outcome::kMissingFolder:
      return "missing folder";
    case Outcome::kNewFolder:
      return "new folder";
    case Outcome::kTypeDiffers:
      return "type differs";
  }
  return "";
}

// What one side holds under one relative path.
struct WalkItem {
  enum class Kind { kFile, kDirectory, kError, kNotice };
  Kind kind = Kind::kFile;
  std::string path;      // to open and to print
  std::string relative;  // below the side's root
  std::uint64_t size = 0;
  std::string message;  // kError and kNotice: the reason
};

// Every entry of the tree below `root`, in byte order of relative paths.
std::vector<WalkItem> walkSide(const std::string& root, const WalkOptions& options) {
  std::vector<WalkItem> items;
  DirectoryWalk walk(root, options);
  while (std::optional<WalkEntry> entry = walk.next()) {
    WalkItem& item = items.emplace_back();
    item.path = std::move(entry->path);
    item.relative = std::move(entry->relativePath);
    item.size = entry->size;
    switch (entry->kind) {
      case WalkEntry::Kind::file:
        item.kind = WalkItem::Kind::kFile;
        break;
      case WalkEntry::Kind::directory:
        item.kind = WalkItem::Kind::kDirectory;
        break;
      case WalkEntry::Kind::skipped:
        item.kind = WalkItem::Kind::kNotice;
        item.message = skipNotice(*entry);
        break;
      case WalkEntry::Kind::unreadable:
        item.kind = WalkItem::Kind::kError;
        item.message = entry->reason();
        break;
    }
  }
  return items;
}

// A file given as SRC or DST, under the name `relative`.
WalkItem fileItem(const std::string& path, const struct stat& status, std::string relative) {
  return {.kind = WalkItem::Kind::kFile,
          .path = path,
          .relative = std::move(relative),
          .size = static_cast<std::uint64_t>(status.st_size),
          .message = {}};
}

// One entry of the report: what each side has under one name.
struct Entry {
  // The name it is reported under: the source's relative path when there is a source side.
  std::string relative;
  const WalkItem* source = nullptr;
  const WalkItem* destination = nullptr;
  // A pair whose two sides carry different names: how they differ, and whether --match-names
  // takes them for one name (if not, they were paired because they differ only in normalisation
  // or case, and the copy is not faithful).
  NameDifference nameDifference = NameDifference::kNone;
  bool nameAccepted = true;
  // One of several names of one side that are one name under the mode: never paired.
  bool collision = false;
};

const char* namesDifferMessage(NameDifference difference) {
  switch (difference) {
    case NameDifference::kNone:
      break;
    case NameDifference::kNormalisation:
      return "names differ only in Unicode normalisation";
    case NameDifference::kCase:
      return "names differ only in case";
    case NameDifference::kCaseAndNormalisation:
      return "names differ in case and Unicode normalisation";
  }
  return "";
}

struct Difference {
  const AlgorithmName* algorithm;
  std::string source;
  std::string destination;
};

struct Comparison {
  Outcome outcome = Outcome::kOk;
  bool needsReading = false;  // both sides are read; the outcome waits for their results
  std::optional<FileSetResult> source;
  std::optional<FileSetResult> destination;
  std::vector<Difference> differences;  // kChecksumDiffers, in -a order
};

std::optional<std::string> statReason(const std::string& path, struct stat& status) {
  if (::stat(path.c_str(), &status) != 0) return std::string(std::strerror(errno));
  return std::nullopt;
}

// Both sides' items paired by name, in byte order of the name they are reported under.
//
// Names are first grouped by their key under `matching`. A group of one name on each side is a
// pair; a group holding several names of one side is a collision, every member of it (of both
// sides) reported on its own. Names left alone are then grouped by the key of each looser mode
// in turn (NFC, then case-insensitive): one name on each side makes a pair whose names the mode
// does not accept, several names on one side facing the other a collision (there is no telling
// which is the copy). What is still alone at the end is missing or new.
std::vector<Entry> pairEntries(const std::vector<WalkItem>& source,
                               const std::vector<WalkItem>& destination, NameMatching matching) {
  struct Named {
    std::string_view key;
    bool inDestination;
    const WalkItem* item;
  };
  std::vector<Entry> entries;
  std::vector<const WalkItem*> sourceLeft;
  std::vector<const WalkItem*> destinationLeft;
  for (const WalkItem& item : source) sourceLeft.push_back(&item);
  for (const WalkItem& item : destination) destinationLeft.push_back(&item);
  for (const NameMatching level :
       {NameMatching::kExact, NameMatching::kNfc, NameMatching::kCaseInsensitive}) {
    if (level < matching) continue;
    const bool chosen = level == matching;
    // A looser mode only pairs names of both sides.
    if (!chosen && (sourceLeft.empty() || destinationLeft.empty())) continue;
    // Keys other than the names themselves live in `keys`, which is never resized once filled
    // so that `named` can point into it.
    std::vector<std::string> keys;
    std::vector<Named> named;
    keys.reserve(sourceLeft.size() + destinationLeft.size());
    named.reserve(sourceLeft.size() + destinationLeft.size());
    for (const bool inDestination : {false, true}) {
      for (const WalkItem* item : inDestination ? destinationLeft : sourceLeft) {
        if (level == NameMatching::kExact) {
          named.push_back({item->relative, inDestination, item});
        } else {
          keys.push_back(nameKey(item->relative, level));
          named.push_back({keys.back(), inDestination, item});
        }
      }
    }
    sourceLeft.clear();
    destinationLeft.clear();
    // Groups of equal keys, the source's names first in each.
    std::sort(named.begin(), named.end(), [](const Named& a, const Named& b) {
      return a.key != b.key ? a.key < b.key : a.inDestination < b.inDestination;
    });
    for (std::size_t begin = 0, end = 0; begin < named.size(); begin = end) {
      std::size_t sources = 0;
      for (end = begin; end < named.size() && named[end].key == named[begin].key; ++end) {
        if (!named[end].inDestination) ++sources;
      }
      const std::size_t destinations = end - begin - sources;
      if (sources == 1 && destinations == 1) {
        const WalkItem* from = named[begin].item;
        const WalkItem* to = named[begin + 1].item;
        entries.push_back({from->relative, from, to, nameDifference(from->relative, to->relative),
                           chosen, false});
      } else if (chosen ? sources > 1 || destinations > 1 : sources > 0 && destinations > 0) {
        for (std::size_t k = begin; k < end; ++k) {
          const WalkItem* item = named[k].item;
          entries.push_back({item->relative, named[k].inDestination ? nullptr : item,
                             named[k].inDestination ? item : nullptr, NameDifference::kNone, true,
                             true});
        }
      } else {
        for (std::size_t k = begin; k < end; ++k) {
          (named[k].inDestination ? destinationLeft : sourceLeft).push_back(named[k].item);
        }
      }
    }
  }
  for (const WalkItem* item : sourceLeft) entries.push_back({item->relative, item, nullptr});
  for (const WalkItem* item : destinationLeft) entries.push_back({item->relative, nullptr, item});
  // Every item is in one entry, so (name, side, destination name) orders them completely.
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    if (a.relative != b.relative) return a.relative < b.relative;
    if ((a.source == nullptr) != (b.source == nullptr)) return a.source != nullptr;
    if (a.destination == nullptr || b.destination == nullptr) {
      return a.destination == nullptr && b.destination != nullptr;
    }
    return a.destination->relative < b.destination->relative;
  });
  return entries;
}

// What lies below a folder that one side could not read is unknown on that side: the folder is
// reported as unreadable (with the reason), and the other side's entries below it are neither
// missing nor new.
std::vector<Entry> withoutEntriesBelowUnreadableFolders(std::vector<Entry> entries,
                                                        const std::vector<WalkItem>& source,
                                                        const std::vector<WalkItem>& destination) {
  const auto unreadablePrefixes = [](const std::vector<WalkItem>& items) {
    std::vector<std::string> prefixes;
    for (const WalkItem& item : items) {
      if (item.kind == WalkItem::Kind::kError && !item.relative.empty()) {
        prefixes.push_back(item.relative + '/');
      }
    }
    return prefixes;
  };
  const std::vector<std::string> sourcePrefixes = unreadablePrefixes(source);
  const std::vector<std::string> destinationPrefixes = unreadablePrefixes(destination);
  if (sourcePrefixes.empty() && destinationPrefixes.empty()) return entries;
  const auto below = [](const std::vector<std::string>& prefixes, const std::string& relative) {
    return std::ranges::any_of(
        prefixes, [&relative](const std::string& prefix) { return relative.starts_with(prefix); });
  };
  std::erase_if(entries, [&](const Entry& entry) {
    if (entry.source != nullptr && entry.destination == nullptr) {
      return below(destinationPrefixes, entry.source->relative);
    }
    if (entry.source == nullptr && entry.destination != nullptr) {
      return below(sourcePrefixes, entry.destination->relative);
    }
    return false;
  });
  return entries;
}

}  // namespace

CLI::App* addCompareCommand(CLI::App& app, CompareOptions& options) {
  CLI::App* compare =
      app.add_subcommand("compare", "Verify that DST is a copy of SRC (two folders or two files)");
  addAlgorithmListOption(*compare, options.algorithmValues, "to compare");
  compare->add_flag("--follow-symlinks", options.followSymlinks,
                    "Follow symbolic links in both trees (default: skip and report them)");
  compare->add_flag("--no-cache", options.noCache,
                    "Read the destination past the page cache (its cached pages are dropped "
                    "before and while reading), so that the disk is verified, not memory");
  compare
      ->add_option("--match-names", options.matchNames,
                   "Which names are one name: 'exact' bytes (default), 'nfc' (also names that "
                   "differ only in Unicode normalisation, as after a copy through macOS) or "
                   "'case-insensitive' (also names that differ only in case, as after a copy "
                   "through exFAT or a case-insensitive volume). Left-over names that differ only "
                   "so are still paired and reported; names of one side that are one name are "
                   "reported as collisions")
      ->type_name("exact|nfc|case-insensitive");
  compare->add_flag("-v,--verbose", options.verbose,
                    "Also print a line for every matching file and pair matched under other names");
  compare->add_flag("--json", options.json,
                    "Write one JSON document with every file, the totals and the record of what "
                    "was compared");
  compare->add_option("SRC", options.source, "The original folder or file")
      ->required()
      ->type_name("");
  compare->add_option("DST", options.destination, "The copy")->required()->type_name("");
  addCommonOptions(*compare, options.common);
  compare->footer(
      "Output: 'missing: <path>', 'new: <path>', 'size differs: <path> (<n> != <m> bytes)', "
      "'checksum differs: <path> (<TAG> <src> != <dst>)', 'unreadable: <path>', "
      "'names differ only in Unicode normalisation: <src name> != <dst name>' (or '... only in "
      "case', 'names differ in case and Unicode normalisation'), 'name collision: <name> "
      "(source|destination)', 'missing folder: <path>', 'new folder: <path>', 'type differs: "
      "<path> (folder != file)' (and 'ok: <path>' with -v), then 'compared <F> files: ...'. A "
      "folder that cannot be read is 'unreadable' and what the other side holds below it is "
      "neither missing nor new.\n"
      "Exit status: 0 identical, 1 a size or checksum differs, a file or folder is unreadable, "
      "names collide, or a folder is missing, new or not a folder on both sides, 2 usage error, 3 "
      "files missing in or new in DST or pairs whose names differ in a way --match-names does not "
      "allow (and nothing worse).");
  return compare;
}

int runCompareCommand(const CompareOptions& options, std::ostream& out, std::ostream& err) {
  auto parsed = parseAlgorithmList(options.algorithmValues);
  if (const auto* error = std::get_if<AlgorithmListError>(&parsed)) {
    return usageError(err, error->message);
  }
  const auto algorithms = std::get<std::vector<const AlgorithmName*>>(std::move(parsed));
  const std::optional<NameMatching> matching = parseNameMatching(options.matchNames);
  if (!matching) {
    return usageError(err, "--match-names: unknown value '" + options.matchNames +
                               "' (known: exact, nfc, case-insensitive)");
  }

  RunReporter reporter(options.common.reportSettings(), err);
  struct stat sourceStatus {};
  struct stat destinationStatus {};
  for (const auto& [path, status] : {std::pair{&options.source, &sourceStatus},
                                     std::pair{&options.destination, &destinationStatus}}) {
    if (auto reason = statReason(*path, *status)) {
      reporter.error(*path, *reason);
      return kExitFailed;
    }
  }
  const bool sourceIsDirectory = S_ISDIR(sourceStatus.st_mode);
  if (sourceIsDirectory != S_ISDIR(destinationStatus.st_mode)) {
    reporter.error(options.destination, std::strerror(sourceIsDirectory ? ENOTDIR : EISDIR));
    return kExitFailed;
  }

  std::vector<WalkItem> sourceItems;
  std::vector<WalkItem> destinationItems;
  if (sourceIsDirectory) {
    const WalkOptions walk = walkOptions(options.followSymlinks);
    sourceItems = walkSide(options.source, walk);
    destinationItems = walkSide(options.destination, walk);
  } else {
    // Two files pair up whatever their names; they are reported under the source's name.
    const std::string name = std::filesystem::path(options.source).filename().string();
    sourceItems.push_back(fileItem(options.source, sourceStatus, name));
    destinationItems.push_back(fileItem(options.destination, destinationStatus, name));
  }
  // A root that cannot be listed leaves nothing to compare.
  for (const std::vector<WalkItem>* items : {&sourceItems, &destinationItems}) {
    if (!items->empty() && items->front().kind == WalkItem::Kind::kError &&
        items->front().relative.empty()) {
      reporter.error(items->front().path, items->front().message);
      return kExitFailed;
    }
  }
  const std::vector<Entry> entries = withoutEntriesBelowUnreadableFolders(
      pairEntries(sourceItems, destinationItems, *matching), sourceItems, destinationItems);

  std::uint64_t filesToRead = 0;
  std::uint64_t bytesToRead = 0;
  for (const Entry& entry : entries) {
    if (entry.source && entry.destination && entry.source->kind == WalkItem::Kind::kFile &&
        entry.destination->kind == WalkItem::Kind::kFile &&
        entry.source->size == entry.destination->size) {
      filesToRead += 2;
      bytesToRead += 2 * entry.source->size;
    }
  }
  reporter.setTotals(filesToRead, bytesToRead);

  // Every outcome that needs no reading is settled first; the pairs to read are then handed to
  // the engine, source then destination, and their outcomes settled as results arrive in order.
  std::vector<Comparison> comparisons(entries.size());
  std::vector<std::size_t> pairsToRead;
  std::vector<std::string> missingBranches;  // "a/" for a folder missing in DST
  std::vector<std::string> newBranches;      // the same for folders new in DST
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const Entry& entry = entries[i];
    Comparison& comparison = comparisons[i];
    const WalkItem* source = entry.source;
    const WalkItem* destination = entry.destination;
    const auto isFile = [](const WalkItem* item) {
      return item != nullptr && item->kind == WalkItem::Kind::kFile;
    };
    const auto isError = [](const WalkItem* item) {
      return item != nullptr && item->kind == WalkItem::Kind::kError;
    };
    const auto isFolder = [](const WalkItem* item) {
      return item != nullptr && item->kind == WalkItem::Kind::kDirectory;
    };
    if (entry.collision) {
      comparison.outcome = Outcome::kCollision;
    } else if (isError(source) || isError(destination)) {
      comparison.outcome = Outcome::kUnreadable;
    } else if ((source && source->kind == WalkItem::Kind::kNotice) ||
               (destination && destination->kind == WalkItem::Kind::kNotice)) {
      // Skipped on both sides (or only present as a skipped entry) is not compared; a file
      // whose counterpart was skipped cannot be verified.
      comparison.outcome =
          isFile(source) || isFile(destination) ? Outcome::kUnreadable : Outcome::kNotice;
    } else if (isFolder(source) || isFolder(destination)) {
      if (source && destination) {
        comparison.outcome =
            isFolder(source) && isFolder(destination) ? Outcome::kFolder : Outcome::kTypeDiffers;
      } else {
        // Only the topmost folder of a missing (or new) branch is reported; its files are.
        std::vector<std::string>& branches = source ? missingBranches : newBranches;
        const std::string& relative = (source ? source : destination)->relative;
        const bool inside = std::ranges::any_of(branches, [&relative](const std::string& branch) {
          return relative.starts_with(branch);
        });
        comparison.outcome = inside   ? Outcome::kFolder
                             : source ? Outcome::kMissingFolder
                                      : Outcome::kNewFolder;
        if (!inside) branches.push_back(relative + '/');
      }
    } else if (!destination) {
      comparison.outcome = Outcome::kMissing;
    } else if (!source) {
      comparison.outcome = Outcome::kNew;
    } else if (isFile(source) && isFile(destination) && source->size != destination->size) {
      comparison.outcome = Outcome::kSizeDiffers;
    } else {
      comparison.needsReading = true;
      pairsToRead.push_back(i);
    }
  }

  const auto settleRead = [&](Comparison& comparison) {
    if (!comparison.source->ok() || !comparison.destination->ok()) {
      comparison.outcome = Outcome::kUnreadable;
    } else if (comparison.source->size != comparison.destination->size) {
      comparison.outcome = Outcome::kSizeDiffers;  // changed since the walk
    } else {
      enumerateConflictingEntries(
          comparison.source->checksums, comparison.destination->checksums,
          [&](ChecksumType type, const std::string& sourceText, const std::string& copyText) {
            for (const AlgorithmName* algorithm : algorithms) {
              if (algorithm->type == type) {
                comparison.differences.push_back({algorithm, sourceText, copyText});
              }
            }
          });
      // The lookup's order is undefined; report in the order of -a.
      std::sort(comparison.differences.begin(), comparison.differences.end(),
                [&algorithms](const Difference& a, const Difference& b) {
                  return std::find(algorithms.begin(), algorithms.end(), a.algorithm) <
                         std::find(algorithms.begin(), algorithms.end(), b.algorithm);
                });
      comparison.outcome =
          comparison.differences.empty() ? Outcome::kOk : Outcome::kChecksumDiffers;
    }
    comparison.needsReading = false;
  };

  std::array<std::uint64_t, kOutcomeCount> counts{};
  std::uint64_t namesDiffer = 0;
  std::uint64_t namesNotAccepted = 0;  // pairs whose names differ in a way the mode does not allow
  nlohmann::ordered_json files = nlohmann::ordered_json::array();
  auto report = [&](std::size_t i) {
    const Entry& entry = entries[i];
    const Comparison& comparison = comparisons[i];
    ++counts[static_cast<std::size_t>(comparison.outcome)];
    const std::string& name = entry.relative;
    // A folder's name shows again in the names of the files below it.
    const bool showNames = entry.nameDifference != NameDifference::kNone &&
                           comparison.outcome != Outcome::kNotice &&
                           comparison.outcome != Outcome::kFolder;
    if (showNames) {
      ++namesDiffer;
      if (!entry.nameAccepted) ++namesNotAccepted;
    }
    std::uint64_t sourceSize = entry.source ? entry.source->size : 0;
    std::uint64_t destinationSize = entry.destination ? entry.destination->size : 0;
    if (comparison.source && comparison.source->size) sourceSize = *comparison.source->size;
    if (comparison.destination && comparison.destination->size) {
      destinationSize = *comparison.destination->size;
    }

    out.flush();
    for (const WalkItem* item : {entry.source, entry.destination}) {
      if (item == nullptr) continue;
      if (item->kind == WalkItem::Kind::kError) reporter.error(item->path, item->message);
      if (item->kind == WalkItem::Kind::kNotice) {
        reporter.skipped();
        reporter.notice(item->path, item->message);
      }
    }
    for (const auto& result : {comparison.source, comparison.destination}) {
      if (result && result->error) reporter.error(result->entry.path, result->error.message);
    }

    if (options.json) {
      if (comparison.outcome == Outcome::kNotice || comparison.outcome == Outcome::kFolder) return;
      nlohmann::ordered_json file = nlohmann::ordered_json::object();
      putName(file, "path", entry.relative);
      if (showNames) {
        putName(file, "destinationPath", entry.destination->relative);
        file["nameDifference"] = nameDifferenceName(entry.nameDifference);
      }
      file["status"] = outcomeName(comparison.outcome);
      if (entry.collision) file["side"] = entry.source ? "source" : "destination";
      if (entry.source) file["sourceSize"] = sourceSize;
      if (entry.destination) file["destinationSize"] = destinationSize;
      for (const auto& [key, result] :
           {std::pair{"sourceChecksums", &comparison.source},
            std::pair{"destinationChecksums", &comparison.destination}}) {
        if (!*result || (*result)->checksums.empty()) continue;
        nlohmann::ordered_json checksums = nlohmann::ordered_json::object();
        for (const AlgorithmName* algorithm : algorithms) {
          checksums[std::string(algorithm->cliName)] = (*result)->checksums.at(algorithm->type);
        }
        file[key] = std::move(checksums);
      }
      files.push_back(std::move(file));
      return;
    }
    std::ostringstream lines;
    if (showNames &&
        (!entry.nameAccepted || options.verbose || comparison.outcome != Outcome::kOk)) {
      lines << namesDifferMessage(entry.nameDifference) << ": "
            << visibleName(entry.source->relative)
            << " != " << visibleName(entry.destination->relative) << '\n';
    }
    switch (comparison.outcome) {
      case Outcome::kOk:
        if (options.verbose) lines << "ok: " << name << '\n';
        break;
      case Outcome::kMissing:
      case Outcome::kNew:
      case Outcome::kUnreadable:
        lines << outcomeName(comparison.outcome) << ": " << name << '\n';
        break;
      case Outcome::kSizeDiffers:
        lines << "size differs: " << name << " (" << sourceSize << " != " << destinationSize
              << " bytes)\n";
        break;
      case Outcome::kChecksumDiffers:
        for (const Difference& difference : comparison.differences) {
          lines << "checksum differs: " << name << " (" << difference.algorithm->tag << ' '
                << difference.source << " != " << difference.destination << ")\n";
        }
        break;
      case Outcome::kCollision:
        lines << "name collision: " << visibleName(name) << " ("
              << (entry.source ? "source" : "destination") << ")\n";
        break;
      case Outcome::kMissingFolder:
      case Outcome::kNewFolder:
        lines << outcomeName(comparison.outcome) << ": " << name << '\n';
        break;
      case Outcome::kTypeDiffers:
        lines << "type differs: " << name << " ("
              << (entry.source->kind == WalkItem::Kind::kDirectory ? "folder != file"
                                                                   : "file != folder")
              << ")\n";
        break;
      case Outcome::kNotice:
      case Outcome::kFolder:
        break;
    }
    if (const std::string text = lines.str(); !text.empty()) {
      reporter.writeOutput(out, [&] { out << text; });
    }
  };
  // Entries are reported in order, each as soon as its outcome is settled.
  std::size_t reported = 0;
  const auto reportSettled = [&] {
    while (reported < entries.size() && !comparisons[reported].needsReading) report(reported++);
  };
  reportSettled();
  ReporterObserver observer(reporter);
  const FileSetHasher hasher({.algorithms = checksumTypesOf(algorithms),
                              .filesInFlight = options.common.jobs,
                              .observer = &observer});
  std::size_t nextItem = 0;  // 2k: source of pairsToRead[k], 2k + 1: its destination
  hasher.run(FileSetInput::generator([&]() -> std::optional<FileSetItem> {
               if (nextItem >= 2 * pairsToRead.size()) return std::nullopt;
               const Entry& entry = entries[pairsToRead[nextItem / 2]];
               const bool destination = nextItem++ % 2 == 1;
               FileSetItem item =
                   FileSetItem::path((destination ? entry.destination : entry.source)->path);
               item.regularOnly = sourceIsDirectory;
               item.bypassCache = destination && options.noCache;
               return item;
             }),
             [&](FileSetResult&& result) {
               Comparison& comparison = comparisons[pairsToRead[result.index / 2]];
               reporter.fileDone();
               if (result.index % 2 == 0) {
                 comparison.source = std::move(result);
                 return;
               }
               comparison.destination = std::move(result);
               settleRead(comparison);
               reportSettled();
             });
  reportSettled();

  const auto count = [&counts](Outcome outcome) {
    return counts[static_cast<std::size_t>(outcome)];
  };
  const std::uint64_t folders =
      count(Outcome::kFolder) + count(Outcome::kMissingFolder) + count(Outcome::kNewFolder);
  const std::uint64_t compared = entries.size() - count(Outcome::kNotice) - folders;
  std::vector<ChecksumType> types;
  for (const AlgorithmName* algorithm : algorithms) types.push_back(algorithm->type);
  const auto validation =
      IOValidationAttributes::create(types, /*forceChecksumSizeComparison=*/true);

  if (options.json) {
    nlohmann::ordered_json algorithmNames = nlohmann::ordered_json::array();
    for (const AlgorithmName* algorithm : algorithms) algorithmNames.push_back(algorithm->cliName);
    nlohmann::ordered_json document = nlohmann::ordered_json::object();
    putName(document, "source", options.source);
    putName(document, "destination", options.destination);
    document["algorithms"] = std::move(algorithmNames);
    document["matchNames"] = nameMatchingName(*matching);
    document["files"] = std::move(files);
    document["totals"] = {{"compared", compared},
                          {"ok", count(Outcome::kOk)},
                          {"missing", count(Outcome::kMissing)},
                          {"new", count(Outcome::kNew)},
                          {"sizeDiffers", count(Outcome::kSizeDiffers)},
                          {"checksumDiffers", count(Outcome::kChecksumDiffers)},
                          {"unreadable", count(Outcome::kUnreadable)},
                          {"namesDiffer", namesDiffer},
                          {"nameCollisions", count(Outcome::kCollision)},
                          {"missingFolders", count(Outcome::kMissingFolder)},
                          {"newFolders", count(Outcome::kNewFolder)},
                          {"typeDiffers", count(Outcome::kTypeDiffers)}};
    document["validation"] = nlohmann::ordered_json(validation->encode());
    out << dumpJson(document) << '\n';
  } else {
    out << "compared " << compared << " files: " << count(Outcome::kOk) << " matched, "
        << count(Outcome::kMissing) << " missing, " << count(Outcome::kNew) << " new, "
        << count(Outcome::kSizeDiffers) << " size differs, " << count(Outcome::kChecksumDiffers)
        << " checksum differs, " << count(Outcome::kUnreadable) << " unreadable";
    if (namesDiffer != 0) out << ", " << namesDiffer << " names differ";
    if (count(Outcome::kCollision) != 0) {
      out << ", " << count(Outcome::kCollision) << " name collisions";
    }
    if (count(Outcome::kMissingFolder) != 0) {
      out << ", " << counted(count(Outcome::kMissingFolder), "missing folder", "missing folders");
    }
    if (count(Outcome::kNewFolder) != 0) {
      out << ", " << counted(count(Outcome::kNewFolder), "new folder", "new folders");
    }
    if (count(Outcome::kTypeDiffers) != 0) {
      out << ", " << count(Outcome::kTypeDiffers) << " type differs";
    }
    out << '\n';
  }
  out.flush();
  reporter.finish();

  if (count(Outcome::kSizeDiffers) + count(Outcome::kChecksumDiffers) +
          count(Outcome::kUnreadable) + count(Outcome::kCollision) +
          count(Outcome::kMissingFolder) + count(Outcome::kNewFolder) +
          count(Outcome::kTypeDiffers) + reporter.errorCount() !=
      0) {
    return kExitFailed;
  }
  if (count(Outcome::kMissing) + count(Outcome::kNew) + namesNotAccepted != 0) {
    return kExitMissingOrNew;
  }
  return kExitOk;
}

}  // namespace corvane::tool
