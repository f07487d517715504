// CorvaneCrypto: SHA digests of texts, cryptographically secure random bytes, and AES-128
// sealing of byte buffers with a key given as text.
//
// A class with static operations only. Every operation is synchronous, keeps no state between
// calls and may be called from any thread at the same time.
//
// AES contract (kept exactly so that data sealed by earlier versions stays readable):
// - The cipher is AES-128 in ECB mode with PKCS#7 padding. No initialisation vector ever takes
//   part: every vector argument is accepted and dropped, so equal 16-byte plaintext blocks give
//   equal ciphertext blocks under one key, and sealing is deterministic.
// - The key is the first 16 bytes of the key text's UTF-8 form, zero-filled up to 16 bytes when
//   the text is shorter. The text is NOT Base64-decoded, whatever the parameter names promise: its
//   bytes themselves are the key. Bytes beyond the 16th are ignored.
// - Encryption always succeeds and gives the input length rounded up to the next multiple of 16
//   (a whole extra block when the length already is one). Decryption gives null for an input
//   that is empty or not a multiple of 16 bytes long, or whose last block does not end in valid
//   PKCS#7 padding. Nothing is logged on failure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/Bytes.hpp"
#include "corvane/Export.hpp"

namespace corvane {

class CORVANE_API CorvaneCrypto {
 public:
  CorvaneCrypto() = delete;

  // Values of the `operation` argument of AES128Operation.
  static constexpr std::uint32_t kOperationEncrypt = 0;
  static constexpr std::uint32_t kOperationDecrypt = 1;

  // SHA-512 of the text's UTF-8 bytes as 128 lowercase hex digits. A null text is passed as the
  // empty text.
  static std::string hashSha512(std::string_view text);
  // SHA-256 of the text's UTF-8 bytes as 64 lowercase hex digits.
  static std::string hashSha256(std::string_view text);

  // 16 bytes from the secure generator (randomDataWithLength(16)).
  static Bytes randomInitializationVector();
  // `length` bytes from OpenSSL's cryptographically secure generator. The generator's status is
  // ignored: should it fail, the bytes it did not fill stay zero.
  static Bytes randomDataWithLength(std::uint64_t length);

  // AES-128-ECB encryption with PKCS#7 padding of `data` under the key made from
  // `withBase64EncodedKey` (see the contract above). A random vector is drawn and dropped, so
  // the result equals the three-argument form's for any vector.
  static std::optional<Bytes> aes128EncryptionOfData(const Bytes& data,
                                                     std::string_view withBase64EncodedKey);
  // As above; `initializationVector` is accepted and ignored.
  static std::optional<Bytes> aes128EncryptionOfData(
      const Bytes& data, std::string_view withBase64EncodedKey,
      const std::optional<Bytes>& initializationVector);
  // AES-128-ECB decryption with PKCS#7 padding; `initializationVector` is accepted and ignored.
  // Null for input that is empty, not a multiple of 16 bytes, or badly padded.
  static std::optional<Bytes> aes128DecryptionOfData(
      const Bytes& data, std::string_view withBase64EncodedKey,
      const std::optional<Bytes>& initializationVector);

  // The core of the operations above: kOperationEncrypt (0) or kOperationDecrypt (1) over the
  // whole of `data` in one pass. `iv` (the vector as text, may be null) is handed to the cipher
  // but has no effect in ECB mode. Any other operation value, and any cipher failure, gives null.
  static std::optional<Bytes> AES128Operation(std::uint32_t operation, const Bytes& data,
                                              std::string_view key,
                                              const std::optional<std::string>& iv);
};

}  // namespace corvane
