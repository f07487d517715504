// The AES-128-ECB primitive under CorvaneCrypto, reachable by the library and its tests but not
// exported. Runs on OpenSSL's EVP interface (AES-NI where the processor has it).
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "corvane/Bytes.hpp"

namespace corvane::detail {

using Aes128Key = std::array<std::uint8_t, 16>;

// AES-128 in ECB mode over the whole of `data` in one pass; `pkcs7Padding` adds (encrypt) or
// checks and removes (decrypt) PKCS#7 padding. Null when the cipher reports an error: without
// padding, an input that is not a multiple of 16 bytes; with padding, on decryption, an empty
// or misaligned input or bad padding.
std::optional<Bytes> aes128Ecb(bool encrypt, const Aes128Key& key, const Bytes& data,
                               bool pkcs7Padding);

}  // namespace corvane::detail
