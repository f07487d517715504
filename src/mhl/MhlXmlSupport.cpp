#include "mhl/MhlXmlSupport.hpp"

#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlschemas.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "corvane/MhlHashFormat.hpp"
#include "util/Fatal.hpp"

namespace corvane::mhl {

namespace {

// Base URLs the embedded schemas are parsed under. The directory schema imports "ASCMHL.xsd"
// relative to its own location; that import resolves to kManifestXsdUrl, which the loader below
// serves from memory, so compiling the schemas never touches the file system or the network.
constexpr char kManifestXsdUrl[] = "corvane-embedded:///xsd/ASCMHL.xsd";
constexpr char kDirectoryXsdUrl[] = "corvane-embedded:///xsd/ASCMHLDirectory.xsd";

// The first error of a parse or validation, in libxml2's words.
struct FirstFault {
  bool found = false;
  std::string message;
  std::uint64_t line = 0;
  bool doctype = false;
};

// libxml2 names elements of a namespace "{urn:ASC:MHL:v2.0}hash"; inside a manifest the
// namespace goes without saying. Messages end with a line feed.
std::string tidyMessage(const char* text) {
  std::string message = text != nullptr ? text : "";
  for (std::string_view ns :
       {std::string_view("{urn:ASC:MHL:v2.0}"), std::string_view("{urn:ASC:MHL:DIRECTORY:v2.0}")}) {
    for (std::size_t at = message.find(ns); at != std::string::npos; at = message.find(ns, at)) {
      message.erase(at, ns.size());
    }
  }
  while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) {
    message.pop_back();
  }
  std::replace(message.begin(), message.end(), '\n', ' ');  // one line
  return message.empty() ? "unknown XML error" : message;
}

void recordFault(void* data, xmlError* error) {
  auto* fault = static_cast<FirstFault*>(data);
  if (fault == nullptr || error == nullptr || fault->found || error->level < XML_ERR_ERROR) return;
  fault->found = true;
  fault->message = tidyMessage(error->message);
  fault->line = error->line > 0 ? static_cast<std::uint64_t>(error->line) : 0;
  if (fault->line == 0 && error->node != nullptr) {
    fault->line = lineOf(static_cast<const xmlNode*>(error->node));
  }
}

// Parser callbacks receive the parser context (the tree builder's user data is the context).
void recordParserFault(void* context, xmlError* error) {
  recordFault(static_cast<xmlParserCtxt*>(context)->_private, error);
}

// Called when "<!DOCTYPE name ..." has been read, before its internal subset: stops the parser so
// that no entity is ever declared, let alone expanded or fetched.
void refuseDocumentType(void* context, const xmlChar* name, const xmlChar*, const xmlChar*) {
  auto* parser = static_cast<xmlParserCtxt*>(context);
  auto* fault = static_cast<FirstFault*>(parser->_private);
  if (!fault->found) {
    fault->found = true;
    fault->doctype = true;
    fault->line = parser->input != nullptr ? static_cast<std::uint64_t>(parser->input->line) : 0;
    fault->message = "document type declarations are not accepted (<!DOCTYPE " +
                     std::string(name != nullptr ? reinterpret_cast<const char*>(name) : "") + ">)";
  }
  xmlStopParser(parser);
}

xmlExternalEntityLoader previousLoader = nullptr;

xmlParserInput* embeddedSchemaLoader(const char* url, const char* id, xmlParserCtxt* context) {
  if (url != nullptr && std::strcmp(url, kManifestXsdUrl) == 0) {
    return xmlNewStringInputStream(context, kAscMhlXsd);
  }
  return previousLoader(url, id, context);
}

xmlSchema* compileSchema(const unsigned char* bytes, std::size_t size, const char* url) {
  FirstFault fault;
  xmlDoc* doc = xmlReadMemory(reinterpret_cast<const char*>(bytes), static_cast<int>(size), url,
                              nullptr, XML_PARSE_NONET);
  if (doc == nullptr) detail::fatalError(std::string("cannot read the embedded schema ") + url);
  xmlSchemaParserCtxt* parser = xmlSchemaNewDocParserCtxt(doc);
  xmlSchemaSetParserStructuredErrors(parser, recordFault, &fault);
  xmlSchema* schema = xmlSchemaParse(parser);
  xmlSchemaFreeParserCtxt(parser);
  if (schema == nullptr) {
    detail::fatalError(std::string("cannot compile the embedded schema ") + url + ": " +
                       fault.message);
  }
  // The schema refers to the document's strings: both stay for the life of the process.
  return schema;
}

struct CompiledSchemas {
  xmlSchema* manifest = nullptr;
  xmlSchema* chain = nullptr;
};

CompiledSchemas compileSchemas() {
  xmlInitParser();
  CompiledSchemas schemas;
  schemas.manifest = compileSchema(kAscMhlXsd, kAscMhlXsdSize, kManifestXsdUrl);
  // The entity loader is process-wide: ours stands in only while the directory schema compiles
  // and hands every other URL to the loader that was there, so a concurrent libxml2 user in the
  // application sees no difference.
  previousLoader = xmlGetExternalEntityLoader();
  xmlSetExternalEntityLoader(embeddedSchemaLoader);
  schemas.chain = compileSchema(kAscMhlDirectoryXsd, kAscMhlDirectoryXsdSize, kDirectoryXsdUrl);
  xmlSetExternalEntityLoader(previousLoader);
  return schemas;
}

const CompiledSchemas& compiledSchemas() {
  static const CompiledSchemas schemas = compileSchemas();
  return schemas;
}

// UTF-8 decoding of one character at `at`; nothing when malformed (overlong, surrogate, beyond
// U+10FFFF, cut short).
std::optional<char32_t> decodeUtf8(std::string_view text, std::size_t& at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  if (lead < 0x80) {
    ++at;
    return lead;
  }
  std::size_t length = 0;
  char32_t value = 0;
  char32_t minimum = 0;
  if ((lead & 0xE0) == 0xC0) {
    length = 2, value = lead & 0x1F, minimum = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, value = lead & 0x0F, minimum = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, value = lead & 0x07, minimum = 0x10000;
  } else {
    return std::nullopt;
  }
  if (at + length > text.size()) return std::nullopt;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) return std::nullopt;
    value = (value << 6) | (byte(at + i) & 0x3F);
  }
  if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
    return std::nullopt;
  }
  at += length;
  return value;
}

// Whether an element or one below it is in the default namespace (unprefixed, or of none).
bool usesDefaultNamespace(const xmlNode* element) {
  if (element->ns == nullptr || element->ns->prefix == nullptr) return true;
  for (const xmlNode* child = element->children; child != nullptr; child = child->next) {
    if (child->type == XML_ELEMENT_NODE && usesDefaultNamespace(child)) return true;
  }
  return false;
}

void check(int status) {
  if (status < 0) detail::fatalError("libxml2 could not write an ASC MHL document (out of memory)");
}

const xmlChar* xml(const std::string& text) {
  return reinterpret_cast<const xmlChar*>(text.c_str());
}

}  // namespace

MhlError makeError(MhlErrorKind kind, std::string_view source, std::uint64_t line,
                   std::string message) {
  MhlError error;
  error.kind = kind;
  error.source = std::string(source);
  error.line = line;
  error.message = std::move(message);
  return error;
}

MhlError contentError(std::string_view source, const xmlNode* node, std::string message) {
  return makeError(MhlErrorKind::invalidContent, source, node != nullptr ? lineOf(node) : 0,
                   std::move(message));
}

MhlResult<std::string> readWholeFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    const int code = errno;
    MhlError error = makeError(MhlErrorKind::unreadable, path, 0, std::strerror(code));
    error.code = code;
    return error;
  }
  std::string bytes;
  char buffer[65536];
  for (;;) {
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count > 0) {
      bytes.append(buffer, static_cast<std::size_t>(count));
    } else if (count == 0) {
      break;
    } else if (errno != EINTR) {
      const int code = errno;
      ::close(fd);
      MhlError error = makeError(MhlErrorKind::unreadable, path, 0, std::strerror(code));
      error.code = code;
      return error;
    }
  }
  ::close(fd);
  return bytes;
}

namespace {

// Why `bytes` is not a UTF-8 document, or nothing. ASC MHL documents are UTF-8 (ASC MHL 6.2);
// refusing others before libxml2 sees them also keeps its encoding converters out, which report
// their failures on the process's stderr instead of to the parser.
std::optional<std::string> encodingProblem(std::string_view bytes) {
  // After UTF-8's byte-order mark, if there is one.
  const std::string_view text = bytes.starts_with("\xEF\xBB\xBF") ? bytes.substr(3) : bytes;
  const std::string_view head = text.substr(0, 4);
  const bool utf16Mark = head.starts_with("\xFE\xFF") || head.starts_with("\xFF\xFE");
  // NUL among the first bytes: UTF-16 or UCS-4; 4C 6F A7 94: "<?xm" in EBCDIC.
  if (utf16Mark || head.find('\0') != std::string_view::npos || head == "\x4C\x6F\xA7\x94") {
    return "not UTF-8 text (ASC MHL documents are UTF-8)";
  }
  if (!text.starts_with("<?xml")) return std::nullopt;
  const std::string_view declaration = text.substr(0, text.find("?>"));
  const std::size_t at = declaration.find("encoding");
  if (at == std::string_view::npos) return std::nullopt;
  std::string declared;
  bool quoted = false;
  for (const char c : declaration.substr(at + 8)) {
    if (c == '"' || c == '\'') {
      if (quoted) break;
      quoted = true;
      continue;
    }
    if (!quoted) continue;
    // An encoding name is letters, digits, '.', '_' and '-' (XML 1.0, production 81); anything
    // else ends it, so that the message quotes no more than a name.
    const bool nameCharacter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                               (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
    if (!nameCharacter) break;
    declared += static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
  }
  if (declared == "UTF-8" || declared == "UTF8") return std::nullopt;
  return "the document declares the encoding \"" + declared +
         "\" (ASC MHL documents are UTF-8)";
}

}  // namespace

MhlResult<DocPtr> parseUntrusted(std::string_view bytes, std::string_view source) {
  compiledSchemas();  // libxml2 initialised once, before any parser runs on any thread
  if (bytes.empty()) return makeError(MhlErrorKind::malformedXml, source, 0, "empty document");
  if (std::optional<std::string> problem = encodingProblem(bytes)) {
    return makeError(MhlErrorKind::malformedXml, source, 1, std::move(*problem));
  }
  if (bytes.size() > static_cast<std::size_t>(INT_MAX)) {
    return makeError(MhlErrorKind::malformedXml, source, 0, "document larger than 2 GiB");
  }
  xmlParserCtxt* parser = xmlCreateMemoryParserCtxt(bytes.data(), static_cast<int>(bytes.size()));
  if (parser == nullptr) detail::fatalError("libxml2 could not create a parser (out of memory)");
  FirstFault fault;
  parser->_private = &fault;
  // No XML_PARSE_NOENT (entities would be substituted), no XML_PARSE_DTDLOAD / DTDATTR /
  // DTDVALID (the DTD would be read), no XML_PARSE_XINCLUDE; XML_PARSE_NONET on top.
  xmlCtxtUseOptions(
      parser, XML_PARSE_NONET | XML_PARSE_BIG_LINES | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  parser->sax->internalSubset = refuseDocumentType;
  parser->sax->externalSubset = nullptr;
  parser->sax->serror = recordParserFault;
  xmlParseDocument(parser);
  DocPtr doc(parser->myDoc);
  const bool wellFormed = parser->wellFormed != 0 && parser->nsWellFormed != 0 && !fault.doctype;
  parser->myDoc = nullptr;
  xmlFreeParserCtxt(parser);
  if (!wellFormed || doc == nullptr) {
    return makeError(MhlErrorKind::malformedXml, source, fault.line,
                     fault.found ? fault.message : "not well-formed XML");
  }
  return doc;
}

std::optional<MhlError> validateDocument(xmlDoc* doc, DocumentKind kind, std::string_view source) {
  const CompiledSchemas& schemas = compiledSchemas();
  const xmlNode* root = xmlDocGetRootElement(doc);
  const char* expectedName = kind == DocumentKind::manifest ? "hashlist" : "ascmhldirectory";
  const std::string_view expectedNamespace =
      kind == DocumentKind::manifest ? kMhlManifestNamespace : kMhlChainNamespace;
  if (root == nullptr) {
    return makeError(MhlErrorKind::schemaViolation, source, 0, "no root element");
  }
  const std::string rootNamespace = root->ns != nullptr && root->ns->href != nullptr
                                        ? reinterpret_cast<const char*>(root->ns->href)
                                        : "";
  if (!hasName(root, expectedName) || rootNamespace != expectedNamespace) {
    return makeError(
        MhlErrorKind::schemaViolation, source, lineOf(root),
        "Element '" + std::string(reinterpret_cast<const char*>(root->name)) + "'" +
            (rootNamespace.empty() ? " (no namespace)" : " of namespace " + rootNamespace) +
            ": not an ASC MHL " + (kind == DocumentKind::manifest ? "manifest" : "chain file") +
            " (expected <" + expectedName + "> of namespace " + std::string(expectedNamespace) +
            ")");
  }
  xmlSchemaValidCtxt* validator =
      xmlSchemaNewValidCtxt(kind == DocumentKind::manifest ? schemas.manifest : schemas.chain);
  if (validator == nullptr) detail::fatalError("libxml2 could not create a schema validator");
  FirstFault fault;
  xmlSchemaSetValidStructuredErrors(validator, recordFault, &fault);
  const int status = xmlSchemaValidateDoc(validator, doc);
  xmlSchemaFreeValidCtxt(validator);
  if (status == 0) return std::nullopt;
  return makeError(MhlErrorKind::schemaViolation, source, fault.line,
                   fault.found ? fault.message : "not valid against the ASC MHL schema");
}

MhlResult<DocPtr> parseAndValidate(std::string_view bytes, std::string_view source,
                                   DocumentKind kind) {
  MhlResult<DocPtr> doc = parseUntrusted(bytes, source);
  if (!doc) return doc;
  if (std::optional<MhlError> error = validateDocument(doc->get(), kind, source)) return *error;
  return doc;
}

// --- reading --------------------------------------------------------------------------------

std::vector<xmlNode*> childElements(const xmlNode* parent) {
  std::vector<xmlNode*> children;
  for (xmlNode* child = parent->children; child != nullptr; child = child->next) {
    if (child->type == XML_ELEMENT_NODE) children.push_back(child);
  }
  return children;
}

bool hasName(const xmlNode* node, const char* localName) {
  return node != nullptr && node->name != nullptr &&
         std::strcmp(reinterpret_cast<const char*>(node->name), localName) == 0;
}

std::string textOf(const xmlNode* node) {
  std::string text;
  for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
    if ((child->type == XML_TEXT_NODE || child->type == XML_CDATA_SECTION_NODE) &&
        child->content != nullptr) {
      text += reinterpret_cast<const char*>(child->content);
    }
  }
  return text;
}

std::optional<std::string> attributeOf(const xmlNode* node, const char* name) {
  xmlChar* value = xmlGetNoNsProp(node, reinterpret_cast<const xmlChar*>(name));
  if (value == nullptr) return std::nullopt;
  std::string text(reinterpret_cast<const char*>(value));
  xmlFree(value);
  return text;
}

std::uint64_t lineOf(const xmlNode* node) {
  const long line = xmlGetLineNo(node);
  return line > 0 ? static_cast<std::uint64_t>(line) : 0;
}

std::string_view trimXmlSpace(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

std::optional<std::uint64_t> parseUnsigned(std::string_view text) {
  text = trimXmlSpace(text);
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
    if (value > (UINT64_MAX - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  if (negative && value != 0) return std::nullopt;
  return value;
}

std::optional<std::string> unsafePathReason(std::string_view path) {
  if (path.empty()) return "empty path";
  if (path.front() == '/') return "absolute path '" + std::string(path) + "'";
  std::size_t start = 0;
  while (start <= path.size()) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    if (path.substr(start, end - start) == "..") {
      return "path '" + std::string(path) + "' leaves the scope ('..')";
    }
    start = end + 1;
  }
  return std::nullopt;
}

MhlResult<MhlHash> readHash(const xmlNode* node, std::string_view source) {
  MhlHash hash;
  hash.format = reinterpret_cast<const char*>(node->name);
  hash.value = std::string(trimXmlSpace(textOf(node)));
  if (std::optional<std::string> action = attributeOf(node, "action")) {
    hash.action = mhlHashActionFromName(trimXmlSpace(*action));
  }
  if (std::optional<MhlError> error = readDateAttribute(node, "hashdate", source, hash.hashDate)) {
    return *error;
  }
  hash.structure = attributeOf(node, "structure");
  return hash;
}

std::optional<MhlError> readDateAttribute(const xmlNode* node, const char* name,
                                          std::string_view source,
                                          std::optional<MhlDateTime>& date) {
  const std::optional<std::string> text = attributeOf(node, name);
  if (!text) return std::nullopt;
  date = MhlDateTime::fromText(trimXmlSpace(*text));
  if (!date) {
    return contentError(source, node,
                        std::string("attribute '") + name + "': '" + *text + "' is not a date");
  }
  return std::nullopt;
}

MhlMetadata readMetadata(const xmlNode* node) {
  MhlMetadata metadata;
  // A copy of the element in a document of its own: libxml2 declares on the copy's root every
  // namespace the copied markup uses but that was declared further up, so the copy says all
  // it needs by itself.
  DocPtr scratch(xmlNewDoc(reinterpret_cast<const xmlChar*>("1.0")));
  xmlNode* copy = xmlDocCopyNode(const_cast<xmlNode*>(node), scratch.get(), 1);
  if (copy == nullptr) detail::fatalError("libxml2 could not copy metadata (out of memory)");
  xmlDocSetRootElement(scratch.get(), copy);

  for (const xmlAttr* attribute = copy->properties; attribute != nullptr;
       attribute = attribute->next) {
    std::string name = reinterpret_cast<const char*>(attribute->name);
    if (attribute->ns != nullptr && attribute->ns->prefix != nullptr) {
      name = std::string(reinterpret_cast<const char*>(attribute->ns->prefix)) + ":" + name;
    }
    xmlChar* value = xmlNodeListGetString(scratch.get(), attribute->children, 1);
    metadata.attributes.push_back(
        {std::move(name), value != nullptr ? reinterpret_cast<const char*>(value) : ""});
    xmlFree(value);
  }

  // The default namespace in force at the metadata element: the content's unprefixed elements
  // belong to it. Written, <metadata> stands in the manifest's default namespace; when that is
  // not what the content had, each top-level element of the content that has unprefixed markup
  // declares the default it had.
  const xmlNs* inScopeDefault = xmlSearchNs(node->doc, const_cast<xmlNode*>(node), nullptr);
  const std::string contentDefault = inScopeDefault != nullptr && inScopeDefault->href != nullptr
                                         ? reinterpret_cast<const char*>(inScopeDefault->href)
                                         : "";
  const bool sameDefault = contentDefault == kMhlManifestNamespace;
  for (const xmlNs* ns = copy->nsDef; ns != nullptr; ns = ns->next) {
    if (ns->prefix == nullptr) continue;  // the default namespace: see above
    metadata.attributes.push_back(
        {"xmlns:" + std::string(reinterpret_cast<const char*>(ns->prefix)),
         ns->href != nullptr ? reinterpret_cast<const char*>(ns->href) : ""});
  }

  xmlBuffer* buffer = xmlBufferCreate();
  for (xmlNode* child = copy->children; child != nullptr; child = child->next) {
    if (!sameDefault && child->type == XML_ELEMENT_NODE && usesDefaultNamespace(child)) {
      bool declaresDefault = false;
      for (const xmlNs* ns = child->nsDef; ns != nullptr; ns = ns->next) {
        declaresDefault = declaresDefault || ns->prefix == nullptr;
      }
      if (!declaresDefault) {
        xmlNewNs(child, reinterpret_cast<const xmlChar*>(contentDefault.c_str()), nullptr);
      }
    }
    xmlNodeDump(buffer, scratch.get(), child, 0, 0);
  }
  metadata.content.assign(reinterpret_cast<const char*>(xmlBufferContent(buffer)),
                          static_cast<std::size_t>(xmlBufferLength(buffer)));
  xmlBufferFree(buffer);
  return metadata;
}

// --- writing --------------------------------------------------------------------------------

std::optional<std::string> pathFaultForWriting(std::string_view path, bool directory) {
  if (path.empty()) return "is empty";
  if (!isXmlText(path)) return "is not valid UTF-8 text of characters XML allows";
  if (path.front() == '/') return "starts with '/' (paths are relative to the scope)";
  std::string_view rest = path;
  if (directory && rest.size() > 1 && rest.back() == '/') rest.remove_suffix(1);
  std::size_t start = 0;
  while (start <= rest.size()) {
    const std::size_t end = std::min(rest.find('/', start), rest.size());
    const std::string_view component = rest.substr(start, end - start);
    if (component.empty()) {
      return directory || end != rest.size() ? "has an empty component"
                                             : "ends with '/' (only folder paths may)";
    }
    if (component == "." || component == "..") {
      return "has a '" + std::string(component) + "' component (the most direct path is required)";
    }
    start = end + 1;
  }
  return std::nullopt;
}

std::optional<std::string> hashFaultForWriting(const MhlHash& hash) {
  const std::optional<ChecksumType> type = checksumTypeForMhlFormat(hash.format);
  if (!type) return "unknown hash format '" + hash.format + "'";
  const bool lowercase = std::none_of(hash.value.begin(), hash.value.end(),
                                      [](char c) { return c >= 'A' && c <= 'F'; });
  const bool wellFormed = *type == ChecksumTypeC4
                              ? isWellFormedMhlHash(*type, hash.value)
                              : lowercase && isWellFormedMhlHash(*type, hash.value);
  if (!wellFormed) {
    const std::string form = *type == ChecksumTypeC4 ? "a C4 ID ('c4' and 88 base-58 digits)"
                                                     : std::to_string(mhlHashTextLength(*type)) +
                                                           " lowercase hex digits";
    return hash.format + " value '" + hash.value + "' is not " + form;
  }
  if (hash.hashDate && hash.hashDate->empty()) return hash.format + " hash date is empty";
  if (hash.structure && !isXmlText(*hash.structure)) {
    return hash.format + " structure attribute is not valid UTF-8 text of characters XML allows";
  }
  return std::nullopt;
}

bool isXmlText(std::string_view text) {
  std::size_t at = 0;
  while (at < text.size()) {
    const std::optional<char32_t> c = decodeUtf8(text, at);
    if (!c) return false;
    const char32_t v = *c;
    const bool allowed = v == 0x9 || v == 0xA || v == 0xD || (v >= 0x20 && v <= 0xD7FF) ||
                         (v >= 0xE000 && v <= 0xFFFD) || (v >= 0x10000 && v <= 0x10FFFF);
    if (!allowed) return false;
  }
  return true;
}

std::optional<std::string> metadataFaultForWriting(const MhlMetadata& metadata) {
  for (const MhlXmlAttribute& attribute : metadata.attributes) {
    if (attribute.name == "xmlns") {
      return std::string("metadata may not declare the default namespace (it is the manifest's)");
    }
    if (!isXmlText(attribute.name) || !isXmlText(attribute.value)) {
      return "metadata attribute '" + attribute.name +
             "' is not valid UTF-8 text of characters XML allows";
    }
  }
  if (!isXmlText(metadata.content)) {
    return std::string("metadata content is not valid UTF-8 text of characters XML allows");
  }
  // Written alone in the context it will have, the element must parse: this proves the content a
  // balanced, well-formed fragment and the attribute names well-formed.
  XmlWriter writer("");
  writer.start("metadata");
  writer.attribute("xmlns", kMhlManifestNamespace);
  for (const MhlXmlAttribute& attribute : metadata.attributes) {
    writer.attribute(attribute.name.c_str(), attribute.value);
  }
  writer.raw(metadata.content);
  writer.end();
  const MhlResult<DocPtr> parsed = parseUntrusted(writer.finish(), "metadata");
  if (!parsed) return "metadata is not well-formed XML: " + parsed.error().message;
  return std::nullopt;
}

bool isSchemaEmailAddress(std::string_view text) {
  // [^@]+ takes everything before the first '@'; [^\.]+ everything after it up to the first '.';
  // .+ the rest, which must not be empty nor hold a line break.
  const std::size_t at = text.find('@');
  if (at == std::string_view::npos || at == 0) return false;
  const std::string_view domain = text.substr(at + 1);
  const std::size_t dot = domain.find('.');
  if (dot == std::string_view::npos || dot == 0) return false;
  const std::string_view rest = domain.substr(dot + 1);
  return !rest.empty() && rest.find_first_of("\r\n") == std::string_view::npos;
}

XmlWriter::XmlWriter(const char* indent) {
  compiledSchemas();  // libxml2 initialised
  buffer_ = xmlBufferCreate();
  writer_ = buffer_ != nullptr ? xmlNewTextWriterMemory(buffer_, 0) : nullptr;
  if (writer_ == nullptr) detail::fatalError("libxml2 could not create a writer (out of memory)");
  if (*indent != '\0') {
    check(xmlTextWriterSetIndent(writer_, 1));
    check(xmlTextWriterSetIndentString(writer_, reinterpret_cast<const xmlChar*>(indent)));
  }
}

XmlWriter::~XmlWriter() {
  if (writer_ != nullptr) xmlFreeTextWriter(writer_);
  if (buffer_ != nullptr) xmlBufferFree(buffer_);
}

void XmlWriter::startDocument() {
  check(xmlTextWriterStartDocument(writer_, "1.0", "UTF-8", nullptr));
}

void XmlWriter::start(const char* name) {
  check(xmlTextWriterStartElement(writer_, reinterpret_cast<const xmlChar*>(name)));
}

void XmlWriter::attribute(const char* name, std::string_view value) {
  check(xmlTextWriterWriteAttribute(writer_, reinterpret_cast<const xmlChar*>(name),
                                    xml(std::string(value))));
}

void XmlWriter::text(std::string_view value) {
  if (!value.empty()) check(xmlTextWriterWriteString(writer_, xml(std::string(value))));
}

void XmlWriter::raw(std::string_view markup) {
  if (!markup.empty()) {
    check(xmlTextWriterWriteRawLen(writer_, reinterpret_cast<const xmlChar*>(markup.data()),
                                   static_cast<int>(markup.size())));
  }
}

void XmlWriter::end() { check(xmlTextWriterEndElement(writer_)); }

void XmlWriter::element(const char* name, std::string_view value) {
  start(name);
  text(value);
  // An empty element is written <name></name> rather than <name/>, as text elements look.
  if (value.empty())
    check(xmlTextWriterFullEndElement(writer_));
  else
    end();
}

std::string XmlWriter::finish() {
  check(xmlTextWriterEndDocument(writer_));
  check(xmlTextWriterFlush(writer_));
  std::string document(reinterpret_cast<const char*>(xmlBufferContent(buffer_)),
                       static_cast<std::size_t>(xmlBufferLength(buffer_)));
  if (document.empty() || document.back() != '\n') document += '\n';
  return document;
}

void writeHash(XmlWriter& writer, const MhlHash& hash) {
  writer.start(hash.format.c_str());
  if (hash.action) writer.attribute("action", mhlHashActionName(*hash.action));
  if (hash.hashDate) writer.attribute("hashdate", hash.hashDate->text());
  if (hash.structure) writer.attribute("structure", *hash.structure);
  writer.text(hash.value);
  writer.end();
}

void writeMetadata(XmlWriter& writer, const MhlMetadata& metadata) {
  writer.start("metadata");
  for (const MhlXmlAttribute& attribute : metadata.attributes) {
    writer.attribute(attribute.name.c_str(), attribute.value);
  }
  writer.raw(metadata.content);
  writer.end();
}

}  // namespace corvane::mhl
