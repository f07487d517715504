// SecurityFormat: seals and unseals short texts and byte buffers with AES-128 under a key text
// that the value carries.
//
// A plain value: copyable, comparable, and serialisable with nlohmann::json (and so CBOR or
// MessagePack) under exactly the keys "ofk" and "fkt". The operations are synchronous and never
// modify the value, so one value may be used from several threads at once.
//
// Sealing is CorvaneCrypto's AES-128-ECB with PKCS#7 padding with `fkt` as the key text (its
// UTF-8 bytes, at most 16, zero-filled; never Base64-decoded). Every operation draws a fresh
// random initialisation vector and hands it over, but the cipher ignores it: sealed bytes depend
// only on the key text and the input, and unsealing needs nothing but the key text.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/Bytes.hpp"
#include "corvane/Export.hpp"

namespace corvane {
class SecurityFormat;
}

// JSON coding of SecurityFormat: an object with exactly the keys "ofk" (array of numbers 0 to
// 255) and "fkt" (text). Decoding ignores other keys and throws corvane::DecodingError naming
// the key: keyNotFound when one is missing ("ofk" is checked first), typeMismatch when "ofk" is
// not an array of numbers or "fkt" not a text, dataCorrupted when an element of "ofk" is not an
// integer from 0 to 255. A value that is not an object throws typeMismatch with an empty key.
template <>
struct CORVANE_API nlohmann::adl_serializer<corvane::SecurityFormat> {
  static corvane::SecurityFormat from_json(const nlohmann::json& json);
  static void to_json(nlohmann::json& json, const corvane::SecurityFormat& format);
};

namespace corvane {

class CORVANE_API SecurityFormat {
 public:
  // A value with the key text `fkt` and the built-in default of `ofk`.
  explicit SecurityFormat(std::string fkt);

  // Seals the UTF-8 bytes of `textToFormat`. The result is a multiple of 16 bytes long (16 for
  // the empty text). Null only if the cipher fails, which encryption does not.
  std::optional<Bytes> formatSecurityText(std::string_view textToFormat) const;
  // Seals `dataToFormat`, as above.
  std::optional<Bytes> formatSecurityData(const Bytes& dataToFormat) const;
  // Unseals `dataToUnformat`. Null when it is empty, not a multiple of 16 bytes long, or does not
  // end in valid padding under this key (a wrong key usually shows as bad padding).
  std::optional<Bytes> unformatSecurityData(const Bytes& dataToUnformat) const;
  // Unseals `textDataToUnformat` and reads the result as UTF-8 text; null when unsealing gives
  // null. Unsealed bytes that are not valid UTF-8 are a fatal error: one line on stderr, then
  // abort. Callers must only pass bytes sealed from text.
  std::optional<std::string> unformatSecurityTextData(const Bytes& textDataToUnformat) const;

  friend bool operator==(const SecurityFormat& a, const SecurityFormat& b) = default;

 private:
  friend struct nlohmann::adl_serializer<SecurityFormat>;

  SecurityFormat(std::vector<std::uint8_t> ofk, std::string fkt);

  // Carried and archived; no operation uses it.
  std::vector<std::uint8_t> ofk_;
  // The AES-128 key text.
  std::string fkt_;
};

}  // namespace corvane
