// The offload job on real folder trees: copies byte for byte under the source's name, times and
// permissions kept, read back and compared, existing files, refusals, links, a failing
// destination, a source file changing while read, a copy damaged between write and read-back,
// stop and resume, plain verification, and the ASC MHL records.
//
// Independent references: file contents are compared with `cmp` and `diff -r`; source checksums
// with `xxhsum -H1` and `md5sum`; histories with the library's own verifier (tested on its own
// elsewhere) and, when installed, xmllint against the shipped schemas.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "corvane/MhlHistory.hpp"
#include "corvane/MhlXml.hpp"
#include "corvane/OffloadJob.hpp"
#include "support/MhlTestData.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testsupport::readFile;
using testsupport::runShell;
using testsupport::ScratchDirectory;
using testsupport::seededRandomBytes;
using testsupport::shellQuote;

// A card with the awkward parts of real ones: nested folders, an empty file, an empty folder,
// non-ASCII and newline names, a file over several read chunks.
struct Card {
  ScratchDirectory scratch;
  std::string root = scratch.file("CARD");
  std::vector<std::string> destinations;

  explicit Card(int destinationCount = 1) {
    scratch.writeFile("CARD/A001/C0001.mov", seededRandomBytes(3 * 1024 * 1024 + 17));
    scratch.writeText("CARD/A001/C0002.mov", "second clip\n");
    scratch.writeText("CARD/empty.bin", "");
    scratch.writeText("CARD/Caf\xc3\xa9 \xe2\x80\x94 notes.txt", "caf\xc3\xa9\n");
    scratch.writeText("CARD/line\nbreak.txt", "newline in the name\n");
    fs::create_directories(root + "/EMPTY/DEEPER");
    ::chmod((root + "/A001/C0002.mov").c_str(), 0640);
    setModified(root + "/A001/C0001.mov", 1600000000, 123456789);
    for (int d = 0; d < destinationCount; ++d) {
      destinations.push_back(scratch.file("D" + std::to_string(d + 1)));
      fs::create_directories(destinations.back());
    }
  }

  static void setModified(const std::string& path, time_t seconds, long nanoseconds) {
    const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
  }
  std::string copyRoot(std::size_t d) const { return destinations.at(d) + "/CARD"; }
};

OffloadSummary runJob(const std::string& source, const std::vector<std::string>& destinations,
                      OffloadSettings settings = {}) {
  return OffloadJob(source, destinations, std::move(settings)).run();
}

std::string describe(const OffloadSummary& summary) {
  std::string text = "refusal: " + summary.refusal + "\n";
  for (const OffloadDestinationSummary& destination : summary.destinations) {
    text += destination.root + ": " + std::to_string(destination.verified) + " verified, " +
            std::to_string(destination.alreadyPresent) + " present, " +
            std::to_string(destination.failed) + " failed, error: " + destination.error + "\n";
    for (const MhlError& problem : destination.mhlProblems) {
      text += "  mhl: " + problem.description() + "\n";
    }
  }
  for (const MhlError& problem : summary.sourceMhlProblems) {
    text += "  source mhl: " + problem.description() + "\n";
  }
  return text;
}

// `diff -r` of the source and a copy, leaving the histories out.
void expectSameTree(const std::string& source, const std::string& copy) {
  const testsupport::RunResult diff = runShell("diff -r --exclude=ascmhl " + shellQuote(source) +
                                               " " + shellQuote(copy) + " 2>&1");
  EXPECT_EQ(diff.status, 0) << diff.out;
}

// Every name below `folder` that starts like a temporary of ours.
std::vector<std::string> temporariesBelow(const std::string& folder) {
  std::vector<std::string> found;
  for (const auto& item : fs::recursive_directory_iterator(folder)) {
    if (item.path().filename().string().starts_with(".corvane-tmp-")) {
      found.push_back(item.path().string());
    }
  }
  return found;
}

std::string firstWord(const std::string& command) {
  const testsupport::RunResult result = runShell(command);
  EXPECT_EQ(result.status, 0) << command;
  return result.out.substr(0, result.out.find(' '));
}

struct stat statOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

// ----- copying ---------------------------------------------------------------------------------

TEST(OffloadJob, OneDestinationReceivesTheSourceUnderItsOwnNameByteForByte) {
  Card card;
  std::vector<OffloadFileResult> files;
  OffloadSettings settings;
  settings.onFile = [&files](const OffloadFileResult& file) { files.push_back(file); };
  const OffloadSummary summary = runJob(card.root, card.destinations, settings);
  ASSERT_TRUE(summary.ok()) << describe(summary);
  expectSameTree(card.root, card.copyRoot(0));
  EXPECT_EQ(summary.files, 5U);
  EXPECT_EQ(summary.folders, 3U);  // A001, EMPTY, EMPTY/DEEPER
  ASSERT_EQ(summary.destinations.size(), 1U);
  EXPECT_EQ(summary.destinations[0].root, card.copyRoot(0));
  EXPECT_EQ(summary.destinations[0].verified, 5U);
  EXPECT_EQ(summary.destinations[0].bytesWritten, summary.bytes);
  EXPECT_EQ(summary.destinations[0].bytesVerified, summary.bytes);
  EXPECT_TRUE(fs::is_directory(card.copyRoot(0) + "/EMPTY/DEEPER"));
  EXPECT_TRUE(temporariesBelow(card.destinations[0]).empty());

  // Results in byte order of relative paths, each with the source's checksum (xxhsum's).
  std::vector<std::string> paths;
  for (const OffloadFileResult& file : files) paths.push_back(file.relativePath);
  EXPECT_TRUE(std::is_sorted(paths.begin(), paths.end()));
  for (const OffloadFileResult& file : files) {
    if (file.kind != WalkEntry::Kind::file) continue;
    SCOPED_TRACE(file.relativePath);
    EXPECT_TRUE(file.ok());
    ASSERT_EQ(file.copies.size(), 1U);
    EXPECT_EQ(file.copies[0].status, OffloadCopyStatus::verified);
    EXPECT_EQ(file.copies[0].path, card.copyRoot(0) + "/" + file.relativePath);
    const std::string expected = firstWord(
        "xxhsum -H1 < " + shellQuote(card.root + "/" + file.relativePath) + " 2>/dev/null");
    EXPECT_EQ(file.sourceChecksums.at(ChecksumTypeXXHash64), expected);
    EXPECT_EQ(file.copies[0].checksums.at(ChecksumTypeXXHash64), expected);
  }
}

TEST(OffloadJob, CopiesKeepModificationTimesAndPermissions) {
  Card card;
  ASSERT_TRUE(runJob(card.root, card.destinations).ok());
  const struct stat source = statOf(card.root + "/A001/C0001.mov");
  const struct stat copy = statOf(card.copyRoot(0) + "/A001/C0001.mov");
  EXPECT_EQ(copy.st_mtim.tv_sec, 1600000000);
  EXPECT_EQ(copy.st_mtim.tv_nsec, 123456789);
  EXPECT_EQ(copy.st_mtim.tv_nsec, source.st_mtim.tv_nsec);
  EXPECT_EQ(statOf(card.copyRoot(0) + "/A001/C0002.mov").st_mode & 07777, 0640U);
}

TEST(OffloadJob, ThreeDestinationsEachReceiveAVerifiedCopyFromOneRead) {
  Card card(3);
  OffloadSettings settings;
  settings.algorithms = {ChecksumTypeXXHash64, ChecksumTypeMD5};
  OffloadJob job(card.root, card.destinations, settings);
  const OffloadSummary summary = job.run();
  ASSERT_TRUE(summary.ok()) << describe(summary);
  for (std::size_t d = 0; d < 3; ++d) {
    expectSameTree(card.root, card.copyRoot(d));
    EXPECT_EQ(summary.destinations[d].verified, 5U);
  }
  // Read once: the bytes read from the source are its size, not three times it.
  const OffloadProgress progress = job.progress();
  EXPECT_EQ(progress.phase, OffloadPhase::done);
  EXPECT_EQ(progress.bytesRead, summary.bytes);
  EXPECT_EQ(progress.bytesTotal, summary.bytes);
  EXPECT_EQ(progress.filesTotal, 5U);
  ASSERT_EQ(progress.destinations.size(), 3U);
  for (const OffloadDestinationProgress& destination : progress.destinations) {
    EXPECT_EQ(destination.bytesWritten, summary.bytes);
    EXPECT_EQ(destination.bytesVerified, summary.bytes);
    EXPECT_FALSE(destination.failed);
  }
}

TEST(OffloadJob, SingleFileSourceIsCopiedIntoEachDestinationFolder) {
  ScratchDirectory scratch;
  const std::string file = scratch.writeText("clip.mov", "one clip\n");
  fs::create_directories(scratch.file("D1"));
  OffloadSettings settings;
  settings.algorithms = {ChecksumTypeMD5};
  const OffloadSummary summary = runJob(file, {scratch.file("D1")}, settings);
  ASSERT_TRUE(summary.ok()) << describe(summary);
  EXPECT_EQ(readFile(scratch.file("D1/clip.mov")), "one clip\n");
  EXPECT_EQ(summary.destinations[0].verified, 1U);
}

// ----- what is already there -------------------------------------------------------------------

TEST(OffloadJob, ExistingIdenticalFileCountsAsAlreadyCopiedAndIsNotWritten) {
  Card card;
  ASSERT_TRUE(runJob(card.root, card.destinations).ok());
  const ino_t before = statOf(card.copyRoot(0) + "/A001/C0001.mov").st_ino;
  const OffloadSummary again = runJob(card.root, card.destinations);
  ASSERT_TRUE(again.ok()) << describe(again);
  EXPECT_EQ(again.destinations[0].alreadyPresent, 5U);
  EXPECT_EQ(again.destinations[0].verified, 0U);
  EXPECT_EQ(again.destinations[0].bytesWritten, 0U);
  EXPECT_EQ(statOf(card.copyRoot(0) + "/A001/C0001.mov").st_ino, before);
}

TEST(OffloadJob, ExistingDifferentFileIsNeverReplacedWithoutOverwrite) {
  Card card;
  card.scratch.writeText("D1/CARD/A001/C0002.mov", "other clip!\n");  // same size, other bytes
  card.scratch.writeText("D1/CARD/a.txt", "unrelated\n");             // not in the source
  std::vector<OffloadFileResult> files;
  OffloadSettings settings;
  settings.onFile = [&files](const OffloadFileResult& file) { files.push_back(file); };
  const OffloadSummary summary = runJob(card.root, card.destinations, settings);
  EXPECT_FALSE(summary.ok());
  EXPECT_EQ(summary.destinations[0].failed, 1U);
  EXPECT_EQ(summary.destinations[0].verified, 4U);
  EXPECT_EQ(readFile(card.copyRoot(0) + "/A001/C0002.mov"), "other clip!\n");
  EXPECT_EQ(readFile(card.copyRoot(0) + "/a.txt"), "unrelated\n");
  bool reported = false;
  for (const OffloadFileResult& file : files) {
    if (file.relativePath != "A001/C0002.mov") continue;
    reported = true;
    EXPECT_EQ(file.copies[0].status, OffloadCopyStatus::failed);
    EXPECT_NE(file.copies[0].error.find("a different file is at the target; not replaced"),
              std::string::npos)
        << file.copies[0].error;
  }
  EXPECT_TRUE(reported);
}

TEST(OffloadJob, OverwriteReplacesADifferentFileAtomically) {
  Card card;
  card.scratch.writeText("D1/CARD/A001/C0002.mov", "other clip!\n");
  card.scratch.writeText("D1/CARD/empty.bin", "was not empty\n");
  OffloadSettings settings;
  settings.overwrite = true;
  const OffloadSummary summary = runJob(card.root, card.destinations, settings);
  ASSERT_TRUE(summary.ok()) << describe(summary);
  expectSameTree(card.root, card.copyRoot(0));
  EXPECT_EQ(summary.destinations[0].verified, 5U);
}

TEST(OffloadJob, FolderInTheWayOfAFileFailsThatFileOnly) {
  Card card(2);
  fs::create_directories(card.copyRoot(0) + "/A001/C0002.mov");
  const OffloadSummary summary = runJob(card.root, card.destinations);
  EXPECT_FALSE(summary.ok());
  EXPECT_EQ(summary.destinations[0].failed, 1U);
  EXPECT_EQ(summary.destinations[0].verified, 4U);
  EXPECT_EQ(summary.destinations[1].verified, 5U);
  EXPECT_TRUE(summary.destinations[0].error.empty());
}

// ----- refusals --------------------------------------------------------------------------------

TEST(OffloadJob, PathsThatCannotMakeAJobAreRefusedBeforeAnythingIsWritten) {
  Card card;
  fs::create_directories(card.root + "/inside");
  const std::string parent = card.scratch.path().string();
  struct Case {
    std::vector<std::string> destinations;
    std::string message;
  };
  for (const Case& c : {
           Case{{card.root}, "the source itself cannot be a destination"},
           Case{{card.root + "/inside"}, "a destination cannot lie inside the source"},
           Case{{card.destinations[0], card.destinations[0] + "/."},
                "the same destination is named twice"},
           Case{{card.scratch.file("missing")}, "No such file or directory"},
           Case{{parent}, "the copy would be the source itself"},
           Case{{}, "no destination"},
       }) {
    SCOPED_TRACE(c.message);
    const OffloadSummary summary = runJob(card.root, c.destinations);
    EXPECT_FALSE(summary.ok());
    EXPECT_NE(summary.refusal.find(c.message), std::string::npos) << summary.refusal;
    EXPECT_EQ(checkOffloadPaths(card.root, c.destinations).value_or(""), summary.refusal);
  }
  EXPECT_FALSE(fs::exists(card.copyRoot(0)));
  EXPECT_FALSE(fs::exists(card.root + "/inside/CARD"));
  const OffloadSummary missingSource = runJob(card.scratch.file("nothing"), card.destinations);
  EXPECT_NE(missingSource.refusal.find("No such file or directory"), std::string::npos);
}

TEST(OffloadJob, SymbolicLinksAndSpecialFilesAreSkippedAndMakeTheJobNotOk) {
  Card card;
  ASSERT_EQ(::symlink("A001/C0002.mov", (card.root + "/link.mov").c_str()), 0);
  ASSERT_EQ(::mkfifo((card.root + "/pipe").c_str(), 0644), 0);
  std::vector<OffloadFileResult> skipped;
  OffloadSettings settings;
  settings.onFile = [&skipped](const OffloadFileResult& file) {
    if (file.kind == WalkEntry::Kind::skipped) skipped.push_back(file);
  };
  const OffloadSummary summary = runJob(card.root, card.destinations, settings);
  EXPECT_FALSE(summary.ok());
  EXPECT_EQ(summary.skipped, 2U);
  EXPECT_EQ(summary.failedFiles, 0U);
  EXPECT_EQ(summary.destinations[0].verified, 5U);
  ASSERT_EQ(skipped.size(), 2U);
  EXPECT_EQ(skipped[0].relativePath, "link.mov");
  EXPECT_EQ(skipped[0].copies[0].status, OffloadCopyStatus::skipped);
  EXPECT_EQ(skipped[0].sourceError, "symbolic link skipped");
  EXPECT_FALSE(fs::exists(fs::symlink_status(card.copyRoot(0) + "/link.mov")));
  EXPECT_FALSE(fs::exists(fs::symlink_status(card.copyRoot(0) + "/pipe")));
}

// ----- faults ----------------------------------------------------------------------------------

TEST(OffloadJob, DestinationThatFailsIsReportedAndTheOthersAreCompleted) {
  Card card(2);
  // A file where the copy's folder must go: the first destination cannot take the tree.
  card.scratch.writeText("D1/CARD", "in the way\n");
  const OffloadSummary summary = runJob(card.root, card.destinations);
  EXPECT_FALSE(summary.ok());
  EXPECT_NE(summary.destinations[0].error.find("D1/CARD"), std::string::npos)
      << summary.destinations[0].error;
  EXPECT_EQ(summary.destinations[0].failed, 5U);
  EXPECT_EQ(summary.destinations[1].verified, 5U);
  EXPECT_TRUE(summary.destinations[1].error.empty());
  expectSameTree(card.root, card.copyRoot(1));
  EXPECT_EQ(readFile(card.destinations[0] + "/CARD"), "in the way\n");
}

// Appends to `path` once its first bytes were read.
class ChangeAfterFirstRead : public ReadObserver {
 public:
  explicit ChangeAfterFirstRead(std::string path) : path_(std::move(path)) {}
  void readStarted(const std::string& path, std::uint64_t) override {
    if (path == path_) reading_ = true;
  }
  void bytesRead(std::uint64_t) override {
    if (reading_ && !changed_.exchange(true)) {
      std::ofstream(path_, std::ios::app) << "more";
    }
  }

 private:
  std::string path_;
  std::atomic<bool> reading_ = false;
  std::atomic<bool> changed_ = false;
};

TEST(OffloadJob, SourceFileChangedWhileReadFailsOnEveryDestinationAndLeavesNoCopy) {
  Card card(2);
  const std::string clip = card.root + "/A001/C0001.mov";
  ChangeAfterFirstRead observer(clip);
  OffloadSettings settings;
  settings.engine.observer = &observer;
  settings.engine.filesInFlight = 1;
  settings.engine.chunkSize = 64 * 1024;
  std::vector<OffloadFileResult> files;
  settings.onFile = [&files](const OffloadFileResult& file) { files.push_back(file); };
  const OffloadSummary summary = runJob(card.root, card.destinations, settings);
  EXPECT_FALSE(summary.ok());
  EXPECT_EQ(summary.failedFiles, 1U);
  for (std::size_t d = 0; d < 2; ++d) {
    EXPECT_EQ(summary.destinations[d].failed, 1U);
    EXPECT_EQ(summary.destinations[d].verified, 4U);
    EXPECT_FALSE(fs::exists(card.copyRoot(d) + "/A001/C0001.mov"));
    EXPECT_TRUE(temporariesBelow(card.destinations[d]).empty());
  }
  for (const OffloadFileResult& file : files) {
    if (file.relativePath != "A001/C0001.mov") continue;
    EXPECT_EQ(file.sourceError, "file changed while being read");
    EXPECT_TRUE(file.sourceChecksums.empty());
    for (const OffloadCopyResult& copy : file.copies) {
      EXPECT_EQ(copy.status, OffloadCopyStatus::failed);
      EXPECT_EQ(copy.error, "file changed while being read");
    }
  }
}

TEST(OffloadJob, ReadBackCatchesACopyDamagedOnItsWayToTheDiskAndTheNextRunRepairsIt) {
  Card card(2);
  const std::string damaged = card.copyRoot(1) + "/A001/C0001.mov";
  OffloadSettings settings;
  settings.beforeReadBack = [&damaged](const std::string& path) {
    if (path != damaged) return;
    // One bit of one byte in the middle, written behind the job's back.
    const int descriptor = ::open(path.c_str(), O_RDWR);
    ASSERT_GE(descriptor, 0);
    unsigned char byte = 0;
    ASSERT_EQ(::pread(descriptor, &byte, 1, 1000000), 1);
    byte ^= 0x10;
    ASSERT_EQ(::pwrite(descriptor, &byte, 1, 1000000), 1);
    ::fsync(descriptor);
    ::close(descriptor);
  };
  std::string error;
  settings.onFile = [&error](const OffloadFileResult& file) {
    if (file.relativePath == "A001/C0001.mov") error = file.copies[1].error;
  };
  const OffloadSummary summary = runJob(card.root, card.destinations, settings);
  EXPECT_FALSE(summary.ok());
  EXPECT_EQ(summary.destinations[0].verified, 5U);
  EXPECT_EQ(summary.destinations[1].verified, 4U);
  EXPECT_EQ(summary.destinations[1].failed, 1U);
  EXPECT_NE(error.find("the copy read back differs from the source (xxh64 "), std::string::npos)
      << error;
  EXPECT_FALSE(fs::exists(damaged));

  const OffloadSummary again = runJob(card.root, card.destinations);
  ASSERT_TRUE(again.ok()) << describe(again);
  EXPECT_EQ(again.destinations[1].verified, 1U);
  EXPECT_EQ(again.destinations[1].alreadyPresent, 4U);
  expectSameTree(card.root, card.copyRoot(1));
}

// ----- stop and resume -------------------------------------------------------------------------

// Stops the job once the source's first bytes were read.
class StopOnFirstRead : public ReadObserver {
 public:
  OffloadJob* job = nullptr;
  void bytesRead(std::uint64_t) override { job->requestStop(); }
};

TEST(OffloadJob, StoppedJobLeavesNoTemporaryAndARerunFinishesTheJob) {
  Card card(2);
  StopOnFirstRead observer;
  OffloadSettings settings;
  settings.engine.observer = &observer;
  settings.engine.chunkSize = 64 * 1024;
  OffloadJob job(card.root, card.destinations, settings);
  observer.job = &job;
  const OffloadSummary stopped = job.run();
  EXPECT_TRUE(stopped.stopped);
  EXPECT_FALSE(stopped.ok());
  for (const std::string& destination : card.destinations) {
    EXPECT_TRUE(temporariesBelow(destination).empty());
  }
  const OffloadSummary rerun = runJob(card.root, card.destinations);
  ASSERT_TRUE(rerun.ok()) << describe(rerun);
  for (std::size_t d = 0; d < 2; ++d) expectSameTree(card.root, card.copyRoot(d));
}

TEST(OffloadJob, TemporariesOfAKilledRunAreRemovedByTheNextRun) {
  Card card;
  card.scratch.writeText("D1/CARD/A001/.corvane-tmp-99999-1-C0001.mov", "half a clip");
  card.scratch.writeText("D1/CARD/EMPTY/.corvane-tmp-99999-2-x", "");
  fs::create_directories(card.copyRoot(0) + "/.corvane-tmp-history-99999");
  const OffloadSummary summary = runJob(card.root, card.destinations);
  ASSERT_TRUE(summary.ok()) << describe(summary);
  EXPECT_EQ(temporariesBelow(card.destinations[0]), std::vector<std::string>{});
}

// ----- verification only and weaker checks -----------------------------------------------------

TEST(OffloadJob, VerifyOnlyChecksExistingCopiesAndWritesNothing) {
  Card card(2);
  ASSERT_TRUE(runJob(card.root, {card.destinations[0]}).ok());
  fs::create_directories(card.copyRoot(1));
  OffloadSettings settings;
  settings.verifyOnly = true;
  settings.recordMhl = false;
  const OffloadSummary summary = runJob(card.root, card.destinations, settings);
  EXPECT_FALSE(summary.ok());
  EXPECT_EQ(summary.destinations[0].alreadyPresent, 5U);
  EXPECT_EQ(summary.destinations[1].failed, 5U);
  EXPECT_EQ(summary.destinations[0].bytesWritten + summary.destinations[1].bytesWritten, 0U);
  EXPECT_FALSE(fs::exists(card.copyRoot(1) + "/A001"));

  // A damaged copy fails the check.
  card.scratch.writeText("D1/CARD/A001/C0002.mov", "other clip!\n");
  const OffloadSummary damaged = runJob(card.root, {card.destinations[0]}, settings);
  EXPECT_EQ(damaged.destinations[0].failed, 1U);
  EXPECT_EQ(damaged.destinations[0].alreadyPresent, 4U);
}

TEST(OffloadJob, SizeAndNoVerificationWriteWithoutReadingBack) {
  for (const OffloadVerification verification :
       {OffloadVerification::size, OffloadVerification::none}) {
    Card card;
    OffloadSettings settings;
    settings.verification = verification;
    const OffloadSummary summary = runJob(card.root, card.destinations, settings);
    ASSERT_TRUE(summary.ok()) << describe(summary);
    EXPECT_EQ(summary.destinations[0].written, 5U);
    EXPECT_EQ(summary.destinations[0].bytesVerified, 0U);
    expectSameTree(card.root, card.copyRoot(0));
  }
}

// ----- ASC MHL ---------------------------------------------------------------------------------

TEST(OffloadJob, EveryDestinationAndTheSourceGetATransferGenerationThatVerifies) {
  Card card(2);
  OffloadSettings settings;
  settings.algorithms = {ChecksumTypeXXHash64, ChecksumTypeMD5};
  const OffloadSummary summary = runJob(card.root, card.destinations, settings);
  ASSERT_TRUE(summary.ok()) << describe(summary);
  ASSERT_EQ(summary.sourceManifestsWritten.size(), 1U);
  for (std::size_t d = 0; d < 2; ++d) {
    ASSERT_EQ(summary.destinations[d].manifestsWritten.size(), 1U);
    const std::string manifestPath =
        card.copyRoot(d) + "/" + summary.destinations[d].manifestsWritten[0];
    const MhlResult<MhlManifest> manifest = readMhlManifest(manifestPath);
    ASSERT_TRUE(manifest) << manifest.error().description();
    EXPECT_EQ(manifest->processInfo.process, MhlProcess::transfer);
    EXPECT_EQ(manifest->hashes.size(), 5U);
    const MhlReport verified = verifyMhlHistory(card.copyRoot(d), {});
    EXPECT_TRUE(verified.clean());
    EXPECT_EQ(verified.count(MhlFileOutcome::verified), 5U);
    if (testsupport::haveProgram("xmllint")) {
      const testsupport::RunResult lint = runShell(
          "xmllint --nonet --noout --schema " +
          shellQuote(testsupport::shippedMhlSchema("ASCMHL.xsd")) + " " +
          shellQuote(manifestPath) + " 2>&1");
      EXPECT_EQ(lint.status, 0) << lint.out;
    }
    // The md5 recorded is md5sum's.
    for (const MhlHashEntry& entry : manifest->hashes) {
      if (entry.path != "A001/C0002.mov") continue;
      bool found = false;
      for (const MhlHash& hash : entry.hashes) {
        if (hash.format != "md5") continue;
        found = true;
        EXPECT_EQ(hash.value,
                  firstWord("md5sum " + shellQuote(card.root + "/A001/C0002.mov")));
      }
      EXPECT_TRUE(found);
    }
  }
  EXPECT_TRUE(verifyMhlHistory(card.root, {}).clean());
}

TEST(OffloadJob, DestinationContinuesTheHistoryTheSourceBrought) {
  Card card;
  MhlCreateOptions create;
  ASSERT_TRUE(createMhlGeneration(card.root, create).clean());
  OffloadSettings settings;
  settings.recordSourceMhl = false;
  const OffloadSummary summary = runJob(card.root, card.destinations, settings);
  ASSERT_TRUE(summary.ok()) << describe(summary);
  EXPECT_TRUE(summary.sourceManifestsWritten.empty());
  const MhlResult<MhlHistory> history = readMhlHistory(card.copyRoot(0));
  ASSERT_TRUE(history) << history.error().description();
  ASSERT_EQ(history->generations.size(), 2U);
  EXPECT_EQ(history->generations[1].manifest.processInfo.process, MhlProcess::transfer);
  for (const MhlHashEntry& entry : history->generations[1].manifest.hashes) {
    for (const MhlHash& hash : entry.hashes) {
      EXPECT_EQ(hash.action, MhlHashAction::verified) << entry.path;
    }
  }
  EXPECT_TRUE(verifyMhlHistory(card.copyRoot(0), {}).clean());
  // The source's history was not copied as data, and the source got nothing new.
  const MhlResult<MhlHistory> source = readMhlHistory(card.root);
  ASSERT_TRUE(source);
  EXPECT_EQ(source->generations.size(), 1U);
}

TEST(OffloadJob, NoRecordsWhenAskedForNone) {
  Card card;
  OffloadSettings settings;
  settings.recordMhl = false;
  ASSERT_TRUE(runJob(card.root, card.destinations, settings).ok());
  EXPECT_FALSE(fs::exists(card.copyRoot(0) + "/ascmhl"));
  EXPECT_FALSE(fs::exists(card.root + "/ascmhl"));
}

TEST(OffloadJob, AlgorithmsWithoutAnAscMhlFormatCannotBeRecorded) {
  Card card;
  OffloadSettings settings;
  settings.algorithms = {ChecksumTypeSHA256};
  const OffloadSummary summary = runJob(card.root, card.destinations, settings);
  EXPECT_FALSE(summary.ok());
  EXPECT_EQ(summary.destinations[0].verified, 5U);
  ASSERT_EQ(summary.sourceMhlProblems.size(), 1U);
  EXPECT_NE(summary.sourceMhlProblems[0].message.find("no ASC MHL format"), std::string::npos);
}

}  // namespace
}  // namespace corvane
