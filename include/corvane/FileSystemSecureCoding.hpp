// FileSystemSecureCoding: the kinds of value a caller may allow when it securely decodes archived
// file-system tree nodes.
//
// The library does not decode tree nodes itself; the decoder belongs to the host application. The
// list names the five value kinds a decoded tree node may contain, so that every decoder of the
// product family allows the same ones.
#pragma once

#include <vector>

#include "corvane/Export.hpp"

namespace corvane {

// One value kind that a decoded tree node may contain.
enum class SecureCodingClass { array, string, number, date, dictionary };

class CORVANE_API FileSystemSecureCoding {
 public:
  FileSystemSecureCoding() = delete;

  // A new list holding array, string, number, date and dictionary, in that order. Nothing is
  // cached: every call builds its own list, which the caller owns and may extend. Thread-safe.
  static std::vector<SecureCodingClass> treeNodeSecureCodingClasses();
};

}  // namespace corvane
