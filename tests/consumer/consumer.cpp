// Uses the installed library through its public headers and exported xxHash symbols only.
#include <xxhash.h>

#include <corvane/CorvaneSecurity.hpp>
#include <cstdio>
#include <string>

int main() {
  const corvane::Bytes data{'a', 'b', 'c'};
  // Known answers: MD5("abc") from RFC 1321 A.5; XXH64("abc") = 44bc2cf5ad770999 (xxhsum -H1).
  const auto md5 =
      corvane::ChecksumGenerator::generateChecksumForData(data, corvane::ChecksumTypeMD5);
  const auto xxh =
      corvane::ChecksumGenerator::generateChecksumForData(data, corvane::ChecksumTypeXXHash64);
  const unsigned long long direct = XXH64(data.data(), data.size(), 0);
  std::printf("%s %s %016llx %s\n", md5.value_or("none").c_str(), xxh.value_or("none").c_str(),
              direct, corvane::CorvaneSecurityVersionString);
  const bool ok = md5 == std::string("900150983cd24fb0d6963f7d28e17f72") &&
                  xxh == std::string("44bc2cf5ad770999") && direct == 0x44bc2cf5ad770999ULL;
  return ok ? 0 : 1;
}
