// Manifests (<hashlist>, ASCMHL.xsd) to and from XML.
#include <algorithm>
#include <iterator>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "corvane/MhlHashFormat.hpp"
#include "corvane/MhlXml.hpp"
#include "mhl/MhlXmlSupport.hpp"

namespace corvane {

namespace {

using mhl::attributeOf;
using mhl::childElements;
using mhl::contentError;
using mhl::hasName;
using mhl::textOf;
using mhl::trimXmlSpace;

bool isHashFormatElement(const xmlNode* node) {
  return checksumTypeForMhlFormat(reinterpret_cast<const char*>(node->name)).has_value();
}

// The position of a format in the schema's order; unknown formats last (refused anyway).
std::size_t formatRank(std::string_view format) {
  const std::vector<ChecksumType>& formats = mhlFormats();
  const std::optional<ChecksumType> type = checksumTypeForMhlFormat(format);
  return static_cast<std::size_t>(
      type ? std::find(formats.begin(), formats.end(), *type) - formats.begin() : formats.size());
}

// "Clips" and "Clips/" name one folder (ASC MHL 6.4.9 compares paths).
std::string_view pathKey(std::string_view path) {
  if (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

// --- reading ------------------------------------------------------------------------------------

class ManifestReader {
 public:
  explicit ManifestReader(std::string_view source) : source_(source) {}

  MhlResult<MhlManifest> read(const xmlNode* root) {
    MhlManifest manifest;
    for (const xmlNode* child : childElements(root)) {
      std::optional<MhlError> error;
      if (hasName(child, "creatorinfo")) {
        error = readCreatorInfo(child, manifest.creatorInfo);
      } else if (hasName(child, "processinfo")) {
        error = readProcessInfo(child, manifest.processInfo);
      } else if (hasName(child, "hashes")) {
        error = readHashes(child, manifest);
      } else if (hasName(child, "metadata")) {
        manifest.metadata = mhl::readMetadata(child);
      } else if (hasName(child, "references")) {
        error = readReferences(child, manifest.references);
      }
      if (error) return *error;
    }
    return manifest;
  }

 private:
  std::optional<MhlError> readDate(const xmlNode* node, MhlDateTime& date) {
    const std::string text = textOf(node);
    std::optional<MhlDateTime> parsed = MhlDateTime::fromText(trimXmlSpace(text));
    if (!parsed) return contentError(source_, node, "'" + text + "' is not a date");
    date = std::move(*parsed);
    return std::nullopt;
  }

  std::optional<MhlError> readCreatorInfo(const xmlNode* node, MhlCreatorInfo& info) {
    for (const xmlNode* child : childElements(node)) {
      if (hasName(child, "creationdate")) {
        if (std::optional<MhlError> error = readDate(child, info.creationDate)) return error;
      } else if (hasName(child, "hostname")) {
        info.hostName = textOf(child);
      } else if (hasName(child, "tool")) {
        info.tool.name = textOf(child);
        info.tool.version = attributeOf(child, "version");
      } else if (hasName(child, "author")) {
        MhlAuthor& author = info.authors.emplace_back();
        author.name = textOf(child);
        author.email = attributeOf(child, "email");
        author.phone = attributeOf(child, "phone");
        author.role = attributeOf(child, "role");
      } else if (hasName(child, "location")) {
        info.location = textOf(child);
      } else if (hasName(child, "comment")) {
        info.comment = textOf(child);
      }
    }
    return std::nullopt;
  }

  std::optional<MhlError> readHashList(const xmlNode* node, std::vector<MhlHash>& hashes) {
    for (const xmlNode* child : childElements(node)) {
      if (!isHashFormatElement(child)) continue;
      MhlResult<MhlHash> hash = mhl::readHash(child, source_);
      if (!hash) return hash.error();
      hashes.push_back(std::move(*hash));
    }
    return std::nullopt;
  }

  std::optional<MhlError> readProcessInfo(const xmlNode* node, MhlProcessInfo& info) {
    for (const xmlNode* child : childElements(node)) {
      if (hasName(child, "process")) {
        const std::string name = textOf(child);
        const std::optional<MhlProcess> process = mhlProcessFromName(name);
        if (!process) return contentError(source_, child, "'" + name + "' is not a process");
        info.process = *process;
      } else if (hasName(child, "roothash")) {
        MhlRootHash& root = info.rootHash.emplace();
        for (const xmlNode* part : childElements(child)) {
          std::vector<MhlHash>& hashes = hasName(part, "content") ? root.content : root.structure;
          if (std::optional<MhlError> error = readHashList(part, hashes)) return error;
        }
      } else if (hasName(child, "ignore")) {
        for (const xmlNode* pattern : childElements(child)) {
          info.ignorePatterns.push_back(textOf(pattern));
        }
      }
    }
    return std::nullopt;
  }

  std::optional<MhlError> readPath(const xmlNode* node, std::string& path) {
    path = textOf(node);
    if (std::optional<std::string> reason = mhl::unsafePathReason(path)) {
      return contentError(source_, node, *reason);
    }
    return std::nullopt;
  }

  // Paths of the records seen so far, with their lines (6.4.9: one record per path).
  std::optional<MhlError> notePath(const xmlNode* pathNode, const std::string& path) {
    const auto [seen, added] = paths_.emplace(std::string(pathKey(path)), mhl::lineOf(pathNode));
    if (!added) {
      return contentError(source_, pathNode,
                          "a second record of path '" + path + "' (the first is on line " +
                              std::to_string(seen->second) + ")");
    }
    return std::nullopt;
  }

  std::optional<MhlError> readPathElement(const xmlNode* node, std::string& path,
                                          std::optional<std::uint64_t>* size,
                                          std::optional<MhlDateTime>& creationDate,
                                          std::optional<MhlDateTime>& lastModificationDate) {
    if (std::optional<MhlError> error = readPath(node, path)) return error;
    if (std::optional<MhlError> error = notePath(node, path)) return error;
    if (size != nullptr) {
      if (const std::optional<std::string> text = attributeOf(node, "size")) {
        *size = mhl::parseUnsigned(*text);
        if (!*size) {
          return contentError(source_, node,
                              "attribute 'size': '" + *text + "' is not a size in bytes");
        }
      }
    }
    if (std::optional<MhlError> error =
            mhl::readDateAttribute(node, "creationdate", source_, creationDate)) {
      return error;
    }
    return mhl::readDateAttribute(node, "lastmodificationdate", source_, lastModificationDate);
  }

  std::optional<MhlError> readHashEntry(const xmlNode* node, MhlHashEntry& entry) {
    for (const xmlNode* child : childElements(node)) {
      std::optional<MhlError> error;
      if (hasName(child, "path")) {
        error = readPathElement(child, entry.path, &entry.size, entry.creationDate,
                                entry.lastModificationDate);
      } else if (isHashFormatElement(child)) {
        MhlResult<MhlHash> hash = mhl::readHash(child, source_);
        if (!hash) return hash.error();
        entry.hashes.push_back(std::move(*hash));
      } else if (hasName(child, "previousPath")) {
        error = readPath(child, entry.previousPath.emplace());
      } else if (hasName(child, "metadata")) {
        entry.metadata = mhl::readMetadata(child);
      }
      if (error) return error;
    }
    return std::nullopt;
  }

  std::optional<MhlError> readDirectoryHashEntry(const xmlNode* node,
                                                 MhlDirectoryHashEntry& entry) {
    for (const xmlNode* child : childElements(node)) {
      std::optional<MhlError> error;
      if (hasName(child, "path")) {
        error = readPathElement(child, entry.path, nullptr, entry.creationDate,
                                entry.lastModificationDate);
      } else if (hasName(child, "content")) {
        error = readHashList(child, entry.content);
      } else if (hasName(child, "structure")) {
        error = readHashList(child, entry.structure);
      } else if (hasName(child, "previousPath")) {
        error = readPath(child, entry.previousPath.emplace());
      } else if (hasName(child, "metadata")) {
        entry.metadata = mhl::readMetadata(child);
      }
      if (error) return error;
    }
    return std::nullopt;
  }

  std::optional<MhlError> readHashes(const xmlNode* node, MhlManifest& manifest) {
    for (const xmlNode* child : childElements(node)) {
      std::optional<MhlError> error;
      if (hasName(child, "hash")) {
        error = readHashEntry(child, manifest.hashes.emplace_back());
      } else if (hasName(child, "directoryhash")) {
        error = readDirectoryHashEntry(child, manifest.directoryHashes.emplace_back());
      }
      if (error) return error;
    }
    return std::nullopt;
  }

  std::optional<MhlError> readReferences(const xmlNode* node,
                                         std::vector<MhlHashListReference>& references) {
    for (const xmlNode* child : childElements(node)) {
      MhlHashListReference& reference = references.emplace_back();
      for (const xmlNode* part : childElements(child)) {
        if (hasName(part, "path")) {
          if (std::optional<MhlError> error = readPath(part, reference.path)) return error;
        } else if (hasName(part, "c4")) {
          MhlResult<MhlHash> hash = mhl::readHash(part, source_);
          if (!hash) return hash.error();
          reference.c4 = std::move(*hash);
        }
      }
    }
    return std::nullopt;
  }

  std::string source_;
  std::unordered_map<std::string, std::uint64_t> paths_;
};

// --- checking ---------------------------------------------------------------------------------

MhlError fault(std::string message) {
  return mhl::makeError(MhlErrorKind::invalidContent, {}, 0, std::move(message));
}

std::optional<MhlError> checkText(std::string_view what, std::string_view text) {
  if (mhl::isXmlText(text)) return std::nullopt;
  return fault(std::string(what) + " is not valid UTF-8 text of characters XML allows");
}

std::optional<MhlError> checkOptionalText(std::string_view what,
                                          const std::optional<std::string>& text) {
  return text ? checkText(what, *text) : std::nullopt;
}

std::optional<MhlError> checkDate(std::string_view what, const std::optional<MhlDateTime>& date) {
  if (date && date->empty()) return fault(std::string(what) + " is an empty date");
  return std::nullopt;
}

// A list of hashes of one record: each valid, each format once, actions where required.
std::optional<MhlError> checkHashes(std::string_view what, const std::vector<MhlHash>& hashes,
                                    bool actionRequired) {
  if (hashes.empty()) return fault(std::string(what) + " has no hash");
  std::set<std::string_view> formats;
  for (const MhlHash& hash : hashes) {
    if (std::optional<std::string> reason = mhl::hashFaultForWriting(hash)) {
      return fault(std::string(what) + ": " + *reason);
    }
    if (!formats.insert(hash.format).second) {
      return fault(std::string(what) + " has two " + hash.format + " hashes");
    }
    if (actionRequired && !hash.action) {
      return fault(std::string(what) + ": " + hash.format +
                   " hash without action (original, verified or failed)");
    }
  }
  return std::nullopt;
}

// Content and structure hashes of a folder or of the root (ASC MHL 6.5.2).
std::optional<MhlError> checkDirectoryHashes(const std::string& what,
                                             const std::vector<MhlHash>& content,
                                             const std::vector<MhlHash>& structure) {
  if (auto error = checkHashes(what + " content", content, false)) return error;
  if (auto error = checkHashes(what + " structure", structure, false)) return error;
  std::set<std::string_view> contentFormats, structureFormats;
  for (const MhlHash& hash : content) contentFormats.insert(hash.format);
  for (const MhlHash& hash : structure) structureFormats.insert(hash.format);
  if (contentFormats != structureFormats) {
    return fault(what + ": content and structure hashes of different formats");
  }
  return std::nullopt;
}

std::optional<MhlError> checkPath(const std::string& what, std::string_view path, bool directory) {
  if (std::optional<std::string> reason = mhl::pathFaultForWriting(path, directory)) {
    return fault(what + " path '" + std::string(path) + "' " + *reason);
  }
  return std::nullopt;
}

std::optional<MhlError> checkMetadata(const std::string& what,
                                      const std::optional<MhlMetadata>& metadata) {
  if (!metadata) return std::nullopt;
  if (std::optional<std::string> reason = mhl::metadataFaultForWriting(*metadata)) {
    return fault(what + ": " + *reason);
  }
  return std::nullopt;
}

std::optional<MhlError> checkCreatorInfo(const MhlCreatorInfo& info) {
  if (info.creationDate.empty()) return fault("creator info: the creation date is missing");
  if (auto error = checkText("host name", info.hostName)) return error;
  if (auto error = checkText("tool name", info.tool.name)) return error;
  if (auto error = checkOptionalText("tool version", info.tool.version)) return error;
  for (const MhlAuthor& author : info.authors) {
    const std::string what = "author '" + author.name + "'";
    if (auto error = checkText("author name", author.name)) return error;
    if (auto error = checkOptionalText(what + " e-mail", author.email)) return error;
    if (auto error = checkOptionalText(what + " phone", author.phone)) return error;
    if (auto error = checkOptionalText(what + " role", author.role)) return error;
    if (author.email && !mhl::isSchemaEmailAddress(*author.email)) {
      return fault(what + ": e-mail address '" + *author.email +
                   "' does not match the schema's pattern [^@]+@[^\\.]+\\..+");
    }
  }
  if (auto error = checkOptionalText("location", info.location)) return error;
  return checkOptionalText("comment", info.comment);
}

std::optional<MhlError> checkProcessInfo(const MhlProcessInfo& info) {
  if (info.rootHash) {
    if (auto error =
            checkDirectoryHashes("root hash", info.rootHash->content, info.rootHash->structure)) {
      return error;
    }
  }
  for (const std::string& pattern : info.ignorePatterns) {
    if (pattern.empty()) return fault("an ignore pattern is empty");
    if (auto error = checkText("ignore pattern '" + pattern + "'", pattern)) return error;
  }
  return std::nullopt;
}

std::optional<MhlError> checkEntries(const MhlManifest& manifest) {
  std::unordered_set<std::string_view> paths;
  const auto notePath = [&](const std::string& what,
                            std::string_view path) -> std::optional<MhlError> {
    if (!paths.insert(pathKey(path)).second) {
      return fault(what + ": a second record of path '" + std::string(path) + "'");
    }
    return std::nullopt;
  };
  for (const MhlHashEntry& entry : manifest.hashes) {
    const std::string what = "hash entry '" + entry.path + "'";
    if (auto error = checkPath("hash entry", entry.path, false)) return error;
    if (auto error = notePath(what, entry.path)) return error;
    if (auto error = checkHashes(what, entry.hashes, true)) return error;
    if (auto error = checkDate(what + " creation date", entry.creationDate)) return error;
    if (auto error = checkDate(what + " modification date", entry.lastModificationDate)) {
      return error;
    }
    if (entry.previousPath) {
      if (auto error = checkPath(what + " previous", *entry.previousPath, false)) return error;
    }
    if (auto error = checkMetadata(what, entry.metadata)) return error;
  }
  for (const MhlDirectoryHashEntry& entry : manifest.directoryHashes) {
    const std::string what = "directory hash entry '" + entry.path + "'";
    if (auto error = checkPath("directory hash entry", entry.path, true)) return error;
    if (auto error = notePath(what, entry.path)) return error;
    if (auto error = checkDirectoryHashes(what, entry.content, entry.structure)) return error;
    if (auto error = checkDate(what + " creation date", entry.creationDate)) return error;
    if (auto error = checkDate(what + " modification date", entry.lastModificationDate)) {
      return error;
    }
    if (entry.previousPath) {
      if (auto error = checkPath(what + " previous", *entry.previousPath, true)) return error;
    }
    if (auto error = checkMetadata(what, entry.metadata)) return error;
  }
  return std::nullopt;
}

// --- writing ----------------------------------------------------------------------------------

void writeHashesInSchemaOrder(mhl::XmlWriter& writer, const std::vector<MhlHash>& hashes) {
  std::vector<const MhlHash*> ordered;
  ordered.reserve(hashes.size());
  for (const MhlHash& hash : hashes) ordered.push_back(&hash);
  std::stable_sort(ordered.begin(), ordered.end(), [](const MhlHash* a, const MhlHash* b) {
    return formatRank(a->format) < formatRank(b->format);
  });
  for (const MhlHash* hash : ordered) mhl::writeHash(writer, *hash);
}

void writePathElement(mhl::XmlWriter& writer, const std::string& path,
                      const std::optional<std::uint64_t>& size,
                      const std::optional<MhlDateTime>& creationDate,
                      const std::optional<MhlDateTime>& lastModificationDate) {
  writer.start("path");
  if (size) writer.attribute("size", std::to_string(*size));
  if (creationDate) writer.attribute("creationdate", creationDate->text());
  if (lastModificationDate) writer.attribute("lastmodificationdate", lastModificationDate->text());
  writer.text(path);
  writer.end();
}

void writeCreatorInfo(mhl::XmlWriter& writer, const MhlCreatorInfo& info) {
  writer.start("creatorinfo");
  writer.element("creationdate", info.creationDate.text());
  writer.element("hostname", info.hostName);
  writer.start("tool");
  if (info.tool.version) writer.attribute("version", *info.tool.version);
  writer.text(info.tool.name);
  writer.end();
  for (const MhlAuthor& author : info.authors) {
    writer.start("author");
    if (author.email) writer.attribute("email", *author.email);
    if (author.phone) writer.attribute("phone", *author.phone);
    if (author.role) writer.attribute("role", *author.role);
    writer.text(author.name);
    writer.end();
  }
  if (info.location) writer.element("location", *info.location);
  if (info.comment) writer.element("comment", *info.comment);
  writer.end();
}

void writeProcessInfo(mhl::XmlWriter& writer, const MhlProcessInfo& info) {
  writer.start("processinfo");
  writer.element("process", mhlProcessName(info.process));
  if (info.rootHash) {
    writer.start("roothash");
    writer.start("content");
    writeHashesInSchemaOrder(writer, info.rootHash->content);
    writer.end();
    writer.start("structure");
    writeHashesInSchemaOrder(writer, info.rootHash->structure);
    writer.end();
    writer.end();
  }
  if (!info.ignorePatterns.empty()) {
    writer.start("ignore");
    for (const std::string& pattern : info.ignorePatterns) writer.element("pattern", pattern);
    writer.end();
  }
  writer.end();
}

void writeHashes(mhl::XmlWriter& writer, const MhlManifest& manifest) {
  if (manifest.hashes.empty() && manifest.directoryHashes.empty()) return;
  writer.start("hashes");
  for (const MhlHashEntry& entry : manifest.hashes) {
    writer.start("hash");
    writePathElement(writer, entry.path, entry.size, entry.creationDate,
                     entry.lastModificationDate);
    writeHashesInSchemaOrder(writer, entry.hashes);
    if (entry.previousPath) writer.element("previousPath", *entry.previousPath);
    if (entry.metadata) mhl::writeMetadata(writer, *entry.metadata);
    writer.end();
  }
  for (const MhlDirectoryHashEntry& entry : manifest.directoryHashes) {
    writer.start("directoryhash");
    writePathElement(writer, entry.path, std::nullopt, entry.creationDate,
                     entry.lastModificationDate);
    writer.start("content");
    writeHashesInSchemaOrder(writer, entry.content);
    writer.end();
    writer.start("structure");
    writeHashesInSchemaOrder(writer, entry.structure);
    writer.end();
    if (entry.previousPath) writer.element("previousPath", *entry.previousPath);
    if (entry.metadata) mhl::writeMetadata(writer, *entry.metadata);
    writer.end();
  }
  writer.end();
}

void writeReferences(mhl::XmlWriter& writer, const std::vector<MhlHashListReference>& references) {
  if (references.empty()) return;
  writer.start("references");
  for (const MhlHashListReference& reference : references) {
    writer.start("hashlistreference");
    writer.element("path", reference.path);
    mhl::writeHash(writer, reference.c4);
    writer.end();
  }
  writer.end();
}

}  // namespace

MhlResult<MhlManifest> parseMhlManifest(std::string_view bytes, std::string_view sourceName) {
  MhlResult<mhl::DocPtr> doc =
      mhl::parseAndValidate(bytes, sourceName, mhl::DocumentKind::manifest);
  if (!doc) return doc.error();
  return ManifestReader(sourceName).read(xmlDocGetRootElement(doc->get()));
}

MhlResult<MhlManifest> readMhlManifest(const std::string& path) {
  MhlResult<std::string> bytes = mhl::readWholeFile(path);
  if (!bytes) return bytes.error();
  return parseMhlManifest(*bytes, path);
}

std::optional<MhlError> validateMhlManifest(std::string_view bytes, std::string_view sourceName) {
  MhlResult<mhl::DocPtr> doc =
      mhl::parseAndValidate(bytes, sourceName, mhl::DocumentKind::manifest);
  if (!doc) return doc.error();
  return std::nullopt;
}

std::optional<MhlError> checkMhlManifest(const MhlManifest& manifest) {
  if (auto error = checkCreatorInfo(manifest.creatorInfo)) return error;
  if (auto error = checkProcessInfo(manifest.processInfo)) return error;
  if (manifest.hashes.empty() && manifest.directoryHashes.empty() && manifest.references.empty()) {
    return fault("a manifest needs at least one hash entry, directory hash or reference");
  }
  if (auto error = checkEntries(manifest)) return error;
  if (auto error = checkMetadata("manifest metadata", manifest.metadata)) return error;
  for (const MhlHashListReference& reference : manifest.references) {
    const std::string what = "reference '" + reference.path + "'";
    if (auto error = checkPath("reference", reference.path, false)) return error;
    if (reference.c4.format != "c4") {
      return fault(what + ": the hash of a referenced manifest is a c4, not " +
                   reference.c4.format);
    }
    if (std::optional<std::string> reason = mhl::hashFaultForWriting(reference.c4)) {
      return fault(what + ": " + *reason);
    }
  }
  return std::nullopt;
}

namespace mhl {

MhlResult<std::string> serializeCheckedManifest(const MhlManifest& manifest) {
  if (std::optional<MhlError> error = checkMhlManifest(manifest)) return *error;
  mhl::XmlWriter writer("  ");
  writer.startDocument();
  writer.start("hashlist");
  writer.attribute("version", "2.0");
  writer.attribute("xmlns", kMhlManifestNamespace);
  // The schema location hint of ASC MHL Appendix B; readers (ours too) validate against the
  // schema they have, never against one named by the document.
  writer.attribute("xmlns:xsi", "http://www.w3.org/2001/XMLSchema-instance");
  writer.attribute("xsi:schemaLocation", "urn:ASC:MHL:v2.0 ASCMHL.xsd");
  writeCreatorInfo(writer, manifest.creatorInfo);
  writeProcessInfo(writer, manifest.processInfo);
  writeHashes(writer, manifest);
  if (manifest.metadata) mhl::writeMetadata(writer, *manifest.metadata);
  writeReferences(writer, manifest.references);
  writer.end();
  return writer.finish();
}

}  // namespace mhl

MhlResult<std::string> writeMhlManifest(const MhlManifest& manifest) {
  MhlResult<std::string> bytes = mhl::serializeCheckedManifest(manifest);
  if (!bytes) return bytes;
  // Proof, not hope: what we hand out validates.
  if (std::optional<MhlError> error = validateMhlManifest(*bytes, "written manifest")) {
    return *error;
  }
  return bytes;
}

}  // namespace corvane
