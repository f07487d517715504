// OutputFormat: how corvane-checksum prints the checksums it computed.
//
// - GNU lines "<checksum>  <path>", the layout of sha256sum and friends (one algorithm);
// - tag lines "<TAG> (<path>) = <checksum>", as `sha256sum --tag` and `xxhsum --tag` write them
//   (asked for, or several algorithms);
// - either ending in NUL instead of newline (-z), which also turns name escaping off;
// - one JSON document for the whole run.
// A name holding a backslash, newline or carriage return is escaped as coreutils does (see
// NameEscaping.hpp) unless lines end in NUL.
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <string_view>

#include "AlgorithmNames.hpp"
#include "corvane/FileSetHasher.hpp"

namespace corvane::tool {

enum class LineStyle { kGnu, kTag };

struct LineSettings {
  LineStyle style = LineStyle::kGnu;
  bool nulTerminated = false;
};

// Writes one checksum line.
void writeChecksumLine(std::ostream& out, const LineSettings& settings,
                       const AlgorithmName& algorithm, const std::string& path,
                       const std::string& checksum);

// "1 file" / "2 files": the count with the singular or plural form of what it counts.
std::string counted(std::uint64_t count, const char* singular, const char* plural);

// "2026-11-22T10:00:00.123456789Z".
std::string formatUtcTime(const FileTime& time);

// A JSON dump that never fails. Names must go in through putName, which keeps them lossless;
// any other text that is not UTF-8 would have its bad bytes replaced by U+FFFD.
// `indent` as for nlohmann::json::dump (-1: all on one line).
std::string dumpJson(const nlohmann::ordered_json& document, int indent = 2);

// Stores the file name `name` (bytes, not necessarily UTF-8) in `object` without losing any of
// it. A name that is valid UTF-8 goes under `key` as it is. Otherwise `key` gets a readable form
// (valid sequences kept, every other byte written as "\xHH", a backslash as "\\") and
// `<key>Hex` the name's raw bytes in lower-case hexadecimal, so that two names never collapse
// into one and the file can be found again from the report.
void putName(nlohmann::ordered_json& object, std::string_view key, const std::string& name);

// The JSON document of `hash --json`:
// {"algorithms": [...], "files": [{"path", "size", "modified", "checksums": {...}},
//  {"path", "error"} or {"path", "skipped"}], "totals": {"files", "hashed", "errors", "skipped",
//  "bytes"}}.
class HashJsonDocument {
 public:
  explicit HashJsonDocument(std::vector<const AlgorithmName*> algorithms);

  // A file that was read (its error, if it failed).
  void addFile(const FileSetResult& result);
  void addError(const std::string& path, const std::string& reason);
  // An entry of a walk that was not read (a special file, a link that was not followed).
  void addSkipped(const std::string& path, const std::string& reason);
  // Writes the document.
  void write(std::ostream& out) const;

 private:
  std::vector<const AlgorithmName*> algorithms_;
  nlohmann::ordered_json files_ = nlohmann::ordered_json::array();
  std::uint64_t hashed_ = 0;
  std::uint64_t errors_ = 0;
  std::uint64_t skipped_ = 0;
  std::uint64_t bytes_ = 0;
};

}  // namespace corvane::tool
