// Chain files (<ascmhldirectory>, ASCMHLDirectory.xsd) to and from XML.
#include <unordered_set>

#include "corvane/MhlXml.hpp"
#include "mhl/MhlXmlSupport.hpp"

namespace corvane {

namespace {

MhlError fault(std::string message) {
  return mhl::makeError(MhlErrorKind::invalidContent, {}, 0, std::move(message));
}

MhlResult<MhlChain> readChain(const xmlNode* root, std::string_view source) {
  MhlChain chain;
  for (const xmlNode* node : mhl::childElements(root)) {
    MhlChainEntry& entry = chain.entries.emplace_back();
    // ASC MHL 7.4.1 and 7.4.2: every entry numbered, 1, 2, 3, ... in document order. The schema
    // leaves the attribute optional; a chain that breaks the count has lost or gained an entry.
    const std::uint64_t expected = chain.entries.size();
    const std::optional<std::string> text = mhl::attributeOf(node, "sequencenr");
    if (!text) {
      return mhl::contentError(source, node,
                               "Element 'hashlist': no attribute 'sequencenr' (expected " +
                                   std::to_string(expected) + ")");
    }
    const std::optional<std::uint64_t> number = mhl::parseUnsigned(*text);
    if (!number || *number != expected) {
      return mhl::contentError(source, node,
                               "Element 'hashlist': sequence number '" + *text + "' where " +
                                   std::to_string(expected) +
                                   " was expected (the entries count 1, 2, 3, ... in order)");
    }
    entry.sequenceNumber = *number;
    for (const xmlNode* part : mhl::childElements(node)) {
      if (mhl::hasName(part, "path")) {
        entry.path = mhl::textOf(part);
        if (std::optional<std::string> reason = mhl::unsafePathReason(entry.path)) {
          return mhl::contentError(source, part, *reason);
        }
      } else if (mhl::hasName(part, "c4")) {
        MhlResult<MhlHash> hash = mhl::readHash(part, source);
        if (!hash) return hash.error();
        entry.c4 = std::move(*hash);
      }
    }
  }
  return chain;
}

}  // namespace

MhlResult<MhlChain> parseMhlChain(std::string_view bytes, std::string_view sourceName) {
  MhlResult<mhl::DocPtr> doc = mhl::parseAndValidate(bytes, sourceName, mhl::DocumentKind::chain);
  if (!doc) return doc.error();
  return readChain(xmlDocGetRootElement(doc->get()), sourceName);
}

MhlResult<MhlChain> readMhlChain(const std::string& path) {
  MhlResult<std::string> bytes = mhl::readWholeFile(path);
  if (!bytes) return bytes.error();
  return parseMhlChain(*bytes, path);
}

std::optional<MhlError> validateMhlChain(std::string_view bytes, std::string_view sourceName) {
  MhlResult<mhl::DocPtr> doc = mhl::parseAndValidate(bytes, sourceName, mhl::DocumentKind::chain);
  if (!doc) return doc.error();
  return std::nullopt;
}

std::optional<MhlError> checkMhlChain(const MhlChain& chain) {
  if (chain.entries.empty()) return fault("a chain needs at least one entry");
  std::unordered_set<std::string_view> paths;
  for (std::size_t i = 0; i < chain.entries.size(); ++i) {
    const MhlChainEntry& entry = chain.entries[i];
    const std::string what = "chain entry " + std::to_string(i + 1) + " '" + entry.path + "'";
    if (entry.sequenceNumber != i + 1) {
      return fault(what + ": sequence number " + std::to_string(entry.sequenceNumber) + " where " +
                   std::to_string(i + 1) + " is due (the entries count 1, 2, 3, ... in order)");
    }
    if (std::optional<std::string> reason = mhl::pathFaultForWriting(entry.path, false)) {
      return fault(what + ": path " + *reason);
    }
    if (!paths.insert(entry.path).second) return fault(what + ": the manifest is listed twice");
    if (entry.c4.format != "c4") {
      return fault(what + ": the hash of a manifest is a c4, not " + entry.c4.format);
    }
    if (std::optional<std::string> reason = mhl::hashFaultForWriting(entry.c4)) {
      return fault(what + ": " + *reason);
    }
  }
  return std::nullopt;
}

MhlResult<std::string> writeMhlChain(const MhlChain& chain) {
  if (std::optional<MhlError> error = checkMhlChain(chain)) return *error;
  // Four spaces per level, as the chain file of ASC MHL Appendix F.
  mhl::XmlWriter writer("    ");
  writer.startDocument();
  writer.start("ascmhldirectory");
  writer.attribute("xmlns", kMhlChainNamespace);
  for (const MhlChainEntry& entry : chain.entries) {
    writer.start("hashlist");
    writer.attribute("sequencenr", std::to_string(entry.sequenceNumber));
    writer.element("path", entry.path);
    mhl::writeHash(writer, entry.c4);
    writer.end();
  }
  writer.end();
  std::string bytes = writer.finish();
  if (std::optional<MhlError> error = validateMhlChain(bytes, "written chain")) return *error;
  return bytes;
}

}  // namespace corvane
