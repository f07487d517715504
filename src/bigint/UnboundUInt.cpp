// UnboundUInt: unsigned numbers of any size on texts of binary digits. Every operation works on
// the digit text; nothing is shared with BigInt.
#include "corvane/UnboundUInt.hpp"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

#include "checksum/HexDecoding.hpp"

namespace corvane {

namespace {

// The part from the first '1' on; "0" when there is none.
std::string normalised(std::string_view text) {
  const std::size_t first = text.find('1');
  if (first == std::string_view::npos) return "0";
  return std::string(text.substr(first));
}

// -1, 0, 1 for normalised texts: the longer is greater, then the first differing digit.
int compareNormalised(const std::string& a, const std::string& b) noexcept {
  if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
  const int c = a.compare(b);
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

int compareValues(const std::string& a, const std::string& b) {
  return compareNormalised(normalised(a), normalised(b));
}

std::string padLeft(std::string text, std::size_t width) {
  if (text.size() < width) text.insert(0, width - text.size(), '0');
  return text;
}

// Sum of the normalised operands, padded to a common length; a final carry adds a leading '1'.
std::string addTexts(std::string_view a, std::string_view b) {
  std::string x = normalised(a);
  std::string y = normalised(b);
  const std::size_t width = std::max(x.size(), y.size());
  x = padLeft(std::move(x), width);
  y = padLeft(std::move(y), width);
  std::string sum(width, '0');
  int carry = 0;
  for (std::size_t i = width; i-- > 0;) {
    const int digit = (x[i] == '1') + (y[i] == '1') + carry;
    sum[i] = (digit & 1) != 0 ? '1' : '0';
    carry = digit >> 1;
  }
  if (carry != 0) sum.insert(sum.begin(), '1');
  return sum;
}

// The absolute difference by two's-complement addition over the minuend's stored width + 2.
std::string subtractTexts(const std::string& first, const std::string& second) {
  const std::string* minuend = &first;
  const std::string* subtrahend = &second;
  const int order = compareValues(first, second);
  if (order != 0 && order < 0) std::swap(minuend, subtrahend);

  const std::size_t width = minuend->size() + 2;
  const std::string paddedMinuend = padLeft(normalised(*minuend), width);
  std::string complement = padLeft(normalised(*subtrahend), width);
  for (char& digit : complement) digit = digit == '1' ? '0' : '1';
  complement = addTexts(complement, "1");

  std::string sum = addTexts(paddedMinuend, complement);
  if (sum.size() > width) sum.erase(0, sum.size() - width);  // the carry out of the width
  const std::size_t first1 = sum.find('1');
  return first1 == std::string::npos ? std::string() : sum.substr(first1);
}

struct DivisionResult {
  std::string quotient;
  std::string remainder;
};

std::optional<DivisionResult> divideTexts(const std::string& dividend, const std::string& divisor) {
  const int order = compareValues(dividend, divisor);
  if (order == 0) return DivisionResult{"1", "0"};
  if (normalised(divisor) == "0") return std::nullopt;
  if (normalised(dividend) == "0") return DivisionResult{"0", "0"};
  if (order < 0) return DivisionResult{"0", dividend};

  const std::string d = normalised(divisor);
  std::string quotient;
  quotient.reserve(dividend.size());
  std::string remainder;
  for (const char digit : dividend) {
    remainder.push_back(digit);
    if (compareValues(remainder, d) >= 0) {
      quotient.push_back('1');
      remainder = subtractTexts(remainder, d);
    } else {
      quotient.push_back('0');
    }
  }
  while (compareValues(remainder, d) >= 0) {
    quotient.push_back('1');
    remainder = subtractTexts(remainder, d);
  }
  return DivisionResult{normalised(quotient), normalised(remainder)};
}

// An UnboundUInt held by an any: by value, by pointer or by shared_ptr.
const UnboundUInt* unboundFromAny(const std::any& value) {
  if (const auto* direct = std::any_cast<UnboundUInt>(&value)) return direct;
  if (const auto* pointer = std::any_cast<const UnboundUInt*>(&value)) return *pointer;
  if (const auto* pointer = std::any_cast<UnboundUInt*>(&value)) return *pointer;
  if (const auto* shared = std::any_cast<std::shared_ptr<UnboundUInt>>(&value)) {
    return shared->get();
  }
  if (const auto* shared = std::any_cast<std::shared_ptr<const UnboundUInt>>(&value)) {
    return shared->get();
  }
  return nullptr;
}

// A platform number held by an any, read as unsigned 64-bit.
template <typename T>
bool numberFromAny(const std::any& value, std::uint64_t& out) {
  if (const auto* number = std::any_cast<T>(&value)) {
    out = static_cast<std::uint64_t>(*number);
    return true;
  }
  return false;
}

}  // namespace

UnboundIntError::UnboundIntError(Case value)
    : std::runtime_error("UnboundIntError.invalidFormat"), value_(value) {}

UnboundUInt::UnboundUInt(const std::string& hexString) : binary_(hexadecimalToBinary(hexString)) {}

UnboundUInt::UnboundUInt(std::uint64_t number) {
  // Digits from the lowest up, then reversed; 0 gives the single digit "0".
  do {
    binary_.push_back((number & 1u) != 0 ? '1' : '0');
    number >>= 1;
  } while (number != 0);
  std::reverse(binary_.begin(), binary_.end());
}

std::shared_ptr<UnboundUInt> UnboundUInt::initWithHexString(const std::string& hexString,
                                                            std::optional<UnboundIntError>* error) {
  if (!isHexadecimal(hexString)) {
    if (error != nullptr) error->emplace(UnboundIntError::invalidFormat);
    return nullptr;
  }
  return std::make_shared<UnboundUInt>(hexString);
}

std::shared_ptr<UnboundUInt> UnboundUInt::initWithNumber(std::uint64_t number) {
  return std::make_shared<UnboundUInt>(number);
}

bool UnboundUInt::isHexadecimal(const std::string& text) noexcept {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return detail::hexDigitValue(c) >= 0; });
}

std::string UnboundUInt::hexadecimalToBinary(const std::string& text) {
  if (!isHexadecimal(text)) throw UnboundIntError(UnboundIntError::invalidFormat);
  std::string binary;
  binary.reserve(text.size() * 4);
  for (const char c : text) {
    const int value = detail::hexDigitValue(c);
    for (int bit = 3; bit >= 0; --bit) binary.push_back(((value >> bit) & 1) != 0 ? '1' : '0');
  }
  return binary;
}

std::optional<std::uint64_t> UnboundUInt::numericValue() const {
  if (binary_.size() > 64) return std::nullopt;
  std::uint64_t value = 0;
  for (const char digit : binary_) value = (value << 1) | (digit == '1' ? 1u : 0u);
  return value;
}

std::string UnboundUInt::byteFilledRepresentation() const {
  if (binary_.empty()) return "00000000";
  return padLeft(binary_, (binary_.size() + 7) / 8 * 8);
}

bool UnboundUInt::isEqual(const UnboundUInt& other) const {
  return compareValues(binary_, other.binary_) == 0;
}

bool UnboundUInt::isEqual(std::uint64_t number) const {
  const std::optional<std::uint64_t> value = numericValue();
  return value.has_value() && *value == number;
}

bool UnboundUInt::isEqual(const std::any& value) const {
  if (const UnboundUInt* other = unboundFromAny(value)) return isEqual(*other);
  std::uint64_t number = 0;
  if (numberFromAny<std::uint64_t>(value, number) || numberFromAny<std::int64_t>(value, number) ||
      numberFromAny<unsigned>(value, number) || numberFromAny<int>(value, number) ||
      numberFromAny<unsigned long long>(value, number) || numberFromAny<long long>(value, number)) {
    return isEqual(number);
  }
  return false;
}

bool UnboundUInt::isGreaterThan(const UnboundUInt& other) const {
  return compareValues(binary_, other.binary_) > 0;
}

bool UnboundUInt::isGreaterThan(const std::any& value) const {
  const UnboundUInt* other = unboundFromAny(value);
  return other != nullptr && isGreaterThan(*other);
}

bool UnboundUInt::isLessThan(const UnboundUInt& other) const {
  return compareValues(binary_, other.binary_) < 0;
}

bool UnboundUInt::isLessThan(const std::any& value) const {
  const UnboundUInt* other = unboundFromAny(value);
  return other != nullptr && isLessThan(*other);
}

bool UnboundUInt::isGreaterThanOrEqual(const UnboundUInt& to) const {
  return compareValues(binary_, to.binary_) >= 0;
}

bool UnboundUInt::isGreaterThanOrEqual(const std::any& to) const {
  const UnboundUInt* other = unboundFromAny(to);
  return other != nullptr && isGreaterThanOrEqual(*other);
}

bool UnboundUInt::isLessThanOrEqual(const UnboundUInt& to) const {
  return compareValues(binary_, to.binary_) <= 0;
}

bool UnboundUInt::isLessThanOrEqual(const std::any& to) const {
  const UnboundUInt* other = unboundFromAny(to);
  return other != nullptr && isLessThanOrEqual(*other);
}

UnboundUInt UnboundUInt::add(const UnboundUInt& number) const {
  return UnboundUInt(BinaryTag{}, addTexts(binary_, number.binary_));
}

std::shared_ptr<UnboundUInt> UnboundUInt::addWithNumber(const UnboundUInt& number) const {
  return std::make_shared<UnboundUInt>(add(number));
}

UnboundUInt UnboundUInt::subtract(const UnboundUInt& number) const {
  return UnboundUInt(BinaryTag{}, subtractTexts(binary_, number.binary_));
}

std::shared_ptr<UnboundUInt> UnboundUInt::subtractWithNumber(const UnboundUInt& number) const {
  return std::make_shared<UnboundUInt>(subtract(number));
}

std::optional<UnboundUInt> UnboundUInt::divide(const UnboundUInt& divisor) const {
  std::optional<DivisionResult> result = divideTexts(binary_, divisor.binary_);
  if (!result) return std::nullopt;
  return UnboundUInt(BinaryTag{}, std::move(result->quotient));
}

std::shared_ptr<UnboundUInt> UnboundUInt::divideWithDivisor(const UnboundUInt& divisor) const {
  std::optional<UnboundUInt> quotient = divide(divisor);
  return quotient ? std::make_shared<UnboundUInt>(std::move(*quotient)) : nullptr;
}

void UnboundUInt::divide(const UnboundUInt& divisor, const DivideCompletion& completion) const {
  std::optional<DivisionResult> result = divideTexts(binary_, divisor.binary_);
  if (!result) {
    completion(std::nullopt, std::nullopt);
    return;
  }
  completion(UnboundUInt(BinaryTag{}, std::move(result->quotient)),
             UnboundUInt(BinaryTag{}, std::move(result->remainder)));
}

void UnboundUInt::divideWithDivisor(const UnboundUInt& divisor,
                                    const DivideWithDivisorCompletion& completion) const {
  divide(divisor, [&](std::optional<UnboundUInt> quotient, std::optional<UnboundUInt> remainder) {
    completion(quotient ? std::make_shared<UnboundUInt>(std::move(*quotient)) : nullptr,
               remainder ? std::make_shared<UnboundUInt>(std::move(*remainder)) : nullptr);
  });
}

std::optional<UnboundUInt> UnboundUInt::mod(const UnboundUInt& divisor) const {
  std::optional<DivisionResult> result = divideTexts(binary_, divisor.binary_);
  if (!result) return std::nullopt;
  return UnboundUInt(BinaryTag{}, std::move(result->remainder));
}

std::shared_ptr<UnboundUInt> UnboundUInt::modWithDivisor(const UnboundUInt& divisor) const {
  std::optional<UnboundUInt> remainder = mod(divisor);
  return remainder ? std::make_shared<UnboundUInt>(std::move(*remainder)) : nullptr;
}

}  // namespace corvane
