// OutputFormat: how corvane-checksum prints the checksums it computed.
//
// Three styles:
// - plain (one algorithm): "<checksum>  <path>", the layout of sha256sum and friends;
// - tagged (several algorithms): "<TAG> (<path>) = <checksum>", one line per file and algorithm;
// - JSON: one array of {"path", "algorithm", "checksum"} objects printed at the end, where
//   "algorithm" is the library's display name of the algorithm ("xxHash64", "SHA-2 256").
// Plain and tagged lines are written (and flushed) as each file finishes, so errors written to
// stderr in between keep their place relative to them.
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>

#include "FileHasher.hpp"

namespace corvane::tool {

enum class OutputStyle { kPlain, kTagged, kJson };

// kJson when asked for, else kPlain for one algorithm and kTagged for several.
OutputStyle chooseOutputStyle(bool json, std::size_t algorithmCount);

class OutputWriter {
 public:
  OutputWriter(OutputStyle style, std::ostream& out) : style_(style), out_(out) {}

  // Writes (or, for JSON, collects) the checksums of one file.
  void add(const FileResult& result);
  // Ends the output; for JSON this prints the array (also when it is empty).
  void finish();

 private:
  OutputStyle style_;
  std::ostream& out_;
  nlohmann::ordered_json entries_ = nlohmann::ordered_json::array();
};

}  // namespace corvane::tool
