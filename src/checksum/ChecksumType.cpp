#include "corvane/ChecksumType.hpp"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "corvane/Exception.hpp"
#include "util/Fatal.hpp"

namespace corvane {
namespace {

struct Member {
  ChecksumType type;
  std::string name;
  std::string emptyValue;
};

// Display names are shown to users and stored: keep them exactly ("xxHash3-64" but "xxHash-128").
// Empty values are what each generator prints for zero bytes (CRC-32 here starts its register at
// zero, hence "ffffffff").
const std::array<Member, 10>& members() {
  static const std::array<Member, 10> table{{
      {ChecksumTypeMD5, "MD5", "d41d8cd98f00b204e9800998ecf8427e"},
      {ChecksumTypeXXHash64, "xxHash64", "ef46db3751d8e999"},
      {ChecksumTypeCRC32, "CRC-32", "ffffffff"},
      {ChecksumTypeSHA1, "SHA-1", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {ChecksumTypeSHA256, "SHA-2 256",
       "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {ChecksumTypeSHA512, "SHA-2 512",
       "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce47d0d13c5d85f2b0ff8318d28"
       "77eec2f63b931bd47417a81a538327af927da3e"},
      {ChecksumTypeSRSum, "SR Sum", ""},
      {ChecksumTypeC4, "C4",
       "c459dsjfscH38cYeXXYogktxf4Cd9ibshE3BHUo6a58hBXmRQdZrAkZzsWcbWtDg5oQstpDuni4Hirj75GEmTc1sF"
       "T"},
      {ChecksumTypeXXHashH364, "xxHash3-64", "2d06800538d394c2"},
      {ChecksumTypeXXHashH3128, "xxHash-128", "99aa06d3014798d86001c324468d497f"},
  }};
  return table;
}

const Member& memberOrDie(ChecksumType type, std::string_view property) {
  for (const Member& member : members()) {
    if (member.type == type) return member;
  }
  detail::fatalInvalidValue("ChecksumType",
                            std::string(property) + " asked of a value that is not an algorithm",
                            type.rawValue());
}

}  // namespace

const std::string& ChecksumType::name() const { return memberOrDie(*this, "name").name; }

const std::string& ChecksumType::emptyChecksumValue() const {
  return memberOrDie(*this, "emptyChecksumValue").emptyValue;
}

bool ChecksumType::isKnownAlgorithm() const noexcept {
  // Exactly one of the ten low bits.
  return raw_ != 0 && (raw_ & (raw_ - 1)) == 0 && raw_ <= 512;
}

const std::unordered_map<ChecksumType, std::string>& ChecksumType::emptyHashLookup() {
  static const auto lookup = [] {
    std::unordered_map<ChecksumType, std::string> map;
    for (ChecksumType type : allCases()) map.emplace(type, type.emptyChecksumValue());
    return map;
  }();
  return lookup;
}

ChecksumType ChecksumType::defaultChecksumType() noexcept { return ChecksumTypeXXHash64; }

const std::vector<ChecksumType>& ChecksumType::allCases() {
  static const auto cases = [] {
    std::vector<ChecksumType> list;
    std::uint64_t raw = 1;
    for (int i = 0; i < 10; ++i, raw <<= 1) list.emplace_back(raw);
    return list;
  }();
  return cases;
}

const std::vector<ChecksumType>& ChecksumType::defaultOrdering() {
  static const auto ordering = [] {
    std::vector<ChecksumType> list{
        ChecksumTypeXXHash64, ChecksumTypeXXHashH364, ChecksumTypeXXHashH3128, ChecksumTypeMD5,
        ChecksumTypeSHA1,     ChecksumTypeSHA256,     ChecksumTypeSHA512,      ChecksumTypeSRSum,
        ChecksumTypeC4,       ChecksumTypeCRC32};
    // Members added later to the vocabulary follow in ascending order.
    for (ChecksumType type : allCases()) {
      if (std::find(list.begin(), list.end(), type) == list.end()) list.push_back(type);
    }
    return list;
  }();
  return ordering;
}

const std::unordered_set<ChecksumType>& ChecksumType::setOfAllCases() {
  static const std::unordered_set<ChecksumType> set(allCases().begin(), allCases().end());
  return set;
}

std::string userPresentableDescription(const std::vector<ChecksumType>& types) {
  std::string text;
  for (ChecksumType type : ChecksumType::allCases()) {
    if (std::find(types.begin(), types.end(), type) == types.end()) continue;
    if (!text.empty()) text += ",";
    text += type.name();
  }
  return text;
}

void to_json(nlohmann::json& json, const ChecksumType& type) { json = type.rawValue(); }

void from_json(const nlohmann::json& json, ChecksumType& type) {
  if (!json.is_number_unsigned()) {
    // A non-negative integer parsed as signed is still acceptable.
    if (json.is_number_integer() && json.get<std::int64_t>() >= 0) {
      type = ChecksumType(json.get<std::uint64_t>());
      return;
    }
    throw DecodingError(
        DecodingError::Kind::typeMismatch, "",
        "ChecksumType: expected an unsigned integer, found " + std::string(json.type_name()));
  }
  type = ChecksumType(json.get<std::uint64_t>());
}

}  // namespace corvane
