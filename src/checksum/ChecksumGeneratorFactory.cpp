// The factory of CorvaneChecksumGenerator: one table from algorithm to generator class.
#include "corvane/C4Identifier.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/DigestChecksumGenerators.hpp"
#include "corvane/XXHashChecksumGenerators.hpp"

namespace corvane {

std::shared_ptr<CorvaneChecksumGenerator> CorvaneChecksumGenerator::checksumGeneratorForType(
    ChecksumType type) {
  switch (type.rawValue()) {
    case ChecksumTypeMD5.rawValue():
      return std::make_shared<CorvaneChecksumGeneratorMD5>();
    case ChecksumTypeXXHash64.rawValue():
      return std::make_shared<CorvaneChecksumGeneratorXXHash64>();
    case ChecksumTypeCRC32.rawValue():
      return std::make_shared<CorvaneChecksumGeneratorCRC32>();
    case ChecksumTypeSHA1.rawValue():
      return std::make_shared<CorvaneChecksumGeneratorSHA1>();
    case ChecksumTypeSHA256.rawValue():
      return std::make_shared<CorvaneChecksumGeneratorSHA256>();
    case ChecksumTypeSHA512.rawValue():
      return std::make_shared<CorvaneChecksumGeneratorSHA512>();
    case ChecksumTypeC4.rawValue():
      return std::make_shared<CorvaneChecksumGeneratorC4>();
    case ChecksumTypeXXHashH364.rawValue():
      return std::make_shared<CorvaneChecksumGeneratorXXHashH364>();
    case ChecksumTypeXXHashH3128.rawValue():
      return std::make_shared<CorvaneChecksumGeneratorXXHashH3128>();
    default:
      // SR Sum has no engine; 0, masks and unknown bits are not algorithms.
      return nullptr;
  }
}

std::shared_ptr<CorvaneChecksumGenerator> CorvaneChecksumGenerator::checksumGeneratorForType(
    ChecksumType type, std::optional<std::string> precalculatedChecksum) {
  auto generator = checksumGeneratorForType(type);
  if (!generator) return nullptr;
  generator->setIsFinialized(true);
  generator->setChecksumValue(std::move(precalculatedChecksum));
  return generator;
}

}  // namespace corvane
