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
#include <variant>

#include "ExitStatus.hpp"
#include "FileHasher.hpp"
#include "OutputFormat.hpp"
#include "PathWalker.hpp"
#include "corvane/ChecksumLookup.hpp"
#include "corvane/IOValidationAttributes.hpp"

namespace corvane::tool {
namespace {

enum class Outcome { kOk, kMissing, kNew, kSizeDiffers, kChecksumDiffers, kUnreadable, kNotice };

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
    case Outcome::kNotice:
      return "skipped";
  }
  return "";
}

// One relative path and what each side has there.
struct Entry {
  std::string relative;
  const WalkItem* source = nullptr;
  const WalkItem* destination = nullptr;
};

struct Difference {
  const AlgorithmName* algorithm;
  std::string source;
  std::string destination;
};

struct Comparison {
  Outcome outcome = Outcome::kOk;
  std::optional<FileResult> source;
  std::optional<FileResult> destination;
  std::vector<Difference> differences;  // kChecksumDiffers, in -a order
};

std::optional<std::string> statReason(const std::string& path, struct stat& status) {
  if (::stat(path.c_str(), &status) != 0) return std::string(std::strerror(errno));
  return std::nullopt;
}

// Both sides' items paired by relative path; both inputs are sorted by it.
std::vector<Entry> pairByPath(const std::vector<WalkItem>& source,
                              const std::vector<WalkItem>& destination) {
  std::vector<Entry> entries;
  std::size_t s = 0;
  std::size_t d = 0;
  while (s < source.size() || d < destination.size()) {
    if (d == destination.size() ||
        (s < source.size() && source[s].relative < destination[d].relative)) {
      entries.push_back({source[s].relative, &source[s], nullptr});
      ++s;
    } else if (s == source.size() || destination[d].relative < source[s].relative) {
      entries.push_back({destination[d].relative, nullptr, &destination[d]});
      ++d;
    } else {
      entries.push_back({source[s].relative, &source[s], &destination[d]});
      ++s;
      ++d;
    }
  }
  return entries;
}

ChecksumLookup lookupOf(const FileResult& result) {
  ChecksumLookup lookup;
  for (const FileChecksum& entry : result.checksums) lookup[entry.algorithm->type] = entry.checksum;
  return lookup;
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
  compare->add_flag("-v,--verbose", options.verbose, "Also print a line for every matching file");
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
      "'checksum differs: <path> (<TAG> <src> != <dst>)', 'unreadable: <path>' (and 'ok: <path>' "
      "with -v), then 'compared <F> files: ...'.\n"
      "Exit status: 0 identical, 1 a size or checksum differs or a file is unreadable, 2 usage "
      "error, 3 files missing in or new in DST (and nothing worse).");
  return compare;
}

int runCompareCommand(const CompareOptions& options, std::ostream& out, std::ostream& err) {
  auto parsed = parseAlgorithmList(options.algorithmValues);
  if (const auto* error = std::get_if<AlgorithmListError>(&parsed)) {
    return usageError(err, error->message);
  }
  const auto algorithms = std::get<std::vector<const AlgorithmName*>>(std::move(parsed));

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
    sourceItems = walkDirectory(options.source, options.followSymlinks);
    destinationItems = walkDirectory(options.destination, options.followSymlinks);
  } else {
    sourceItems = walkOperands({options.source}, {});
    destinationItems = walkOperands({options.destination}, {});
    // Two files pair up whatever their names; they are reported under the source's name.
    const std::string name = std::filesystem::path(options.source).filename().string();
    sourceItems.front().relative = destinationItems.front().relative = name;
  }
  const std::vector<Entry> entries = pairByPath(sourceItems, destinationItems);

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

  const FileHasher sourceHasher(algorithms);
  const FileHasher destinationHasher(algorithms, {.bypassCache = options.noCache});
  const auto countBytes = reporter.byteCounter();

  std::vector<Comparison> comparisons(entries.size());
  auto compareEntry = [&](std::size_t i) {
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
    if (isError(source) || isError(destination)) {
      comparison.outcome = Outcome::kUnreadable;
    } else if ((source && source->kind == WalkItem::Kind::kNotice) ||
               (destination && destination->kind == WalkItem::Kind::kNotice)) {
      // Skipped on both sides (or only present as a skipped entry) is not compared; a file
      // whose counterpart was skipped cannot be verified.
      comparison.outcome =
          isFile(source) || isFile(destination) ? Outcome::kUnreadable : Outcome::kNotice;
    } else if (!destination) {
      comparison.outcome = Outcome::kMissing;
    } else if (!source) {
      comparison.outcome = Outcome::kNew;
    } else if (isFile(source) && isFile(destination) && source->size != destination->size) {
      comparison.outcome = Outcome::kSizeDiffers;
    } else {
      comparison.source = sourceHasher.hash(source->path, countBytes);
      reporter.fileDone();
      comparison.destination = destinationHasher.hash(destination->path, countBytes);
      reporter.fileDone();
      if (!comparison.source->ok() || !comparison.destination->ok()) {
        comparison.outcome = Outcome::kUnreadable;
      } else if (comparison.source->size != comparison.destination->size) {
        comparison.outcome = Outcome::kSizeDiffers;  // changed since the walk
      } else {
        const ChecksumLookup destinationLookup = lookupOf(*comparison.destination);
        enumerateConflictingEntries(
            lookupOf(*comparison.source), destinationLookup,
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
    }
  };

  std::array<std::uint64_t, 7> counts{};
  nlohmann::ordered_json files = nlohmann::ordered_json::array();
  auto report = [&](std::size_t i) {
    const Entry& entry = entries[i];
    const Comparison& comparison = comparisons[i];
    ++counts[static_cast<std::size_t>(comparison.outcome)];
    const std::string& name = entry.relative;
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
      if (item->kind == WalkItem::Kind::kNotice) reporter.notice(item->path, item->message);
    }
    for (const auto& result : {comparison.source, comparison.destination}) {
      if (!result) continue;
      for (const std::string& reason : result->errors) reporter.error(result->path, reason);
    }

    if (options.json) {
      if (comparison.outcome == Outcome::kNotice) return;
      nlohmann::ordered_json file = {{"path", entry.relative},
                                     {"status", outcomeName(comparison.outcome)}};
      if (entry.source) file["sourceSize"] = sourceSize;
      if (entry.destination) file["destinationSize"] = destinationSize;
      for (const auto& [key, result] :
           {std::pair{"sourceChecksums", &comparison.source},
            std::pair{"destinationChecksums", &comparison.destination}}) {
        if (!*result || (*result)->checksums.empty()) continue;
        nlohmann::ordered_json checksums = nlohmann::ordered_json::object();
        for (const FileChecksum& checksum : (*result)->checksums) {
          checksums[std::string(checksum.algorithm->cliName)] = checksum.checksum;
        }
        file[key] = std::move(checksums);
      }
      files.push_back(std::move(file));
      return;
    }
    std::ostringstream lines;
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
      case Outcome::kNotice:
        break;
    }
    if (const std::string text = lines.str(); !text.empty()) {
      reporter.writeOutput(out, [&] { out << text; });
    }
  };
  runOrderedInParallel(entries.size(), options.common.jobs, compareEntry, report);

  const auto count = [&counts](Outcome outcome) {
    return counts[static_cast<std::size_t>(outcome)];
  };
  const std::uint64_t compared = entries.size() - count(Outcome::kNotice);
  std::vector<ChecksumType> types;
  for (const AlgorithmName* algorithm : algorithms) types.push_back(algorithm->type);
  const auto validation =
      IOValidationAttributes::create(types, /*forceChecksumSizeComparison=*/true);

  if (options.json) {
    nlohmann::ordered_json algorithmNames = nlohmann::ordered_json::array();
    for (const AlgorithmName* algorithm : algorithms) algorithmNames.push_back(algorithm->cliName);
    const nlohmann::ordered_json document = {
        {"source", options.source},
        {"destination", options.destination},
        {"algorithms", std::move(algorithmNames)},
        {"files", std::move(files)},
        {"totals",
         {{"compared", compared},
          {"ok", count(Outcome::kOk)},
          {"missing", count(Outcome::kMissing)},
          {"new", count(Outcome::kNew)},
          {"sizeDiffers", count(Outcome::kSizeDiffers)},
          {"checksumDiffers", count(Outcome::kChecksumDiffers)},
          {"unreadable", count(Outcome::kUnreadable)}}},
        {"validation", nlohmann::ordered_json(validation->encode())}};
    out << dumpJson(document) << '\n';
  } else {
    out << "compared " << compared << " files: " << count(Outcome::kOk) << " matched, "
        << count(Outcome::kMissing) << " missing, " << count(Outcome::kNew) << " new, "
        << count(Outcome::kSizeDiffers) << " size differs, " << count(Outcome::kChecksumDiffers)
        << " checksum differs, " << count(Outcome::kUnreadable) << " unreadable\n";
  }
  out.flush();
  reporter.finish();

  if (count(Outcome::kSizeDiffers) + count(Outcome::kChecksumDiffers) +
          count(Outcome::kUnreadable) + reporter.errorCount() !=
      0) {
    return kExitFailed;
  }
  if (count(Outcome::kMissing) + count(Outcome::kNew) != 0) return kExitMissingOrNew;
  return kExitOk;
}

}  // namespace corvane::tool
