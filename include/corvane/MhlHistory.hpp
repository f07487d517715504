// ASC MHL histories: the `ascmhl/` folder at the top of a folder tree (its scope), holding one
// immutable manifest per generation and the chain file that lists them (ASC MHL sections 5.3, 5.4
// and 5.6), and the operations on it: create (initiate or append a generation, verifying what was
// recorded before), verify (writes nothing), diff (no hashing), info and flatten.
//
// Hashing goes through the file-set engine (FileSetHasher): every file is read once for all the
// formats it needs (those asked for plus those it was recorded with). Nested histories (a folder
// below the scope holding its own `ascmhl/`) keep the records of their files (5.3.2): create makes
// a generation in each nested history first and references it from the parent's manifest.
//
// Writing is crash-safe: a manifest goes to a temporary name, is fsynced, and is linked to its
// final name (never replacing an existing manifest); only then is the chain replaced the same way.
// A crash at any moment leaves a history that verifies as the old state or the new one; the
// temporaries a killed writer left are removed by the next create.
//
// Thread safety: the functions may run concurrently on different roots. Errors are results
// (MhlResult / the report's problems), never exceptions, except programming errors.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "corvane/ChecksumLookup.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/Export.hpp"
#include "corvane/FileSetHasher.hpp"
#include "corvane/MhlManifest.hpp"
#include "corvane/MhlXml.hpp"

namespace corvane {

// The folder and file names of a history.
inline constexpr std::string_view kMhlHistoryFolderName = "ascmhl";
inline constexpr std::string_view kMhlChainFileName = "ascmhl_chain.xml";

// "0003_Card01_2026-11-25_101500Z.mhl": the name of generation `sequence` of the history whose
// scope folder is named `folderName`, created at `time` (UTC).
CORVANE_API std::string mhlManifestFileName(std::uint64_t sequence, std::string_view folderName,
                                            std::chrono::system_clock::time_point time);

// One generation as read from a history.
struct CORVANE_API MhlGeneration {
  std::uint64_t sequence = 0;
  std::string fileName;  // relative to the ascmhl folder
  std::string c4;        // the C4 ID of the manifest file's bytes, as the chain lists it
  MhlManifest manifest;
};

// A history as it stands on disk: the chain and every manifest it lists, in order.
struct CORVANE_API MhlHistory {
  std::string root;  // the scope folder
  std::vector<MhlGeneration> generations;
  // Histories of folders below the scope, by their path relative to it ("A002R2EC"), found by
  // looking for `ascmhl/` folders (a nested history's own nested histories are its children).
  std::vector<MhlHistory> children;

  // The ignore patterns in force: the defaults, then every pattern of every generation, in order,
  // without repeats.
  std::vector<std::string> ignorePatterns() const;
};

// Reads the history of `root` (and of every nested history). A root without an `ascmhl` folder
// gives a history without generations. Problems with the chain or a manifest (missing, changed
// since the chain recorded it, invalid against the schema, broken sequence) are errors naming the
// file and line.
CORVANE_API MhlResult<MhlHistory> readMhlHistory(const std::string& root);

// What one file's records say, assembled over the generations (renames followed through
// previousPath): the hash of each format that verification may use (the latest `original` or
// `verified` one; `failed` hashes never count).
struct CORVANE_API MhlFileRecord {
  std::string path;  // relative to the scope, as in the latest generation
  std::map<std::uint64_t, std::string> usableHashes;  // ChecksumType raw value -> hash text
  std::optional<std::uint64_t> size;                  // as last recorded
};

// Every file recorded in `history` itself (not in nested histories), by relative path.
CORVANE_API std::map<std::string, MhlFileRecord> mhlFileRecords(const MhlHistory& history);

// --- operations --------------------------------------------------------------------------------

// What happened to one file (or folder) in an operation.
enum class MhlFileOutcome {
  original,  // hashed for the first time in this history
  verified,  // every recorded format that was computed matched
  failed,    // a recorded format did not match
  missing,   // recorded, but not in the file system
  newFile,   // in the file system, not recorded (diff and verify only)
  unreadable,
};

struct CORVANE_API MhlFileReport {
  std::string path;     // relative to the scope of `history`
  std::string history;  // relative path of the history's scope below the top root ("" = the top)
  MhlFileOutcome outcome = MhlFileOutcome::original;
  // For failed: the format, the recorded and the computed value; for unreadable: the reason.
  std::string detail;
  ChecksumLookup checksums;  // what was computed
};

// The result of an operation over a history and its nested histories.
struct CORVANE_API MhlReport {
  std::vector<MhlFileReport> files;
  // Problems that are not about one file: a broken chain, an invalid manifest, a write error.
  std::vector<MhlError> problems;
  // create: the manifests written, as paths relative to the top root.
  std::vector<std::string> manifestsWritten;
  bool stopped = false;

  std::size_t count(MhlFileOutcome outcome) const;
  // Everything verified or original, nothing missing, failed, unreadable, and no problem.
  bool clean() const;
};

// What a caller of createMhlGeneration already knows of one file (see knownChecksums).
struct CORVANE_API MhlKnownFile {
  std::uint64_t size = 0;
  FileTime modified;
  ChecksumLookup checksums;
};

struct CORVANE_API MhlCreateOptions {
  // The formats to hash every file with (ASC MHL formats only); default xxh64.
  std::vector<ChecksumType> formats = {ChecksumTypeXXHash64};
  // Patterns added to those in force (gitignore syntax).
  std::vector<std::string> ignorePatterns;
  bool directoryHashes = true;
  MhlProcess process = MhlProcess::inPlace;
  // Creator information; hostName and tool are filled in when empty.
  std::vector<MhlAuthor> authors;
  std::optional<std::string> location;
  std::optional<std::string> comment;
  // Engine settings (filesInFlight, observer, ...); the algorithms are set per file.
  FileSetSettings engine;
  // Called for every file report as it is settled, in path order (progress, output).
  std::function<void(const MhlFileReport&)> onFile;
  // Checksums the caller already computed from a file's bytes (an offload that read the source
  // or read its copies back), asked for by path relative to `root` (the top root, also for files
  // of nested histories). A file is not read again when the answer holds every format it needs
  // and its size and modification time equal the file's now; otherwise it is hashed as usual.
  // Empty: every file is read.
  std::function<std::optional<MhlKnownFile>(const std::string& relativePath)> knownChecksums;
};

// Hashes every file of `root` not ignored and not in a nested history, checks the files the
// history recorded (verified / failed; recorded files that are gone are `missing`), and appends a
// generation: the manifest (written even when something failed) and the chain entry. Nested
// histories get their own generation first and are referenced. A root that cannot be written to
// is refused before any hashing (a problem, nothing written).
CORVANE_API MhlReport createMhlGeneration(const std::string& root, const MhlCreateOptions& options,
                                          std::stop_token stop = {});

struct CORVANE_API MhlVerifyOptions {
  bool directoryHashes = false;  // also recompute and check the recorded directory hashes
  FileSetSettings engine;
  std::function<void(const MhlFileReport&)> onFile;
};

// Checks every recorded file against its usable hashes (computing one recorded format per file),
// the chain (every manifest present, its C4 ID matching, the sequence continuous) and every
// manifest against the schema; reports files that are new. Writes nothing.
CORVANE_API MhlReport verifyMhlHistory(const std::string& root, const MhlVerifyOptions& options,
                                       std::stop_token stop = {});

// New and missing files by name, without hashing.
CORVANE_API MhlReport diffMhlHistory(const std::string& root);

// One manifest (process `flatten`) holding every file of the history and its nested histories:
// the earliest hash of each format, `failed` hashes dropped, paths relative to `root`. Written to
// the folder `destination` as "<root folder name>_<date>_<time>Z.mhl"; the path written, or the
// error.
CORVANE_API MhlResult<std::string> flattenMhlHistory(const std::string& root,
                                                     const std::string& destination);

}  // namespace corvane
