// The in-memory form of ASC MHL (Media Hash List v2.0) documents: manifests (one generation of an
// ASC MHL history, `ascmhl/NNNN_<folder>_<YYYY-MM-DD>_<HHMMSS>Z.mhl`) and the chain file
// (`ascmhl/ascmhl_chain.xml`) that lists every manifest of a history with the C4 ID of its bytes.
//
// The types follow the ASC MHL schemas (ASCMHL.xsd, ASCMHLDirectory.xsd, shipped with the library
// and embedded in it) element by element, in the schema's order and with its cardinalities: an
// optional element is a std::optional, a repeated one a std::vector (empty when the element is
// absent; where the schema requires at least one child, an empty vector means "element absent").
// Texts are UTF-8, kept exactly as read (no trimming of names, paths, comments or patterns: ASC MHL
// section 6.4.8 preserves whitespace in paths); only hash values, dates and numbers lose the
// surrounding XML whitespace the schema's types allow.
//
// Reading, writing and validating are in MhlXml.hpp. What a value must satisfy to be written
// (beyond its type) is listed there, at checkMhlManifest / checkMhlChain.
//
// All types are plain values: copyable, comparable with ==, no shared state. Thread safety is
// that of std::string and std::vector.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvane/Export.hpp"

namespace corvane {

// XML namespaces of manifests and of chain files (ASC MHL sections 6.1 and 7.1).
inline constexpr std::string_view kMhlManifestNamespace = "urn:ASC:MHL:v2.0";
inline constexpr std::string_view kMhlChainNamespace = "urn:ASC:MHL:DIRECTORY:v2.0";

// The data management process that made a manifest (ProcessType, ASC MHL 6.4.6).
enum class MhlProcess { inPlace, transfer, flatten };
// "in-place", "transfer", "flatten".
CORVANE_API std::string_view mhlProcessName(MhlProcess process);
// The process named by `name` (exact, case-sensitive), or nothing.
CORVANE_API std::optional<MhlProcess> mhlProcessFromName(std::string_view name);

// What a hash value records (ActionAttributeType, ASC MHL 5.2 and 6.5.1): the first hash of a
// file or folder in its history, a hash that matched an earlier one, or one that did not.
enum class MhlHashAction { original, verified, failed };
// "original", "verified", "failed".
CORVANE_API std::string_view mhlHashActionName(MhlHashAction action);
// The action named by `name` (exact, case-sensitive), or nothing.
CORVANE_API std::optional<MhlHashAction> mhlHashActionFromName(std::string_view name);

// A date and time as ASC MHL records it: an XML Schema dateTime such as
// "2019-10-11T15:56:03+02:00" or "2024-05-01T09:15:00Z". The text is the value: a date read from a
// manifest is written back exactly as it was (fraction digits, offset and all), and == compares
// texts (the same moment written with two offsets is two different values).
class CORVANE_API MhlDateTime {
 public:
  // No date (an empty text). Writing refuses it where a date is required.
  MhlDateTime() = default;

  // The date in `text` if it is an XML Schema dateTime (1.0): [-]YYYY-MM-DDThh:mm:ss[.f+] with an
  // optional zone "Z" or +hh:mm / -hh:mm (at most 14:00); day within its month (leap years
  // counted), hour 24 only as 24:00:00, no year 0000, no leap second. Otherwise nothing.
  static std::optional<MhlDateTime> fromText(std::string_view text);

  // `time` to the second (rounded down), written in UTC with "Z" when `utcOffset` is zero, else as
  // the local time of that offset with "+hh:mm" / "-hh:mm" (the same moment either way). An
  // offset beyond +-14:00 is a programming error: one line on stderr, then abort.
  static MhlDateTime fromTimePoint(std::chrono::system_clock::time_point time,
                                   std::chrono::minutes utcOffset = std::chrono::minutes{0});

  const std::string& text() const { return text_; }
  bool empty() const { return text_.empty(); }

  // The moment named, or nothing when the text has no time zone (a local time of an unknown
  // zone), is empty, or lies outside what system_clock holds (years 1678 to 2261). Fraction
  // digits beyond the clock's resolution are dropped.
  std::optional<std::chrono::system_clock::time_point> timePoint() const;
  // The zone's offset from UTC ("Z" is zero), or nothing without a zone.
  std::optional<std::chrono::minutes> utcOffset() const;

  friend bool operator==(const MhlDateTime&, const MhlDateTime&) = default;

 private:
  explicit MhlDateTime(std::string text) : text_(std::move(text)) {}
  std::string text_;
};

// One hash value of one format (HashFormatType, ASC MHL 6.5.1): an element <md5>, <xxh64>, ...
// of a hash entry, of a directory hash's content or structure, of a reference or chain entry.
struct CORVANE_API MhlHash {
  // The element name: "c4", "md5", "sha1", "xxh128", "xxh3" or "xxh64" (MhlHashFormat.hpp maps
  // them to ChecksumTypes). Values are the checksum texts of ASC MHL Appendix D, which are this
  // library's texts: lowercase hex (xxHash big-endian, as xxhsum prints), C4 IDs as "c4" + 88
  // base-58 digits.
  std::string format;
  // The hash value as written in the element (surrounding whitespace removed).
  std::string value;
  // Required for the hashes of files (6.5.1); optional elsewhere.
  std::optional<MhlHashAction> action;
  // When the hash was computed; absent: at the manifest's creation date.
  std::optional<MhlDateTime> hashDate;
  // The schema's `structure` attribute of HashFormatType (free text, not described further by
  // ASC MHL); kept so that documents that carry it survive a read and a write.
  std::optional<std::string> structure;

  friend bool operator==(const MhlHash&, const MhlHash&) = default;
};

// An attribute of a metadata element, by its qualified name as written ("bar", "x:key", or a
// namespace declaration "xmlns:x").
struct CORVANE_API MhlXmlAttribute {
  std::string name;
  std::string value;

  friend bool operator==(const MhlXmlAttribute&, const MhlXmlAttribute&) = default;
};

// Custom metadata (MetadataType, ASC MHL 6.5.6: any attributes and content), kept as XML so that it
// passes through a read and a write unchanged: free text, key-value pairs or whole XML structures.
struct CORVANE_API MhlMetadata {
  // The attributes of the <metadata> element in document order, followed by the namespace
  // declarations ("xmlns:x") that prefixes used in it or in `content` need.
  std::vector<MhlXmlAttribute> attributes;
  // The element's content as an XML fragment, e.g. "take 3" or "<camera id=\"A\">ALEXA</camera>"
  // (markup characters of plain text escaped: "&lt;" "&amp;"). Elements without a prefix are in
  // the manifest's namespace, as everywhere in a manifest; an element of no namespace carries
  // xmlns="".
  std::string content;

  friend bool operator==(const MhlMetadata&, const MhlMetadata&) = default;
};

// The hash record of one file (HashType, ASC MHL 6.5): <hash>.
struct CORVANE_API MhlHashEntry {
  // Relative to the scope of the manifest, '/' between components (RelativePathType, 6.4.8).
  std::string path;
  // Attributes of <path>: the file's size in bytes, creation and last modification dates.
  std::optional<std::uint64_t> size;
  std::optional<MhlDateTime> creationDate;
  std::optional<MhlDateTime> lastModificationDate;
  // One or more values, each of a different format; written in the schema's format order
  // (c4, md5, sha1, xxh128, xxh3, xxh64: mhlFormats()) whatever their order here, and read back
  // in that order.
  std::vector<MhlHash> hashes;
  // The path of this file in the previous generation, when it was renamed (6.5, 5.6.6).
  std::optional<std::string> previousPath;
  std::optional<MhlMetadata> metadata;

  friend bool operator==(const MhlHashEntry&, const MhlHashEntry&) = default;
};

// The hash record of one folder (DirectoryHashType, ASC MHL 6.5.2): <directoryhash>.
struct CORVANE_API MhlDirectoryHashEntry {
  // Relative to the scope of the manifest; may end with '/' ("Clips/").
  std::string path;
  std::optional<MhlDateTime> creationDate;
  std::optional<MhlDateTime> lastModificationDate;
  // The content and structure hashes of the folder: the same formats in both, one or more.
  std::vector<MhlHash> content;
  std::vector<MhlHash> structure;
  std::optional<std::string> previousPath;
  std::optional<MhlMetadata> metadata;

  friend bool operator==(const MhlDirectoryHashEntry&, const MhlDirectoryHashEntry&) = default;
};

// The content and structure hashes of the whole scope (RootDirectoryHashType, ASC MHL 6.5.3).
struct CORVANE_API MhlRootHash {
  std::vector<MhlHash> content;
  std::vector<MhlHash> structure;

  friend bool operator==(const MhlRootHash&, const MhlRootHash&) = default;
};

// A person responsible for the process (AuthorType, ASC MHL 6.4.4): <author>.
struct CORVANE_API MhlAuthor {
  std::string name;
  // Must match the schema's pattern [^@]+@[^.]+\..+ ("name@host.tld").
  std::optional<std::string> email;
  std::optional<std::string> phone;
  std::optional<std::string> role;

  friend bool operator==(const MhlAuthor&, const MhlAuthor&) = default;
};

// The software that made the manifest (ToolType, ASC MHL 6.4.5): <tool version="...">name</tool>.
struct CORVANE_API MhlTool {
  std::string name;
  std::optional<std::string> version;

  friend bool operator==(const MhlTool&, const MhlTool&) = default;
};

// <creatorinfo> (CreatorInfoType, ASC MHL 6.4.2).
struct CORVANE_API MhlCreatorInfo {
  MhlDateTime creationDate;
  std::string hostName;
  MhlTool tool;
  std::vector<MhlAuthor> authors;
  // Free text: where the process ran ("Munich, Germany") and what it was for.
  std::optional<std::string> location;
  std::optional<std::string> comment;

  friend bool operator==(const MhlCreatorInfo&, const MhlCreatorInfo&) = default;
};

// <processinfo> (ProcessInfoType, ASC MHL 6.4.3).
struct CORVANE_API MhlProcessInfo {
  MhlProcess process = MhlProcess::inPlace;
  std::optional<MhlRootHash> rootHash;
  // The <ignore> patterns, one gitignore line each (ASC MHL Appendix C), exactly as written
  // (trailing spaces are significant in that syntax); empty: no <ignore> element.
  std::vector<std::string> ignorePatterns;

  friend bool operator==(const MhlProcessInfo&, const MhlProcessInfo&) = default;
};

// A manifest of a nested history (HashListReferenceType, ASC MHL 6.5.5): <hashlistreference>.
struct CORVANE_API MhlHashListReference {
  // The referenced manifest, relative to the scope of this manifest
  // ("A002R2EC/ascmhl/0002_A002R2EC_2020-01-17_143000Z.mhl").
  std::string path;
  // The C4 ID of the referenced manifest file's bytes; format "c4".
  MhlHash c4 = {"c4", {}, std::nullopt, std::nullopt, std::nullopt};

  friend bool operator==(const MhlHashListReference&, const MhlHashListReference&) = default;
};

// One manifest (HashListType, ASC MHL 6.4.1): <hashlist version="2.0">.
struct CORVANE_API MhlManifest {
  MhlCreatorInfo creatorInfo;
  MhlProcessInfo processInfo;
  // The <hashes> element: the records of files and of folders. The schema lets the two kinds
  // alternate in any order; they are kept apart here, and written files first, then folders.
  std::vector<MhlHashEntry> hashes;
  std::vector<MhlDirectoryHashEntry> directoryHashes;
  // Metadata about the whole manifest.
  std::optional<MhlMetadata> metadata;
  // Manifests of nested histories (5.3.2).
  std::vector<MhlHashListReference> references;

  friend bool operator==(const MhlManifest&, const MhlManifest&) = default;
};

// One manifest of a history as the chain lists it (HashlistType, ASC MHL 7.4.2): <hashlist>.
struct CORVANE_API MhlChainEntry {
  // The generation: 1 for the first manifest, then one more for each (7.4.1).
  std::uint64_t sequenceNumber = 0;
  // The manifest file, relative to the chain file ("0001_A002R2EC_2020-01-16_091500Z.mhl").
  std::string path;
  // The C4 ID of the manifest file's bytes; format "c4".
  MhlHash c4 = {"c4", {}, std::nullopt, std::nullopt, std::nullopt};

  friend bool operator==(const MhlChainEntry&, const MhlChainEntry&) = default;
};

// The chain file of a history (DirectoryType, ASC MHL 7.4.1): <ascmhldirectory>, and also the
// collection file of section 8, which has the same form.
struct CORVANE_API MhlChain {
  std::vector<MhlChainEntry> entries;

  friend bool operator==(const MhlChain&, const MhlChain&) = default;
};

}  // namespace corvane
