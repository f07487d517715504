#include "util/DurableFile.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>

namespace corvane::detail {
namespace {

DurableWriteError failure(int code, const std::string& path) {
  return {code, path + ": " + std::strerror(code)};
}

std::string folderOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseNameOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// A name no other writer (of this or another process) picks at the same time.
std::string temporaryPathFor(const std::string& path) {
  static std::atomic<unsigned> counter{0};
  thread_local std::mt19937_64 random(std::random_device{}());
  std::string name(kTemporaryPrefix);
  name += std::to_string(::getpid());
  name += '-';
  name += std::to_string(counter.fetch_add(1));
  name += '-';
  name += std::to_string(random() & 0xffffff);
  name += '-';
  name += baseNameOf(path);
  const std::string folder = folderOf(path);
  return folder == "/" ? "/" + name : folder + "/" + name;
}

int closeKeepingErrno(int descriptor) {
  const int saved = errno;
  ::close(descriptor);
  errno = saved;
  return saved;
}

}  // namespace

DurableWriteError syncFolder(const std::string& folder) {
  const int descriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return failure(errno, folder);
  if (::fsync(descriptor) != 0) return failure(closeKeepingErrno(descriptor), folder);
  ::close(descriptor);
  return {};
}

DurableWriteError writeFileDurably(const std::string& path, std::string_view bytes,
                                   ReplacePolicy policy) {
  const std::string temporary = temporaryPathFor(path);
  const int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (descriptor < 0) return failure(errno, temporary);
  const auto abandon = [&temporary](int code, const std::string& where) {
    ::unlink(temporary.c_str());
    return failure(code, where);
  };
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t written = ::write(descriptor, bytes.data() + done, bytes.size() - done);
    if (written < 0) {
      if (errno == EINTR) continue;
      return abandon(closeKeepingErrno(descriptor), temporary);
    }
    done += static_cast<std::size_t>(written);
  }
  if (::fsync(descriptor) != 0) return abandon(closeKeepingErrno(descriptor), temporary);
  if (::close(descriptor) != 0) return abandon(errno, temporary);

  if (policy == ReplacePolicy::neverReplace) {
    // link() fails with EEXIST instead of replacing: an existing file is never touched, even
    // when two writers race for the same name.
    if (::link(temporary.c_str(), path.c_str()) != 0) return abandon(errno, path);
    ::unlink(temporary.c_str());
  } else if (::rename(temporary.c_str(), path.c_str()) != 0) {
    return abandon(errno, path);
  }
  return syncFolder(folderOf(path));
}

int removeStaleTemporaries(const std::string& folder) {
  DIR* stream = ::opendir(folder.c_str());
  if (stream == nullptr) return 0;
  int removed = 0;
  while (const dirent* entry = ::readdir(stream)) {
    if (!std::string_view(entry->d_name).starts_with(kTemporaryPrefix)) continue;
    if (::unlinkat(::dirfd(stream), entry->d_name, 0) == 0) {
      ++removed;
    } else if (errno == EISDIR) {
      // A folder being assembled (a history copied whole) by a writer that was killed.
      std::error_code ignored;
      if (std::filesystem::remove_all(std::filesystem::path(folder) / entry->d_name, ignored) > 0) ++removed;
    }
  }
  ::closedir(stream);
  if (removed != 0) syncFolder(folder);
  return removed;
}

}  // namespace corvane::detail
