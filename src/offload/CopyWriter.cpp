#include "offload/CopyWriter.hpp"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "corvane/DirectoryWalk.hpp"
#include "util/DurableFile.hpp"

namespace corvane::offload {
namespace {

// A batch is committed (one flush of the file system, then the renames) once it holds this many
// bytes or files, and at the end: few enough flushes that small files do not cost one each, and
// little enough lost work when a run is killed.
constexpr std::uint64_t kBatchBytes = std::uint64_t{256} << 20;
constexpr std::size_t kBatchFiles = 2000;

std::string folderOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string reasonOf(const char* step, int code) {
  return std::string(step) + ": " + std::strerror(code);
}

}  // namespace

CopyWriter::CopyWriter(std::string root, std::size_t queueLimit)
    : root_(std::move(root)), queueLimit_(queueLimit), thread_([this] { run(); }) {}

CopyWriter::~CopyWriter() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  taskReady_.notify_all();
  thread_.join();
  // Whatever was never committed leaves no temporary behind.
  for (const std::shared_ptr<FileCopy>& file : batch_) {
    if (!file->temporary.empty()) ::unlink(file->temporary.c_str());
  }
}

void CopyWriter::push(Task task, std::size_t bytes) {
  std::unique_lock lock(mutex_);
  // A chunk bigger than the whole queue still goes in when the queue is empty.
  spaceFree_.wait(lock, [&] { return queuedBytes_ == 0 || queuedBytes_ + bytes <= queueLimit_; });
  queuedBytes_ += bytes;
  ++pushed_;
  tasks_.push_back(std::move(task));
  lock.unlock();
  taskReady_.notify_one();
}

void CopyWriter::open(const std::shared_ptr<FileCopy>& file) {
  push({Task::Kind::open, file, nullptr, false}, 0);
}

void CopyWriter::write(const std::shared_ptr<FileCopy>& file, SharedBytes bytes) {
  const std::size_t size = bytes->size();
  push({Task::Kind::write, file, std::move(bytes), false}, size);
}

void CopyWriter::close(const std::shared_ptr<FileCopy>& file, bool complete) {
  push({Task::Kind::close, file, nullptr, complete}, 0);
}

void CopyWriter::drain() {
  std::unique_lock lock(mutex_);
  const std::uint64_t target = ++pushed_;
  tasks_.push_back({Task::Kind::commit, nullptr, nullptr, false});
  taskReady_.notify_one();
  drained_.wait(lock, [&] { return done_ >= target; });
}

void CopyWriter::fail(const std::string& reason) {
  const std::lock_guard lock(mutex_);
  if (failure_.empty()) failure_ = reason;
}

std::string CopyWriter::failure() const {
  const std::lock_guard lock(mutex_);
  return failure_;
}

void CopyWriter::run() {
  for (;;) {
    Task task;
    {
      std::unique_lock lock(mutex_);
      taskReady_.wait(lock, [&] { return ending_ || !tasks_.empty(); });
      if (tasks_.empty()) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    const std::size_t bytes = task.bytes ? task.bytes->size() : 0;
    handle(task);
    task.bytes.reset();  // the reader may reuse the buffer
    {
      const std::lock_guard lock(mutex_);
      queuedBytes_ -= bytes;
      ++done_;
    }
    spaceFree_.notify_all();
    drained_.notify_all();
  }
}

void CopyWriter::abandon(FileCopy& file, const std::string& reason) {
  if (file.descriptor >= 0) ::close(file.descriptor);
  file.descriptor = -1;
  if (!file.temporary.empty()) ::unlink(file.temporary.c_str());
  file.temporary.clear();
  if (file.state == FileCopy::State::pending) {
    file.state = FileCopy::State::failed;
    file.error = reason;
  }
}

void CopyWriter::failDestination(const std::string& reason) {
  fail(reason);
  const std::string failure = this->failure();
  for (const std::shared_ptr<FileCopy>& file : batch_) abandon(*file, failure);
  batch_.clear();
  batchBytes_ = 0;
}

void CopyWriter::handle(Task& task) {
  if (task.kind == Task::Kind::commit) {
    commit();
    return;
  }
  FileCopy& file = *task.file;
  const std::string failure = this->failure();
  if (!failure.empty() || file.state != FileCopy::State::pending) {
    if (file.state == FileCopy::State::pending) abandon(file, failure);
    return;
  }
  switch (task.kind) {
    case Task::Kind::open: {
      const std::string folder = folderOf(file.target);
      file.temporary = joinPath(folder, std::string(detail::kTemporaryPrefix) +
                                            std::to_string(::getpid()) + "-" +
                                            std::to_string(++temporaryNumber_) + "-" +
                                            nameOf(file.target));
      file.descriptor =
          ::open(file.temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
      if (file.descriptor < 0) {
        const int code = errno;
        file.temporary.clear();
        failDestination(reasonOf("cannot create a file", code));
        abandon(file, this->failure());
      }
      return;
    }
    case Task::Kind::write: {
      const std::uint8_t* data = task.bytes->data();
      std::size_t left = task.bytes->size();
      while (left > 0) {
        const ssize_t count = ::write(file.descriptor, data, left);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) {
          const int code = count < 0 ? errno : EIO;
          failDestination(reasonOf("write error", code));
          abandon(file, this->failure());
          return;
        }
        data += count;
        left -= static_cast<std::size_t>(count);
        bytesWritten_.fetch_add(static_cast<std::uint64_t>(count), std::memory_order_relaxed);
      }
      return;
    }
    case Task::Kind::close: {
      if (!task.complete) {
        abandon(file, "");
        file.state = FileCopy::State::discarded;
        return;
      }
      // Permissions where the file system allows them (a FAT drive does not keep them).
      ::fchmod(file.descriptor, file.mode & 07777);
      const timespec times[2] = {file.modified, file.modified};
      if (::futimens(file.descriptor, times) != 0) {
        failDestination(reasonOf("cannot set the modification time", errno));
        abandon(file, this->failure());
        return;
      }
      const off_t size = ::lseek(file.descriptor, 0, SEEK_END);
      if (::close(file.descriptor) != 0) {
        file.descriptor = -1;
        failDestination(reasonOf("write error", errno));
        abandon(file, this->failure());
        return;
      }
      file.descriptor = -1;
      batch_.push_back(task.file);
      batchBytes_ += size > 0 ? static_cast<std::uint64_t>(size) : 0;
      if (batchBytes_ >= kBatchBytes || batch_.size() >= kBatchFiles) commit();
      return;
    }
    case Task::Kind::commit:
      return;
  }
}

void CopyWriter::commit() {
  if (batch_.empty()) return;
  // One flush of the file system puts every temporary of the batch on the disk; only then may
  // they take their final names.
  const int rootDescriptor = ::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (rootDescriptor < 0 || ::syncfs(rootDescriptor) != 0) {
    const int code = errno;
    if (rootDescriptor >= 0) ::close(rootDescriptor);
    failDestination(reasonOf("cannot flush the destination", code));
    return;
  }
  ::close(rootDescriptor);
  std::set<std::string> folders;
  for (const std::shared_ptr<FileCopy>& file : batch_) {
    int result = ::renameat2(AT_FDCWD, file->temporary.c_str(), AT_FDCWD, file->target.c_str(),
                             file->replace ? 0 : RENAME_NOREPLACE);
    if (result != 0 && errno == EINVAL && !file->replace) {
      // A file system without RENAME_NOREPLACE: a hard link fails the same way on an existing
      // name.
      result = ::link(file->temporary.c_str(), file->target.c_str());
      if (result == 0) ::unlink(file->temporary.c_str());
    }
    if (result != 0) {
      const int code = errno;
      ::unlink(file->temporary.c_str());
      file->temporary.clear();
      file->state = FileCopy::State::failed;
      file->error = code == EEXIST ? "a file appeared at the target during the copy; not replaced"
                                   : reasonOf("cannot rename the copy to its name", code);
      if (code != EEXIST) {
        failDestination(file->error);
        return;
      }
      continue;
    }
    file->temporary.clear();
    file->state = FileCopy::State::committed;
    folders.insert(folderOf(file->target));
  }
  batch_.clear();
  batchBytes_ = 0;
  for (const std::string& folder : folders) {
    if (const auto error = detail::syncFolder(folder)) {
      failDestination("cannot flush a folder: " + error.message);
      return;
    }
  }
}

}  // namespace corvane::offload
