// The composite generators over arbitrary lists of checksum texts.
//
// Input: a settings byte (method, de-duplication, generator, scheme), an algorithm byte, then the
// texts, one per line. A line starting with '@' stands for the checksum of the rest of the line
// under the chosen algorithm, a line starting with '!' for the C4 ID of the rest of the line, so
// that decodable texts are common.
//
// Checked, besides never crashing:
// - the flat scheme equals a reference built here: the list de-duplicated when asked, decoded
//   text by text (C4 IDs through convertC4ChecksumToData, everything else through
//   dataFromHexString) or joined as text, then hashed with the one-shot helper
//   CorvaneChecksumGenerator::generateDataChecksum; method().data() gives the same bytes;
// - the pairwise scheme equals a reference hash tree built here the same way;
// - a C4 list holding a text that is no C4 ID, or an algorithm without a generator, gives the
//   absent result; the same input twice gives the same result; the lookup form reports exactly
//   the list's result; sortChecksums sorts in byte order.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "FuzzCheck.hpp"
#include "corvane/C4Identifier.hpp"
#include "corvane/ChecksumGenerator.hpp"
#include "corvane/CompositeChecksumGenerator.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"

namespace {

using namespace corvane;

constexpr std::size_t kMaximumTexts = 64;

std::vector<std::string> withoutDuplicates(const std::vector<std::string>& texts) {
  std::vector<std::string> kept;
  for (const std::string& text : texts) {
    if (std::find(kept.begin(), kept.end(), text) == kept.end()) kept.push_back(text);
  }
  return kept;
}

// The bytes a method gives for `texts`, decoded one text at a time.
std::optional<Bytes> referenceData(const CompositeChecksumMethod& method,
                                   const std::vector<std::string>& texts,
                                   std::optional<ChecksumType> algorithm) {
  Bytes bytes;
  for (const std::string& text : texts) {
    if (!method.isData()) {
      bytes.insert(bytes.end(), text.begin(), text.end());
    } else if (algorithm == ChecksumTypeC4) {
      const auto decoded = CorvaneC4DataUtility::convertC4ChecksumToData(text, method.bigEndian());
      if (!decoded) return std::nullopt;
      bytes.insert(bytes.end(), decoded->begin(), decoded->end());
    } else {
      const Bytes decoded = CorvaneChecksumGenerator::dataFromHexString(text, !method.bigEndian());
      bytes.insert(bytes.end(), decoded.begin(), decoded.end());
    }
  }
  return bytes;
}

std::optional<std::string> referenceHash(const std::optional<Bytes>& bytes,
                                         ChecksumType algorithm) {
  if (!bytes) return std::nullopt;
  return CorvaneChecksumGenerator::generateDataChecksum(std::make_shared<const Bytes>(*bytes),
                                                        algorithm);
}

std::optional<std::string> referenceTree(const CompositeChecksumMethod& method,
                                         std::vector<std::string> items, ChecksumType algorithm) {
  if (items.empty()) return std::nullopt;
  while (items.size() > 1) {
    std::vector<std::string> next;
    for (std::size_t i = 0; i + 1 < items.size(); i += 2) {
      const auto hash =
          referenceHash(referenceData(method, {items[i], items[i + 1]}, algorithm), algorithm);
      if (!hash) return std::nullopt;
      next.push_back(*hash);
    }
    std::sort(next.begin(), next.end());
    if (items.size() % 2 != 0) next.push_back(items.back());
    items = std::move(next);
  }
  return items.front();
}

ChecksumType algorithmFrom(std::uint8_t byte) {
  const auto& all = ChecksumType::allCases();
  const std::size_t index = byte % (all.size() + 3);
  if (index < all.size()) return all[index];
  // No algorithm, a combination of two flags, an unknown bit.
  static const ChecksumType kOthers[] = {ChecksumType(0), ChecksumType(3), ChecksumType(1024)};
  return kOthers[index - all.size()];
}

std::vector<std::string> textsFrom(const std::uint8_t* data, std::size_t size,
                                   ChecksumType algorithm) {
  std::vector<std::string> texts;
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::size_t start = 0;
  while (start <= input.size() && texts.size() < kMaximumTexts) {
    std::size_t end = input.find('\n', start);
    if (end == std::string::npos) end = input.size();
    std::string line = input.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && (line[0] == '@' || line[0] == '!')) {
      const Bytes rest(line.begin() + 1, line.end());
      const auto checksum = ChecksumGenerator::generateChecksumForData(
          rest, line[0] == '@' ? algorithm : ChecksumTypeC4);
      if (checksum) line = *checksum;
    }
    texts.push_back(std::move(line));
  }
  return texts;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  corvane::fuzz::silenceLibraryLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::uint8_t settings = data[0];
  const CompositeChecksumMethod method =
      (settings & 3) == 0 ? CompositeChecksumMethod::checksumsAsText()
                          : CompositeChecksumMethod::checksumsAsData((settings & 3) >= 2);
  const bool removeDuplicates = (settings & 4) != 0;
  const bool smpte = (settings & 8) != 0;
  const unsigned scheme = (settings >> 4) & 3;  // 1 and 2: pairwise, sorted or not
  const ChecksumType algorithm = algorithmFrom(data[1]);
  const std::vector<std::string> texts = textsFrom(data + 2, size - 2, algorithm);

  Smpte2144Colon2017CompositeChecksumGenerator smpteGenerator(method);
  smpteGenerator.setRemoveDuplicates(removeDuplicates);
  const CorvaneStandardCompositeChecksumGenerator standardGenerator(
      method, removeDuplicates, CompositeChecksumLexicalOrdering::pathName);
  const CompositeChecksumGenerator& generator =
      smpte ? static_cast<const CompositeChecksumGenerator&>(smpteGenerator) : standardGenerator;
  CORVANE_FUZZ_CHECK(generator.method() == method);
  CORVANE_FUZZ_CHECK(generator.removeDuplicates() == removeDuplicates);

  const std::vector<std::string> kept = removeDuplicates ? withoutDuplicates(texts) : texts;
  const bool hasGenerator =
      CorvaneChecksumGenerator::checksumGeneratorForType(algorithm) != nullptr;
  bool undecodable = false;
  if (method.isData() && algorithm == ChecksumTypeC4) {
    for (const std::string& text : texts) {
      undecodable =
          undecodable || !CorvaneC4DataUtility::convertC4ChecksumToData(text, method.bigEndian());
    }
  }

  if (smpte && (scheme == 1 || scheme == 2)) {
    const bool sort = scheme == 1;
    const auto result = smpteGenerator.generate(texts, algorithm, sort);
    std::vector<std::string> sorted = kept;
    std::sort(sorted.begin(), sorted.end());
    CORVANE_FUZZ_CHECK(Smpte2144Colon2017CompositeChecksumGenerator::sortChecksums(kept) == sorted);
    const std::vector<std::string>& items = sort ? sorted : kept;
    CORVANE_FUZZ_CHECK(result == referenceTree(method, items, algorithm));
    if (items.size() == 1) CORVANE_FUZZ_CHECK(result == items.front());
    if (items.size() >= 2 && (undecodable || !hasGenerator)) CORVANE_FUZZ_CHECK(!result);
    CORVANE_FUZZ_CHECK(smpteGenerator.generate(texts, algorithm, sort) == result);
    return 0;
  }

  // The flat scheme.
  const std::optional<Bytes> bytes = referenceData(method, kept, algorithm);
  CORVANE_FUZZ_CHECK(method.data(kept, algorithm) == bytes);
  if (method.isData()) {
    CORVANE_FUZZ_CHECK(method.data(kept, std::nullopt) ==
                       referenceData(method, kept, std::nullopt));
  }
  const auto result = generator.generate(texts, algorithm);
  CORVANE_FUZZ_CHECK(result == referenceHash(bytes, algorithm));
  if (undecodable || !hasGenerator) CORVANE_FUZZ_CHECK(!result);
  CORVANE_FUZZ_CHECK(generator.generate(texts, algorithm) == result);

  int calls = 0;
  generator.generate({{algorithm, texts}}, [&](const std::string& composite, ChecksumType type) {
    ++calls;
    CORVANE_FUZZ_CHECK(type == algorithm);
    CORVANE_FUZZ_CHECK(result && composite == *result);
  });
  CORVANE_FUZZ_CHECK(calls == (result ? 1 : 0));
  return 0;
}
