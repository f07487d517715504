// CopyWriter: the one thread that writes an offload's copies to one destination.
//
// Reading threads queue the chunks of many files (interleaved, as several files are read at
// once); the writer writes each file to a hidden temporary beside its target and, once the file
// is complete, gives it the source's modification time and permissions. Complete files are
// committed in batches: the destination's file system is flushed once (syncfs), then every
// temporary of the batch is renamed to its final name (never replacing a file unless asked) and
// the folders are flushed. So a final name always holds a complete, flushed file, at the cost of
// one flush per batch instead of one per file.
//
// The first write, rename or flush that fails fails the destination as a whole (disk full,
// permission, drive removed): the files in progress are removed where possible, and every later
// file is failed with the same reason, without touching the disk.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "corvane/Bytes.hpp"

namespace corvane::offload {

// One file on its way to one destination.
struct FileCopy {
  enum class State {
    pending,    // queued or being written
    committed,  // under its final name, flushed
    failed,     // see error
    discarded,  // the source did not arrive whole: nothing left at the target
  };

  std::string target;  // the final path
  timespec modified{};
  mode_t mode = 0644;
  bool replace = false;   // an existing target may be replaced
  bool existing = false;  // a file was at the target already: not written, checked by reading

  // Written by the writer thread; read after CopyWriter::drain().
  State state = State::pending;
  std::string error;

  // The writer's own.
  std::string temporary;
  int descriptor = -1;
};

class CopyWriter {
 public:
  // `root` is a folder of the destination (any one: it names the file system to flush).
  // `queueLimit`: bytes queued at most; write() waits beyond it.
  CopyWriter(std::string root, std::size_t queueLimit);
  ~CopyWriter();
  CopyWriter(const CopyWriter&) = delete;
  CopyWriter& operator=(const CopyWriter&) = delete;

  // Queue the steps of one file, from one thread per file, in this order.
  void open(const std::shared_ptr<FileCopy>& file);
  void write(const std::shared_ptr<FileCopy>& file, SharedBytes bytes);
  // `complete`: the source was read whole and unchanged; otherwise the temporary is removed.
  void close(const std::shared_ptr<FileCopy>& file, bool complete);

  // Waits until everything queued was written and every complete file committed.
  void drain();

  // Marks the destination failed (e.g. its folders could not be made); later files fail.
  void fail(const std::string& reason);
  // Why the destination failed; empty while it has not.
  std::string failure() const;
  std::uint64_t bytesWritten() const { return bytesWritten_.load(std::memory_order_relaxed); }

 private:
  struct Task {
    enum class Kind { open, write, close, commit } kind;
    std::shared_ptr<FileCopy> file;
    SharedBytes bytes;
    bool complete = false;
  };

  void push(Task task, std::size_t bytes);
  void run();
  void handle(Task& task);
  void commit();
  void failDestination(const std::string& reason);
  void abandon(FileCopy& file, const std::string& reason);

  const std::string root_;
  const std::size_t queueLimit_;

  mutable std::mutex mutex_;
  std::condition_variable taskReady_;
  std::condition_variable spaceFree_;
  std::condition_variable drained_;
  std::deque<Task> tasks_;
  std::size_t queuedBytes_ = 0;
  std::uint64_t pushed_ = 0;
  std::uint64_t done_ = 0;
  bool ending_ = false;
  std::string failure_;

  // The writer thread's own.
  std::vector<std::shared_ptr<FileCopy>> batch_;
  std::uint64_t batchBytes_ = 0;
  std::uint64_t temporaryNumber_ = 0;
  std::atomic<std::uint64_t> bytesWritten_{0};

  std::thread thread_;
};

}  // namespace corvane::offload
