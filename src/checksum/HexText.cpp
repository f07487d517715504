#include "checksum/HexText.hpp"

namespace corvane::detail {

namespace {
constexpr char kDigits[] = "0123456789abcdef";
}

std::string hexText(const Bytes& bytes) {
  std::string text(bytes.size() * 2, '0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = kDigits[bytes[i] >> 4];
    text[2 * i + 1] = kDigits[bytes[i] & 0x0F];
  }
  return text;
}

std::string hexText(std::uint64_t value, int minimumDigits) {
  std::string text;
  do {
    text.insert(text.begin(), kDigits[value & 0x0F]);
    value >>= 4;
  } while (value != 0);
  if (static_cast<int>(text.size()) < minimumDigits) {
    text.insert(0, static_cast<std::size_t>(minimumDigits) - text.size(), '0');
  }
  return text;
}

}  // namespace corvane::detail
