#include "corvane/ChecksumGenerator.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <utility>

#include "checksum/BlockingHandOff.hpp"
#include "corvane/ChecksumLookup.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "dispatch/Group.hpp"
#include "engine/FileReader.hpp"
#include "util/Fatal.hpp"

namespace corvane {
namespace {

// One generator per algorithm, in the order the algorithms were first listed.
using GeneratorTable =
    std::vector<std::pair<ChecksumType, std::shared_ptr<CorvaneChecksumGenerator>>>;

GeneratorTable buildGeneratorTable(const std::vector<ChecksumType>& algorithms) {
  GeneratorTable table;
  for (ChecksumType type : algorithms) {
    auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(type);
    if (!generator) continue;  // no engine for this value: skipped silently
    auto existing = std::find_if(table.begin(), table.end(),
                                 [type](const auto& entry) { return entry.first == type; });
    if (existing != table.end()) {
      existing->second = std::move(generator);  // listed twice: the later one replaces
    } else {
      table.emplace_back(type, std::move(generator));
    }
  }
  return table;
}

// Finalizes every generator, one after another, collecting the texts.
ChecksumLookup finalizeAll(const GeneratorTable& table, dispatch::Group& group) {
  ChecksumLookup results;
  for (const auto& [type, generator] : table) {
    if (auto text = detail::finalizeAndWait(*generator, group)) {
      results[type] = std::move(*text);
    } else {
      results.erase(type);  // no text: no entry for this algorithm
    }
  }
  return results;
}

void supplyAll(const GeneratorTable& table, const ChecksumLookup& results,
               const ChecksumGenerator::ChecksumSupplyBlock& supply) {
  for (const auto& entry : table) {
    auto found = results.find(entry.first);
    if (found != results.end() && supply) supply(found->second, entry.first);
  }
}

std::uint64_t checkedByteCount(double total) {
  if (!std::isfinite(total) || total < 0 ||
      total >= static_cast<double>(std::numeric_limits<std::uint64_t>::max())) {
    detail::fatalError("ChecksumGenerator: byte total out of range");
  }
  return static_cast<std::uint64_t>(total);
}

}  // namespace

ChecksumGenerator::ChecksumGenerator(std::vector<ChecksumType> algorithms)
    : algorithms_(std::move(algorithms)) {}

void ChecksumGenerator::generateChecksumForData(
    const Bytes& data, const ProgressBlock& progressBlock,
    const ChecksumSupplyBlock& checksumSupplyBlock) const {
  const GeneratorTable table = buildGeneratorTable(algorithms_);
  if (table.empty()) return;

  dispatch::Group group;
  double total = 0.0;
  bool stop = false;
  const std::size_t count = data.size();
  // The caller's buffer outlives the run, and every task that reads it has finished before the
  // run returns, so the generators may borrow it instead of a copy.
  const SharedBytes borrowed(&data, [](const Bytes*) {});

  for (const auto& entry : table) {
    if (stop) break;
    detail::addAndWait(*entry.second, group, borrowed, [&total, count] { total += double(count); });
    if (count >= 1 && progressBlock) {
      // Cumulative over algorithms: N algorithms report 1.0 ... N.0.
      progressBlock(static_cast<float>(total / double(count)), checkedByteCount(total), &stop);
    }
  }
  // A stop still finalizes every generator; unfed ones give the empty-input checksum.
  const ChecksumLookup results = finalizeAll(table, group);
  supplyAll(table, results, checksumSupplyBlock);
}

void ChecksumGenerator::generateChecksumsForFile(
    const std::string& file, const ProgressBlock& progressBlock,
    const ChecksumSupplyBlock& checksumSupplyBlock) const {
  const GeneratorTable table = buildGeneratorTable(algorithms_);
  if (table.empty()) return;

  // Read as FileReader reads every file, in chunks of readSize(). The verdict of finish() is not
  // asked for: this form supplies the checksums of the bytes read, also when a read error ended
  // reading early or the file grew or shrank meanwhile.
  dispatch::Group group;
  bool stop = false;
  {
    engine::FileReader reader =
        engine::FileReader::open(file, {.chunkSize = static_cast<std::size_t>(readSize_)});
    if (reader.error()) return;  // missing, unreadable, a folder: no callback
    const off_t sizeAtOpen = reader.statusAtOpen().st_size;
    const std::uint64_t fileSize = sizeAtOpen > 0 ? static_cast<std::uint64_t>(sizeAtOpen) : 0;
    std::uint64_t bytesRead = 0;
    while (!stop) {
      SharedBytes chunk = reader.next();
      if (!chunk) break;  // end of file, or a read error: keep what was read
      for (const auto& entry : table) detail::addAndWait(*entry.second, group, chunk);
      if (fileSize != 0) {
        if (bytesRead > std::numeric_limits<std::uint64_t>::max() - chunk->size()) {
          detail::fatalError("ChecksumGenerator: byte count overflow");
        }
        bytesRead += chunk->size();
        if (progressBlock) {
          progressBlock(static_cast<float>(double(bytesRead) / double(fileSize)), bytesRead, &stop);
        }
      }
    }
  }                  // the file is closed before finalizing
  if (stop) return;  // a stopped file run supplies nothing

  const ChecksumLookup results = finalizeAll(table, group);
  supplyAll(table, results, checksumSupplyBlock);
}

std::optional<std::string> ChecksumGenerator::generateChecksumForData(const Bytes& data,
                                                                      ChecksumType algorithm) {
  std::optional<std::string> kept;
  ChecksumGenerator({algorithm})
      .generateChecksumForData(
          data, [](float, std::uint64_t, bool*) {},
          [&kept, algorithm](const std::string& text, ChecksumType type) {
            if (type == algorithm) kept = text;
          });
  return kept;
}

std::optional<std::string> ChecksumGenerator::generateChecksumForFile(const std::string& file,
                                                                      ChecksumType algorithm) {
  std::optional<std::string> kept;
  ChecksumGenerator({algorithm})
      .generateChecksumsForFile(
          file, [](float, std::uint64_t, bool*) {},
          [&kept, algorithm](const std::string& text, ChecksumType type) {
            if (type == algorithm) kept = text;
          });
  return kept;
}

}  // namespace corvane
