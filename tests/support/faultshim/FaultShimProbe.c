/* A program for the fault shim's tests: it makes the calls a copy makes, within one process (the
 * shim's budget is per process), and prints what each one returned.
 *
 *   corvane_fault_shim_probe steps STEP...
 *     Runs the steps in order on one "current" descriptor and prints one line per step: the step's
 *     name and "ok", a byte count, or the errno's name ("write 4096", "create ENOSPC").
 *       create PATH     open(PATH, O_WRONLY | O_CREAT | O_TRUNC); the result is the current fd
 *       write N         one write(2) of N bytes to the current descriptor
 *       pwrite N        one pwrite(2) of N bytes at offset 0
 *       writev N        one writev(2) of N bytes in two halves
 *       dup             dup(2) of the current descriptor; the copy becomes the current one
 *       fsync           fsync(2) of the current descriptor
 *       ftruncate N     ftruncate(2) of the current descriptor to N bytes
 *       fallocate N     posix_fallocate(3) of N bytes
 *       close           close(2) of the current descriptor
 *       mkdir PATH      mkdir(PATH, 0755)
 *       rename FROM TO  rename(2)
 *
 *   corvane_fault_shim_probe writers FOLDER THREADS BLOCK_BYTES MAX_BLOCKS
 *     THREADS threads, started together, each write(2)s BLOCK_BYTES blocks to a file of its own in
 *     FOLDER until a write fails or it has written MAX_BLOCKS blocks. Prints "landed=<bytes the
 *     writes reported> failed=<threads whose last write failed> errno=<their errno's name, or 0>".
 *
 * Exit status 0, or 2 on a usage error (or when a writer's file cannot be created).
 */
#define _GNU_SOURCE

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

static char* zeroBytes(size_t count) { return calloc(count > 0 ? count : 1, 1); }

static void report(const char* step, long long result, int error) {
  if (result < 0) {
    const char* name = strerrorname_np(error);
    printf("%s %s\n", step, name != NULL ? name : "?");
  } else if (result == 0 && strcmp(step, "write") != 0 && strcmp(step, "pwrite") != 0 &&
             strcmp(step, "writev") != 0) {
    printf("%s ok\n", step);
  } else {
    printf("%s %lld\n", step, result);
  }
}

static int usage(const char* program) {
  fprintf(stderr, "usage: %s steps STEP... | %s writers FOLDER THREADS BLOCK_BYTES MAX_BLOCKS\n",
          program, program);
  return 2;
}

static int runSteps(int argc, char** argv) {
  int fd = -1;
  for (int i = 2; i < argc; ++i) {
    const char* step = argv[i];
    const bool hasArgument = i + 1 < argc;
    long long result = 0;
    if (strcmp(step, "create") == 0 && hasArgument) {
      result = fd = open(argv[++i], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    } else if ((strcmp(step, "write") == 0 || strcmp(step, "pwrite") == 0 ||
                strcmp(step, "writev") == 0) &&
               hasArgument) {
      const size_t count = (size_t)atoll(argv[++i]);
      char* bytes = zeroBytes(count);
      if (strcmp(step, "write") == 0) {
        result = write(fd, bytes, count);
      } else if (strcmp(step, "pwrite") == 0) {
        result = pwrite(fd, bytes, count, 0);
      } else {
        const struct iovec halves[2] = {{bytes, count / 2}, {bytes + count / 2, count - count / 2}};
        result = writev(fd, halves, 2);
      }
      free(bytes);
    } else if (strcmp(step, "dup") == 0) {
      result = dup(fd);
      if (result >= 0) {
        fd = (int)result;
        result = 0;
      }
    } else if (strcmp(step, "fsync") == 0) {
      result = fsync(fd);
    } else if (strcmp(step, "ftruncate") == 0 && hasArgument) {
      result = ftruncate(fd, atoll(argv[++i]));
    } else if (strcmp(step, "fallocate") == 0 && hasArgument) {
      const int error = posix_fallocate(fd, 0, atoll(argv[++i]));
      result = error == 0 ? 0 : -1;
      errno = error;
    } else if (strcmp(step, "close") == 0) {
      result = close(fd);
      fd = -1;
    } else if (strcmp(step, "mkdir") == 0 && hasArgument) {
      result = mkdir(argv[++i], 0755);
    } else if (strcmp(step, "rename") == 0 && i + 2 < argc) {
      result = rename(argv[i + 1], argv[i + 2]);
      i += 2;
    } else {
      return usage(argv[0]);
    }
    if (strcmp(step, "create") == 0 && result >= 0) result = 0;
    report(step, result, errno);
  }
  return 0;
}

struct Writer {
  pthread_t thread;
  int fd;
  size_t blockBytes;
  long maxBlocks;
  pthread_barrier_t* start;
  uint64_t landed;
  int error;
};

static void* writeBlocks(void* data) {
  struct Writer* writer = data;
  char* block = zeroBytes(writer->blockBytes);
  pthread_barrier_wait(writer->start);
  for (long i = 0; i < writer->maxBlocks && writer->error == 0; ++i) {
    size_t done = 0;
    while (done < writer->blockBytes) {
      const ssize_t count = write(writer->fd, block + done, writer->blockBytes - done);
      if (count < 0) {
        if (errno == EINTR) continue;
        writer->error = errno;
        break;
      }
      done += (size_t)count;
      writer->landed += (uint64_t)count;
    }
  }
  free(block);
  return NULL;
}

static int runWriters(int argc, char** argv) {
  if (argc != 6) return usage(argv[0]);
  const int threads = atoi(argv[3]);
  const long blockBytes = atol(argv[4]);
  const long maxBlocks = atol(argv[5]);
  if (threads < 1 || threads > 64 || blockBytes < 1 || maxBlocks < 1) return usage(argv[0]);
  struct Writer writers[64];
  pthread_barrier_t start;
  pthread_barrier_init(&start, NULL, (unsigned)threads);
  for (int i = 0; i < threads; ++i) {
    char path[4096];
    snprintf(path, sizeof path, "%s/writer-%d", argv[2], i);
    writers[i] = (struct Writer){.fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644),
                                 .blockBytes = (size_t)blockBytes,
                                 .maxBlocks = maxBlocks,
                                 .start = &start};
    if (writers[i].fd < 0) {
      fprintf(stderr, "%s: cannot create %s: %s\n", argv[0], path, strerror(errno));
      return 2;
    }
  }
  for (int i = 0; i < threads; ++i) {
    pthread_create(&writers[i].thread, NULL, writeBlocks, &writers[i]);
  }
  uint64_t landed = 0;
  int failed = 0;
  const char* error = "0";
  for (int i = 0; i < threads; ++i) {
    pthread_join(writers[i].thread, NULL);
    close(writers[i].fd);
    landed += writers[i].landed;
    if (writers[i].error != 0) {
      ++failed;
      error = strerrorname_np(writers[i].error);
    }
  }
  pthread_barrier_destroy(&start);
  printf("landed=%llu failed=%d errno=%s\n", (unsigned long long)landed, failed, error);
  return 0;
}

int main(int argc, char** argv) {
  if (argc >= 2 && strcmp(argv[1], "steps") == 0) return runSteps(argc, argv);
  if (argc >= 2 && strcmp(argv[1], "writers") == 0) return runWriters(argc, argv);
  return usage(argv[0]);
}
