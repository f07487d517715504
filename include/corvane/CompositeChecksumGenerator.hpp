// Composite checksums: one checksum of one algorithm computed over a list of checksums of that
// algorithm (typically one per file of a folder), so that a whole set of files can be compared
// by one value.
//
// CompositeChecksumGenerator is the common interface and implements the flat scheme: the list
// becomes one byte sequence (see CompositeChecksumMethod) that is hashed once. Two
// configurations implement it:
// - Smpte2144Colon2017CompositeChecksumGenerator: ordering fixed to checksumValue, de-duplication
//   on by default, and in addition the pairwise scheme (a hash tree built level by level);
// - CorvaneStandardCompositeChecksumGenerator: every setting chosen by the caller, flat scheme
//   only.
//
// Hashing a byte buffer always goes through ChecksumGenerator::generateChecksumForData(data,
// algorithm), so a composite has the text form of its algorithm (lower-case hex, or a C4 ID).
// Every operation is synchronous, runs on the caller's thread, blocks until the digests are done
// and never throws. The generators are small values without shared state: copy them freely; one
// value may be used from several threads at once as long as nobody changes its settings.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "corvane/ChecksumType.hpp"
#include "corvane/CompositeChecksumMethod.hpp"
#include "corvane/Export.hpp"

namespace corvane {

class CORVANE_API CompositeChecksumGenerator {
 public:
  // Receives (composite checksum, algorithm) for each entry of a lookup that produced one.
  using ChecksumWasGenerated = std::function<void(const std::string&, ChecksumType)>;

  virtual ~CompositeChecksumGenerator() = default;

  // How checksum texts become bytes.
  virtual CompositeChecksumMethod method() const = 0;
  // What the caller orders its lists by; no generate operation reads it.
  virtual CompositeChecksumLexicalOrdering lexicalOrdering() const = 0;
  // Whether repeated checksum texts are dropped (first occurrence kept, order kept) before
  // anything is hashed. Texts are equal when equal character for character (case-sensitive).
  virtual bool removeDuplicates() const = 0;

  // The flat scheme over one list: de-duplicate when removeDuplicates(), keep the order given
  // (nothing is sorted), turn the list into bytes with method().data(list, algorithm) and hash
  // them with `algorithm`. Absent when a text cannot be decoded or `algorithm` has no generator.
  // An empty list gives the checksum of zero bytes. Nothing is logged.
  std::optional<std::string> generate(const std::vector<std::string>& checksums,
                                      ChecksumType algorithm) const;

  // The flat scheme once per entry of `orderedChecksumLookup`, each list with its own algorithm,
  // in the map's iteration order (no order is promised). `checksumWasGenerated` is called on the
  // calling thread once per entry that produced a composite; entries whose texts cannot be
  // decoded or whose algorithm has no generator are skipped silently.
  void generate(
      const std::unordered_map<ChecksumType, std::vector<std::string>>& orderedChecksumLookup,
      const ChecksumWasGenerated& checksumWasGenerated) const;

 protected:
  CompositeChecksumGenerator() = default;
  CompositeChecksumGenerator(const CompositeChecksumGenerator&) = default;
  CompositeChecksumGenerator& operator=(const CompositeChecksumGenerator&) = default;
};

// The composite configuration ordered by checksum value: lexicalOrdering() is always
// checksumValue, removeDuplicates() defaults to true, and generate(checksums, algorithm,
// sortChecksumList) offers the pairwise scheme. Note that the two-argument generate() inherited
// from CompositeChecksumGenerator is the flat scheme, not the pairwise one.
class CORVANE_API Smpte2144Colon2017CompositeChecksumGenerator final
    : public CompositeChecksumGenerator {
 public:
  // lexicalOrdering checksumValue, removeDuplicates true.
  explicit Smpte2144Colon2017CompositeChecksumGenerator(CompositeChecksumMethod method) noexcept
      : method_(method) {}

  CompositeChecksumMethod method() const override { return method_; }
  void setMethod(CompositeChecksumMethod method) noexcept { method_ = method; }
  CompositeChecksumLexicalOrdering lexicalOrdering() const override {
    return CompositeChecksumLexicalOrdering::checksumValue;
  }
  bool removeDuplicates() const override { return removeDuplicates_; }
  void setRemoveDuplicates(bool removeDuplicates) noexcept { removeDuplicates_ = removeDuplicates; }

  // The texts sorted ascending in byte order (as CompositeChecksumSorter compares criteria);
  // duplicates are kept.
  static std::vector<std::string> sortChecksums(std::vector<std::string> unorderedChecksums);

  using CompositeChecksumGenerator::generate;

  // The pairwise scheme. The list is de-duplicated when removeDuplicates() and sorted ascending
  // when `sortChecksumList`. Then, level by level: neighbouring items are paired from the front
  // ((0,1), (2,3), ...), an odd last item being carried over unhashed; each pair's bytes (first
  // then second, as method().data({first, second}, algorithm) builds them) are hashed with
  // `algorithm`; the hashes are sorted ascending and the carried item, if any, is appended after
  // them. This repeats until one item remains, which is returned. A single item is returned as
  // it is, without hashing or validation; an empty list gives absence. n items take n - 1
  // hashings.
  // When a pair cannot be decoded or hashed, one error line "CS_CC - Failed to hash checksum
  // pairs '<first>' & '<second>' of type '<algorithm name>' " goes to
  // CorvaneLog::defaultLogger().logError() and the result is absent (for a value that is not one
  // of the ten algorithms the message carries its raw number in place of the name).
  std::optional<std::string> generate(const std::vector<std::string>& checksums,
                                      ChecksumType algorithm, bool sortChecksumList) const;

 private:
  CompositeChecksumMethod method_;
  bool removeDuplicates_ = true;
};

// A fully configurable composite generator with the flat scheme only.
class CORVANE_API CorvaneStandardCompositeChecksumGenerator final
    : public CompositeChecksumGenerator {
 public:
  CorvaneStandardCompositeChecksumGenerator(
      CompositeChecksumMethod method, bool removeDuplicates,
      CompositeChecksumLexicalOrdering lexicalOrdering) noexcept
      : lexicalOrdering_(lexicalOrdering), method_(method), removeDuplicates_(removeDuplicates) {}

  CompositeChecksumMethod method() const override { return method_; }
  void setMethod(CompositeChecksumMethod method) noexcept { method_ = method; }
  CompositeChecksumLexicalOrdering lexicalOrdering() const override { return lexicalOrdering_; }
  void setLexicalOrdering(CompositeChecksumLexicalOrdering lexicalOrdering) noexcept {
    lexicalOrdering_ = lexicalOrdering;
  }
  bool removeDuplicates() const override { return removeDuplicates_; }
  void setRemoveDuplicates(bool removeDuplicates) noexcept { removeDuplicates_ = removeDuplicates; }

 private:
  CompositeChecksumLexicalOrdering lexicalOrdering_;
  CompositeChecksumMethod method_;
  bool removeDuplicates_;
};

}  // namespace corvane
