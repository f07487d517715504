// checkOffloadPaths: the refusals an offload makes before it touches anything.
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "corvane/OffloadJob.hpp"

namespace corvane {
namespace {

// `path` with links, "." and ".." resolved; nothing when it does not exist.
std::optional<std::string> resolved(const std::string& path) {
  char buffer[PATH_MAX];
  if (::realpath(path.c_str(), buffer) == nullptr) return std::nullopt;
  return std::string(buffer);
}

// Whether `inner` is `outer` or lies below it (both resolved).
bool within(const std::string& inner, const std::string& outer) {
  if (inner == outer) return true;
  const std::string prefix = outer == "/" ? outer : outer + "/";
  return inner.starts_with(prefix);
}

}  // namespace

std::optional<std::string> checkOffloadPaths(const std::string& source,
                                             const std::vector<std::string>& destinations) {
  const std::optional<std::string> from = resolved(source);
  if (!from) return source + ": " + std::strerror(errno);
  struct stat status {};
  if (::stat(from->c_str(), &status) != 0) return source + ": " + std::strerror(errno);
  if (!S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode)) {
    return source + ": not a folder or a regular file";
  }
  if (destinations.empty()) return std::string("no destination");
  std::vector<std::string> seen;
  for (const std::string& destination : destinations) {
    const std::optional<std::string> to = resolved(destination);
    if (!to) return destination + ": " + std::strerror(errno);
    if (::stat(to->c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
      return destination + ": not a folder";
    }
    if (*to == *from) return destination + ": the source itself cannot be a destination";
    if (within(*to, *from)) return destination + ": a destination cannot lie inside the source";
    const std::string name = from->substr(from->rfind('/') + 1);
    if ((*to == "/" ? "/" + name : *to + "/" + name) == *from) {
      return destination + ": the copy would be the source itself";
    }
    for (const std::string& earlier : seen) {
      if (earlier == *to) return destination + ": the same destination is named twice";
    }
    seen.push_back(*to);
  }
  return std::nullopt;
}

}  // namespace corvane
