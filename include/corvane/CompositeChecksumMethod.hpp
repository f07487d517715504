// Building blocks of composite checksums: how a list of checksum texts becomes the bytes that are
// hashed (CompositeChecksumMethod), and how checksums collected under sort criteria are put in
// order (CompositeChecksumSorter), plus two small enumerations that callers use to describe what a
// composite is keyed on (CompositeChecksumLexicalOrdering) and what a directory checksum covers
// (DirectoryChecksumScope).
//
// All types here are plain values without shared state: copies are independent, nothing logs and
// nothing throws. A value may be read from several threads at once; writes need the caller's own
// synchronisation, as for any value.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "corvane/Bytes.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/Export.hpp"

namespace corvane {

// How a list of checksum texts is turned into one byte sequence. Two cases:
// - checksumsAsData(bigEndian): each text is decoded to the raw bytes it spells and the bytes are
//   joined, without separator or length prefix;
// - checksumsAsText(): the texts are joined and the UTF-8 bytes of the result are used.
class CORVANE_API CompositeChecksumMethod {
 public:
  // Decode every checksum text to raw bytes. `bigEndian` chooses the byte order of the decoding:
  // true keeps hexadecimal texts in text order and writes C4 IDs as plain big-endian numbers.
  static CompositeChecksumMethod checksumsAsData(bool bigEndian) noexcept {
    return CompositeChecksumMethod(true, bigEndian);
  }
  // Join the checksum texts as text.
  static CompositeChecksumMethod checksumsAsText() noexcept {
    return CompositeChecksumMethod(false, false);
  }

  // True for checksumsAsData.
  bool isData() const noexcept { return isData_; }
  // The payload of checksumsAsData; false for checksumsAsText.
  bool bigEndian() const noexcept { return bigEndian_; }

  // The bytes of `fromList`, in list order, or nothing when a text cannot be decoded.
  // - checksumsAsText: the texts joined without separator, as UTF-8; `algorithm` is not used.
  // - checksumsAsData: each text decoded and appended. With `algorithm` ChecksumTypeC4 every text
  //   goes through CorvaneC4DataUtility::convertC4ChecksumToData(text, bigEndian); otherwise (also
  //   when `algorithm` is absent, even for a C4 text) through
  //   CorvaneChecksumGenerator::dataFromHexString(text, !bigEndian). The first text the decoder
  //   rejects makes the whole result absent.
  // An empty list gives an empty buffer (present) for both methods. Pure function of its inputs.
  std::optional<Bytes> data(const std::vector<std::string>& fromList,
                            std::optional<ChecksumType> algorithm) const;

  // Same case and, for checksumsAsData, same byte order.
  friend bool operator==(const CompositeChecksumMethod& a,
                         const CompositeChecksumMethod& b) noexcept {
    return a.isData_ == b.isData_ && a.bigEndian_ == b.bigEndian_;
  }

 private:
  CompositeChecksumMethod(bool isData, bool bigEndian) noexcept
      : isData_(isData), bigEndian_(bigEndian) {}

  bool isData_;
  bool bigEndian_;
};

// What the order of a composite is keyed on: the checksum texts themselves (case index 0) or the
// path names of the items the checksums belong to (case index 1). The composite generators only
// store it; choosing the sort criteria accordingly is the caller's business.
enum class CompositeChecksumLexicalOrdering { checksumValue, pathName };

// Whether a directory checksum covers the content of the files (case index 0) or the structure of
// the tree (case index 1). Nothing in the library consults it beyond equality and hashing.
enum class DirectoryChecksumScope { content, structure };

// Collects checksums under sort criteria and hands them back in the order of their criteria.
// Each criterion holds one checksum: adding under a criterion already present replaces the
// checksum held for it.
class CORVANE_API CompositeChecksumSorter {
 public:
  // Ascending and empty.
  CompositeChecksumSorter() = default;

  // Sort direction of sortedChecksums(): smallest criterion first when true (the default).
  bool ascending() const noexcept { return ascending_; }
  void setAscending(bool ascending) noexcept { ascending_ = ascending; }

  // Stores `checksum` under `sortCriteria`; the last checksum added for a criterion wins.
  void add(const std::string& checksum, const std::string& sortCriteria);

  // The number of distinct criteria added.
  std::size_t count() const noexcept { return lookup_.size(); }

  // The checksums in the order of their criteria, ascending or descending. Criteria compare
  // byte by byte as unsigned bytes (for ASCII: case-sensitive, "B" before "a"; for UTF-8: the
  // order of the code points). Empty when nothing was added.
  std::vector<std::string> sortedChecksums() const;

 private:
  bool ascending_ = true;
  // std::string's operator< compares as unsigned bytes, which is the order wanted.
  std::map<std::string, std::string> lookup_;
};

}  // namespace corvane

// Hashing of the two enumerations by case index (0 or 1).
template <>
struct std::hash<corvane::CompositeChecksumLexicalOrdering> {
  std::size_t operator()(corvane::CompositeChecksumLexicalOrdering value) const noexcept {
    return std::hash<int>{}(static_cast<int>(value));
  }
};

template <>
struct std::hash<corvane::DirectoryChecksumScope> {
  std::size_t operator()(corvane::DirectoryChecksumScope value) const noexcept {
    return std::hash<int>{}(static_cast<int>(value));
  }
};
