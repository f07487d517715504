// Reading, writing and validating ASC MHL manifests and chain files (the XML of MhlManifest.hpp).
//
//   MhlResult<MhlManifest> manifest = readMhlManifest(path);
//   if (!manifest) {
//     std::fprintf(stderr, "%s\n", manifest.error().description().c_str());
//     return 1;
//   }
//   for (const MhlHashEntry& entry : manifest->hashes) { ... }
//
//   MhlResult<std::string> bytes = writeMhlManifest(newManifest);  // refused if not conforming
//
// Reading takes bytes we did not write as hostile: the parser never loads anything from the
// network or from files named in the document, refuses any document type declaration (so no
// entity can be defined, expanded or fetched: no external entities, no entity bombs), expands no
// XInclude, and ignores xsi:schemaLocation; documents are validated against the ASC MHL schemas
// embedded in the library. Paths that would leave the scope (absolute, or with ".." components)
// are refused.
//
// Rules, beyond well-formed UTF-8 XML:
// - Reading (parse*/read*) accepts what the schema accepts, except: a path (of an entry, a
//   previous path, a reference or a chain entry) that is empty, starts with '/' or has a ".."
//   component (ASC MHL 6.4.8); two <hash>/<directoryhash> records of one path (6.4.9; "Clips"
//   and "Clips/" are one path); a size or sequence number that is negative or beyond 64 bits;
//   a date the schema accepted but MhlDateTime::fromText does not; a chain whose sequence
//   numbers are missing or do not count 1, 2, 3, ... in document order (7.4.1, 7.4.2). Hash
//   values are not checked when read (other tools' files may carry any text there).
// - Writing (write*) produces only documents that follow ASC MHL to the letter; see
//   checkMhlManifest / checkMhlChain. Every document written is also validated against the
//   embedded schema before it is returned.
//
// Errors are values, not exceptions: MhlResult holds the result or an MhlError naming the file,
// the line and what is wrong ("0002_card_2024-05-01_091500Z.mhl:17: Element 'md5', attribute
// 'action': [facet 'enumeration'] The value 'checked' is not an element of the set {'original',
// 'verified', 'failed'}."). Only value() on a failed result throws.
//
// Thread safety: every function may be called from any number of threads at once. The schemas are
// compiled once, on first use, and shared read-only. (libxml2 is initialised then; an application
// that also uses libxml2 itself keeps working: nothing global is left changed.)
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "corvane/Exception.hpp"
#include "corvane/Export.hpp"
#include "corvane/MhlManifest.hpp"

namespace corvane {

enum class MhlErrorKind {
  unreadable,       // the file could not be opened or read (code: the errno)
  malformedXml,     // not well-formed (namespace-well-formed) XML, or a document type declaration
  schemaViolation,  // well-formed, but not valid against the ASC MHL schema
  invalidContent,   // valid against the schema, but against a rule of ASC MHL the schema does
                    // not express (see above), or a value that cannot be written
};

// What went wrong, where.
struct CORVANE_API MhlError {
  MhlErrorKind kind = MhlErrorKind::invalidContent;
  // The file path as given, or the name given with the bytes; empty for a value being written.
  std::string source;
  // The line in `source` (from 1); 0 when the fault has no line (a file that cannot be read, a
  // value being written).
  std::uint64_t line = 0;
  // The fault itself, one line of text (libxml2's wording for XML and schema faults, with the
  // elements named without their namespace).
  std::string message;
  // The errno for MhlErrorKind::unreadable, else 0.
  int code = 0;

  // "source:line: message", leaving out what is not known ("source: message", "line 17: message",
  // "message").
  std::string description() const;

  friend bool operator==(const MhlError&, const MhlError&) = default;
};

// A value or the error that prevented it (std::expected's role, in C++20).
template <typename T>
class MhlResult {
 public:
  MhlResult(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  MhlResult(MhlError error) : state_(std::in_place_index<1>, std::move(error)) {}

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }

  // The value; on a failed result throws Exception("MhlError", error().description()).
  T& value() & { return ok() ? std::get<0>(state_) : fail(); }
  const T& value() const& { return ok() ? std::get<0>(state_) : fail(); }
  T&& value() && { return std::move(ok() ? std::get<0>(state_) : fail()); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

  // The error; on a successful result throws Exception("MhlError", "no error").
  const MhlError& error() const {
    if (ok()) throw Exception("MhlError", "no error");
    return std::get<1>(state_);
  }

 private:
  [[noreturn]] T& fail() const { throw Exception("MhlError", std::get<1>(state_).description()); }
  std::variant<T, MhlError> state_;
};

// --- manifests ---------------------------------------------------------------------------------

// Reads and parses the manifest file at `path` (errors name the file as `path`). Files are read
// whole; nothing is written.
CORVANE_API MhlResult<MhlManifest> readMhlManifest(const std::string& path);

// Parses a manifest from its bytes; `sourceName` names it in errors (a file name, say).
CORVANE_API MhlResult<MhlManifest> parseMhlManifest(std::string_view bytes,
                                                    std::string_view sourceName = {});

// Whether `bytes` are a well-formed manifest valid against the embedded ASCMHL.xsd (with the
// reading safeguards above: no document type declaration). Nothing: valid. The ASC MHL rules
// beyond the schema are not looked at (parseMhlManifest applies them).
CORVANE_API std::optional<MhlError> validateMhlManifest(std::string_view bytes,
                                                        std::string_view sourceName = {});

// The first reason why `manifest` cannot be written, or nothing. Beyond what the types ensure:
// - creation date present, and every date a valid MhlDateTime text;
// - at least one file record, folder record or reference (6.4.1);
// - paths relative to the scope as ASC MHL 6.4.8 asks: not empty, no leading '/', no empty,
//   "." or ".." components, no trailing '/' except on folders; no two records of one path (6.4.9);
// - every file record with one or more hashes, each format once, each with an action (6.5,
//   6.5.1); a folder's content and structure (and the root hash's) with the same formats, one or
//   more (6.5.2, 6.5.4);
// - formats among the six of ASC MHL, values in the format's text (Appendix D,
//   isWellFormedMhlHash of MhlHashFormat.hpp) and in lowercase as ASC MHL writes them: 32 (md5,
//   xxh128), 40 (sha1) or 16 (xxh64, xxh3) hex digits, or a C4 ID; a reference's hash of format
//   c4;
// - author e-mail addresses matching the schema's pattern; ignore patterns not empty;
// - every text valid UTF-8 made of characters XML allows (no control characters but tab, line
//   feed and carriage return), every metadata fragment well-formed XML.
CORVANE_API std::optional<MhlError> checkMhlManifest(const MhlManifest& manifest);

// The manifest as an XML document in UTF-8: the XML declaration, <hashlist version="2.0"> in the
// default namespace urn:ASC:MHL:v2.0 (with the xsi:schemaLocation hint of ASC MHL Appendix B),
// elements in the schema's order, two spaces of indentation per level, a final line feed. Refused
// (MhlErrorKind::invalidContent) when checkMhlManifest finds a fault; a document that still failed
// the schema would be reported as schemaViolation. The same manifest always gives the same bytes.
CORVANE_API MhlResult<std::string> writeMhlManifest(const MhlManifest& manifest);

// --- chain files -------------------------------------------------------------------------------

// Reads and parses the chain file (ascmhl_chain.xml) at `path`.
CORVANE_API MhlResult<MhlChain> readMhlChain(const std::string& path);

// Parses a chain file from its bytes; `sourceName` names it in errors.
CORVANE_API MhlResult<MhlChain> parseMhlChain(std::string_view bytes,
                                              std::string_view sourceName = {});

// Whether `bytes` are a well-formed chain file valid against the embedded ASCMHLDirectory.xsd
// (which imports ASCMHL.xsd). Nothing: valid.
CORVANE_API std::optional<MhlError> validateMhlChain(std::string_view bytes,
                                                     std::string_view sourceName = {});

// The first reason why `chain` cannot be written, or nothing: at least one entry; sequence
// numbers 1, 2, 3, ... in order (7.4.1); paths as for manifests (6.4.8), each listed once; hashes
// of format c4 with a C4 ID as value; texts as for manifests.
CORVANE_API std::optional<MhlError> checkMhlChain(const MhlChain& chain);

// The chain file as an XML document in UTF-8: <ascmhldirectory> in the default namespace
// urn:ASC:MHL:DIRECTORY:v2.0 (ASC MHL Appendix F), one <hashlist sequencenr="N"> per entry, four
// spaces of indentation per level as in that example, a final line feed. Refused as
// writeMhlManifest is.
CORVANE_API MhlResult<std::string> writeMhlChain(const MhlChain& chain);

}  // namespace corvane
