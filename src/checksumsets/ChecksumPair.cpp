// JSON coding of ChecksumPair. The decoder reports failures as DecodingError naming the key, so
// that callers can tell a missing field from a malformed one whatever format (JSON, CBOR,
// MessagePack) the record came in.
#include <nlohmann/json.hpp>

#include "corvane/ChecksumLookup.hpp"
#include "corvane/Exception.hpp"

namespace {

constexpr const char* kValueKey = "value";
constexpr const char* kAlgorithmKey = "algorithm";

[[noreturn]] void throwKeyNotFound(const std::string& key) {
  throw corvane::DecodingError(corvane::DecodingError::Kind::keyNotFound, key,
                               "ChecksumPair: no value associated with key \"" + key + "\"");
}

[[noreturn]] void throwTypeMismatch(const std::string& key, const std::string& expected,
                                    const nlohmann::json& found) {
  throw corvane::DecodingError(corvane::DecodingError::Kind::typeMismatch, key,
                               "ChecksumPair: expected " + expected + " for key \"" + key +
                                   "\" but found " + found.type_name());
}

}  // namespace

corvane::ChecksumPair nlohmann::adl_serializer<corvane::ChecksumPair>::from_json(
    const nlohmann::json& json) {
  if (!json.is_object()) {
    throw corvane::DecodingError(
        corvane::DecodingError::Kind::typeMismatch, "",
        std::string("ChecksumPair: expected an object but found ") + json.type_name());
  }

  // Fields are checked in declaration order, so a record missing both reports "value".
  const auto value = json.find(kValueKey);
  if (value == json.end()) {
    throwKeyNotFound(kValueKey);
  }
  if (!value->is_string()) {
    throwTypeMismatch(kValueKey, "a text", *value);
  }

  const auto algorithm = json.find(kAlgorithmKey);
  if (algorithm == json.end()) {
    throwKeyNotFound(kAlgorithmKey);
  }
  // ChecksumType owns the rule for what counts as its number; only the key is added here, since
  // its own error cannot know under which key it was stored.
  corvane::ChecksumType type;
  try {
    type = algorithm->get<corvane::ChecksumType>();
  } catch (const corvane::DecodingError& error) {
    throw corvane::DecodingError(
        error.kind(), kAlgorithmKey,
        std::string("ChecksumPair: key \"") + kAlgorithmKey + "\": " + error.what());
  } catch (const nlohmann::json::exception&) {
    throwTypeMismatch(kAlgorithmKey, "an unsigned integer", *algorithm);
  }
  return corvane::ChecksumPair(value->get<std::string>(), type);
}

void nlohmann::adl_serializer<corvane::ChecksumPair>::to_json(nlohmann::json& json,
                                                              const corvane::ChecksumPair& pair) {
  // Assigning a fresh object drops whatever the target held, so the output has the two keys only.
  json = nlohmann::json::object();
  json[kValueKey] = pair.value;
  json[kAlgorithmKey] = pair.algorithm;
}
