// CorvaneCrypto on OpenSSL 3: EVP digests, RAND_bytes and EVP AES-128-ECB.
#include "corvane/CorvaneCrypto.hpp"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <memory>

#include "checksum/DigestContext.hpp"
#include "checksum/HexText.hpp"
#include "util/Aes128Ecb.hpp"

namespace corvane {
namespace {

// EVP takes lengths as int; longer inputs go through in slices of this size.
constexpr std::size_t kMaxSlice = std::size_t{1} << 30;

// The digest of the text's bytes as lowercase hex, with the same digest contexts and hex printing
// the checksum generators use.
std::string digestHex(detail::DigestAlgorithm algorithm, std::string_view text) {
  detail::DigestContext context(algorithm);
  context.update(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  return detail::hexText(context.finish());
}

// A 17-byte zero-filled buffer receiving at most 16 bytes of `text`: the first 16 are the key.
// Bytes after the 16th do not fit and are dropped.
detail::Aes128Key keyFromText(std::string_view text) {
  detail::Aes128Key key{};
  std::memcpy(key.data(), text.data(), std::min(text.size(), key.size()));
  return key;
}

struct CipherContextDeleter {
  void operator()(EVP_CIPHER_CTX* context) const noexcept { EVP_CIPHER_CTX_free(context); }
};

}  // namespace

namespace detail {

std::optional<Bytes> aes128Ecb(bool encrypt, const Aes128Key& key, const Bytes& data,
                               bool pkcs7Padding) {
  std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter> context(EVP_CIPHER_CTX_new());
  if (!context ||
      EVP_CipherInit_ex(context.get(), EVP_aes_128_ecb(), nullptr, key.data(), nullptr,
                        encrypt ? 1 : 0) != 1 ||
      EVP_CIPHER_CTX_set_padding(context.get(), pkcs7Padding ? 1 : 0) != 1) {
    return std::nullopt;
  }
  // Room for one block of padding beyond the input.
  Bytes output(data.size() + 16);
  std::size_t produced = 0;
  std::size_t consumed = 0;
  while (consumed < data.size()) {
    const std::size_t slice = std::min(kMaxSlice, data.size() - consumed);
    int written = 0;
    if (EVP_CipherUpdate(context.get(), output.data() + produced, &written, data.data() + consumed,
                         static_cast<int>(slice)) != 1) {
      return std::nullopt;
    }
    produced += static_cast<std::size_t>(written);
    consumed += slice;
  }
  int written = 0;
  if (EVP_CipherFinal_ex(context.get(), output.data() + produced, &written) != 1) {
    return std::nullopt;
  }
  produced += static_cast<std::size_t>(written);
  output.resize(produced);
  return output;
}

}  // namespace detail

std::string CorvaneCrypto::hashSha512(std::string_view text) {
  return digestHex(detail::DigestAlgorithm::sha512, text);
}

std::string CorvaneCrypto::hashSha256(std::string_view text) {
  return digestHex(detail::DigestAlgorithm::sha256, text);
}

Bytes CorvaneCrypto::randomInitializationVector() { return randomDataWithLength(16); }

Bytes CorvaneCrypto::randomDataWithLength(std::uint64_t length) {
  Bytes bytes(static_cast<std::size_t>(length), 0);
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    const std::size_t slice = std::min(kMaxSlice, bytes.size() - filled);
    // The status is ignored on purpose: a failure leaves zero bytes, as documented.
    static_cast<void>(RAND_bytes(bytes.data() + filled, static_cast<int>(slice)));
    filled += slice;
  }
  return bytes;
}

std::optional<Bytes> CorvaneCrypto::aes128EncryptionOfData(const Bytes& data,
                                                           std::string_view withBase64EncodedKey) {
  // The vector is drawn and handed on, where it is dropped: it never affects the result.
  return aes128EncryptionOfData(data, withBase64EncodedKey, randomInitializationVector());
}

std::optional<Bytes> CorvaneCrypto::aes128EncryptionOfData(
    const Bytes& data, std::string_view withBase64EncodedKey,
    const std::optional<Bytes>& /*initializationVector*/) {
  return AES128Operation(kOperationEncrypt, data, withBase64EncodedKey, std::nullopt);
}

std::optional<Bytes> CorvaneCrypto::aes128DecryptionOfData(
    const Bytes& data, std::string_view withBase64EncodedKey,
    const std::optional<Bytes>& /*initializationVector*/) {
  return AES128Operation(kOperationDecrypt, data, withBase64EncodedKey, std::nullopt);
}

std::optional<Bytes> CorvaneCrypto::AES128Operation(std::uint32_t operation, const Bytes& data,
                                                    std::string_view key,
                                                    const std::optional<std::string>& iv) {
  if (operation != kOperationEncrypt && operation != kOperationDecrypt) {
    return std::nullopt;
  }
  // The vector is prepared like the key but ECB mode has no use for it.
  static_cast<void>(iv);
  return detail::aes128Ecb(operation == kOperationEncrypt, keyFromText(key), data,
                           /*pkcs7Padding=*/true);
}

}  // namespace corvane
