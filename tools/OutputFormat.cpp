#include "OutputFormat.hpp"

namespace corvane::tool {

OutputStyle chooseOutputStyle(bool json, std::size_t algorithmCount) {
  if (json) {
    return OutputStyle::kJson;
  }
  return algorithmCount == 1 ? OutputStyle::kPlain : OutputStyle::kTagged;
}

void OutputWriter::add(const FileResult& result) {
  for (const FileChecksum& entry : result.checksums) {
    switch (style_) {
      case OutputStyle::kPlain:
        out_ << entry.checksum << "  " << result.path << '\n';
        break;
      case OutputStyle::kTagged:
        out_ << entry.algorithm->tag << " (" << result.path << ") = " << entry.checksum << '\n';
        break;
      case OutputStyle::kJson:
        entries_.push_back({{"path", result.path},
                            {"algorithm", entry.algorithm->type.name()},
                            {"checksum", entry.checksum}});
        break;
    }
  }
  out_.flush();
}

void OutputWriter::finish() {
  if (style_ == OutputStyle::kJson) {
    // Paths are bytes, not necessarily UTF-8; replace what cannot be encoded instead of failing.
    out_ << entries_.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
  }
  out_.flush();
}

}  // namespace corvane::tool
