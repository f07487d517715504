// StandardOutput: the tool's standard output, written straight to file descriptor 1 through a
// buffer of our own, so that a failed write is never lost.
//
// std::cout over stdio only sets a stream flag when a write fails, and the reason is gone by the
// time anyone looks; a list written to a full disk would then look complete. This buffer keeps
// the errno of the first failed write (including the final flush and the close of the
// descriptor), after which it drops further output. A reader that went away (EPIPE) ends the
// process the way the standard tools end: quietly, by SIGPIPE.
#pragma once

#include <array>
#include <mutex>
#include <streambuf>

namespace corvane::tool {

class StandardOutputBuffer : public std::streambuf {
 public:
  explicit StandardOutputBuffer(int descriptor);
  ~StandardOutputBuffer() override;
  StandardOutputBuffer(const StandardOutputBuffer&) = delete;
  StandardOutputBuffer& operator=(const StandardOutputBuffer&) = delete;

  // Writes what is buffered and closes the descriptor; the errno of the first failure of any
  // write, the final flush or the close, or 0. Output after finish() is dropped.
  int finish();
  // The errno of the first failed write so far, or 0.
  int error() const;

 protected:
  int_type overflow(int_type c) override;
  int sync() override;
  std::streamsize xsputn(const char* text, std::streamsize count) override;

 private:
  // Writes what is buffered and empties the buffer; false after a failure. With mutex_ held.
  bool drainLocked();
  void appendLocked(const char* text, std::size_t length);
  void writeAll(const char* data, std::size_t length);

  mutable std::mutex mutex_;  // guards every member below and the writes to the descriptor
  int descriptor_;
  int error_ = 0;
  bool wroteAnything_ = false;
  bool closed_ = false;
  std::array<char, 1 << 16> buffer_{};
  std::size_t used_ = 0;
};

// Points std::cout at a StandardOutputBuffer for as long as it lives, and restores it after.
class StandardOutput {
 public:
  StandardOutput();
  ~StandardOutput();
  StandardOutput(const StandardOutput&) = delete;
  StandardOutput& operator=(const StandardOutput&) = delete;

  // Ends the output (see StandardOutputBuffer::finish). When a write failed, reports
  // "corvane-checksum: write error: <reason>" on stderr and returns kExitWriteError; otherwise
  // returns `status`.
  int finish(int status);

 private:
  StandardOutputBuffer buffer_;
  std::streambuf* previous_;
};

}  // namespace corvane::tool
