/* A fault-injecting LD_PRELOAD library for tests: it makes the files under one folder behave like a
 * drive that fills up (or is pulled out) in the middle of a run, so that tests can watch a program
 * cope with one destination failing while the others go on.
 *
 * Configuration, read once per process from the environment:
 *   CORVANE_FAULT_PREFIX=/abs/path   only files at or under this path are affected
 *   CORVANE_FAULT_AFTER_BYTES=N      the budget: the first N bytes written through descriptors of
 *                                    such files (all threads of the process together) succeed;
 *                                    the write that would go beyond N writes up to N and returns
 *                                    that short count; every later one fails
 *   CORVANE_FAULT_ERRNO=ENOSPC       the errno of the failures: ENOSPC (the default, a full
 *                                    drive), EIO (a removed drive), EACCES or EROFS
 * Without CORVANE_FAULT_PREFIX and CORVANE_FAULT_AFTER_BYTES the library passes every call through
 * unchanged; with only one of them, or with values it cannot use, it names the fault on stderr and
 * ends the program (exit status 70) before main, so that a mistyped test cannot pass by testing
 * nothing.
 *
 * The limit counts as crossed from the first write that it cuts short or refuses. From then on
 * these fail too, with the same errno:
 *   - opens of matching paths for writing (O_WRONLY, O_RDWR, O_CREAT, O_TRUNC; fopen modes with
 *     'w', 'a' or '+'), mkdir/mkdirat of matching paths, truncate of matching paths;
 *   - rename/renameat/renameat2 whose target is a matching path;
 *   - fsync, fdatasync, sync_file_range, fallocate, posix_fallocate and ftruncate of tracked
 *     descriptors.
 *
 * Tracked descriptors are those opened on matching paths with open, open64, openat, openat64,
 * creat, creat64 (and the _FORTIFY_SOURCE forms __open_2 ...) or fopen/fopen64, and their copies
 * made with dup, dup2, dup3 and fcntl(F_DUPFD*); close, close_range and fclose forget them. Writes
 * that count against the budget: write, pwrite, pwrite64, writev, pwritev, pwritev64, pwritev2,
 * pwritev64v2, and the kernel-side copies copy_file_range, sendfile, sendfile64 and splice into a
 * tracked descriptor.
 *
 * Not seen: writes through stdio (fwrite, fprintf, ...: glibc's FILE code calls its internal
 * write, which no preloaded library can replace), memory-mapped writes, aio and io_uring. Paths
 * are compared after making them absolute (against the working directory, or the folder of an
 * openat descriptor as /proc/self/fd names it) and removing "." and ".." lexically; the prefix
 * matches as given and as realpath(3) resolves it when the library starts, so a prefix reached
 * through a symbolic link is seen either way. The budget is per process: children of the program
 * get a budget of their own. Descriptors from 2^20 on are not tracked.
 *
 * Thread safety: the counters and the table of tracked descriptors are atomics; the configuration
 * and the real functions are set up once (pthread_once) before the first call uses them.
 */
#define _GNU_SOURCE
/* The interposed functions must keep their own names: no redirection of open to open64 and no
 * fortified inline wrappers around them. */
#undef _FILE_OFFSET_BITS
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

/* The _FORTIFY_SOURCE entry points of glibc (bits/fcntl2.h declares them only when fortifying). */
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int dirfd, const char* path, int flags);
int __openat64_2(int dirfd, const char* path, int flags);

#define SHIM_EXPORT __attribute__((visibility("default")))

/* --- the real functions ------------------------------------------------------------------------
 */

/* clang-format off */
#define SHIM_REAL_FUNCTIONS(X)                                                                    \
  X(open) X(open64) X(openat) X(openat64) X(creat) X(creat64)                                    \
  X(__open_2) X(__open64_2) X(__openat_2) X(__openat64_2) X(fopen) X(fopen64)                   \
  X(fclose) X(close) X(close_range) X(dup) X(dup2) X(dup3) X(fcntl) X(fcntl64)                   \
  X(write) X(pwrite) X(pwrite64) X(writev) X(pwritev) X(pwritev64) X(pwritev2) X(pwritev64v2)    \
  X(copy_file_range) X(sendfile) X(sendfile64) X(splice)                                         \
  X(fsync) X(fdatasync) X(sync_file_range) X(fallocate) X(fallocate64) X(posix_fallocate)        \
  X(posix_fallocate64) X(ftruncate) X(ftruncate64) X(truncate) X(truncate64)                     \
  X(mkdir) X(mkdirat) X(rename) X(renameat) X(renameat2)
/* clang-format on */

#define SHIM_DECLARE_REAL(name) __typeof__(&name) name;
static struct { SHIM_REAL_FUNCTIONS(SHIM_DECLARE_REAL) } real;

/* --- configuration -----------------------------------------------------------------------------
 */

/* Descriptors below this are tracked; the table is zero pages until used. */
#define SHIM_TRACKED_LIMIT (1 << 20)

static struct {
  bool active;
  char prefix[PATH_MAX];
  size_t prefixLength;
  /* The prefix as realpath(3) resolved it at start; empty when it did not exist then. */
  char realPrefix[PATH_MAX];
  size_t realPrefixLength;
  bool haveRealPrefix;
  uint64_t limit;
  int error;
} config;

static pthread_once_t setUpOnce = PTHREAD_ONCE_INIT;
/* Bytes of the budget handed to writes so far (returned when a write lands fewer). */
static _Atomic uint64_t bytesGranted;
/* Set by the first write that the budget cut short or refused. */
static atomic_bool limitCrossed;
static atomic_uchar tracked[SHIM_TRACKED_LIMIT];

/* The exit status of a program started with a configuration the library cannot use. */
enum { kMisconfigured = 70 };

/* Raw system call: stderr may itself pass through this library, which is not ready yet. */
static void say(const char* text) { (void)syscall(SYS_write, 2, text, strlen(text)); }

static void die(const char* what, const char* value) {
  say("FaultShim: ");
  say(what);
  if (value != NULL) {
    say(": '");
    say(value);
    say("'");
  }
  say("\n");
  _exit(kMisconfigured);
}

/* Writes "/a/b/c" for `path` with "." and ".." components and repeated '/' removed; the root is
 * written as "" (so that "/" followed by a component joins without a double slash). False when
 * the result would not fit. */
static bool normalise(const char* path, char* out, size_t size) {
  size_t length = 0;
  const char* at = path;
  while (*at != '\0') {
    while (*at == '/') ++at;
    const char* end = at;
    while (*end != '\0' && *end != '/') ++end;
    const size_t componentLength = (size_t)(end - at);
    if (componentLength == 0 || (componentLength == 1 && at[0] == '.')) {
      /* nothing */
    } else if (componentLength == 2 && at[0] == '.' && at[1] == '.') {
      while (length > 0 && out[length - 1] != '/') --length;
      if (length > 0) --length; /* the '/' before the removed component */
    } else {
      if (length + 1 + componentLength + 1 > size) return false;
      out[length++] = '/';
      memcpy(out + length, at, componentLength);
      length += componentLength;
    }
    at = end;
  }
  out[length] = '\0';
  return true;
}

static int errnoNamed(const char* name) {
  if (strcmp(name, "ENOSPC") == 0) return ENOSPC;
  if (strcmp(name, "EIO") == 0) return EIO;
  if (strcmp(name, "EACCES") == 0) return EACCES;
  if (strcmp(name, "EROFS") == 0) return EROFS;
  die("CORVANE_FAULT_ERRNO is none of ENOSPC, EIO, EACCES, EROFS", name);
  return 0;
}

#define SHIM_RESOLVE(name)                       \
  do {                                           \
    void* symbol = dlsym(RTLD_NEXT, #name);      \
    memcpy(&real.name, &symbol, sizeof(symbol)); \
  } while (0);

static void setUp(void) {
  /* Casting dlsym's void* to a function pointer directly is not ISO C; copying the bits is. */
  SHIM_REAL_FUNCTIONS(SHIM_RESOLVE)

  const char* prefix = getenv("CORVANE_FAULT_PREFIX");
  const char* afterBytes = getenv("CORVANE_FAULT_AFTER_BYTES");
  const char* errorName = getenv("CORVANE_FAULT_ERRNO");
  if (prefix == NULL && afterBytes == NULL) return;
  if (prefix == NULL || afterBytes == NULL) {
    die("CORVANE_FAULT_PREFIX and CORVANE_FAULT_AFTER_BYTES go together; only one is set",
        prefix != NULL ? prefix : afterBytes);
  }
  if (prefix[0] != '/') die("CORVANE_FAULT_PREFIX is not an absolute path", prefix);
  if (!normalise(prefix, config.prefix, sizeof config.prefix)) {
    die("CORVANE_FAULT_PREFIX is too long", prefix);
  }
  config.prefixLength = strlen(config.prefix);
  char resolved[PATH_MAX];
  if (realpath(prefix, resolved) != NULL &&
      normalise(resolved, config.realPrefix, sizeof config.realPrefix)) {
    config.realPrefixLength = strlen(config.realPrefix);
    config.haveRealPrefix = true;
  }

  char* end = NULL;
  errno = 0;
  const unsigned long long limit = strtoull(afterBytes, &end, 10);
  if (afterBytes[0] < '0' || afterBytes[0] > '9' || *end != '\0' || errno != 0) {
    die("CORVANE_FAULT_AFTER_BYTES is not a number of bytes", afterBytes);
  }
  config.limit = limit;
  config.error = errorName != NULL ? errnoNamed(errorName) : ENOSPC;
  config.active = true;
}

/* Whether faults are configured; sets everything up on first use. */
static bool active(void) {
  pthread_once(&setUpOnce, setUp);
  return config.active;
}

/* Bad configuration shows when the program starts, not at its first write. */
__attribute__((constructor)) static void setUpAtStart(void) { (void)active(); }

/* --- paths and descriptors ---------------------------------------------------------------------
 */

static bool under(const char* path, const char* prefix, size_t prefixLength) {
  return strncmp(path, prefix, prefixLength) == 0 &&
         (path[prefixLength] == '\0' || path[prefixLength] == '/');
}

/* Whether `path` (relative to the folder of `dirfd`, or to the working directory) lies at or under
 * the prefix. */
static bool matches(int dirfd, const char* path) {
  if (path == NULL) return false;
  char joined[2 * PATH_MAX + 2];
  size_t baseLength = 0;
  if (path[0] != '/') {
    if (dirfd == AT_FDCWD) {
      if (getcwd(joined, PATH_MAX) == NULL) return false;
      baseLength = strlen(joined);
    } else {
      char link[64];
      snprintf(link, sizeof link, "/proc/self/fd/%d", dirfd);
      const ssize_t length = readlink(link, joined, PATH_MAX);
      if (length <= 0 || length >= PATH_MAX) return false;
      baseLength = (size_t)length;
    }
  }
  const size_t pathLength = strlen(path);
  if (pathLength >= PATH_MAX) return false;
  joined[baseLength] = '/';
  memcpy(joined + baseLength + 1, path, pathLength + 1);
  char normal[2 * PATH_MAX + 2];
  if (!normalise(joined, normal, sizeof normal)) return false;
  return under(normal, config.prefix, config.prefixLength) ||
         (config.haveRealPrefix && under(normal, config.realPrefix, config.realPrefixLength));
}

static bool isTracked(int fd) {
  return fd >= 0 && fd < SHIM_TRACKED_LIMIT &&
         atomic_load_explicit(&tracked[fd], memory_order_relaxed) != 0;
}

static void setTracked(int fd, bool value) {
  if (fd >= 0 && fd < SHIM_TRACKED_LIMIT) {
    atomic_store_explicit(&tracked[fd], value ? 1 : 0, memory_order_relaxed);
  }
}

static bool crossed(void) { return atomic_load(&limitCrossed); }

static int fail(void) {
  errno = config.error;
  return -1;
}

static bool opensForWriting(int flags) {
  return (flags & O_ACCMODE) != O_RDONLY || (flags & (O_CREAT | O_TRUNC)) != 0;
}

static bool needsMode(int flags) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

/* Before an open: whether the path matches (*match) and whether the open must fail now. */
static bool refuseOpen(int dirfd, const char* path, int flags, bool* match) {
  *match = active() && matches(dirfd, path);
  return *match && opensForWriting(flags) && crossed();
}

/* After an open: the descriptor number may have belonged to a tracked file closed in a way this
 * library did not see, so it is set either way. */
static int opened(int fd, bool match) {
  if (fd >= 0) setTracked(fd, match);
  return fd;
}

static int missing(void) {
  errno = ENOSYS;
  return -1;
}

/* --- the budget --------------------------------------------------------------------------------
 */

/* Up to `count` bytes of the budget for one write to a tracked descriptor; 0 when none may be
 * written (the limit is crossed, or crossed by this very call). */
static size_t grant(size_t count) {
  if (crossed()) return 0;
  uint64_t used = atomic_load(&bytesGranted);
  for (;;) {
    const uint64_t room = used < config.limit ? config.limit - used : 0;
    const size_t take = (uint64_t)count < room ? count : (size_t)room;
    if (atomic_compare_exchange_weak(&bytesGranted, &used, used + take)) {
      if (take < count) atomic_store(&limitCrossed, true);
      return take;
    }
  }
}

/* Hands back what a write was granted but did not write (it failed, or wrote less). */
static ssize_t settle(size_t granted, ssize_t written) {
  const size_t landed = written > 0 ? (size_t)written : 0;
  if (landed < granted) atomic_fetch_sub(&bytesGranted, (uint64_t)(granted - landed));
  return written;
}

/* Whether a write of `count` bytes to `fd` is subject to the budget. */
static bool budgeted(int fd, size_t count) {
  const bool on = active(); /* always first: it resolves the real functions */
  return on && count > 0 && isTracked(fd);
}

/* The first `limit` bytes of an iovec array, in `out` (which has room for `count` entries). */
static int clipIovec(const struct iovec* iov, int count, size_t limit, struct iovec* out) {
  int used = 0;
  for (int i = 0; i < count && limit > 0; ++i) {
    out[used] = iov[i];
    if (out[used].iov_len > limit) out[used].iov_len = limit;
    limit -= out[used].iov_len;
    ++used;
  }
  return used;
}

static size_t iovecBytes(const struct iovec* iov, int count) {
  size_t total = 0;
  for (int i = 0; i < count; ++i) {
    total = iov[i].iov_len > SIZE_MAX - total ? SIZE_MAX : total + iov[i].iov_len;
  }
  return total;
}

/* --- opening and closing -----------------------------------------------------------------------
 */

#define SHIM_MODE_ARGUMENT(flags, mode) \
  mode_t mode = 0;                      \
  if (needsMode(flags)) {               \
    va_list arguments;                  \
    va_start(arguments, flags);         \
    mode = va_arg(arguments, mode_t);   \
    va_end(arguments);                  \
  }

SHIM_EXPORT int open(const char* path, int flags, ...) {
  SHIM_MODE_ARGUMENT(flags, mode)
  bool match = false;
  if (refuseOpen(AT_FDCWD, path, flags, &match)) return fail();
  return opened(real.open(path, flags, mode), match);
}

SHIM_EXPORT int open64(const char* path, int flags, ...) {
  SHIM_MODE_ARGUMENT(flags, mode)
  bool match = false;
  if (refuseOpen(AT_FDCWD, path, flags, &match)) return fail();
  return opened(real.open64(path, flags, mode), match);
}

SHIM_EXPORT int openat(int dirfd, const char* path, int flags, ...) {
  SHIM_MODE_ARGUMENT(flags, mode)
  bool match = false;
  if (refuseOpen(dirfd, path, flags, &match)) return fail();
  return opened(real.openat(dirfd, path, flags, mode), match);
}

SHIM_EXPORT int openat64(int dirfd, const char* path, int flags, ...) {
  SHIM_MODE_ARGUMENT(flags, mode)
  bool match = false;
  if (refuseOpen(dirfd, path, flags, &match)) return fail();
  return opened(real.openat64(dirfd, path, flags, mode), match);
}

SHIM_EXPORT int creat(const char* path, mode_t mode) {
  bool match = false;
  if (refuseOpen(AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC, &match)) return fail();
  return opened(real.creat(path, mode), match);
}

SHIM_EXPORT int creat64(const char* path, mode_t mode) {
  bool match = false;
  if (refuseOpen(AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC, &match)) return fail();
  return opened(real.creat64(path, mode), match);
}

SHIM_EXPORT int __open_2(const char* path, int flags) {
  bool match = false;
  if (refuseOpen(AT_FDCWD, path, flags, &match)) return fail();
  return real.__open_2 != NULL ? opened(real.__open_2(path, flags), match) : missing();
}

SHIM_EXPORT int __open64_2(const char* path, int flags) {
  bool match = false;
  if (refuseOpen(AT_FDCWD, path, flags, &match)) return fail();
  return real.__open64_2 != NULL ? opened(real.__open64_2(path, flags), match) : missing();
}

SHIM_EXPORT int __openat_2(int dirfd, const char* path, int flags) {
  bool match = false;
  if (refuseOpen(dirfd, path, flags, &match)) return fail();
  return real.__openat_2 != NULL ? opened(real.__openat_2(dirfd, path, flags), match) : missing();
}

SHIM_EXPORT int __openat64_2(int dirfd, const char* path, int flags) {
  bool match = false;
  if (refuseOpen(dirfd, path, flags, &match)) return fail();
  return real.__openat64_2 != NULL ? opened(real.__openat64_2(dirfd, path, flags), match)
                                   : missing();
}

static bool modeWrites(const char* mode) { return mode != NULL && strpbrk(mode, "wa+") != NULL; }

static FILE* openStream(FILE* (*function)(const char*, const char*), const char* path,
                        const char* mode) {
  const bool match = active() && matches(AT_FDCWD, path);
  if (match && modeWrites(mode) && crossed()) {
    errno = config.error;
    return NULL;
  }
  FILE* stream = function(path, mode);
  if (stream != NULL) setTracked(fileno(stream), match);
  return stream;
}

SHIM_EXPORT FILE* fopen(const char* path, const char* mode) {
  (void)active();
  return openStream(real.fopen, path, mode);
}

SHIM_EXPORT FILE* fopen64(const char* path, const char* mode) {
  (void)active();
  return openStream(real.fopen64, path, mode);
}

/* Descriptors are forgotten before they are closed: once closed, the number may be handed to an
 * open on another thread, which must not find the old mark cleared after it set its own. */
SHIM_EXPORT int fclose(FILE* stream) {
  (void)active();
  if (stream != NULL) setTracked(fileno(stream), false);
  return real.fclose(stream);
}

SHIM_EXPORT int close(int fd) {
  (void)active();
  setTracked(fd, false);
  return real.close(fd);
}

SHIM_EXPORT int close_range(unsigned int first, unsigned int last, int flags) {
  (void)active();
  if ((flags & CLOSE_RANGE_CLOEXEC) == 0) {
    for (unsigned int fd = first; fd <= last && fd < SHIM_TRACKED_LIMIT; ++fd) {
      setTracked((int)fd, false);
    }
  }
  return real.close_range != NULL ? real.close_range(first, last, flags) : missing();
}

static int duplicated(int from, int to) {
  if (to >= 0) setTracked(to, isTracked(from));
  return to;
}

SHIM_EXPORT int dup(int fd) {
  (void)active();
  return duplicated(fd, real.dup(fd));
}

SHIM_EXPORT int dup2(int fd, int to) {
  (void)active();
  return duplicated(fd, real.dup2(fd, to));
}

SHIM_EXPORT int dup3(int fd, int to, int flags) {
  (void)active();
  return duplicated(fd, real.dup3(fd, to, flags));
}

/* fcntl's third argument is an int, a pointer or absent; like glibc's own fcntl, this takes it as
 * a pointer-sized value and hands it on. */
static int control(int (*function)(int, int, ...), int fd, int command, void* argument) {
  const int result = function(fd, command, argument);
  if (command == F_DUPFD || command == F_DUPFD_CLOEXEC) return duplicated(fd, result);
  return result;
}

SHIM_EXPORT int fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  (void)active();
  return control(real.fcntl, fd, command, argument);
}

SHIM_EXPORT int fcntl64(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  (void)active();
  return real.fcntl64 != NULL ? control(real.fcntl64, fd, command, argument) : missing();
}

/* --- writing -----------------------------------------------------------------------------------
 */

SHIM_EXPORT ssize_t write(int fd, const void* buffer, size_t count) {
  if (!budgeted(fd, count)) return real.write(fd, buffer, count);
  const size_t granted = grant(count);
  if (granted == 0) return fail();
  return settle(granted, real.write(fd, buffer, granted));
}

SHIM_EXPORT ssize_t pwrite(int fd, const void* buffer, size_t count, off_t offset) {
  if (!budgeted(fd, count)) return real.pwrite(fd, buffer, count, offset);
  const size_t granted = grant(count);
  if (granted == 0) return fail();
  return settle(granted, real.pwrite(fd, buffer, granted, offset));
}

SHIM_EXPORT ssize_t pwrite64(int fd, const void* buffer, size_t count, off64_t offset) {
  if (!budgeted(fd, count)) return real.pwrite64(fd, buffer, count, offset);
  const size_t granted = grant(count);
  if (granted == 0) return fail();
  return settle(granted, real.pwrite64(fd, buffer, granted, offset));
}

/* The vector writes: a cut-short write sends the first `granted` bytes of the vector. Vectors
 * longer than IOV_MAX go through unchanged, for the kernel to refuse them (EINVAL). */
#define SHIM_VECTOR_WRITE(call, fd, iov, count, ...)                    \
  do {                                                                  \
    const bool valid = active() && (count) >= 0 && (count) <= IOV_MAX;  \
    const size_t total = valid ? iovecBytes(iov, count) : 0;            \
    if (!budgeted(fd, total)) return call(fd, iov, count, __VA_ARGS__); \
    const size_t granted = grant(total);                                \
    if (granted == 0) return fail();                                    \
    struct iovec clipped[IOV_MAX];                                      \
    const int used = clipIovec(iov, count, granted, clipped);           \
    return settle(granted, call(fd, clipped, used, __VA_ARGS__));       \
  } while (0)

static ssize_t callWritev(int fd, const struct iovec* iov, int count, int unused) {
  (void)unused;
  return real.writev(fd, iov, count);
}

SHIM_EXPORT ssize_t writev(int fd, const struct iovec* iov, int count) {
  SHIM_VECTOR_WRITE(callWritev, fd, iov, count, 0);
}

SHIM_EXPORT ssize_t pwritev(int fd, const struct iovec* iov, int count, off_t offset) {
  SHIM_VECTOR_WRITE(real.pwritev, fd, iov, count, offset);
}

SHIM_EXPORT ssize_t pwritev64(int fd, const struct iovec* iov, int count, off64_t offset) {
  SHIM_VECTOR_WRITE(real.pwritev64, fd, iov, count, offset);
}

SHIM_EXPORT ssize_t pwritev2(int fd, const struct iovec* iov, int count, off_t offset, int flags) {
  SHIM_VECTOR_WRITE(real.pwritev2, fd, iov, count, offset, flags);
}

SHIM_EXPORT ssize_t pwritev64v2(int fd, const struct iovec* iov, int count, off64_t offset,
                                int flags) {
  SHIM_VECTOR_WRITE(real.pwritev64v2, fd, iov, count, offset, flags);
}

SHIM_EXPORT ssize_t copy_file_range(int in, off64_t* inOffset, int out, off64_t* outOffset,
                                    size_t count, unsigned int flags) {
  const bool budget = budgeted(out, count);
  if (real.copy_file_range == NULL) return missing();
  if (!budget) {
    return real.copy_file_range(in, inOffset, out, outOffset, count, flags);
  }
  const size_t granted = grant(count);
  if (granted == 0) return fail();
  return settle(granted, real.copy_file_range(in, inOffset, out, outOffset, granted, flags));
}

SHIM_EXPORT ssize_t sendfile(int out, int in, off_t* offset, size_t count) {
  if (!budgeted(out, count)) return real.sendfile(out, in, offset, count);
  const size_t granted = grant(count);
  if (granted == 0) return fail();
  return settle(granted, real.sendfile(out, in, offset, granted));
}

SHIM_EXPORT ssize_t sendfile64(int out, int in, off64_t* offset, size_t count) {
  if (!budgeted(out, count)) return real.sendfile64(out, in, offset, count);
  const size_t granted = grant(count);
  if (granted == 0) return fail();
  return settle(granted, real.sendfile64(out, in, offset, granted));
}

SHIM_EXPORT ssize_t splice(int in, off64_t* inOffset, int out, off64_t* outOffset, size_t count,
                           unsigned int flags) {
  if (!budgeted(out, count)) return real.splice(in, inOffset, out, outOffset, count, flags);
  const size_t granted = grant(count);
  if (granted == 0) return fail();
  return settle(granted, real.splice(in, inOffset, out, outOffset, granted, flags));
}

/* --- what fails once the limit is crossed ------------------------------------------------------
 */

/* Whether an operation on the tracked descriptor `fd` must fail now. */
static bool refuseDescriptor(int fd) { return active() && isTracked(fd) && crossed(); }

/* Whether an operation that creates or replaces `path` must fail now. */
static bool refusePath(int dirfd, const char* path) {
  return active() && crossed() && matches(dirfd, path);
}

SHIM_EXPORT int fsync(int fd) { return refuseDescriptor(fd) ? fail() : real.fsync(fd); }

SHIM_EXPORT int fdatasync(int fd) { return refuseDescriptor(fd) ? fail() : real.fdatasync(fd); }

SHIM_EXPORT int sync_file_range(int fd, off64_t offset, off64_t count, unsigned int flags) {
  return refuseDescriptor(fd) ? fail() : real.sync_file_range(fd, offset, count, flags);
}

SHIM_EXPORT int fallocate(int fd, int mode, off_t offset, off_t length) {
  return refuseDescriptor(fd) ? fail() : real.fallocate(fd, mode, offset, length);
}

SHIM_EXPORT int fallocate64(int fd, int mode, off64_t offset, off64_t length) {
  return refuseDescriptor(fd) ? fail() : real.fallocate64(fd, mode, offset, length);
}

/* posix_fallocate reports its error as the result and leaves errno alone. */
SHIM_EXPORT int posix_fallocate(int fd, off_t offset, off_t length) {
  return refuseDescriptor(fd) ? config.error : real.posix_fallocate(fd, offset, length);
}

SHIM_EXPORT int posix_fallocate64(int fd, off64_t offset, off64_t length) {
  return refuseDescriptor(fd) ? config.error : real.posix_fallocate64(fd, offset, length);
}

SHIM_EXPORT int ftruncate(int fd, off_t length) {
  return refuseDescriptor(fd) ? fail() : real.ftruncate(fd, length);
}

SHIM_EXPORT int ftruncate64(int fd, off64_t length) {
  return refuseDescriptor(fd) ? fail() : real.ftruncate64(fd, length);
}

SHIM_EXPORT int truncate(const char* path, off_t length) {
  return refusePath(AT_FDCWD, path) ? fail() : real.truncate(path, length);
}

SHIM_EXPORT int truncate64(const char* path, off64_t length) {
  return refusePath(AT_FDCWD, path) ? fail() : real.truncate64(path, length);
}

SHIM_EXPORT int mkdir(const char* path, mode_t mode) {
  return refusePath(AT_FDCWD, path) ? fail() : real.mkdir(path, mode);
}

SHIM_EXPORT int mkdirat(int dirfd, const char* path, mode_t mode) {
  return refusePath(dirfd, path) ? fail() : real.mkdirat(dirfd, path, mode);
}

SHIM_EXPORT int rename(const char* from, const char* to) {
  return refusePath(AT_FDCWD, to) ? fail() : real.rename(from, to);
}

SHIM_EXPORT int renameat(int fromDir, const char* from, int toDir, const char* to) {
  return refusePath(toDir, to) ? fail() : real.renameat(fromDir, from, toDir, to);
}

SHIM_EXPORT int renameat2(int fromDir, const char* from, int toDir, const char* to,
                          unsigned int flags) {
  if (refusePath(toDir, to)) return fail();
  return real.renameat2 != NULL ? real.renameat2(fromDir, from, toDir, to, flags) : missing();
}
