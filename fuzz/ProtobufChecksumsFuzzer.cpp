// The protocol-buffer readers. Everything after the first byte is parsed as both messages:
// - Cloud_Checksum: whatever parses re-serialises to bytes that parse to an equal message and
//   serialise the same again; the same message rebuilt field by field with setValue(), or from
//   the lookup of its non-empty fields, is equal to it;
// - Cloud_ChecksumTypeList: whatever parses re-serialises and parses to the same list;
//   listAsLocalTypes keeps exactly the recognised, set cases in order of first appearance, each
//   once, and listAsProtoTypes maps them back to the same wire numbers;
// - when the first byte is odd, a Cloud_Checksum built from the same bytes read as texts (the
//   valid UTF-8 ones, as checksum texts are) survives serialisation unchanged.
// Arbitrary bytes never crash either parser.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzCheck.hpp"
#include "TextUnitsReference.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/ProtobufChecksums.hpp"

namespace {

using namespace corvane;

void checkChecksumMessage(const Bytes& bytes) {
  const auto message = Cloud_Checksum::parseFromBytes(bytes);
  if (!message) return;
  const Bytes wire = message->serializeAsBytes();
  const auto again = Cloud_Checksum::parseFromBytes(wire);
  CORVANE_FUZZ_CHECK(again.has_value());
  CORVANE_FUZZ_CHECK(*again == *message);
  CORVANE_FUZZ_CHECK(again->serializeAsBytes() == wire);

  Cloud_Checksum rebuilt;
  ChecksumLookup lookup;
  for (const ChecksumType type : ChecksumType::allCases()) {
    rebuilt.setValue(type, message->value(type));
    if (!message->value(type).empty()) lookup[type] = message->value(type);
  }
  CORVANE_FUZZ_CHECK(rebuilt == *message);
  CORVANE_FUZZ_CHECK(Cloud_Checksum(lookup) == *message);
}

void checkTypeList(const Bytes& bytes) {
  const auto types = parseChecksumTypeList(bytes);
  if (!types) return;
  const auto again = parseChecksumTypeList(serializeChecksumTypeList(*types));
  CORVANE_FUZZ_CHECK(again.has_value());
  CORVANE_FUZZ_CHECK(*again == *types);

  std::vector<ChecksumType> expected;
  for (const Cloud_ChecksumType type : *types) {
    const auto local = checksumTypeFromProto(type);
    CORVANE_FUZZ_CHECK(local.has_value() ==
                       (isRecognized(type) && type != Cloud_ChecksumType::notSet));
    if (!local) continue;
    CORVANE_FUZZ_CHECK(local->isKnownAlgorithm());
    CORVANE_FUZZ_CHECK(local->rawValue() == static_cast<std::uint64_t>(wireNumber(type)));
    if (std::find(expected.begin(), expected.end(), *local) == expected.end()) {
      expected.push_back(*local);
    }
  }
  const std::vector<ChecksumType> locals = listAsLocalTypes(*types);
  CORVANE_FUZZ_CHECK(locals == expected);
  const std::vector<Cloud_ChecksumType> wires = listAsProtoTypes(locals);
  CORVANE_FUZZ_CHECK(wires.size() == locals.size());
  for (std::size_t i = 0; i < wires.size(); ++i) {
    CORVANE_FUZZ_CHECK(cloudChecksumType(locals[i]) == wires[i]);
    CORVANE_FUZZ_CHECK(static_cast<std::uint64_t>(wireNumber(wires[i])) == locals[i].rawValue());
  }
  CORVANE_FUZZ_CHECK(listAsLocalTypes(wires) == locals);
}

void checkBuiltMessage(FuzzedDataProvider& input) {
  Cloud_Checksum message;
  for (const ChecksumType type : ChecksumType::allCases()) {
    if (!input.ConsumeBool()) continue;
    std::string text = input.ConsumeRandomLengthString(200);
    if (!fuzz::isWellFormedUtf8(text)) continue;
    message.setValue(type, text);
    CORVANE_FUZZ_CHECK(message.value(type) == text);
  }
  const auto again = Cloud_Checksum::parseFromBytes(message.serializeAsBytes());
  CORVANE_FUZZ_CHECK(again.has_value());
  CORVANE_FUZZ_CHECK(*again == message);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  corvane::fuzz::silenceLibraryLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const Bytes bytes(data + 1, data + size);
  checkChecksumMessage(bytes);
  checkTypeList(bytes);
  if (data[0] % 2 != 0) {
    FuzzedDataProvider input(data + 1, size - 1);
    checkBuiltMessage(input);
  }
  return 0;
}
