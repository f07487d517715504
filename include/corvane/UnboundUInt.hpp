// UnboundUInt: an unsigned integer of unlimited size, kept as a text of binary digits.
//
// The digit text (`binaryRepresentation`) holds only '0' and '1', most significant first, and
// may carry leading zeros (the hexadecimal constructor keeps four digits per hex digit). Every
// comparison and arithmetic operation first normalises its operands: the part from the first
// '1' on, or "0" when there is none (the empty text included). Values are immutable and may be
// shared between threads; every operation returns a new value. The type is meant for correctness
// on values of any size, not for speed: operations are linear or quadratic in the digit count.
//
// Two faces: value operations (constructors, add, divide, ...) that throw UnboundIntError and
// return std::optional where the result may be absent, and object operations (initWithHexString,
// addWithNumber, ...) that return std::shared_ptr (null when absent) and report errors through
// an out-parameter. The default constructor does not exist.
#pragma once

#include <any>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "corvane/Export.hpp"

namespace corvane {

// The error of UnboundUInt: text that is not hexadecimal. Equality and hashing by case.
class CORVANE_API UnboundIntError : public std::runtime_error {
 public:
  enum Case { invalidFormat };

  explicit UnboundIntError(Case value);

  Case value() const noexcept { return value_; }
  friend bool operator==(const UnboundIntError& a, const UnboundIntError& b) noexcept {
    return a.value_ == b.value_;
  }

 private:
  Case value_;
};

class CORVANE_API UnboundUInt {
 public:
  // init() is not available.
  UnboundUInt() = delete;

  // init(hexString:) — digits 0-9, a-f, A-F, no prefix; the empty text gives an empty digit
  // text. Throws UnboundIntError(invalidFormat) for any other character ("0x1F" included).
  explicit UnboundUInt(const std::string& hexString);
  // init(number:) — 0 gives "0", other values their digits without leading zeros.
  explicit UnboundUInt(std::uint64_t number);

  // initWithHexString:error: — null on failure, with *error (when error is not null) set.
  static std::shared_ptr<UnboundUInt> initWithHexString(const std::string& hexString,
                                                        std::optional<UnboundIntError>* error);
  // initWithNumber:
  static std::shared_ptr<UnboundUInt> initWithNumber(std::uint64_t number);

  // hexadecimalToBinary(_:) — four digits per hex digit, leading zeros kept ("0F" gives
  // "00001111"); throws UnboundIntError(invalidFormat) for a non-hexadecimal character.
  static std::string hexadecimalToBinary(const std::string& text);
  // isHexadecimal(_:) — every character a hex digit; true for the empty text.
  static bool isHexadecimal(const std::string& text) noexcept;

  // The stored digit text, exactly as constructed (leading zeros and emptiness kept).
  const std::string& binaryRepresentation() const noexcept { return binary_; }
  // The value as unsigned 64-bit, or nullopt when the stored text has more than 64 characters
  // (leading zeros count).
  std::optional<std::uint64_t> numericValue() const;
  // The stored text left-padded with '0' to a multiple of 8 characters; "" gives "00000000".
  std::string byteFilledRepresentation() const;

  // isEqual(_:) — an UnboundUInt is equal when the normalised texts are; a number when
  // numericValue exists and equals it; anything else (nullptr, other types) is not equal.
  bool isEqual(const UnboundUInt& other) const;
  bool isEqual(std::uint64_t number) const;
  bool isEqual(const std::any& value) const;
  // Order of the normalised texts. Only an UnboundUInt (by value, pointer or shared_ptr inside
  // an any) takes part; every other argument gives false.
  bool isGreaterThan(const UnboundUInt& other) const;
  bool isGreaterThan(const std::any& value) const;
  bool isLessThan(const UnboundUInt& other) const;
  bool isLessThan(const std::any& value) const;
  bool isGreaterThanOrEqual(const UnboundUInt& to) const;
  bool isGreaterThanOrEqual(const std::any& to) const;
  bool isLessThanOrEqual(const UnboundUInt& to) const;
  bool isLessThanOrEqual(const std::any& to) const;

  // add(number:) / addWithNumber:
  UnboundUInt add(const UnboundUInt& number) const;
  std::shared_ptr<UnboundUInt> addWithNumber(const UnboundUInt& number) const;
  // subtract(number:) / subtractWithNumber: — the absolute difference (symmetric: "11" minus
  // "101" is "10"). Equal operands give a value whose digit text is empty.
  UnboundUInt subtract(const UnboundUInt& number) const;
  std::shared_ptr<UnboundUInt> subtractWithNumber(const UnboundUInt& number) const;

  // Division. A zero divisor gives no result (nullopt / null), except that a dividend equal to
  // the divisor is checked first and gives quotient 1 and remainder 0 (so 0 / 0 is 1). A
  // divisor greater than the dividend gives quotient 0 and the dividend itself (its text as
  // stored) as remainder; otherwise the remainder of the long division is returned normalised.
  using DivideCompletion = std::function<void(std::optional<UnboundUInt> quotient,
                                              std::optional<UnboundUInt> remainder)>;
  using DivideWithDivisorCompletion = std::function<void(std::shared_ptr<UnboundUInt> quotient,
                                                         std::shared_ptr<UnboundUInt> remainder)>;
  // divide(divisor:) / divideWithDivisor: — the quotient.
  std::optional<UnboundUInt> divide(const UnboundUInt& divisor) const;
  std::shared_ptr<UnboundUInt> divideWithDivisor(const UnboundUInt& divisor) const;
  // divide(divisor:completion:) / divideWithDivisor:completion: — the completion runs on the
  // calling thread before the call returns.
  void divide(const UnboundUInt& divisor, const DivideCompletion& completion) const;
  void divideWithDivisor(const UnboundUInt& divisor,
                         const DivideWithDivisorCompletion& completion) const;
  // mod(divisor:) / modWithDivisor: — the remainder.
  std::optional<UnboundUInt> mod(const UnboundUInt& divisor) const;
  std::shared_ptr<UnboundUInt> modWithDivisor(const UnboundUInt& divisor) const;

 private:
  struct BinaryTag {};
  UnboundUInt(BinaryTag, std::string binary) : binary_(std::move(binary)) {}

  std::string binary_;
};

}  // namespace corvane

template <>
struct std::hash<corvane::UnboundIntError> {
  std::size_t operator()(const corvane::UnboundIntError& error) const noexcept {
    return std::hash<int>()(static_cast<int>(error.value()));
  }
};
