// The JSON readers of the four serialised records: ChecksumType, ChecksumPair,
// IOValidationAttributes and SecurityFormat. The first byte chooses the record (low two bits) and
// the document format (JSON text, CBOR or MessagePack); the rest is the document.
//
// For any document the decoder either throws a DecodingError of the kind and key its header
// promises for that document (predicted here from the document itself), or returns a value that
// holds what the document said, encodes under the documented keys, and decodes back to an equal
// value (directly, and through CBOR bytes). Any other exception escapes and fails the run.
//
// IOValidationAttributes has two decoders. fromUntrustedJSON must give exactly the documented
// errors (any of them when a document has several problems) and, when it decodes, the record
// fromJSON gives. fromJSON stops the process on a well-formed "checksumAttributes" list holding a
// number that names no algorithm, as documented, so such documents go to fromUntrustedJSON only;
// otherwise fromJSON must hold what the document said, read leniently. Decoding without a boolean
// "forceChecksumSizeComparison" keeps the flag true without applying the size rule, so encoding
// and decoding again may add NSFileSize; that is checked as the exact expected difference.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "FuzzCheck.hpp"
#include "corvane/ChecksumLookup.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/Exception.hpp"
#include "corvane/FileAttributeKey.hpp"
#include "corvane/IOValidationAttributes.hpp"
#include "corvane/SecurityFormat.hpp"

namespace {

using corvane::ChecksumPair;
using corvane::ChecksumType;
using corvane::DecodingError;
using corvane::FileAttributeKey;
using corvane::FileAttributeKeySet;
using corvane::IOValidationAttributes;
using corvane::SecurityFormat;
using Json = nlohmann::json;
using Kind = DecodingError::Kind;

// A decoding error the header promises for some document.
struct ExpectedError {
  Kind kind;
  std::string key;
  friend bool operator==(const ExpectedError&, const ExpectedError&) = default;
};

int phase(Kind kind) {
  switch (kind) {
    case Kind::keyNotFound:
      return 0;
    case Kind::typeMismatch:
      return 1;
    default:
      return 2;
  }
}

// The errors a record may raise when its first key (checked first) and its second key may each
// have problems: any of the first key's; the second key's only when a decoder that checks every
// key's presence (or type) before the next step would meet it first.
std::vector<ExpectedError> allowedErrors(const std::vector<ExpectedError>& first,
                                         const std::vector<ExpectedError>& second) {
  std::vector<ExpectedError> allowed = first;
  int firstPhase = 3;
  for (const ExpectedError& error : first) firstPhase = std::min(firstPhase, phase(error.kind));
  for (const ExpectedError& error : second) {
    if (phase(error.kind) < firstPhase) allowed.push_back(error);
  }
  return allowed;
}

std::vector<ExpectedError> asList(const std::optional<ExpectedError>& error) {
  return error ? std::vector<ExpectedError>{*error} : std::vector<ExpectedError>{};
}

bool isOneOf(const DecodingError& error, const std::vector<ExpectedError>& allowed) {
  return std::find(allowed.begin(), allowed.end(), ExpectedError{error.kind(), error.key()}) !=
         allowed.end();
}

// Integers that are not negative. Unsigned numbers always count; signed numbers that are not
// negative (MessagePack and CBOR can carry them so) may or may not be taken as unsigned.
bool isUnsigned(const Json& json) { return json.is_number_unsigned(); }
bool isNonNegativeSigned(const Json& json) {
  return json.is_number_integer() && !json.is_number_unsigned() && json.get<std::int64_t>() >= 0;
}

Json throughCbor(const Json& json) { return Json::from_cbor(Json::to_cbor(json)); }

// --- ChecksumType: any unsigned integer, typeMismatch for anything else -------------------------

void checkChecksumType(const Json& document) {
  std::optional<ChecksumType> type;
  try {
    type = document.get<ChecksumType>();
  } catch (const DecodingError& error) {
    CORVANE_FUZZ_CHECK(!isUnsigned(document));
    CORVANE_FUZZ_CHECK(error.kind() == Kind::typeMismatch);
    return;
  }
  CORVANE_FUZZ_CHECK(isUnsigned(document) || isNonNegativeSigned(document));
  CORVANE_FUZZ_CHECK(type->rawValue() == document.get<std::uint64_t>());
  const Json encoded = *type;
  CORVANE_FUZZ_CHECK(encoded.is_number_unsigned());
  CORVANE_FUZZ_CHECK(encoded.get<std::uint64_t>() == type->rawValue());
  CORVANE_FUZZ_CHECK(encoded.get<ChecksumType>() == *type);
  CORVANE_FUZZ_CHECK(Json::parse(encoded.dump()).get<ChecksumType>() == *type);
  CORVANE_FUZZ_CHECK(throughCbor(encoded).get<ChecksumType>() == *type);
}

// --- ChecksumPair: {"value": text, "algorithm": unsigned}, "value" checked first ----------------

void checkChecksumPair(const Json& document) {
  // The first problem of "value" and of "algorithm", if any.
  std::vector<ExpectedError> allowed;
  bool mayDecode = true;
  if (!document.is_object()) {
    allowed.push_back({Kind::typeMismatch, ""});
    mayDecode = false;
  } else {
    std::optional<ExpectedError> valueError;
    std::optional<ExpectedError> algorithmError;
    if (!document.contains("value")) {
      valueError = ExpectedError{Kind::keyNotFound, "value"};
    } else if (!document["value"].is_string()) {
      valueError = ExpectedError{Kind::typeMismatch, "value"};
    }
    if (!document.contains("algorithm")) {
      algorithmError = ExpectedError{Kind::keyNotFound, "algorithm"};
    } else if (!isUnsigned(document["algorithm"])) {
      algorithmError = ExpectedError{Kind::typeMismatch, "algorithm"};
    }
    allowed = allowedErrors(asList(valueError), asList(algorithmError));
    mayDecode = !valueError && (!algorithmError || (algorithmError->kind == Kind::typeMismatch &&
                                                    isNonNegativeSigned(document["algorithm"])));
  }

  std::optional<ChecksumPair> pair;
  try {
    pair = document.get<ChecksumPair>();
  } catch (const DecodingError& error) {
    CORVANE_FUZZ_CHECK(isOneOf(error, allowed));
    return;
  }
  CORVANE_FUZZ_CHECK(mayDecode);
  CORVANE_FUZZ_CHECK(pair->value == document["value"].get<std::string>());
  CORVANE_FUZZ_CHECK(pair->algorithm.rawValue() == document["algorithm"].get<std::uint64_t>());

  const Json encoded = *pair;
  CORVANE_FUZZ_CHECK(encoded.is_object() && encoded.size() == 2);
  CORVANE_FUZZ_CHECK(encoded.contains("value") && encoded.contains("algorithm"));
  CORVANE_FUZZ_CHECK(encoded["value"] == pair->value);
  CORVANE_FUZZ_CHECK(encoded["algorithm"] == pair->algorithm.rawValue());
  CORVANE_FUZZ_CHECK(encoded.get<ChecksumPair>() == *pair);
  CORVANE_FUZZ_CHECK(throughCbor(encoded).get<ChecksumPair>() == *pair);
}

// --- SecurityFormat: {"ofk": [0..255...], "fkt": text}, "ofk" checked first ---------------------

void checkSecurityFormat(const Json& document) {
  // The problems of "ofk" and of "fkt". A decoder may check that "ofk" holds numbers only before
  // looking at their values (typeMismatch), or go element by element and stop at the first one
  // that is not a number (typeMismatch) or not an integer from 0 to 255 (dataCorrupted). Integral
  // numbers stored as floating point may or may not be read as integers.
  std::vector<ExpectedError> allowed;
  bool mayDecode = true;
  if (!document.is_object()) {
    allowed.push_back({Kind::typeMismatch, ""});
    mayDecode = false;
  } else {
    std::vector<ExpectedError> ofkErrors;
    std::optional<ExpectedError> fktError;
    bool ofkDecodes = true;
    if (!document.contains("ofk")) {
      ofkErrors.push_back({Kind::keyNotFound, "ofk"});
      ofkDecodes = false;
    } else if (!document["ofk"].is_array()) {
      ofkErrors.push_back({Kind::typeMismatch, "ofk"});
      ofkDecodes = false;
    } else {
      const Json& ofk = document["ofk"];
      auto allow = [&ofkErrors](Kind kind) {
        if (std::find(ofkErrors.begin(), ofkErrors.end(), ExpectedError{kind, "ofk"}) ==
            ofkErrors.end()) {
          ofkErrors.push_back({kind, "ofk"});
        }
      };
      if (!std::all_of(ofk.begin(), ofk.end(), [](const Json& e) { return e.is_number(); })) {
        allow(Kind::typeMismatch);
        ofkDecodes = false;
      }
      for (const Json& element : ofk) {
        if (!element.is_number()) break;  // an element-by-element decoder stops here
        bool inRange = false;
        if (element.is_number_float()) {
          const double value = element.get<double>();
          inRange = value >= 0 && value <= 255;
          if (inRange && value == static_cast<int>(value)) {
            allow(Kind::dataCorrupted);  // may or may not be read as an integer
            continue;
          }
          inRange = false;
        } else if (element.is_number_unsigned()) {
          inRange = element.get<std::uint64_t>() <= 255;
        } else {
          inRange = element.get<std::int64_t>() >= 0 && element.get<std::int64_t>() <= 255;
        }
        if (!inRange) {
          allow(Kind::dataCorrupted);
          ofkDecodes = false;
          break;
        }
      }
    }
    if (!document.contains("fkt")) {
      fktError = ExpectedError{Kind::keyNotFound, "fkt"};
    } else if (!document["fkt"].is_string()) {
      fktError = ExpectedError{Kind::typeMismatch, "fkt"};
    }
    allowed = allowedErrors(ofkErrors, asList(fktError));
    mayDecode = !fktError && ofkDecodes;
  }

  std::optional<SecurityFormat> format;
  try {
    format = document.get<SecurityFormat>();
  } catch (const DecodingError& error) {
    CORVANE_FUZZ_CHECK(isOneOf(error, allowed));
    return;
  }
  CORVANE_FUZZ_CHECK(mayDecode);

  const Json encoded = *format;
  CORVANE_FUZZ_CHECK(encoded.is_object() && encoded.size() == 2);
  CORVANE_FUZZ_CHECK(encoded.contains("ofk") && encoded.contains("fkt"));
  CORVANE_FUZZ_CHECK(encoded["fkt"] == document["fkt"]);
  CORVANE_FUZZ_CHECK(encoded["ofk"].is_array() && encoded["ofk"].size() == document["ofk"].size());
  for (std::size_t i = 0; i < encoded["ofk"].size(); ++i) {
    CORVANE_FUZZ_CHECK(encoded["ofk"][i].is_number_integer());
    CORVANE_FUZZ_CHECK(encoded["ofk"][i].get<double>() == document["ofk"][i].get<double>());
  }
  CORVANE_FUZZ_CHECK(encoded.get<SecurityFormat>() == *format);
  CORVANE_FUZZ_CHECK(throughCbor(encoded).get<SecurityFormat>() == *format);
}

// --- IOValidationAttributes: fromUntrustedJSON strict, fromJSON lenient ------------------------

// A member of `document`, or null when it is missing or JSON null (both mean "absent").
const Json* member(const Json& document, const char* key) {
  const auto found = document.find(key);
  return found == document.end() || found->is_null() ? nullptr : &*found;
}

// How an element of "checksumAttributes" reads.
enum class Element {
  nonNegative,   // an integer >= 0
  negative,      // an integer < 0
  maybeInteger,  // an integral number >= 0 stored as floating point: may be read as either
  other,         // anything else (text, fraction, array, ...)
};

Element classify(const Json& element) {
  if (element.is_number_unsigned()) return Element::nonNegative;
  if (element.is_number_integer()) {
    return element.get<std::int64_t>() >= 0 ? Element::nonNegative : Element::negative;
  }
  if (element.is_number_float()) {
    const double value = element.get<double>();
    if (value >= 0 && value < 18446744073709551616.0 && value == std::floor(value)) {
      return Element::maybeInteger;
    }
  }
  return Element::other;
}

// Whether a non-negative (or maybe-integer) element is one of the ten algorithm flags.
bool isAlgorithmFlag(const Json& element) {
  const std::uint64_t value = element.is_number_float()
                                  ? static_cast<std::uint64_t>(element.get<double>())
                                  : element.get<std::uint64_t>();
  return ChecksumType(value).isKnownAlgorithm();
}

bool holdsChecksumKey(const FileAttributeKeySet& set) {
  return std::any_of(set.begin(), set.end(),
                     [](const FileAttributeKey& key) { return key.isChecksum(); });
}

// The set a decoder must produce from an encoded record: the encoded set, plus NSFileSize when
// the flag is on and a checksum key is present (decoding a boolean true applies the size rule).
FileAttributeKeySet withSizeRule(FileAttributeKeySet set, bool requireSize) {
  if (requireSize && holdsChecksumKey(set)) set.insert(FileAttributeKey::NSFileSize());
  return set;
}

void checkEncoding(const IOValidationAttributes& attributes) {
  const FileAttributeKeySet set = attributes.attributeSet();
  const bool flag = attributes.checksumsRequireMatchingSize();
  const Json encoded = attributes.encode();
  Json viaFreeFunction;
  corvane::to_json(viaFreeFunction, attributes);
  CORVANE_FUZZ_CHECK(viaFreeFunction == encoded);
  CORVANE_FUZZ_CHECK(encoded.is_object() && encoded.size() == 2);
  CORVANE_FUZZ_CHECK(encoded.contains("forceChecksumSizeComparison"));
  CORVANE_FUZZ_CHECK(encoded["forceChecksumSizeComparison"] == flag);
  CORVANE_FUZZ_CHECK(encoded.contains("fileAttributes") && encoded["fileAttributes"].is_array());
  std::vector<std::string> texts;
  for (const Json& text : encoded["fileAttributes"]) {
    CORVANE_FUZZ_CHECK(text.is_string());
    texts.push_back(text.get<std::string>());
  }
  CORVANE_FUZZ_CHECK(std::is_sorted(texts.begin(), texts.end()));
  FileAttributeKeySet encodedSet;
  for (const std::string& text : texts) encodedSet.insert(FileAttributeKey(text));
  CORVANE_FUZZ_CHECK(encodedSet.size() == texts.size());
  CORVANE_FUZZ_CHECK(encodedSet == set);
}

// Encode, decode (both decoders), encode again.
void checkRoundTrip(const IOValidationAttributes& attributes) {
  const FileAttributeKeySet set = attributes.attributeSet();
  const bool flag = attributes.checksumsRequireMatchingSize();
  checkEncoding(attributes);
  const Json encoded = attributes.encode();
  const auto decoded = IOValidationAttributes::fromJSON(encoded);
  CORVANE_FUZZ_CHECK(decoded->checksumsRequireMatchingSize() == flag);
  CORVANE_FUZZ_CHECK(decoded->attributeSet() == withSizeRule(set, flag));
  std::optional<DecodingError> error;
  const auto strict = IOValidationAttributes::fromUntrustedJSON(encoded, &error);
  CORVANE_FUZZ_CHECK(strict != nullptr && !error.has_value());
  CORVANE_FUZZ_CHECK(strict->checksumsRequireMatchingSize() == flag);
  CORVANE_FUZZ_CHECK(strict->attributeSet() == decoded->attributeSet());
  checkEncoding(*decoded);
  const auto again = IOValidationAttributes::fromJSON(throughCbor(decoded->encode()));
  CORVANE_FUZZ_CHECK(again->checksumsRequireMatchingSize() == flag);
  CORVANE_FUZZ_CHECK(again->attributeSet() == decoded->attributeSet());
}

void checkValidationAttributes(const Json& document) {
  // fromUntrustedJSON: the errors this document may give, and whether it may decode at all.
  std::vector<ExpectedError> allowed;
  bool mayDecode = true;
  // fromJSON: how it must treat "checksumAttributes".
  enum class List { absent, ignored, accepted, acceptedOrIgnored, mayStop } list = List::absent;
  FileAttributeKeySet listed;
  FileAttributeKeySet algorithmKeys;
  bool hasFlag = false;
  bool flag = true;
  if (!document.is_object()) {
    allowed.push_back({Kind::typeMismatch, ""});
    mayDecode = false;
  } else {
    if (const Json* texts = member(document, "fileAttributes")) {
      if (texts->is_array() &&
          std::all_of(texts->begin(), texts->end(), [](const Json& t) { return t.is_string(); })) {
        for (const Json& text : *texts) listed.insert(FileAttributeKey(text.get<std::string>()));
      } else {
        allowed.push_back({Kind::typeMismatch, "fileAttributes"});
        mayDecode = false;
      }
    }
    if (const Json* numbers = member(document, "checksumAttributes")) {
      if (!numbers->is_array()) {
        allowed.push_back({Kind::typeMismatch, "checksumAttributes"});
        mayDecode = false;
        list = List::ignored;
      } else {
        bool malformed = false;  // for fromJSON: an element that is not a non-negative integer
        bool maybe = false;      // an element fromJSON may or may not read as an integer
        bool noFlag = false;     // a candidate integer that is not an algorithm flag
        for (const Json& element : *numbers) {
          const Element kind = classify(element);
          if (kind == Element::other) {
            allowed.push_back({Kind::typeMismatch, "checksumAttributes"});
            mayDecode = false;
            malformed = true;
          } else if (kind == Element::negative) {
            allowed.push_back({Kind::dataCorrupted, "checksumAttributes"});
            mayDecode = false;
            malformed = true;
          } else if (isAlgorithmFlag(element)) {
            algorithmKeys.insert(corvane::fileAttributeKey(ChecksumType(static_cast<std::uint64_t>(
                element.is_number_float() ? element.get<double>()
                                          : element.get<std::uint64_t>()))));
            if (kind == Element::maybeInteger) {
              allowed.push_back({Kind::typeMismatch, "checksumAttributes"});
              maybe = true;
            }
          } else {
            allowed.push_back({Kind::dataCorrupted, "checksumAttributes"});
            mayDecode = false;
            noFlag = true;
            if (kind == Element::maybeInteger) {
              allowed.push_back({Kind::typeMismatch, "checksumAttributes"});
              maybe = true;
            }
          }
        }
        list = malformed ? List::ignored
               : noFlag  ? List::mayStop
               : maybe   ? List::acceptedOrIgnored
                         : List::accepted;
      }
    }
    if (const Json* force = member(document, "forceChecksumSizeComparison")) {
      if (force->is_boolean()) {
        hasFlag = true;
        flag = force->get<bool>();
      } else {
        allowed.push_back({Kind::typeMismatch, "forceChecksumSizeComparison"});
        mayDecode = false;
      }
    }
  }

  std::optional<DecodingError> error;
  const auto strict = IOValidationAttributes::fromUntrustedJSON(document, &error);
  if (!strict) {
    CORVANE_FUZZ_CHECK(error.has_value() && isOneOf(*error, allowed));
  } else {
    CORVANE_FUZZ_CHECK(mayDecode && !error.has_value());
  }
  // A number that names no algorithm would stop the process in fromJSON, as documented.
  if (list == List::mayStop) return;

  std::shared_ptr<IOValidationAttributes> attributes;
  try {
    attributes = IOValidationAttributes::fromJSON(document);
  } catch (const DecodingError& lenientError) {
    CORVANE_FUZZ_CHECK(!document.is_object());
    CORVANE_FUZZ_CHECK(lenientError.kind() == Kind::typeMismatch);
    return;
  }
  CORVANE_FUZZ_CHECK(document.is_object() && attributes != nullptr);
  if (strict) {
    CORVANE_FUZZ_CHECK(strict->checksumsRequireMatchingSize() ==
                       attributes->checksumsRequireMatchingSize());
    CORVANE_FUZZ_CHECK(strict->attributeSet() == attributes->attributeSet());
  }

  // The set holds the listed keys, the algorithms' keys when the list is read, and NSFileSize
  // exactly when listed or added by the size rule.
  const FileAttributeKeySet set = attributes->attributeSet();
  CORVANE_FUZZ_CHECK(attributes->checksumsRequireMatchingSize() == flag);
  FileAttributeKeySet withoutRule = set;
  if (listed.count(FileAttributeKey::NSFileSize()) == 0) {
    withoutRule.erase(FileAttributeKey::NSFileSize());
  }
  FileAttributeKeySet withList = listed;
  withList.insert(algorithmKeys.begin(), algorithmKeys.end());
  switch (list) {
    case List::accepted:
      CORVANE_FUZZ_CHECK(withoutRule == withList);
      break;
    case List::acceptedOrIgnored:
      CORVANE_FUZZ_CHECK(withoutRule == withList || withoutRule == listed);
      break;
    default:
      CORVANE_FUZZ_CHECK(withoutRule == listed);
      break;
  }
  const bool sizeExpected = listed.count(FileAttributeKey::NSFileSize()) == 1 ||
                            (hasFlag && flag && holdsChecksumKey(set));
  CORVANE_FUZZ_CHECK((set.count(FileAttributeKey::NSFileSize()) == 1) == sizeExpected);

  checkRoundTrip(*attributes);
}

// CBOR and MessagePack readers recurse once per nesting level; a short document keeps the depth
// far from the stack's end.
constexpr std::size_t kMaximumBinaryDocument = 1024;

std::optional<Json> parseDocument(unsigned format, const std::uint8_t* data, std::size_t size) {
  Json document;
  // Even with exceptions turned off, the binary readers throw for sizes they cannot allocate.
  try {
    switch (format) {
      case 1:
        if (size > kMaximumBinaryDocument) return std::nullopt;
        document = Json::from_cbor(data, data + size, true, false);
        break;
      case 2:
        if (size > kMaximumBinaryDocument) return std::nullopt;
        document = Json::from_msgpack(data, data + size, true, false);
        break;
      default:
        document = Json::parse(data, data + size, nullptr, false);
        break;
    }
  } catch (const Json::exception&) {
    return std::nullopt;
  }
  if (document.is_discarded()) return std::nullopt;
  return document;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  corvane::fuzz::silenceLibraryLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const auto document = parseDocument((data[0] >> 2) % 4, data + 1, size - 1);
  if (!document) return 0;
  switch (data[0] % 4) {
    case 0:
      checkChecksumType(*document);
      break;
    case 1:
      checkChecksumPair(*document);
      break;
    case 2:
      checkValidationAttributes(*document);
      break;
    default:
      checkSecurityFormat(*document);
      break;
  }
  return 0;
}
