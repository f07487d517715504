// The ASC MHL readers and writers: manifests and chain files. The first byte chooses the kind
// (low bit 0: manifest, 1: chain file); the rest is the document.
//
// For any document:
// - nothing throws: every fault comes back as an MhlError with the source name given, one line of
//   message, and a line number only where a document has lines;
// - parse and validate agree: a document that fails to parse for a reason of XML or of the schema
//   fails validation with the same error, and one that parses (or fails only on a rule beyond the
//   schema) validates.
// When a document parses, its value goes through read -> write -> read -> write:
// - writing either succeeds or is refused exactly as check* says, never with any other error (a
//   document we wrote that failed the schema would show here as schemaViolation);
// - what we wrote validates against the embedded schema, parses back to an equal value, and writing
//   that value again gives the same bytes.
// - libxml2 prints nothing: every fault reaches the caller as an MhlError, none goes to stderr
//   (its generic error handler is replaced here by one that only takes note).
// Documents of other tools may hold hash values we would not write (any text is read); those
// values are replaced by well-formed ones of their format so that the rest of the value still
// takes the round trip.
#include <libxml/xmlerror.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.hpp"
#include "corvane/MhlHashFormat.hpp"
#include "corvane/MhlManifest.hpp"
#include "corvane/MhlXml.hpp"

namespace {

using corvane::MhlChain;
using corvane::MhlError;
using corvane::MhlErrorKind;
using corvane::MhlHash;
using corvane::MhlManifest;
using corvane::MhlResult;

constexpr std::string_view kSource = "fuzz-input.xml";

void checkErrorForm(const MhlError& error, std::string_view source) {
  CORVANE_FUZZ_CHECK(error.source == source);
  CORVANE_FUZZ_CHECK(!error.message.empty());
  CORVANE_FUZZ_CHECK(error.message.find('\n') == std::string::npos);
  CORVANE_FUZZ_CHECK(error.kind != MhlErrorKind::unreadable && error.code == 0);
  CORVANE_FUZZ_CHECK(!error.description().empty());
}

// A refusal to write: of a value, so without source and line.
void checkRefusal(const MhlError& error, const std::optional<MhlError>& checked) {
  CORVANE_FUZZ_CHECK(error.kind == MhlErrorKind::invalidContent);
  CORVANE_FUZZ_CHECK(checked.has_value() && *checked == error);
  CORVANE_FUZZ_CHECK(error.source.empty() && error.line == 0);
  CORVANE_FUZZ_CHECK(!error.message.empty());
}

// Parse and validate of the same bytes tell the same story.
template <typename T>
void checkAgreement(const MhlResult<T>& parsed, const std::optional<MhlError>& validated) {
  if (parsed) {
    CORVANE_FUZZ_CHECK(!validated.has_value());
    return;
  }
  checkErrorForm(parsed.error(), kSource);
  if (parsed.error().kind == MhlErrorKind::invalidContent) {
    CORVANE_FUZZ_CHECK(!validated.has_value());
  } else {
    CORVANE_FUZZ_CHECK(validated.has_value() && *validated == parsed.error());
  }
}

// A value of `hash.format` in the form ASC MHL writes: md5 of empty input (RFC 1321, appendix
// A.5), SHA-1 of empty input (RFC 3174), xxHash values of empty input as xxhsum prints them, and
// the C4 ID of the root folder of the ASC MHL example manifest (0001_TEST01_2019-10-11_155603.mhl).
void repairHash(MhlHash& hash) {
  const std::optional<corvane::ChecksumType> type = corvane::checksumTypeForMhlFormat(hash.format);
  if (!type) return;
  const bool lowercase = hash.value.find_first_of("ABCDEF") == std::string::npos;
  if (corvane::isWellFormedMhlHash(*type, hash.value) && (hash.format == "c4" || lowercase)) {
    return;
  }
  if (hash.format == "c4") {
    hash.value =
        "c44pdRyHLMvHsYbJnRpTrh5ohdWW6uVbm4mZx421aTN7y9MUKk74TqyshmTLgvnq2tcZex6khpxrYUq87Hczcmnyq"
        "3";
  } else if (hash.format == "md5") {
    hash.value = "d41d8cd98f00b204e9800998ecf8427e";
  } else if (hash.format == "sha1") {
    hash.value = "da39a3ee5e6b4b0d3255bfef95601890afd80709";
  } else if (hash.format == "xxh128") {
    hash.value = "99aa06d3014798d86001c324468d497f";
  } else if (hash.format == "xxh3") {
    hash.value = "2d06800538d394c2";
  } else if (hash.format == "xxh64") {
    hash.value = "ef46db3751d8e999";
  }
}

void repairHashes(std::vector<MhlHash>& hashes) {
  for (MhlHash& hash : hashes) repairHash(hash);
}

MhlManifest repaired(MhlManifest manifest) {
  if (manifest.processInfo.rootHash) {
    repairHashes(manifest.processInfo.rootHash->content);
    repairHashes(manifest.processInfo.rootHash->structure);
  }
  for (corvane::MhlHashEntry& entry : manifest.hashes) repairHashes(entry.hashes);
  for (corvane::MhlDirectoryHashEntry& entry : manifest.directoryHashes) {
    repairHashes(entry.content);
    repairHashes(entry.structure);
  }
  for (corvane::MhlHashListReference& reference : manifest.references) repairHash(reference.c4);
  return manifest;
}

MhlChain repaired(MhlChain chain) {
  for (corvane::MhlChainEntry& entry : chain.entries) repairHash(entry.c4);
  return chain;
}

// Both document kinds through the same steps.
struct ManifestKind {
  using Value = MhlManifest;
  static MhlResult<Value> parse(std::string_view bytes, std::string_view source) {
    return corvane::parseMhlManifest(bytes, source);
  }
  static std::optional<MhlError> validate(std::string_view bytes, std::string_view source) {
    return corvane::validateMhlManifest(bytes, source);
  }
  static std::optional<MhlError> check(const Value& value) {
    return corvane::checkMhlManifest(value);
  }
  static MhlResult<std::string> write(const Value& value) {
    return corvane::writeMhlManifest(value);
  }
};

struct ChainKind {
  using Value = MhlChain;
  static MhlResult<Value> parse(std::string_view bytes, std::string_view source) {
    return corvane::parseMhlChain(bytes, source);
  }
  static std::optional<MhlError> validate(std::string_view bytes, std::string_view source) {
    return corvane::validateMhlChain(bytes, source);
  }
  static std::optional<MhlError> check(const Value& value) { return corvane::checkMhlChain(value); }
  static MhlResult<std::string> write(const Value& value) { return corvane::writeMhlChain(value); }
};

// read -> write -> read -> write from a value read from a document.
template <typename Kind>
void checkRoundTrip(const typename Kind::Value& value) {
  const MhlResult<std::string> written = Kind::write(value);
  if (!written) {
    checkRefusal(written.error(), Kind::check(value));
    return;
  }
  CORVANE_FUZZ_CHECK(!Kind::check(value).has_value());
  CORVANE_FUZZ_CHECK(!Kind::validate(*written, "written").has_value());
  const MhlResult<typename Kind::Value> reread = Kind::parse(*written, "written");
  if (!reread) {
    std::fprintf(stderr, "written document does not parse: %s\n%s",
                 reread.error().description().c_str(), written->c_str());
  }
  CORVANE_FUZZ_CHECK(reread.ok());
  CORVANE_FUZZ_CHECK(*reread == value);
  const MhlResult<std::string> rewritten = Kind::write(*reread);
  CORVANE_FUZZ_CHECK(rewritten.ok());
  if (*rewritten != *written) {
    std::fprintf(stderr, "first write:\n%s\nsecond write:\n%s", written->c_str(),
                 rewritten->c_str());
  }
  CORVANE_FUZZ_CHECK(*rewritten == *written);
}

template <typename Kind>
void checkDocument(std::string_view bytes) {
  const MhlResult<typename Kind::Value> parsed = Kind::parse(bytes, kSource);
  checkAgreement(parsed, Kind::validate(bytes, kSource));
  if (!parsed) return;
  checkRoundTrip<Kind>(*parsed);
  const typename Kind::Value fixed = repaired(*parsed);
  if (!(fixed == *parsed)) checkRoundTrip<Kind>(fixed);
}

// Whether libxml2 reported something through its generic handler, which prints to stderr.
bool libxml2Printed = false;

void noteGenericError(void*, const char*, ...) { libxml2Printed = true; }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // libxml2 is initialised on first use, which sets the generic handler; use it first.
  (void)corvane::validateMhlManifest("<x/>");
  xmlSetGenericErrorFunc(nullptr, noteGenericError);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const bool chain = (data[0] & 1) != 0;
  const std::string_view document(reinterpret_cast<const char*>(data + 1), size - 1);
  try {
    if (chain) {
      checkDocument<ChainKind>(document);
    } else {
      checkDocument<ManifestKind>(document);
    }
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "exception escaped: %s\n", exception.what());
    std::abort();
  }
  if (libxml2Printed) {
    std::fprintf(stderr, "libxml2 printed a message of its own\n");
    std::abort();
  }
  libxml2Printed = false;
  return 0;
}
