// Where the ASC MHL tests find their data: the copies of the standard's examples under
// tests/data/ascmhl/ and the schemas the library ships (and embeds) under src/mhl/xsd/.
#pragma once

#include <filesystem>
#include <string>

namespace corvane::testsupport {

// tests/data/ascmhl/<name>.
inline std::string ascmhlDataPath(const std::string& name) {
  return std::string(CORVANE_TEST_DATA_DIR) + "/ascmhl/" + name;
}

// src/mhl/xsd/<name>: ASCMHL.xsd or ASCMHLDirectory.xsd.
inline std::string shippedMhlSchema(const std::string& name) {
  return (std::filesystem::path(CORVANE_TEST_DATA_DIR) / ".." / ".." / "src" / "mhl" / "xsd" / name)
      .lexically_normal()
      .string();
}

}  // namespace corvane::testsupport
