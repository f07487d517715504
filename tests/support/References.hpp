// Reference checksums computed independently of the library's generators, shared by the checksum
// suites:
//   - MD5 and SHA from OpenSSL's one-shot EVP_Digest, as lowercase hex;
//   - our CRC-32 variant, byte at a time from a table written out here;
//   - xxHash64, XXH3-64 and XXH3-128 (seed 0) from the xxHash library's one-call functions;
//   - C4 IDs: the SHA-512 digest as a base-58 number, with the alphabet spelt out here;
// and the bytes of checksum texts decoded by hand: hexadecimal pairs read digit by digit, C4 IDs
// read as base-58 numbers with that alphabet.
#pragma once

#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "corvane/Bytes.hpp"
#include "corvane/ChecksumType.hpp"

namespace corvane::testsupport {

// ----- OpenSSL EVP ---------------------------------------------------------------------------

// OpenSSL's one-shot EVP_Digest of `data` with `md` (EVP_md5(), EVP_sha1(), ...). Fails the
// calling test and returns no bytes when OpenSSL reports an error.
Bytes evpDigest(const EVP_MD* md, const Bytes& data);
// The SHA-512 digest of `data` from OpenSSL: the number a C4 ID writes in base 58.
Bytes sha512Digest(const Bytes& data);

// ----- CRC-32 ----------------------------------------------------------------------------------
// The straightforward algorithm the library's CRC-32 must equal bit for bit: the reflected table
// of the polynomial 0x04C11DB7 (0xEDB88320 reversed), a register that starts at 0, and the
// complement printed with "%02x" (so without leading zeros beyond two digits).

// The 256 entries of the reflected table of 0xEDB88320.
const std::array<std::uint32_t, 256>& crc32ReferenceTable();
// The register after feeding `data` one byte at a time into `crcRegister`; not complemented.
std::uint32_t crc32ReferenceRegister(const Bytes& data, std::uint32_t crcRegister = 0);
// The CRC-32 text of `data`: the complement of a register that starts at 0, printed with "%02x".
std::string crc32Reference(const Bytes& data);

// ----- xxHash ----------------------------------------------------------------------------------
// The one-call functions of the xxHash library with seed 0 and the default secret, each 64-bit
// half printed with "%016llx".

std::string xxHash64Reference(const Bytes& data);     // XXH64
std::string xxHash3_64Reference(const Bytes& data);   // XXH3_64bits
std::string xxHash3_128Reference(const Bytes& data);  // XXH3_128bits, high half first

// ----- C4 --------------------------------------------------------------------------------------

// The base-58 alphabet of C4 IDs, written out independently of kC4CharacterString: the digits
// 1-9, the upper-case letters without I and O, the lower-case letters without l.
inline constexpr char kC4ReferenceAlphabet[] =
    "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz";
inline constexpr std::size_t kC4DigitCount = 88;  // characters of an ID after "c4"

// The C4 ID of a big-endian number of any length (a SHA-512 digest): "c4" followed by the number
// in base 58, most significant digit first, left-filled with the zero digit "1" to 88 digits.
// Long division of the bytes by 58, one digit per pass.
std::string c4IdOfNumber(const Bytes& bigEndian);
// The C4 ID of `data`: c4IdOfNumber of its SHA-512 digest.
std::string c4Reference(const Bytes& data);

// ----- checksum texts decoded by hand ---------------------------------------------------------

// An even-length hex text (digits of either case) as bytes: in text order (bigEndian) or last
// pair first.
Bytes hexBytesByHand(const std::string& hex, bool bigEndian);
// The number a C4 ID spells, as 32-bit words most significant first (leading zero words
// dropped), each word big-endian (bigEndian) or little-endian.
Bytes c4BytesByHand(const std::string& c4, bool bigEndian);

// ----- every algorithm -------------------------------------------------------------------------

// The reference checksum text of `data` for one of the nine algorithms with a generator (every
// single flag but SR Sum). Fails the calling test and returns "" for any other value.
std::string referenceChecksum(ChecksumType type, const Bytes& data);

}  // namespace corvane::testsupport
