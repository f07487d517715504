#include "StandardOutput.hpp"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>

#include "ExitStatus.hpp"

namespace corvane::tool {
namespace {

// The reader of our output went away: end as `sha256sum | head -1` ends, killed by SIGPIPE
// (status 141 in a shell), so that `set -o pipefail` sees an incomplete list, and say nothing.
[[noreturn]] void endBySigpipe() {
  std::signal(SIGPIPE, SIG_DFL);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  std::raise(SIGPIPE);
  _exit(128 + SIGPIPE);
}

}  // namespace

// The stream's own put area stays empty, so every write reaches overflow() or xsputn() and takes
// the lock: std::cerr is tied to std::cout, and the progress line's thread writing to stderr
// flushes standard output from beside the thread that prints.
StandardOutputBuffer::StandardOutputBuffer(int descriptor) : descriptor_(descriptor) {
  setp(nullptr, nullptr);
}

StandardOutputBuffer::~StandardOutputBuffer() { finish(); }

void StandardOutputBuffer::writeAll(const char* data, std::size_t length) {
  if (error_ != 0 || closed_) return;
  while (length > 0) {
    const ssize_t written = ::write(descriptor_, data, length);
    if (written < 0) {
      if (errno == EINTR) continue;
      if (errno == EPIPE) endBySigpipe();
      error_ = errno;
      return;
    }
    wroteAnything_ = true;
    data += written;
    length -= static_cast<std::size_t>(written);
  }
}

bool StandardOutputBuffer::drainLocked() {
  writeAll(buffer_.data(), used_);
  used_ = 0;
  return error_ == 0;
}

void StandardOutputBuffer::appendLocked(const char* text, std::size_t length) {
  if (length > buffer_.size() - used_) {
    if (!drainLocked()) return;
    if (length >= buffer_.size()) {
      writeAll(text, length);
      return;
    }
  }
  std::memcpy(buffer_.data() + used_, text, length);
  used_ += length;
}

StandardOutputBuffer::int_type StandardOutputBuffer::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  const std::lock_guard lock(mutex_);
  const char character = traits_type::to_char_type(c);
  appendLocked(&character, 1);
  return error_ == 0 ? c : traits_type::eof();
}

int StandardOutputBuffer::sync() {
  const std::lock_guard lock(mutex_);
  return drainLocked() ? 0 : -1;
}

std::streamsize StandardOutputBuffer::xsputn(const char* text, std::streamsize count) {
  const std::lock_guard lock(mutex_);
  appendLocked(text, static_cast<std::size_t>(count));
  return error_ == 0 ? count : 0;
}

int StandardOutputBuffer::error() const {
  const std::lock_guard lock(mutex_);
  return error_;
}

int StandardOutputBuffer::finish() {
  const std::lock_guard lock(mutex_);
  if (closed_) return error_;
  drainLocked();
  closed_ = true;
  // A delayed write error (a full disk over NFS, say) shows up only at the close. A standard
  // output that was closed before we started is an error only if something was to be written.
  if (::close(descriptor_) != 0 && error_ == 0 && !(errno == EBADF && !wroteAnything_)) {
    error_ = errno;
  }
  return error_;
}

StandardOutput::StandardOutput() : buffer_(STDOUT_FILENO), previous_(std::cout.rdbuf(&buffer_)) {}

StandardOutput::~StandardOutput() {
  buffer_.finish();
  std::cout.rdbuf(previous_);
}

int StandardOutput::finish(int status) {
  std::cout.flush();
  const int error = buffer_.finish();
  if (error == 0) return status;
  std::cerr << kProgramName << ": write error: " << std::strerror(error) << '\n';
  return kExitWriteError;
}

}  // namespace corvane::tool
