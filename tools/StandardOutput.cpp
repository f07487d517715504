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

StandardOutputBuffer::StandardOutputBuffer(int descriptor) : descriptor_(descriptor) {
  setp(buffer_.data(), buffer_.data() + buffer_.size());
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

bool StandardOutputBuffer::drain() {
  writeAll(pbase(), static_cast<std::size_t>(pptr() - pbase()));
  setp(buffer_.data(), buffer_.data() + buffer_.size());
  return error_ == 0;
}

StandardOutputBuffer::int_type StandardOutputBuffer::overflow(int_type c) {
  if (!drain()) return traits_type::eof();
  if (!traits_type::eq_int_type(c, traits_type::eof())) {
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
  }
  return traits_type::not_eof(c);
}

int StandardOutputBuffer::sync() { return drain() ? 0 : -1; }

std::streamsize StandardOutputBuffer::xsputn(const char* text, std::streamsize count) {
  const auto length = static_cast<std::size_t>(count);
  if (length <= static_cast<std::size_t>(epptr() - pptr())) {
    std::memcpy(pptr(), text, length);
    pbump(static_cast<int>(length));
    return count;
  }
  // Larger than what is left: write the buffer, then the text directly.
  if (!drain()) return 0;
  if (length < buffer_.size()) {
    std::memcpy(pptr(), text, length);
    pbump(static_cast<int>(length));
    return count;
  }
  writeAll(text, length);
  return error_ == 0 ? count : 0;
}

int StandardOutputBuffer::finish() {
  if (closed_) return error_;
  drain();
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
