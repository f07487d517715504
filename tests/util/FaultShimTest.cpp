// The fault shim that tests preload to make a destination fail (tests/support/faultshim), shown
// on standard programs (dd, cp) and on a probe program of its own that makes one call per step
// within one process and prints each result.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/FaultShim.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"

#ifndef CORVANE_FAULT_SHIM_PROBE_PATH
#define CORVANE_FAULT_SHIM_PROBE_PATH ""
#endif

namespace corvane::testsupport {
namespace {

namespace fs = std::filesystem;

// The probe program (tests/support/faultshim/FaultShimProbe.c).
std::string probeCommand(const std::vector<std::string>& arguments) {
  std::string command = shellQuote(CORVANE_FAULT_SHIM_PROBE_PATH);
  for (const std::string& argument : arguments) {
    command += ' ';
    command += shellQuote(argument);
  }
  return command;
}

// A scratch directory with the folder the faults apply to ("dest") and one beside it whose name
// starts with the same letters ("destination"), which must not count as under the prefix.
class FaultShim : public ::testing::Test {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_FAULT_SHIM();
    fs::create_directory(destination_);
    fs::create_directory(beside_);
  }

  std::string dest(const std::string& name) const { return (destination_ / name).string(); }
  std::string beside(const std::string& name) const { return (beside_ / name).string(); }

  RunResult run(const std::string& command) const { return runShell(command, errPath_); }

  std::string faulty(std::uint64_t afterBytes, const std::string& errnoName = "ENOSPC") const {
    return faultShimEnvironment(
        {.prefix = destination_, .afterBytes = afterBytes, .errnoName = errnoName});
  }

  ScratchDirectory scratch_;
  fs::path destination_ = scratch_.path() / "dest";
  fs::path beside_ = scratch_.path() / "destination";
  fs::path errPath_ = scratch_.path() / "stderr";
};

std::string ddCommand(const std::string& output) {
  return "dd if=/dev/zero of=" + shellQuote(output) + " bs=4096 count=100";
}

TEST_F(FaultShim, DdStopsWithNoSpaceLeftAfterExactlyTheBudget) {
  const RunResult result = run(faulty(10000) + ddCommand(dest("f")));
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.err.find("No space left on device"), std::string::npos) << result.err;
  EXPECT_EQ(fs::file_size(dest("f")), 10000u);
}

TEST_F(FaultShim, FilesOutsideThePrefixAreNotAffected) {
  const RunResult result = run(faulty(10000) + ddCommand(beside("f")));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(fs::file_size(beside("f")), 409600u);
}

TEST_F(FaultShim, ErrnoNameChoosesTheFailure) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"EIO", "Input/output error"},
      {"EACCES", "Permission denied"},
      {"EROFS", "Read-only file system"},
      {"ENOSPC", "No space left on device"}};
  for (const auto& [name, message] : cases) {
    SCOPED_TRACE(name);
    const RunResult result = run(faulty(10000, name) + ddCommand(dest(name)));
    EXPECT_NE(result.status, 0);
    EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
    EXPECT_EQ(fs::file_size(dest(name)), 10000u);
  }
}

TEST_F(FaultShim, RelativePathsAreResolvedAgainstTheWorkingDirectory) {
  fs::create_directory(destination_ / "sub");
  const RunResult result =
      run("cd " + shellQuote(scratch_.path().string()) + " && " + faulty(5000) +
          "dd if=/dev/zero of=dest/./sub/../f bs=4096 count=100");
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.err.find("No space left on device"), std::string::npos) << result.err;
  EXPECT_EQ(fs::file_size(dest("f")), 5000u);
}

TEST_F(FaultShim, WithoutTheVariablesNothingChanges) {
  const std::string preloadOnly =
      "LD_PRELOAD=" + shellQuote(kFaultShimPath) + " ASAN_OPTIONS=verify_asan_link_order=0 ";
  const RunResult dd = run(preloadOnly + ddCommand(dest("f")));
  EXPECT_EQ(dd.status, 0) << dd.err;
  EXPECT_EQ(fs::file_size(dest("f")), 409600u);
  const RunResult probe =
      run(preloadOnly + probeCommand({"steps", "create", dest("g"), "write", "300000", "fsync",
                                      "mkdir", dest("d"), "rename", dest("g"), dest("h")}));
  EXPECT_EQ(probe.out, "create ok\nwrite 300000\nfsync ok\nmkdir ok\nrename ok\n") << probe.err;
}

TEST_F(FaultShim, WriteThatCrossesTheLimitIsCutShortAndLaterWritesFail) {
  const RunResult result =
      run(faulty(10000) + probeCommand({"steps", "create", dest("f"), "write", "4096", "write",
                                        "4096", "write", "4096", "write", "1"}));
  EXPECT_EQ(result.out, "create ok\nwrite 4096\nwrite 4096\nwrite 1808\nwrite ENOSPC\n")
      << result.err;
  EXPECT_EQ(fs::file_size(dest("f")), 10000u);
}

TEST_F(FaultShim, WriteThatEndsExactlyAtTheLimitLeavesTheNextToFail) {
  const RunResult result =
      run(faulty(4096) + probeCommand({"steps", "create", dest("f"), "write", "4096", "create",
                                       dest("g"), "write", "1", "create", dest("h")}));
  // The limit is crossed by the write it refuses, not by the one that used the last byte.
  EXPECT_EQ(result.out, "create ok\nwrite 4096\ncreate ok\nwrite ENOSPC\ncreate ENOSPC\n")
      << result.err;
}

TEST_F(FaultShim, PwriteAndWritevCountAgainstTheBudget) {
  const RunResult result = run(faulty(100) + probeCommand({"steps", "create", dest("f"), "pwrite",
                                                           "60", "writev", "60", "write", "1"}));
  EXPECT_EQ(result.out, "create ok\npwrite 60\nwritev 40\nwrite ENOSPC\n") << result.err;
}

TEST_F(FaultShim, OpensForWritingFailOnceTheLimitIsCrossed) {
  const RunResult result = run(
      faulty(50, "EIO") + probeCommand({"steps", "create", dest("a"), "create", dest("b"), "write",
                                        "100", "create", dest("c"), "create", beside("c")}));
  EXPECT_EQ(result.out, "create ok\ncreate ok\nwrite 50\ncreate EIO\ncreate ok\n") << result.err;
  EXPECT_FALSE(fs::exists(dest("c")));
  EXPECT_TRUE(fs::exists(beside("c")));
}

TEST_F(FaultShim, CpFailsTheFileThatCrossesAndCannotCreateTheNext) {
  scratch_.writeText("first", pseudoRandomBytes(300000, 1));
  scratch_.writeText("second", pseudoRandomBytes(1000, 2));
  // No reflink: a cloned file would share the source's blocks without writing anything.
  const RunResult result =
      run(faulty(100000) + "cp --reflink=never " + shellQuote(scratch_.file("first")) + " " +
          shellQuote(scratch_.file("second")) + " " + shellQuote(destination_.string()));
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.err.find("error writing"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("cannot create regular file"), std::string::npos) << result.err;
  EXPECT_LE(fs::file_size(dest("first")), 100000u);
  EXPECT_FALSE(fs::exists(dest("second")));
}

TEST_F(FaultShim, RenameAndMkdirIntoThePrefixFailOnceTheLimitIsCrossed) {
  scratch_.writeText("outside", "x");
  const RunResult result =
      run(faulty(10) + probeCommand({"steps", "mkdir", dest("early"), "create", dest("f"), "write",
                                     "20", "mkdir", dest("late"), "mkdir", beside("late"), "rename",
                                     scratch_.file("outside"), dest("moved"), "rename",
                                     scratch_.file("outside"), beside("moved")}));
  EXPECT_EQ(result.out,
            "mkdir ok\ncreate ok\nwrite 10\nmkdir ENOSPC\nmkdir ok\nrename ENOSPC\nrename ok\n")
      << result.err;
  EXPECT_FALSE(fs::exists(dest("moved")));
}

TEST_F(FaultShim, DescriptorOperationsFailOnceTheLimitIsCrossed) {
  const RunResult result =
      run(faulty(10, "EROFS") +
          probeCommand({"steps", "create", dest("f"), "fsync", "write", "20", "fsync", "ftruncate",
                        "0", "fallocate", "4096", "dup", "write", "1", "close"}));
  EXPECT_EQ(result.out,
            "create ok\nfsync ok\nwrite 10\nfsync EROFS\nftruncate EROFS\nfallocate EROFS\n"
            "dup ok\nwrite EROFS\nclose ok\n")
      << result.err;
  EXPECT_EQ(fs::file_size(dest("f")), 10u);
}

TEST_F(FaultShim, ConcurrentWritersNeverExceedTheBudget) {
  // A budget that is no multiple of the block size, so that one write must be cut short.
  constexpr std::uint64_t kBudget = 1000003;
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    const fs::path folder = destination_ / std::to_string(round);
    fs::create_directory(folder);
    const RunResult result =
        run(faultShimEnvironment({.prefix = destination_, .afterBytes = kBudget}) +
            probeCommand({"writers", folder.string(), "8", "4099", "100000"}));
    EXPECT_EQ(result.out, "landed=1000003 failed=8 errno=ENOSPC\n") << result.err;
    std::uintmax_t total = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
      total += entry.file_size();
    }
    EXPECT_EQ(total, kBudget);
  }
}

TEST_F(FaultShim, HalfAConfigurationStopsTheProgramBeforeItRuns) {
  const RunResult result = run("LD_PRELOAD=" + shellQuote(kFaultShimPath) +
                               " CORVANE_FAULT_PREFIX=" + shellQuote(destination_.string()) + " " +
                               ddCommand(dest("f")));
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.err.find("FaultShim: CORVANE_FAULT_PREFIX and CORVANE_FAULT_AFTER_BYTES"),
            std::string::npos)
      << result.err;
  EXPECT_FALSE(fs::exists(dest("f")));
}

}  // namespace
}  // namespace corvane::testsupport
