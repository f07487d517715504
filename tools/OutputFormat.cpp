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

std::string dumpJson(const nlohmann::ordered_json& document) {
  return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

HashJsonDocument::HashJsonDocument(const std::vector<const AlgorithmName*>& algorithms) {
  for (const AlgorithmName* algorithm : algorithms) algorithms_.push_back(algorithm->cliName);
}

void HashJsonDocument::addFile(const FileResult& result) {
  if (!result.ok()) {
    for (const std::string& reason : result.errors) addError(result.path, reason);
    return;
  }
  nlohmann::ordered_json checksums = nlohmann::ordered_json::object();
  for (const FileChecksum& entry : result.checksums) {
    checksums[std::string(entry.algorithm->cliName)] = entry.checksum;
  }
  nlohmann::ordered_json file = {{"path", result.path}, {"size", result.size.value_or(0)}};
  if (result.modified) file["modified"] = formatUtcTime(*result.modified);
  file["checksums"] = std::move(checksums);
  files_.push_back(std::move(file));
  ++hashed_;
  bytes_ += result.size.value_or(0);
}

void HashJsonDocument::addError(const std::string& path, const std::string& reason) {
  files_.push_back({{"path", path}, {"error", reason}});
  ++errors_;
}

void HashJsonDocument::write(std::ostream& out) const {
  const nlohmann::ordered_json document = {
      {"algorithms", algorithms_},
      {"files", files_},
      {"totals",
       {{"files", files_.size()}, {"hashed", hashed_}, {"errors", errors_}, {"bytes", bytes_}}}};
  out << dumpJson(document) << '\n';
}

}  // namespace corvane::tool
