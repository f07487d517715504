#include "OutputFormat.hpp"

#include <cstdio>
#include <ctime>

#include "NameEscaping.hpp"

namespace corvane::tool {

void writeChecksumLine(std::ostream& out, const LineSettings& settings,
                       const AlgorithmName& algorithm, const std::string& path,
                       const std::string& checksum) {
  const bool escape = !settings.nulTerminated && nameNeedsEscaping(path);
  std::string line;
  line.reserve(path.size() + checksum.size() + 16);
  if (escape) line += '\\';
  const std::string name = escape ? escapeName(path) : path;
  if (settings.style == LineStyle::kGnu) {
    line.append(checksum).append("  ").append(name);
  } else {
    line.append(algorithm.tag).append(" (").append(name).append(") = ").append(checksum);
  }
  line += settings.nulTerminated ? '\0' : '\n';
  out << line;
}

std::string counted(std::uint64_t count, const char* singular, const char* plural) {
  return std::to_string(count) + ' ' + (count == 1 ? singular : plural);
}

std::string formatUtcTime(const FileTime& time) {
  const std::time_t seconds = static_cast<std::time_t>(time.seconds);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%09lldZ", parts.tm_year + 1900,
                parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                static_cast<long long>(time.nanoseconds));
  return text;
}

void putName(nlohmann::ordered_json& object, std::string_view key, const std::string& name) {
  const std::string field(key);
  if (isValidUtf8(name)) {
    object[field] = name;
    return;
  }
  std::string readable;
  std::string hex;
  hex.reserve(2 * name.size());
  for (const char c : name) appendHex(hex, static_cast<unsigned char>(c), 2);
  forEachCodePoint(name, [&readable](std::int32_t codePoint, std::string_view bytes) {
    if (codePoint < 0) {
      readable += "\\x";
      appendHex(readable, static_cast<unsigned char>(bytes.front()), 2);
    } else if (codePoint == '\\') {
      readable += "\\\\";
    } else {
      readable += bytes;
    }
  });
  object[field] = std::move(readable);
  object[field + "Hex"] = std::move(hex);
}

std::string dumpJson(const nlohmann::ordered_json& document, int indent) {
  return document.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

HashJsonDocument::HashJsonDocument(std::vector<const AlgorithmName*> algorithms)
    : algorithms_(std::move(algorithms)) {}

void HashJsonDocument::addFile(const FileSetResult& result) {
  if (!result.ok()) {
    addError(result.entry.path, result.error.message);
    return;
  }
  nlohmann::ordered_json checksums = nlohmann::ordered_json::object();
  for (const AlgorithmName* algorithm : algorithms_) {
    checksums[std::string(algorithm->cliName)] = result.checksums.at(algorithm->type);
  }
  nlohmann::ordered_json file = nlohmann::ordered_json::object();
  putName(file, "path", result.entry.path);
  file["size"] = result.size.value_or(0);
  if (result.modified) file["modified"] = formatUtcTime(*result.modified);
  file["checksums"] = std::move(checksums);
  files_.push_back(std::move(file));
  ++hashed_;
  bytes_ += result.size.value_or(0);
}

void HashJsonDocument::addError(const std::string& path, const std::string& reason) {
  nlohmann::ordered_json file = nlohmann::ordered_json::object();
  putName(file, "path", path);
  file["error"] = reason;
  files_.push_back(std::move(file));
  ++errors_;
}

void HashJsonDocument::addSkipped(const std::string& path, const std::string& reason) {
  nlohmann::ordered_json file = nlohmann::ordered_json::object();
  putName(file, "path", path);
  file["skipped"] = reason;
  files_.push_back(std::move(file));
  ++skipped_;
}

void HashJsonDocument::write(std::ostream& out) const {
  nlohmann::ordered_json algorithms = nlohmann::ordered_json::array();
  for (const AlgorithmName* algorithm : algorithms_) algorithms.push_back(algorithm->cliName);
  const nlohmann::ordered_json document = {{"algorithms", std::move(algorithms)},
                                           {"files", files_},
                                           {"totals",
                                            {{"files", files_.size()},
                                             {"hashed", hashed_},
                                             {"errors", errors_},
                                             {"skipped", skipped_},
                                             {"bytes", bytes_}}}};
  out << dumpJson(document) << '\n';
}

}  // namespace corvane::tool
