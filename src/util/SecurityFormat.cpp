// SecurityFormat: sealing through CorvaneCrypto, and its JSON coding.
#include "corvane/SecurityFormat.hpp"

#include <nlohmann/json.hpp>
#include <utility>

#include "corvane/CorvaneCrypto.hpp"
#include "corvane/Exception.hpp"
#include "util/Fatal.hpp"

namespace corvane {
namespace {

constexpr const char* kOfkKey = "ofk";
constexpr const char* kFktKey = "fkt";

// The built-in default of `ofk`. It takes no part in sealing; any bytes would do.
const std::vector<std::uint8_t>& defaultOfk() {
  static const std::vector<std::uint8_t> bytes = {0x43, 0x6f, 0x72, 0x76, 0x61, 0x6e, 0x65, 0x53,
                                                  0x65, 0x63, 0x75, 0x72, 0x69, 0x74, 0x79, 0x31};
  return bytes;
}

// Strict UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUtf8(const Bytes& bytes) {
  std::size_t i = 0;
  const std::size_t n = bytes.size();
  while (i < n) {
    const std::uint8_t lead = bytes[i];
    std::size_t length = 0;
    std::uint8_t low = 0x80;
    std::uint8_t high = 0xbf;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if (lead >= 0xc2 && lead <= 0xdf) {
      length = 2;
    } else if (lead >= 0xe0 && lead <= 0xef) {
      length = 3;
      if (lead == 0xe0) low = 0xa0;
      if (lead == 0xed) high = 0x9f;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
      length = 4;
      if (lead == 0xf0) low = 0x90;
      if (lead == 0xf4) high = 0x8f;
    } else {
      return false;
    }
    if (n - i < length) return false;
    // The range check applies to the second byte only; later ones are plain continuations.
    if (bytes[i + 1] < low || bytes[i + 1] > high) return false;
    for (std::size_t k = 2; k < length; ++k) {
      if (bytes[i + k] < 0x80 || bytes[i + k] > 0xbf) return false;
    }
    i += length;
  }
  return true;
}

// The shared step of the four operations: draw a vector, hand it to the cipher, which drops it.
std::optional<Bytes> runCipher(bool encrypt, const Bytes& data, const std::string& key) {
  const Bytes vector = CorvaneCrypto::randomInitializationVector();
  return encrypt ? CorvaneCrypto::aes128EncryptionOfData(data, key, vector)
                 : CorvaneCrypto::aes128DecryptionOfData(data, key, vector);
}

[[noreturn]] void throwKeyNotFound(const std::string& key) {
  throw DecodingError(DecodingError::Kind::keyNotFound, key,
                      "SecurityFormat: no value associated with key \"" + key + "\"");
}

[[noreturn]] void throwTypeMismatch(const std::string& key, const std::string& expected,
                                    const nlohmann::json& found) {
  throw DecodingError(DecodingError::Kind::typeMismatch, key,
                      "SecurityFormat: expected " + expected + " for key \"" + key +
                          "\" but found " + found.type_name());
}

}  // namespace

SecurityFormat::SecurityFormat(std::string fkt) : ofk_(defaultOfk()), fkt_(std::move(fkt)) {}

SecurityFormat::SecurityFormat(std::vector<std::uint8_t> ofk, std::string fkt)
    : ofk_(std::move(ofk)), fkt_(std::move(fkt)) {}

std::optional<Bytes> SecurityFormat::formatSecurityText(std::string_view textToFormat) const {
  return runCipher(true, Bytes(textToFormat.begin(), textToFormat.end()), fkt_);
}

std::optional<Bytes> SecurityFormat::formatSecurityData(const Bytes& dataToFormat) const {
  return runCipher(true, dataToFormat, fkt_);
}

std::optional<Bytes> SecurityFormat::unformatSecurityData(const Bytes& dataToUnformat) const {
  return runCipher(false, dataToUnformat, fkt_);
}

std::optional<std::string> SecurityFormat::unformatSecurityTextData(
    const Bytes& textDataToUnformat) const {
  std::optional<Bytes> plain = runCipher(false, textDataToUnformat, fkt_);
  if (!plain) {
    return std::nullopt;
  }
  // The text decoding is forced: bytes sealed from anything but text are a caller's error.
  if (!isValidUtf8(*plain)) {
    detail::fatalError(
        "SecurityFormat: unsealed bytes are not valid UTF-8 text (unformatSecurityTextData)");
  }
  return std::string(plain->begin(), plain->end());
}

}  // namespace corvane

corvane::SecurityFormat nlohmann::adl_serializer<corvane::SecurityFormat>::from_json(
    const nlohmann::json& json) {
  using corvane::DecodingError;
  if (!json.is_object()) {
    throw DecodingError(
        DecodingError::Kind::typeMismatch, "",
        std::string("SecurityFormat: expected an object but found ") + json.type_name());
  }

  // Fields are checked in declaration order, so a record missing both reports "ofk".
  const auto ofk = json.find(corvane::kOfkKey);
  if (ofk == json.end()) {
    corvane::throwKeyNotFound(corvane::kOfkKey);
  }
  if (!ofk->is_array()) {
    corvane::throwTypeMismatch(corvane::kOfkKey, "an array of bytes", *ofk);
  }
  std::vector<std::uint8_t> bytes;
  bytes.reserve(ofk->size());
  for (const nlohmann::json& element : *ofk) {
    if (!element.is_number()) {
      corvane::throwTypeMismatch(corvane::kOfkKey, "an array of bytes", element);
    }
    // A number that is not a whole value from 0 to 255 does not fit an unsigned 8-bit element.
    bool fits = false;
    std::uint64_t value = 0;
    if (element.is_number_unsigned()) {
      value = element.get<std::uint64_t>();
      fits = value <= 255;
    } else if (element.is_number_integer()) {
      const std::int64_t signedValue = element.get<std::int64_t>();
      fits = signedValue >= 0 && signedValue <= 255;
      value = fits ? static_cast<std::uint64_t>(signedValue) : 0;
    } else {
      const double real = element.get<double>();
      fits = real >= 0 && real <= 255 && static_cast<double>(static_cast<int>(real)) == real;
      value = fits ? static_cast<std::uint64_t>(real) : 0;
    }
    if (!fits) {
      throw DecodingError(DecodingError::Kind::dataCorrupted, corvane::kOfkKey,
                          "SecurityFormat: element " + element.dump() + " of key \"" +
                              corvane::kOfkKey + "\" does not fit an unsigned 8-bit value");
    }
    bytes.push_back(static_cast<std::uint8_t>(value));
  }

  const auto fkt = json.find(corvane::kFktKey);
  if (fkt == json.end()) {
    corvane::throwKeyNotFound(corvane::kFktKey);
  }
  if (!fkt->is_string()) {
    corvane::throwTypeMismatch(corvane::kFktKey, "a text", *fkt);
  }
  return corvane::SecurityFormat(std::move(bytes), fkt->get<std::string>());
}

void nlohmann::adl_serializer<corvane::SecurityFormat>::to_json(
    nlohmann::json& json, const corvane::SecurityFormat& format) {
  // A fresh object drops whatever the target held, so the output has the two keys only.
  json = nlohmann::json::object();
  json[corvane::kOfkKey] = format.ofk_;
  json[corvane::kFktKey] = format.fkt_;
}
