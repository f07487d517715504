#include "EngineInput.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <utility>

namespace corvane::tool {

std::vector<ChecksumType> checksumTypesOf(const std::vector<const AlgorithmName*>& algorithms) {
  std::vector<ChecksumType> types;
  types.reserve(algorithms.size());
  for (const AlgorithmName* algorithm : algorithms) types.push_back(algorithm->type);
  return types;
}

WalkOptions walkOptions(bool followSymlinks) {
  WalkOptions options;
  options.symlinks = followSymlinks ? SymlinkPolicy::follow : SymlinkPolicy::skip;
  return options;
}

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

FileSetInput operandInput(std::vector<std::string> operands, bool recursive,
                          const WalkOptions& options) {
  struct State {
    std::vector<std::string> operands;
    std::size_t next = 0;
    std::optional<DirectoryWalk> walk;
  };
  auto state = std::make_shared<State>();
  state->operands = std::move(operands);
  return FileSetInput([state, recursive, options]() -> std::optional<FileSetItem> {
    while (true) {
      if (state->walk) {
        if (std::optional<WalkEntry> entry = state->walk->next()) {
          FileSetItem item;
          item.entry = std::move(*entry);
          item.regularOnly = true;
          return item;
        }
        state->walk.reset();
      }
      if (state->next >= state->operands.size()) return std::nullopt;
      std::string operand = std::move(state->operands[state->next++]);
      if (recursive && isDirectory(operand)) {
        state->walk.emplace(std::move(operand), options);
        continue;
      }
      FileSetItem item = FileSetItem::path(operand);
      // "-" names standard input, as for the coreutils tools: read from where it stands
      // (reopening /dev/stdin would start a regular file over).
      if (operand == "-") item.descriptor = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
      return item;
    }
  });
}

std::string skipNotice(const WalkEntry& entry) {
  if (entry.problem == WalkProblem::symbolicLink) {
    return "symbolic link skipped (use --follow-symlinks)";
  }
  return entry.reason();
}

TotalsCounter::TotalsCounter(std::vector<std::string> operands, bool recursive, WalkOptions options,
                             RunReporter& reporter)
    : thread_([operands = std::move(operands), recursive, options = std::move(options),
               &reporter](std::stop_token stop) {
        std::uint64_t files = 0;
        std::uint64_t bytes = 0;
        for (const std::string& operand : operands) {
          if (!(recursive && isDirectory(operand))) {
            struct stat status {};
            ++files;
            if (::stat(operand.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
              bytes += static_cast<std::uint64_t>(status.st_size);
            }
            continue;
          }
          DirectoryWalk walk(operand, options);
          while (std::optional<WalkEntry> entry = walk.next()) {
            if (stop.stop_requested()) return;
            if (entry->kind != WalkEntry::Kind::file) continue;
            ++files;
            bytes += entry->size;
          }
        }
        reporter.setTotals(files, bytes);
      }) {}

TotalsCounter::~TotalsCounter() = default;  // the jthread asks the count to stop and joins it

}  // namespace corvane::tool
