// ASC MHL histories end to end, on real folder trees: create (first and later generations, what
// the manifest and the chain hold), verify (clean, damaged files, damaged histories, nothing
// written, directory hashes), diff, renames written by hand, ignore patterns, nested histories,
// empty folders, non-ASCII names, refusals (read-only scope, SHA-256) and flatten.
//
// Independent references:
// - md5 and xxh64 values of files come from the md5sum and xxhsum commands (`xxhsum -H1`), C4 IDs
//   from the test support's encoder (OpenSSL SHA-512 in base 58);
// - the directory hashes of the tree Stuff.txt = "stuff\n", A/A1.txt = "A1\n" (xxh64) are the
//   shared vectors of ASC MHL directory hashing; we re-derived them with xxhsum 0.8.1 over the
//   concatenated raw bytes as ASC MHL Appendix G describes (see MhlDirectoryHashTest.cpp);
// - ef46db3751d8e999 is `xxhsum -H1 /dev/null`, the xxh64 of zero bytes;
// - what we write is checked against the shipped schemas with xmllint when it is installed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <variant>
#include <vector>

#include "corvane/ChecksumGenerator.hpp"
#include "corvane/MhlHashFormat.hpp"
#include "corvane/MhlHistory.hpp"
#include "corvane/MhlXml.hpp"
#include "support/MhlTestData.hpp"
#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"
#include "support/UnprivilegedUser.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testsupport::bytesOf;
using testsupport::readFile;
using testsupport::ScratchDirectory;
using testsupport::shellQuote;

// 2020-09-13T12:26:40Z: the Unix time 1600000000.
constexpr std::time_t kKnownModification = 1600000000;
// xxhsum -H1 /dev/null.
constexpr const char* kXxh64OfNothing = "ef46db3751d8e999";

// Whether `text` has the shape `shape`: '#' stands for one digit, other characters for themselves.
bool matchesShape(std::string_view text, std::string_view shape) {
  if (text.size() != shape.size()) return false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool matches =
        shape[at] == '#' ? text[at] >= '0' && text[at] <= '9' : text[at] == shape[at];
    if (!matches) return false;
  }
  return true;
}

// `text` to a file, replacing it, keeping the folders above.
void writeText(const std::string& path, std::string_view text) {
  fs::create_directories(fs::path(path).parent_path());
  testsupport::writeFile(path, bytesOf(text));
}

void setModified(const std::string& path, std::time_t seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

std::string historyFolder(const std::string& root) { return root + "/ascmhl"; }
std::string chainPath(const std::string& root) { return historyFolder(root) + "/ascmhl_chain.xml"; }

// Every name in the folder `folder`.
std::set<std::string> namesIn(const std::string& folder) {
  std::set<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

// What a tree looks like from outside: every path below `root` with its kind, size and
// modification time to the nanosecond.
std::map<std::string, std::string> snapshot(const std::string& root) {
  std::map<std::string, std::string> entries;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    struct stat status {};
    ::lstat(entry.path().c_str(), &status);
    entries[entry.path().string()] =
        std::to_string(status.st_mode) + " " + std::to_string(status.st_size) + " " +
        std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
  }
  return entries;
}

MhlHistory readHistory(const std::string& root) {
  MhlResult<MhlHistory> history = readMhlHistory(root);
  EXPECT_TRUE(history.ok()) << history.error().description();
  return history.ok() ? *history : MhlHistory{};
}

MhlChain readChain(const std::string& root) {
  MhlResult<MhlChain> chain = readMhlChain(chainPath(root));
  EXPECT_TRUE(chain.ok()) << chain.error().description();
  return chain.ok() ? *chain : MhlChain{};
}

// The report as text, one line per file and per problem, for failure messages.
std::string describe(const MhlReport& report) {
  static const char* const kNames[] = {"original", "verified", "failed",
                                       "missing",  "new",      "unreadable"};
  std::string text;
  for (const MhlFileReport& file : report.files) {
    text += "  " + std::string(kNames[static_cast<int>(file.outcome)]) + " [" + file.history +
            "] " + file.path + (file.detail.empty() ? "" : " (" + file.detail + ")") + "\n";
  }
  for (const MhlError& problem : report.problems) {
    text += "  problem: " + problem.description() + "\n";
  }
  return text;
}

// The report of `path` in the history `history` ("" = the top); null when there is none.
const MhlFileReport* reportOf(const MhlReport& report, const std::string& path,
                              const std::string& history = "") {
  const MhlFileReport* found = nullptr;
  for (const MhlFileReport& file : report.files) {
    if (file.path == path && file.history == history) {
      EXPECT_EQ(found, nullptr) << "two reports of " << path;
      found = &file;
    }
  }
  return found;
}

std::optional<MhlFileOutcome> outcomeOf(const MhlReport& report, const std::string& path,
                                        const std::string& history = "") {
  const MhlFileReport* file = reportOf(report, path, history);
  return file == nullptr ? std::nullopt : std::optional(file->outcome);
}

const MhlHashEntry* entryOf(const MhlManifest& manifest, const std::string& path) {
  for (const MhlHashEntry& entry : manifest.hashes) {
    if (entry.path == path) return &entry;
  }
  return nullptr;
}

const MhlHash* hashOf(const std::vector<MhlHash>& hashes, const std::string& format) {
  for (const MhlHash& hash : hashes) {
    if (hash.format == format) return &hash;
  }
  return nullptr;
}

// The value of the hash of `format`, or "(none)".
std::string valueOf(const std::vector<MhlHash>& hashes, const std::string& format) {
  const MhlHash* hash = hashOf(hashes, format);
  return hash == nullptr ? "(none)" : hash->value;
}

const MhlDirectoryHashEntry* folderOf(const MhlManifest& manifest, const std::string& path) {
  for (const MhlDirectoryHashEntry& entry : manifest.directoryHashes) {
    if (entry.path == path) return &entry;
  }
  return nullptr;
}

MhlReport create(const std::string& root,
                 std::vector<ChecksumType> formats = {ChecksumTypeXXHash64},
                 std::vector<std::string> ignorePatterns = {}) {
  MhlCreateOptions options;
  options.formats = std::move(formats);
  options.ignorePatterns = std::move(ignorePatterns);
  return createMhlGeneration(root, options);
}

MhlReport verify(const std::string& root, bool directoryHashes = false) {
  MhlVerifyOptions options;
  options.directoryHashes = directoryHashes;
  return verifyMhlHistory(root, options);
}

// The first word a command prints for `path` (md5sum, xxhsum).
std::string toolHash(const std::string& command, const std::string& path) {
  const testsupport::RunResult result =
      testsupport::runShell(command + " " + shellQuote(path) + " 2>/dev/null");
  EXPECT_EQ(result.status, 0) << command << " " << path;
  return result.out.substr(0, result.out.find(' '));
}

std::string c4OfBytes(const std::string& bytes) {
  return ChecksumGenerator::generateChecksumForData(Bytes(bytes.begin(), bytes.end()),
                                                    ChecksumTypeC4)
      .value_or("");
}

// xmllint's verdict on `file` against the shipped schema `schema`; skipped (nothing) when xmllint
// is not installed.
void expectXmllintAccepts(const std::string& schema, const std::string& file) {
  if (!testsupport::haveProgram("xmllint")) return;
  const testsupport::RunResult result = testsupport::runShell(
      "xmllint --nonet --noout --schema " + shellQuote(testsupport::shippedMhlSchema(schema)) +
      " " + shellQuote(file) + " 2>&1");
  EXPECT_EQ(result.status, 0) << file << ": " << result.out;
}

// A folder `name` in a fresh scratch folder that nobody else may write, readable by everyone (so
// that tests running as "nobody" can reach it).
class Tree {
 public:
  explicit Tree(const std::string& name = "Card01") : root_(scratch_.file(name)) {
    ::chmod(scratch_.path().c_str(), 0755);
    fs::create_directories(root_);
  }
  const std::string& root() const { return root_; }
  std::string path(const std::string& relative) const { return root_ + "/" + relative; }
  std::string write(const std::string& relative, std::string_view text) const {
    writeText(path(relative), text);
    return path(relative);
  }
  const ScratchDirectory& scratch() const { return scratch_; }

 private:
  ScratchDirectory scratch_;
  std::string root_;
};

// ----- create: the first generation -----------------------------------------------------------

TEST(MhlHistoryCreate, FirstGenerationWritesOneManifestAndTheChain) {
  Tree tree;
  tree.write("Stuff.txt", "stuff\n");
  tree.write("A/A1.txt", "A1\n");
  setModified(tree.path("Stuff.txt"), kKnownModification);
  setModified(tree.path("A/A1.txt"), kKnownModification + 1);

  const auto before = std::chrono::system_clock::now();
  const MhlReport report =
      create(tree.root(), {ChecksumTypeMD5, ChecksumTypeXXHash64, ChecksumTypeC4});
  const auto after = std::chrono::system_clock::now();
  EXPECT_TRUE(report.clean()) << describe(report);
  EXPECT_EQ(report.count(MhlFileOutcome::original), 2U) << describe(report);

  // ascmhl/0001_Card01_<YYYY-MM-DD>_<HHMMSS>Z.mhl and the chain, nothing else.
  const std::set<std::string> names = namesIn(historyFolder(tree.root()));
  ASSERT_EQ(names.size(), 2U);
  ASSERT_TRUE(names.contains("ascmhl_chain.xml"));
  const std::string name = *names.begin();
  ASSERT_TRUE(matchesShape(name, "0001_Card01_####-##-##_######Z.mhl")) << name;
  EXPECT_EQ(report.manifestsWritten, std::vector<std::string>{"ascmhl/" + name});

  // The date and time are the start of the operation, in UTC.
  std::tm stamp{};
  stamp.tm_year = std::stoi(name.substr(12, 4)) - 1900;
  stamp.tm_mon = std::stoi(name.substr(17, 2)) - 1;
  stamp.tm_mday = std::stoi(name.substr(20, 2));
  stamp.tm_hour = std::stoi(name.substr(23, 2));
  stamp.tm_min = std::stoi(name.substr(25, 2));
  stamp.tm_sec = std::stoi(name.substr(27, 2));
  const std::time_t named = ::timegm(&stamp);
  EXPECT_GE(named, std::chrono::system_clock::to_time_t(before));
  EXPECT_LE(named, std::chrono::system_clock::to_time_t(after));

  const std::string manifestPath = historyFolder(tree.root()) + "/" + name;
  const std::string bytes = readFile(manifestPath);
  EXPECT_EQ(validateMhlManifest(bytes, name), std::nullopt);
  expectXmllintAccepts("ASCMHL.xsd", manifestPath);
  expectXmllintAccepts("ASCMHLDirectory.xsd", chainPath(tree.root()));
  MhlResult<MhlManifest> manifest = readMhlManifest(manifestPath);
  ASSERT_TRUE(manifest.ok()) << manifest.error().description();
  EXPECT_EQ(manifest->processInfo.process, MhlProcess::inPlace);
  EXPECT_EQ(manifest->creatorInfo.creationDate.timePoint().value(),
            std::chrono::system_clock::from_time_t(named));
  EXPECT_FALSE(manifest->creatorInfo.hostName.empty());
  EXPECT_FALSE(manifest->creatorInfo.tool.name.empty());

  // Every file, with its size, modification date and the hashes the standard tools compute.
  ASSERT_EQ(manifest->hashes.size(), 2U);
  const std::map<std::string, std::pair<std::string, std::string>> expected = {
      {"Stuff.txt", {"stuff\n", "2020-09-13T12:26:40Z"}},
      {"A/A1.txt", {"A1\n", "2020-09-13T12:26:41Z"}}};
  for (const auto& [path, contentAndDate] : expected) {
    SCOPED_TRACE(path);
    const MhlHashEntry* entry = entryOf(*manifest, path);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->size, contentAndDate.first.size());
    ASSERT_TRUE(entry->lastModificationDate.has_value());
    EXPECT_EQ(entry->lastModificationDate->text(), contentAndDate.second);
    EXPECT_EQ(entry->previousPath, std::nullopt);
    ASSERT_EQ(entry->hashes.size(), 3U);
    for (const MhlHash& hash : entry->hashes) EXPECT_EQ(hash.action, MhlHashAction::original);
    EXPECT_EQ(valueOf(entry->hashes, "md5"), toolHash("md5sum", tree.path(path)));
    EXPECT_EQ(valueOf(entry->hashes, "xxh64"), toolHash("xxhsum -H1", tree.path(path)));
    EXPECT_EQ(valueOf(entry->hashes, "c4"),
              testsupport::c4Reference(bytesOf(contentAndDate.first)));
  }

  // A directory hash per folder, and the root hash (the shared xxh64 vectors).
  ASSERT_EQ(manifest->directoryHashes.size(), 1U);
  const MhlDirectoryHashEntry* folderA = folderOf(*manifest, "A");
  ASSERT_NE(folderA, nullptr);
  EXPECT_EQ(valueOf(folderA->content, "xxh64"), "d3904ee76bba3d2a");
  EXPECT_EQ(valueOf(folderA->structure, "xxh64"), "3fbe33b2924e26aa");
  EXPECT_NE(hashOf(folderA->content, "md5"), nullptr);
  EXPECT_NE(hashOf(folderA->content, "c4"), nullptr);
  ASSERT_TRUE(manifest->processInfo.rootHash.has_value());
  EXPECT_EQ(valueOf(manifest->processInfo.rootHash->content, "xxh64"), "ca56d22f064fdf1b");
  EXPECT_EQ(valueOf(manifest->processInfo.rootHash->structure, "xxh64"), "2ccca3899111eabb");

  // The chain lists it with the C4 ID of its bytes.
  const MhlChain chain = readChain(tree.root());
  EXPECT_EQ(validateMhlChain(readFile(chainPath(tree.root()))), std::nullopt);
  ASSERT_EQ(chain.entries.size(), 1U);
  EXPECT_EQ(chain.entries[0].sequenceNumber, 1U);
  EXPECT_EQ(chain.entries[0].path, name);
  EXPECT_EQ(chain.entries[0].c4.value, c4OfBytes(bytes));
  EXPECT_EQ(chain.entries[0].c4.value, testsupport::c4Reference(bytesOf(bytes)));

  const MhlHistory history = readHistory(tree.root());
  ASSERT_EQ(history.generations.size(), 1U);
  EXPECT_EQ(history.generations[0].manifest, *manifest);
  EXPECT_EQ(mhlFileRecords(history).size(), 2U);
}

// What stat says of `path`, as the walk sees it.
MhlKnownFile knownFileOf(const std::string& path, ChecksumLookup checksums) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return MhlKnownFile{static_cast<std::uint64_t>(status.st_size),
                      FileTime{status.st_mtim.tv_sec, status.st_mtim.tv_nsec},
                      std::move(checksums)};
}

TEST(MhlHistoryCreate, KnownChecksumsAreRecordedWithoutReadingTheFile) {
  Tree tree;
  const std::string stuff = tree.write("Stuff.txt", "stuff\n");
  const std::string a1 = tree.write("A/A1.txt", "A1\n");
  const std::string b1 = tree.write("B/B1.txt", "B1\n");
  // A value no file has: if it lands in the manifest, the file was not read.
  const std::string invented = "0123456789abcdef";
  MhlCreateOptions options;
  options.formats = {ChecksumTypeXXHash64};
  std::vector<std::string> asked;
  options.knownChecksums = [&](const std::string& path) -> std::optional<MhlKnownFile> {
    asked.push_back(path);
    if (path == "Stuff.txt") return knownFileOf(stuff, {{ChecksumTypeXXHash64, invented}});
    if (path == "A/A1.txt") {
      // Stale: the size is not the file's any more, so the file is read.
      MhlKnownFile known = knownFileOf(a1, {{ChecksumTypeXXHash64, invented}});
      known.size += 1;
      return known;
    }
    // Known, but not in the format asked for: read.
    return knownFileOf(b1, {{ChecksumTypeMD5, "00000000000000000000000000000000"}});
  };
  const MhlReport report = createMhlGeneration(tree.root(), options);
  ASSERT_TRUE(report.clean()) << describe(report);
  EXPECT_EQ(asked, (std::vector<std::string>{"A/A1.txt", "B/B1.txt", "Stuff.txt"}));
  ASSERT_EQ(report.manifestsWritten.size(), 1U);
  const MhlResult<MhlManifest> manifest =
      readMhlManifest(tree.root() + "/" + report.manifestsWritten[0]);
  ASSERT_TRUE(manifest) << manifest.error().description();
  ASSERT_NE(entryOf(*manifest, "Stuff.txt"), nullptr);
  EXPECT_EQ(valueOf(entryOf(*manifest, "Stuff.txt")->hashes, "xxh64"), invented);
  ASSERT_NE(entryOf(*manifest, "A/A1.txt"), nullptr);
  EXPECT_EQ(valueOf(entryOf(*manifest, "A/A1.txt")->hashes, "xxh64"), toolHash("xxhsum -H1", a1));
  ASSERT_NE(entryOf(*manifest, "B/B1.txt"), nullptr);
  EXPECT_EQ(valueOf(entryOf(*manifest, "B/B1.txt")->hashes, "xxh64"), toolHash("xxhsum -H1", b1));
  // The manifest lists the files in path order whatever was known.
  ASSERT_EQ(manifest->hashes.size(), 3U);
  EXPECT_EQ(manifest->hashes[0].path, "A/A1.txt");
  EXPECT_EQ(manifest->hashes[1].path, "B/B1.txt");
  EXPECT_EQ(manifest->hashes[2].path, "Stuff.txt");
}

TEST(MhlHistoryCreate, KnownChecksumsOfANestedHistoryAreAskedByTheirPathFromTheTop) {
  Tree tree;
  tree.write("Card/Clip.mov", "clip\n");
  const std::string inner = tree.write("Card/Inner/Take.mov", "take\n");
  ASSERT_TRUE(create(tree.path("Card/Inner")).clean());
  const std::string invented = "fedcba9876543210";
  MhlCreateOptions options;
  std::vector<std::string> asked;
  options.knownChecksums = [&](const std::string& path) -> std::optional<MhlKnownFile> {
    asked.push_back(path);
    if (path == "Card/Inner/Take.mov") {
      return knownFileOf(inner, {{ChecksumTypeXXHash64, invented}});
    }
    return std::nullopt;
  };
  const MhlReport report = createMhlGeneration(tree.root(), options);
  // The nested history recorded the real value before: the invented one fails against it, which
  // proves it was used.
  EXPECT_EQ(outcomeOf(report, "Take.mov", "Card/Inner"), MhlFileOutcome::failed)
      << describe(report);
  EXPECT_EQ(outcomeOf(report, "Card/Clip.mov"), MhlFileOutcome::original) << describe(report);
  EXPECT_EQ(asked, (std::vector<std::string>{"Card/Inner/Take.mov", "Card/Clip.mov"}));
}

TEST(MhlHistoryCreate, FirstGenerationKilledBeforeItsChainIsDoneAgainByTheNextCreate) {
  // What a create killed between writing its first manifest and the chain leaves: a history
  // folder holding one manifest and no chain. That is no history yet; the next create starts it.
  Tree tree;
  tree.write("Stuff.txt", "stuff\n");
  Tree other("Card02");
  other.write("Stuff.txt", "stuff\n");
  const MhlReport first = create(other.root());
  ASSERT_EQ(first.manifestsWritten.size(), 1U);
  fs::create_directories(historyFolder(tree.root()));
  const std::string stray = historyFolder(tree.root()) + "/0001_Card01_2020-01-01_000000Z.mhl";
  fs::copy_file(other.root() + "/" + first.manifestsWritten[0], stray);

  const MhlResult<MhlHistory> before = readMhlHistory(tree.root());
  ASSERT_TRUE(before) << before.error().description();
  EXPECT_TRUE(before->generations.empty());
  const MhlReport report = create(tree.root());
  ASSERT_TRUE(report.clean()) << describe(report);
  EXPECT_EQ(outcomeOf(report, "Stuff.txt"), MhlFileOutcome::original);
  EXPECT_FALSE(fs::exists(stray));
  const MhlResult<MhlHistory> after = readMhlHistory(tree.root());
  ASSERT_TRUE(after) << after.error().description();
  ASSERT_EQ(after->generations.size(), 1U);
  EXPECT_TRUE(verify(tree.root()).clean());
}

TEST(MhlHistoryCreate, ReportsEveryFileAsItIsSettledInPathOrder) {
  Tree tree;
  tree.write("b.txt", "b");
  tree.write("a/z.txt", "z");
  tree.write("c.txt", "c");
  std::vector<std::string> seen;
  MhlCreateOptions options;
  options.onFile = [&seen](const MhlFileReport& file) { seen.push_back(file.path); };
  const MhlReport report = createMhlGeneration(tree.root(), options);
  EXPECT_TRUE(report.clean()) << describe(report);
  EXPECT_EQ(seen, (std::vector<std::string>{"a/z.txt", "b.txt", "c.txt"}));
}

// ----- create: later generations --------------------------------------------------------------

TEST(MhlHistoryCreate, SecondGenerationVerifiesFailsAddsAndLeavesOutMissingFiles) {
  Tree tree;
  tree.write("keep.txt", "unchanged");
  tree.write("change.txt", "first content");
  tree.write("gone.txt", "will be deleted");
  ASSERT_TRUE(create(tree.root()).clean());
  const std::string firstName = readChain(tree.root()).entries.at(0).path;
  const std::string firstBytes = readFile(historyFolder(tree.root()) + "/" + firstName);
  const std::string originalHash = toolHash("xxhsum -H1", tree.path("change.txt"));

  tree.write("change.txt", "second content");
  fs::remove(tree.path("gone.txt"));
  tree.write("new.txt", "added later");
  const MhlReport report = create(tree.root());
  EXPECT_EQ(outcomeOf(report, "keep.txt"), MhlFileOutcome::verified) << describe(report);
  EXPECT_EQ(outcomeOf(report, "change.txt"), MhlFileOutcome::failed) << describe(report);
  EXPECT_EQ(outcomeOf(report, "new.txt"), MhlFileOutcome::original) << describe(report);
  EXPECT_EQ(outcomeOf(report, "gone.txt"), MhlFileOutcome::missing) << describe(report);
  EXPECT_TRUE(report.problems.empty()) << describe(report);
  EXPECT_FALSE(report.clean());
  const std::string changedHash = toolHash("xxhsum -H1", tree.path("change.txt"));
  EXPECT_EQ(reportOf(report, "change.txt")->detail, "xxh64 " + originalHash + " != " + changedHash);

  // The chain lists both generations; the first manifest is unchanged, byte for byte.
  const MhlChain chain = readChain(tree.root());
  ASSERT_EQ(chain.entries.size(), 2U);
  EXPECT_EQ(chain.entries[0].path, firstName);
  EXPECT_EQ(chain.entries[1].sequenceNumber, 2U);
  EXPECT_TRUE(chain.entries[1].path.starts_with("0002_Card01_")) << chain.entries[1].path;
  EXPECT_EQ(readFile(historyFolder(tree.root()) + "/" + firstName), firstBytes);
  EXPECT_EQ(chain.entries[1].c4.value,
            c4OfBytes(readFile(historyFolder(tree.root()) + "/" + chain.entries[1].path)));

  // The second manifest records what was found (the failed value is the one computed now) and
  // not the file that is gone.
  const MhlHistory history = readHistory(tree.root());
  ASSERT_EQ(history.generations.size(), 2U);
  const MhlManifest& second = history.generations[1].manifest;
  EXPECT_EQ(entryOf(second, "gone.txt"), nullptr);
  ASSERT_NE(entryOf(second, "keep.txt"), nullptr);
  EXPECT_EQ(entryOf(second, "keep.txt")->hashes.at(0).action, MhlHashAction::verified);
  ASSERT_NE(entryOf(second, "change.txt"), nullptr);
  EXPECT_EQ(entryOf(second, "change.txt")->hashes.at(0).action, MhlHashAction::failed);
  EXPECT_EQ(entryOf(second, "change.txt")->hashes.at(0).value, changedHash);
  ASSERT_NE(entryOf(second, "new.txt"), nullptr);
  EXPECT_EQ(entryOf(second, "new.txt")->hashes.at(0).action, MhlHashAction::original);
  expectXmllintAccepts("ASCMHL.xsd", historyFolder(tree.root()) + "/" + chain.entries[1].path);
  expectXmllintAccepts("ASCMHLDirectory.xsd", chainPath(tree.root()));

  // A failed hash is never used: the record still holds the original value.
  const std::map<std::string, MhlFileRecord> records = mhlFileRecords(history);
  EXPECT_EQ(records.at("change.txt").usableHashes.at(ChecksumTypeXXHash64.rawValue()),
            originalHash);
  EXPECT_TRUE(records.contains("gone.txt"));
}

TEST(MhlHistoryCreate, FailedFileStaysFailedAgainstTheOriginalHash) {
  Tree tree;
  tree.write("clip.mov", "the original bytes");
  ASSERT_TRUE(create(tree.root()).clean());
  const std::string originalHash = toolHash("xxhsum -H1", tree.path("clip.mov"));
  tree.write("clip.mov", "damaged bytes");
  const std::string damagedHash = toolHash("xxhsum -H1", tree.path("clip.mov"));
  EXPECT_EQ(outcomeOf(create(tree.root()), "clip.mov"), MhlFileOutcome::failed);

  // Neither verify nor a third generation takes the failed value as the file's hash.
  const MhlReport verified = verify(tree.root());
  EXPECT_EQ(outcomeOf(verified, "clip.mov"), MhlFileOutcome::failed) << describe(verified);
  EXPECT_EQ(reportOf(verified, "clip.mov")->detail, "xxh64 " + originalHash + " != " + damagedHash);
  const MhlReport third = create(tree.root());
  EXPECT_EQ(outcomeOf(third, "clip.mov"), MhlFileOutcome::failed) << describe(third);
  EXPECT_EQ(reportOf(third, "clip.mov")->detail, "xxh64 " + originalHash + " != " + damagedHash);
  EXPECT_EQ(readChain(tree.root()).entries.size(), 3U);

  // Put back a good copy: it verifies against the original.
  tree.write("clip.mov", "the original bytes");
  const MhlReport restored = verify(tree.root());
  EXPECT_TRUE(restored.clean()) << describe(restored);
  EXPECT_EQ(outcomeOf(restored, "clip.mov"), MhlFileOutcome::verified);
}

TEST(MhlHistoryCreate, LaterGenerationHashesRecordedFormatsToo) {
  Tree tree;
  tree.write("a.txt", "alpha");
  ASSERT_TRUE(create(tree.root(), {ChecksumTypeMD5}).clean());
  // Asked for xxh64 only, the file is still checked against its md5.
  const MhlReport report = create(tree.root(), {ChecksumTypeXXHash64});
  EXPECT_EQ(outcomeOf(report, "a.txt"), MhlFileOutcome::verified) << describe(report);
  const MhlHistory history = readHistory(tree.root());
  const MhlHashEntry* entry = entryOf(history.generations.at(1).manifest, "a.txt");
  ASSERT_NE(entry, nullptr);
  ASSERT_NE(hashOf(entry->hashes, "md5"), nullptr);
  EXPECT_EQ(hashOf(entry->hashes, "md5")->action, MhlHashAction::verified);
  EXPECT_EQ(valueOf(entry->hashes, "md5"), toolHash("md5sum", tree.path("a.txt")));
  ASSERT_NE(hashOf(entry->hashes, "xxh64"), nullptr);
  EXPECT_EQ(hashOf(entry->hashes, "xxh64")->action, MhlHashAction::original);
}

TEST(MhlHistoryCreate, NewFormatDoesNotRehabilitateAFailedFile) {
  // ASC MHL 5.6.4 note 2: a changed file fails from the change onward. A format asked for the
  // first time when the file already fails must not become an `original` of the changed bytes,
  // which verification would then use.
  Tree tree;
  tree.write("clip.mov", "good bytes");
  ASSERT_TRUE(create(tree.root(), {ChecksumTypeMD5}).clean());
  const std::string recorded = toolHash("md5sum", tree.path("clip.mov"));
  tree.write("clip.mov", "bad bytes");
  const MhlReport second = create(tree.root(), {ChecksumTypeXXHash64});
  EXPECT_EQ(outcomeOf(second, "clip.mov"), MhlFileOutcome::failed) << describe(second);
  const MhlHistory history = readHistory(tree.root());
  ASSERT_EQ(history.generations.size(), 2U);
  const MhlHashEntry* entry = entryOf(history.generations[1].manifest, "clip.mov");
  ASSERT_NE(entry, nullptr);
  for (const MhlHash& hash : entry->hashes) {
    EXPECT_NE(hash.action, MhlHashAction::original) << hash.format;
  }
  EXPECT_EQ(mhlFileRecords(history).at("clip.mov").usableHashes,
            (std::map<std::uint64_t, std::string>{{ChecksumTypeMD5.rawValue(), recorded}}));
  const MhlReport verified = verify(tree.root());
  EXPECT_EQ(outcomeOf(verified, "clip.mov"), MhlFileOutcome::failed) << describe(verified);
}

TEST(MhlHistoryCreate, UnreadableFileIsReportedAndLeftOutOfTheFolderHashes) {
  Tree tree;
  tree.write("open.txt", "o");
  tree.write("A/locked.txt", "l");
  tree.write("B/fine.txt", "f");
  ASSERT_EQ(::chmod(tree.root().c_str(), 0777), 0);
  ASSERT_EQ(::chmod(tree.path("A/locked.txt").c_str(), 0), 0);
  MhlReport report;
  {
    testsupport::EffectiveUserWithoutPrivileges unprivileged;
    if (!unprivileged.active()) GTEST_SKIP() << "cannot give up root to test permissions";
    report = create(tree.root());
  }
  EXPECT_EQ(outcomeOf(report, "A/locked.txt"), MhlFileOutcome::unreadable) << describe(report);
  EXPECT_EQ(reportOf(report, "A/locked.txt")->detail, "Permission denied");
  EXPECT_EQ(outcomeOf(report, "open.txt"), MhlFileOutcome::original) << describe(report);
  EXPECT_FALSE(report.clean());
  ASSERT_EQ(report.manifestsWritten.size(), 1U) << describe(report);
  const MhlHistory history = readHistory(tree.root());
  ASSERT_EQ(history.generations.size(), 1U);
  const MhlManifest& manifest = history.generations[0].manifest;
  EXPECT_EQ(entryOf(manifest, "A/locked.txt"), nullptr);
  EXPECT_NE(entryOf(manifest, "B/fine.txt"), nullptr);
  // No honest hash of a folder with a file that could not be read, nor of the folders above.
  EXPECT_EQ(folderOf(manifest, "A"), nullptr);
  EXPECT_FALSE(manifest.processInfo.rootHash.has_value());
  EXPECT_NE(folderOf(manifest, "B"), nullptr);
}

TEST(MhlHistoryCreate, EmptyRootIsAProblemAndNothingIsWritten) {
  // A manifest records at least one file, folder or reference (ASC MHL 6.4.1).
  Tree tree;
  const MhlReport report = create(tree.root());
  EXPECT_EQ(report.problems.size(), 1U) << describe(report);
  EXPECT_TRUE(report.manifestsWritten.empty());
  EXPECT_FALSE(fs::exists(historyFolder(tree.root())));
}

TEST(MhlHistoryCreate, StopRequestedWritesNothing) {
  Tree tree;
  for (int index = 0; index < 20; ++index) {
    tree.write("file" + std::to_string(index) + ".txt", std::string(1000, 'a' + index));
  }
  std::stop_source stop;
  stop.request_stop();
  const MhlReport report = createMhlGeneration(tree.root(), {}, stop.get_token());
  EXPECT_TRUE(report.stopped);
  EXPECT_TRUE(report.manifestsWritten.empty());
  EXPECT_FALSE(fs::exists(historyFolder(tree.root())));
}

TEST(MhlHistoryCreate, RootGivenWithATrailingSlashOrRelativelyNamesTheFolder) {
  Tree tree("Top");
  tree.write("a.txt", "a");
  tree.write("sub/b.txt", "b");
  ASSERT_TRUE(create(tree.path("sub")).clean());
  const MhlReport report = create(tree.root() + "/");
  EXPECT_TRUE(report.clean()) << describe(report);
  EXPECT_EQ(outcomeOf(report, "b.txt", "sub"), MhlFileOutcome::verified) << describe(report);
  const MhlHistory history = readHistory(tree.root());
  ASSERT_EQ(history.generations.size(), 1U);
  EXPECT_TRUE(history.generations[0].fileName.starts_with("0001_Top_"))
      << history.generations[0].fileName;
  ASSERT_EQ(history.generations[0].manifest.references.size(), 1U);
  EXPECT_TRUE(
      history.generations[0].manifest.references[0].path.starts_with("sub/ascmhl/0002_sub_"))
      << history.generations[0].manifest.references[0].path;

  // From inside the folder, as ".".
  const fs::path previous = fs::current_path();
  fs::current_path(tree.root());
  const MhlReport relative = create(".");
  fs::current_path(previous);
  EXPECT_TRUE(relative.clean()) << describe(relative);
  const MhlHistory again = readHistory(tree.root());
  ASSERT_EQ(again.generations.size(), 2U);
  EXPECT_TRUE(again.generations[1].fileName.starts_with("0002_Top_"))
      << again.generations[1].fileName;
  const MhlReport verified = verify(tree.root() + "/");
  EXPECT_TRUE(verified.clean()) << describe(verified);
  EXPECT_EQ(outcomeOf(verified, "b.txt", "sub"), MhlFileOutcome::verified) << describe(verified);
}

// ----- verify ---------------------------------------------------------------------------------

TEST(MhlHistoryVerify, UntouchedTreeIsCleanAndNothingIsWritten) {
  Tree tree;
  tree.write("Stuff.txt", "stuff\n");
  tree.write("A/A1.txt", "A1\n");
  tree.write("A/B/deep.bin", std::string(100000, 'x'));
  ASSERT_TRUE(create(tree.root(), {ChecksumTypeMD5, ChecksumTypeXXHash64}).clean());
  const auto before = snapshot(tree.scratch().path());
  std::vector<std::string> seen;
  MhlVerifyOptions options;
  options.directoryHashes = true;
  options.onFile = [&seen](const MhlFileReport& file) { seen.push_back(file.path); };
  const MhlReport report = verifyMhlHistory(tree.root(), options);
  EXPECT_TRUE(report.clean()) << describe(report);
  EXPECT_EQ(report.count(MhlFileOutcome::verified), 3U) << describe(report);
  EXPECT_EQ(seen.size(), 3U);
  EXPECT_TRUE(report.manifestsWritten.empty());
  // Without directory hashes one recorded format is enough: the cheapest (xxh64 before md5).
  const MhlReport plain = verify(tree.root());
  EXPECT_TRUE(plain.clean()) << describe(plain);
  const MhlFileReport* file = reportOf(plain, "A/B/deep.bin");
  ASSERT_NE(file, nullptr);
  EXPECT_TRUE(file->checksums.contains(ChecksumTypeXXHash64));
  EXPECT_FALSE(file->checksums.contains(ChecksumTypeMD5));
  EXPECT_EQ(snapshot(tree.scratch().path()), before);
}

TEST(MhlHistoryVerify, CorruptedFileFailsAndNothingIsWritten) {
  Tree tree;
  tree.write("good.txt", "good");
  tree.write("bad.txt", "0123456789");
  ASSERT_TRUE(create(tree.root()).clean());
  const std::string recorded = toolHash("xxhsum -H1", tree.path("bad.txt"));
  {
    // Flip one byte in place (same size).
    const int descriptor = ::open(tree.path("bad.txt").c_str(), O_WRONLY);
    ASSERT_GE(descriptor, 0);
    ASSERT_EQ(::pwrite(descriptor, "X", 1, 4), 1);
    ::close(descriptor);
  }
  const auto before = snapshot(tree.scratch().path());
  const MhlReport report = verify(tree.root());
  EXPECT_FALSE(report.clean());
  EXPECT_TRUE(report.problems.empty()) << describe(report);
  EXPECT_EQ(outcomeOf(report, "good.txt"), MhlFileOutcome::verified);
  EXPECT_EQ(outcomeOf(report, "bad.txt"), MhlFileOutcome::failed) << describe(report);
  EXPECT_EQ(reportOf(report, "bad.txt")->detail,
            "xxh64 " + recorded + " != " + toolHash("xxhsum -H1", tree.path("bad.txt")));
  EXPECT_EQ(snapshot(tree.scratch().path()), before);
}

TEST(MhlHistoryVerify, MissingAndNewFilesAreReported) {
  Tree tree;
  tree.write("stays.txt", "s");
  tree.write("goes.txt", "g");
  ASSERT_TRUE(create(tree.root()).clean());
  fs::remove(tree.path("goes.txt"));
  tree.write("arrives.txt", "a");
  const MhlReport report = verify(tree.root());
  EXPECT_EQ(outcomeOf(report, "stays.txt"), MhlFileOutcome::verified) << describe(report);
  EXPECT_EQ(outcomeOf(report, "goes.txt"), MhlFileOutcome::missing) << describe(report);
  EXPECT_EQ(outcomeOf(report, "arrives.txt"), MhlFileOutcome::newFile) << describe(report);
  EXPECT_FALSE(report.clean());
}

// A history of three generations of one file, for the tests that damage the history itself.
struct ThreeGenerations {
  Tree tree;
  std::vector<std::string> manifests;  // paths, in chain order
  ThreeGenerations() {
    tree.write("file.txt", "content");
    for (int generation = 0; generation < 3; ++generation) {
      EXPECT_TRUE(create(tree.root()).clean());
    }
    for (const MhlChainEntry& entry : readChain(tree.root()).entries) {
      manifests.push_back(historyFolder(tree.root()) + "/" + entry.path);
    }
    EXPECT_EQ(manifests.size(), 3U);
  }
};

// Whether a problem of `report` is about the file `file`.
bool namesFile(const MhlReport& report, const std::string& file) {
  return std::any_of(report.problems.begin(), report.problems.end(),
                     [&file](const MhlError& problem) { return problem.source == file; });
}

TEST(MhlHistoryVerify, DeletedManifestIsAProblemNamingIt) {
  ThreeGenerations history;
  fs::remove(history.manifests[1]);
  const auto unchanged = snapshot(history.tree.root());
  const MhlReport report = verify(history.tree.root());
  EXPECT_EQ(snapshot(history.tree.root()), unchanged);
  EXPECT_FALSE(report.clean());
  ASSERT_EQ(report.problems.size(), 1U) << describe(report);
  EXPECT_TRUE(namesFile(report, history.manifests[1])) << describe(report);
  EXPECT_EQ(report.problems[0].kind, MhlErrorKind::unreadable);
  EXPECT_EQ(report.problems[0].code, ENOENT);
  // The files are still checked against what the other manifests hold.
  EXPECT_EQ(outcomeOf(report, "file.txt"), MhlFileOutcome::verified) << describe(report);
  // create refuses to append to a broken history.
  const auto before = snapshot(history.tree.root());
  const MhlReport created = create(history.tree.root());
  EXPECT_TRUE(namesFile(created, history.manifests[1])) << describe(created);
  EXPECT_TRUE(created.manifestsWritten.empty());
  EXPECT_EQ(snapshot(history.tree.root()), before);
  EXPECT_FALSE(readMhlHistory(history.tree.root()).ok());
}

TEST(MhlHistoryVerify, EditedManifestIsAC4MismatchNamingIt) {
  ThreeGenerations history;
  std::string bytes = readFile(history.manifests[0]);
  const auto at = bytes.find("<hostname>");
  ASSERT_NE(at, std::string::npos);
  bytes.insert(at + 10, "x");  // still a valid manifest, but not the one the chain recorded
  ASSERT_TRUE(parseMhlManifest(bytes).ok());
  testsupport::writeFile(history.manifests[0], bytesOf(bytes));
  const MhlReport report = verify(history.tree.root());
  ASSERT_EQ(report.problems.size(), 1U) << describe(report);
  EXPECT_TRUE(namesFile(report, history.manifests[0])) << describe(report);
  EXPECT_NE(report.problems[0].message.find("C4"), std::string::npos) << describe(report);
  EXPECT_FALSE(report.clean());
  EXPECT_FALSE(readMhlHistory(history.tree.root()).ok());
}

TEST(MhlHistoryVerify, ChainWithAGapIsAProblemNamingIt) {
  ThreeGenerations history;
  std::string chain = readFile(chainPath(history.tree.root()));
  const auto second = chain.find("sequencenr=\"2\"");
  ASSERT_NE(second, std::string::npos) << chain;
  const auto start = chain.rfind("<hashlist", second);
  const auto end = chain.find("</hashlist>", second);
  ASSERT_NE(start, std::string::npos);
  ASSERT_NE(end, std::string::npos);
  chain.erase(chain.rfind('\n', start) + 1,
              end + std::string("</hashlist>\n").size() - (chain.rfind('\n', start) + 1));
  ASSERT_EQ(validateMhlChain(chain), std::nullopt) << chain;  // valid XML, broken sequence
  testsupport::writeFile(chainPath(history.tree.root()), bytesOf(chain));
  const MhlReport report = verify(history.tree.root());
  ASSERT_EQ(report.problems.size(), 1U) << describe(report);
  EXPECT_TRUE(namesFile(report, chainPath(history.tree.root()))) << describe(report);
  EXPECT_GT(report.problems[0].line, 0U);
  EXPECT_FALSE(report.clean());
}

TEST(MhlHistoryVerify, ManifestInvalidAgainstTheSchemaIsAProblemNamingIt) {
  ThreeGenerations history;
  // Valid XML, not a valid manifest: <hostname> removed. The chain is updated to its C4 ID so
  // that only the schema can object.
  std::string bytes = readFile(history.manifests[2]);
  const auto start = bytes.find("<hostname>");
  const auto end = bytes.find("</hostname>");
  ASSERT_NE(start, std::string::npos);
  bytes.erase(start, end + std::string("</hostname>").size() - start);
  ASSERT_TRUE(validateMhlManifest(bytes).has_value());
  testsupport::writeFile(history.manifests[2], bytesOf(bytes));
  MhlChain chain = readChain(history.tree.root());
  chain.entries[2].c4.value = c4OfBytes(bytes);
  testsupport::writeFile(chainPath(history.tree.root()), bytesOf(writeMhlChain(chain).value()));

  const MhlReport report = verify(history.tree.root());
  ASSERT_EQ(report.problems.size(), 1U) << describe(report);
  EXPECT_TRUE(namesFile(report, history.manifests[2])) << describe(report);
  EXPECT_EQ(report.problems[0].kind, MhlErrorKind::schemaViolation) << describe(report);
  EXPECT_GT(report.problems[0].line, 0U);
  EXPECT_FALSE(report.clean());
}

TEST(MhlHistoryVerify, DirectoryHashesDetectARenamedFile) {
  Tree tree;
  tree.write("Stuff.txt", "stuff\n");
  tree.write("A/A1.txt", "A1\n");
  ASSERT_TRUE(create(tree.root()).clean());
  EXPECT_TRUE(verify(tree.root(), true).clean());
  fs::rename(tree.path("A/A1.txt"), tree.path("A/A2.txt"));

  // Without directory hashes: a missing and a new file, no problem.
  const MhlReport plain = verify(tree.root());
  EXPECT_EQ(outcomeOf(plain, "A/A1.txt"), MhlFileOutcome::missing) << describe(plain);
  EXPECT_EQ(outcomeOf(plain, "A/A2.txt"), MhlFileOutcome::newFile) << describe(plain);
  EXPECT_TRUE(plain.problems.empty()) << describe(plain);

  // With them: the structure hashes of A and of the root changed, the content hashes did not.
  const MhlReport report = verify(tree.root(), true);
  std::set<std::string> problems;
  for (const MhlError& problem : report.problems) {
    problems.insert(problem.source + ": " +
                    problem.message.substr(0, problem.message.find(" xxh64")));
  }
  EXPECT_EQ(problems, (std::set<std::string>{tree.path("A") + ": directory structure hash",
                                             tree.root() + ": directory structure hash"}))
      << describe(report);
}

TEST(MhlHistoryVerify, DirectoryHashesDetectChangedContent) {
  Tree tree;
  tree.write("Stuff.txt", "stuff\n");
  tree.write("A/A1.txt", "A1\n");
  ASSERT_TRUE(create(tree.root()).clean());
  tree.write("A/A1.txt", "A2\n");
  const MhlReport report = verify(tree.root(), true);
  EXPECT_EQ(outcomeOf(report, "A/A1.txt"), MhlFileOutcome::failed) << describe(report);
  std::set<std::string> problems;
  for (const MhlError& problem : report.problems) {
    problems.insert(problem.source + ": " +
                    problem.message.substr(0, problem.message.find(" xxh64")));
  }
  EXPECT_EQ(problems, (std::set<std::string>{tree.path("A") + ": directory content hash",
                                             tree.path("A") + ": directory structure hash",
                                             tree.root() + ": directory content hash",
                                             tree.root() + ": directory structure hash"}))
      << describe(report);
}

// ----- diff -----------------------------------------------------------------------------------

TEST(MhlHistoryDiff, NewAndMissingByNameWithoutHashing) {
  Tree tree;
  tree.write("stays.txt", "s");
  tree.write("changes.txt", "before");
  tree.write("locked.txt", "l");
  tree.write("goes.txt", "g");
  ASSERT_TRUE(create(tree.root()).clean());
  fs::remove(tree.path("goes.txt"));
  tree.write("changes.txt", "after, and longer");
  tree.write("sub/arrives.txt", "a");
  ASSERT_EQ(::chmod(tree.path("locked.txt").c_str(), 0), 0);
  const auto before = snapshot(tree.scratch().path());

  MhlReport report;
  {
    testsupport::EffectiveUserWithoutPrivileges unprivileged;
    if (!unprivileged.active()) GTEST_SKIP() << "cannot give up root to test permissions";
    report = diffMhlHistory(tree.root());
  }
  EXPECT_TRUE(report.problems.empty()) << describe(report);
  // Only what differs by name; the changed and the unreadable file are present, nothing hashed.
  ASSERT_EQ(report.files.size(), 2U) << describe(report);
  EXPECT_EQ(outcomeOf(report, "goes.txt"), MhlFileOutcome::missing);
  EXPECT_EQ(outcomeOf(report, "sub/arrives.txt"), MhlFileOutcome::newFile);
  for (const MhlFileReport& file : report.files) EXPECT_TRUE(file.checksums.empty());
  EXPECT_EQ(snapshot(tree.scratch().path()), before);
}

// ----- renames --------------------------------------------------------------------------------

TEST(MhlHistoryRename, HandWrittenGenerationWithPreviousPathIsFollowed) {
  Tree tree("Card");
  tree.write("A/old.mov", "moving picture");
  tree.write("keep.txt", "k");
  ASSERT_TRUE(create(tree.root()).clean());
  ASSERT_TRUE(create(tree.root()).clean());
  const std::string value = toolHash("xxhsum -H1", tree.path("A/old.mov"));
  fs::rename(tree.path("A/old.mov"), tree.path("A/new.mov"));

  // The third generation records the rename (ASC MHL 5.6.6), written by hand.
  MhlManifest manifest;
  manifest.creatorInfo.creationDate = MhlDateTime::fromText("2024-05-01T09:15:00Z").value();
  manifest.creatorInfo.hostName = "renaming-host";
  manifest.creatorInfo.tool = {"hand", "1"};
  MhlHashEntry entry;
  entry.path = "A/new.mov";
  entry.previousPath = "A/old.mov";
  entry.size = 14;
  entry.hashes.push_back({"xxh64", value, MhlHashAction::verified, std::nullopt, std::nullopt});
  manifest.hashes.push_back(entry);
  const std::string bytes = writeMhlManifest(manifest).value();
  const std::string name = mhlManifestFileName(3, "Card", std::chrono::system_clock::now());
  testsupport::writeFile(historyFolder(tree.root()) + "/" + name, bytesOf(bytes));
  MhlChain chain = readChain(tree.root());
  MhlChainEntry third;
  third.sequenceNumber = 3;
  third.path = name;
  third.c4.value = c4OfBytes(bytes);
  chain.entries.push_back(third);
  testsupport::writeFile(chainPath(tree.root()), bytesOf(writeMhlChain(chain).value()));

  const MhlHistory history = readHistory(tree.root());
  ASSERT_EQ(history.generations.size(), 3U);
  const std::map<std::string, MhlFileRecord> records = mhlFileRecords(history);
  EXPECT_FALSE(records.contains("A/old.mov"));
  ASSERT_TRUE(records.contains("A/new.mov"));
  EXPECT_EQ(records.at("A/new.mov").path, "A/new.mov");
  EXPECT_EQ(records.at("A/new.mov").usableHashes,
            (std::map<std::uint64_t, std::string>{{ChecksumTypeXXHash64.rawValue(), value}}));
  EXPECT_EQ(records.at("A/new.mov").size, 14U);
  EXPECT_TRUE(records.contains("keep.txt"));

  const MhlReport verified = verify(tree.root());
  EXPECT_TRUE(verified.clean()) << describe(verified);
  EXPECT_EQ(outcomeOf(verified, "A/new.mov"), MhlFileOutcome::verified) << describe(verified);
  EXPECT_EQ(verified.count(MhlFileOutcome::newFile), 0U) << describe(verified);
  EXPECT_TRUE(diffMhlHistory(tree.root()).files.empty());

  // The next generation verifies the file under its new name and does not repeat previousPath.
  const MhlReport fourth = create(tree.root());
  EXPECT_TRUE(fourth.clean()) << describe(fourth);
  EXPECT_EQ(outcomeOf(fourth, "A/new.mov"), MhlFileOutcome::verified) << describe(fourth);
  const MhlHistory afterRename = readHistory(tree.root());
  ASSERT_EQ(afterRename.generations.size(), 4U);
  const MhlHashEntry* recorded = entryOf(afterRename.generations[3].manifest, "A/new.mov");
  ASSERT_NE(recorded, nullptr);
  EXPECT_EQ(recorded->previousPath, std::nullopt);

  // Flatten keeps the file under its new name, with its earliest hash and the previous path.
  const std::string destination = tree.scratch().file("out");
  fs::create_directories(destination);
  const MhlResult<std::string> flattened = flattenMhlHistory(tree.root(), destination);
  ASSERT_TRUE(flattened.ok()) << flattened.error().description();
  const MhlManifest flat = readMhlManifest(*flattened).value();
  EXPECT_EQ(entryOf(flat, "A/old.mov"), nullptr);
  const MhlHashEntry* moved = entryOf(flat, "A/new.mov");
  ASSERT_NE(moved, nullptr);
  EXPECT_EQ(moved->previousPath, "A/old.mov");
  ASSERT_EQ(moved->hashes.size(), 1U);
  EXPECT_EQ(moved->hashes[0].value, value);
  EXPECT_EQ(moved->hashes[0].action, MhlHashAction::original);
}

// ----- ignore patterns ------------------------------------------------------------------------

TEST(MhlHistoryIgnore, PatternsKeepFilesOutAreRecordedAndMergedLater) {
  Tree tree;
  tree.write("clip.mov", "c");
  tree.write("scratch.tmp", "t");
  tree.write("cache/deep/x.tmp", "x");
  tree.write(".DS_Store", "finder");
  const MhlReport first = create(tree.root(), {ChecksumTypeXXHash64}, {"*.tmp"});
  EXPECT_TRUE(first.clean()) << describe(first);
  EXPECT_EQ(first.files.size(), 1U) << describe(first);

  // Later: another pattern; files matching the first one still stay out without repeating it.
  tree.write("notes.bak", "b");
  tree.write("later.tmp", "l");
  const MhlReport second = create(tree.root(), {ChecksumTypeXXHash64}, {"*.bak"});
  EXPECT_TRUE(second.clean()) << describe(second);
  EXPECT_EQ(second.files.size(), 1U) << describe(second);
  EXPECT_EQ(outcomeOf(second, "clip.mov"), MhlFileOutcome::verified);

  const MhlHistory history = readHistory(tree.root());
  ASSERT_EQ(history.generations.size(), 2U);
  const std::vector<std::string> defaults = {".DS_Store", "ascmhl", "ascmhl/"};
  std::vector<std::string> firstPatterns = defaults;
  firstPatterns.push_back("*.tmp");
  std::vector<std::string> secondPatterns = firstPatterns;
  secondPatterns.push_back("*.bak");
  EXPECT_EQ(history.generations[0].manifest.processInfo.ignorePatterns, firstPatterns);
  EXPECT_EQ(history.generations[1].manifest.processInfo.ignorePatterns, secondPatterns);
  EXPECT_EQ(history.ignorePatterns(), secondPatterns);
  for (const MhlGeneration& generation : history.generations) {
    ASSERT_EQ(generation.manifest.hashes.size(), 1U);
    EXPECT_EQ(generation.manifest.hashes[0].path, "clip.mov");
  }
  // A third generation without patterns keeps both.
  EXPECT_TRUE(create(tree.root()).clean());
  EXPECT_EQ(readHistory(tree.root()).generations.at(2).manifest.processInfo.ignorePatterns,
            secondPatterns);

  // Verify and diff ignore them as well.
  const MhlReport verified = verify(tree.root());
  EXPECT_TRUE(verified.clean()) << describe(verified);
  EXPECT_EQ(verified.files.size(), 1U) << describe(verified);
  EXPECT_TRUE(diffMhlHistory(tree.root()).files.empty());
}

// ----- nested histories -----------------------------------------------------------------------

TEST(MhlHistoryNested, TopReferencesTheNestedHistoryWhichGetsANewGeneration) {
  Tree tree("Top");
  tree.write("top.txt", "top file");
  tree.write("sub/inner.txt", "inner file");
  tree.write("sub/clips/c.mov", "clip");
  const MhlReport nestedFirst = create(tree.path("sub"));
  ASSERT_TRUE(nestedFirst.clean()) << describe(nestedFirst);

  const MhlReport report = create(tree.root());
  EXPECT_TRUE(report.clean()) << describe(report);
  EXPECT_EQ(outcomeOf(report, "inner.txt", "sub"), MhlFileOutcome::verified) << describe(report);
  EXPECT_EQ(outcomeOf(report, "clips/c.mov", "sub"), MhlFileOutcome::verified) << describe(report);
  EXPECT_EQ(outcomeOf(report, "top.txt"), MhlFileOutcome::original) << describe(report);
  EXPECT_EQ(report.files.size(), 3U) << describe(report);

  // sub got its second generation (propagation, ASC MHL 5.3.2), then the top its first.
  const MhlChain nestedChain = readChain(tree.path("sub"));
  ASSERT_EQ(nestedChain.entries.size(), 2U);
  const std::string nestedName = nestedChain.entries[1].path;
  EXPECT_TRUE(nestedName.starts_with("0002_sub_")) << nestedName;
  const MhlChain topChain = readChain(tree.root());
  ASSERT_EQ(topChain.entries.size(), 1U);
  EXPECT_EQ(
      report.manifestsWritten,
      (std::vector<std::string>{"sub/ascmhl/" + nestedName, "ascmhl/" + topChain.entries[0].path}));
  // One operation, one date and time in every name (ASC MHL 6.3).
  EXPECT_EQ(nestedName.substr(nestedName.size() - 22),
            topChain.entries[0].path.substr(topChain.entries[0].path.size() - 22));

  // The top manifest references sub's newest manifest and records none of sub's files.
  const MhlHistory history = readHistory(tree.root());
  ASSERT_EQ(history.generations.size(), 1U);
  const MhlManifest& top = history.generations[0].manifest;
  ASSERT_EQ(top.references.size(), 1U);
  EXPECT_EQ(top.references[0].path, "sub/ascmhl/" + nestedName);
  EXPECT_EQ(top.references[0].c4.format, "c4");
  EXPECT_EQ(top.references[0].c4.value,
            c4OfBytes(readFile(historyFolder(tree.path("sub")) + "/" + nestedName)));
  ASSERT_EQ(top.hashes.size(), 1U);
  EXPECT_EQ(top.hashes[0].path, "top.txt");
  for (const MhlDirectoryHashEntry& folder : top.directoryHashes) {
    EXPECT_FALSE(folder.path.starts_with("sub")) << folder.path;
  }
  expectXmllintAccepts("ASCMHL.xsd", historyFolder(tree.root()) + "/" + topChain.entries[0].path);
  ASSERT_EQ(history.children.size(), 1U);
  EXPECT_EQ(history.children[0].root, tree.path("sub"));
  EXPECT_EQ(history.children[0].generations.size(), 2U);
  EXPECT_EQ(mhlFileRecords(history).size(), 1U);

  // Verify of the top checks sub's files too, under their history.
  const MhlReport verified = verify(tree.root(), true);
  EXPECT_TRUE(verified.clean()) << describe(verified);
  EXPECT_EQ(outcomeOf(verified, "inner.txt", "sub"), MhlFileOutcome::verified)
      << describe(verified);
  tree.write("sub/clips/c.mov", "CLIP");
  const MhlReport damaged = verify(tree.root());
  EXPECT_EQ(outcomeOf(damaged, "clips/c.mov", "sub"), MhlFileOutcome::failed) << describe(damaged);
  EXPECT_EQ(outcomeOf(damaged, "top.txt"), MhlFileOutcome::verified) << describe(damaged);
  EXPECT_FALSE(damaged.clean());
}

TEST(MhlHistoryNested, CreatingInTheTopFirstThenInSubMovesNothing) {
  // A history created in sub after the top recorded sub's files: the top still holds the old
  // records (they are its own history), and the next top generation references sub instead.
  Tree tree("Top");
  tree.write("top.txt", "t");
  tree.write("sub/inner.txt", "i");
  ASSERT_TRUE(create(tree.root()).clean());
  ASSERT_TRUE(create(tree.path("sub")).clean());
  const MhlReport report = create(tree.root());
  EXPECT_EQ(outcomeOf(report, "inner.txt", "sub"), MhlFileOutcome::verified) << describe(report);
  const MhlHistory history = readHistory(tree.root());
  ASSERT_EQ(history.generations.size(), 2U);
  EXPECT_EQ(history.generations[1].manifest.references.size(), 1U);
  EXPECT_EQ(entryOf(history.generations[1].manifest, "sub/inner.txt"), nullptr);
}

// ----- trees of every shape -------------------------------------------------------------------

TEST(MhlHistoryCreate, EmptyFoldersGetTheHashOfNothing) {
  Tree tree;
  tree.write("file.txt", "f");
  fs::create_directories(tree.path("Empty"));
  fs::create_directories(tree.path("B/C"));
  const MhlReport report = create(tree.root());
  EXPECT_TRUE(report.clean()) << describe(report);
  const MhlHistory history = readHistory(tree.root());
  ASSERT_EQ(history.generations.size(), 1U);
  const MhlManifest& manifest = history.generations[0].manifest;
  for (const std::string empty : {"Empty", "B/C"}) {
    SCOPED_TRACE(empty);
    const MhlDirectoryHashEntry* folder = folderOf(manifest, empty);
    ASSERT_NE(folder, nullptr);
    EXPECT_EQ(valueOf(folder->content, "xxh64"), kXxh64OfNothing);
    EXPECT_EQ(valueOf(folder->structure, "xxh64"), kXxh64OfNothing);
  }
  ASSERT_NE(folderOf(manifest, "B"), nullptr);
  EXPECT_EQ(manifest.directoryHashes.size(), 3U);
  EXPECT_TRUE(verify(tree.root(), true).clean());
}

TEST(MhlHistoryCreate, NonAsciiNamesAreKeptAsBytes) {
  Tree tree;
  const std::string composed = "Caf\xc3\xa9.txt";     // NFC: U+00E9
  const std::string decomposed = "Cafe\xcc\x81.txt";  // NFD: e + U+0301
  const std::string japanese = "\xe6\x97\xa5\xe6\x9c\xac/\xe3\x83\x95\xe3\x82\xa1.txt";
  tree.write(composed, "composed");
  tree.write(decomposed, "decomposed");
  tree.write(japanese, "japanese");
  const MhlReport report = create(tree.root());
  EXPECT_TRUE(report.clean()) << describe(report);
  const MhlHistory history = readHistory(tree.root());
  const MhlManifest& manifest = history.generations.at(0).manifest;
  ASSERT_EQ(manifest.hashes.size(), 3U);
  for (const auto& [name, content] : std::map<std::string, std::string>{
           {composed, "composed"}, {decomposed, "decomposed"}, {japanese, "japanese"}}) {
    const MhlHashEntry* entry = entryOf(manifest, name);
    ASSERT_NE(entry, nullptr) << name;
    EXPECT_EQ(entry->hashes.at(0).value, toolHash("xxhsum -H1", tree.path(name)));
  }
  expectXmllintAccepts("ASCMHL.xsd",
                       historyFolder(tree.root()) + "/" + history.generations[0].fileName);
  const MhlReport verified = verify(tree.root(), true);
  EXPECT_TRUE(verified.clean()) << describe(verified);
  EXPECT_EQ(verified.count(MhlFileOutcome::verified), 3U);
  EXPECT_TRUE(diffMhlHistory(tree.root()).files.empty());
}

TEST(MhlHistoryCreate, ReadOnlyRootIsRefusedBeforeHashing) {
  Tree tree;
  tree.write("a.txt", "a");
  tree.write("b/c.txt", "c");
  ASSERT_EQ(::chmod(tree.root().c_str(), 0555), 0);
  const auto before = snapshot(tree.scratch().path());
  MhlReport report;
  std::size_t settled = 0;
  {
    testsupport::EffectiveUserWithoutPrivileges unprivileged;
    if (!unprivileged.active()) GTEST_SKIP() << "cannot give up root to test permissions";
    MhlCreateOptions options;
    options.onFile = [&settled](const MhlFileReport&) { ++settled; };
    report = createMhlGeneration(tree.root(), options);
  }
  ASSERT_EQ(report.problems.size(), 1U) << describe(report);
  EXPECT_EQ(report.problems[0].source, tree.root());
  EXPECT_EQ(report.problems[0].code, EACCES);
  EXPECT_TRUE(report.files.empty()) << describe(report);
  EXPECT_EQ(settled, 0U);
  EXPECT_TRUE(report.manifestsWritten.empty());
  EXPECT_EQ(snapshot(tree.scratch().path()), before);
}

TEST(MhlHistoryCreate, ReadOnlyHistoryFolderIsRefusedBeforeHashing) {
  Tree tree;
  tree.write("a.txt", "a");
  ASSERT_TRUE(create(tree.root()).clean());
  ASSERT_EQ(::chmod(historyFolder(tree.root()).c_str(), 0555), 0);
  const auto before = snapshot(tree.scratch().path());
  MhlReport report;
  {
    testsupport::EffectiveUserWithoutPrivileges unprivileged;
    if (!unprivileged.active()) GTEST_SKIP() << "cannot give up root to test permissions";
    report = create(tree.root());
  }
  ASSERT_EQ(report.problems.size(), 1U) << describe(report);
  EXPECT_EQ(report.problems[0].source, historyFolder(tree.root()));
  EXPECT_TRUE(report.files.empty()) << describe(report);
  EXPECT_EQ(snapshot(tree.scratch().path()), before);
}

TEST(MhlHistoryCreate, Sha256IsRefusedWithTheRefusalMessage) {
  Tree tree;
  tree.write("a.txt", "a");
  const auto refusal = checkMhlFormat(ChecksumTypeSHA256);
  ASSERT_TRUE(std::holds_alternative<MhlFormatRefusal>(refusal));
  const std::string message = std::get<MhlFormatRefusal>(refusal).message;
  for (const std::vector<ChecksumType>& formats :
       {std::vector{ChecksumTypeSHA256}, std::vector{ChecksumTypeXXHash64, ChecksumTypeSHA256}}) {
    const MhlReport report = create(tree.root(), formats);
    ASSERT_EQ(report.problems.size(), 1U) << describe(report);
    EXPECT_EQ(report.problems[0].message, message);
    EXPECT_TRUE(report.files.empty());
  }
  EXPECT_NE(message.find("SHA-2 256"), std::string::npos) << message;
  EXPECT_FALSE(fs::exists(historyFolder(tree.root())));
}

// ----- flatten --------------------------------------------------------------------------------

TEST(MhlHistoryFlatten, OneManifestWithTheEarliestUsableHashOfEachFormat) {
  Tree tree("Card");
  tree.write("a.txt", "alpha");
  tree.write("b.txt", "bravo");
  tree.write("sub/s.txt", "sierra");
  ASSERT_TRUE(create(tree.path("sub")).clean());
  ASSERT_TRUE(create(tree.root()).clean());
  const std::string aXxh64 = toolHash("xxhsum -H1", tree.path("a.txt"));
  const std::string bOriginal = toolHash("xxhsum -H1", tree.path("b.txt"));
  tree.write("b.txt", "BRAVO");
  const MhlReport second = create(tree.root(), {ChecksumTypeMD5, ChecksumTypeXXHash64});
  EXPECT_EQ(outcomeOf(second, "b.txt"), MhlFileOutcome::failed) << describe(second);
  const MhlHistory history = readHistory(tree.root());
  ASSERT_EQ(history.generations.size(), 2U);

  const std::string destination = tree.scratch().file("out");
  fs::create_directories(destination);
  const auto before = snapshot(tree.root());
  const MhlResult<std::string> written = flattenMhlHistory(tree.root(), destination);
  ASSERT_TRUE(written.ok()) << written.error().description();
  EXPECT_EQ(snapshot(tree.root()), before);  // not appended to the history
  const std::set<std::string> names = namesIn(destination);
  ASSERT_EQ(names.size(), 1U);
  EXPECT_EQ(*written, destination + "/" + *names.begin());
  EXPECT_TRUE(matchesShape(*names.begin(), "Card_####-##-##_######Z.mhl")) << *names.begin();

  const std::string bytes = readFile(*written);
  EXPECT_EQ(validateMhlManifest(bytes), std::nullopt);
  expectXmllintAccepts("ASCMHL.xsd", *written);
  const MhlManifest flat = parseMhlManifest(bytes).value();
  EXPECT_EQ(flat.processInfo.process, MhlProcess::flatten);
  EXPECT_TRUE(flat.directoryHashes.empty());
  EXPECT_TRUE(flat.references.empty());
  ASSERT_EQ(flat.hashes.size(), 3U);

  // a.txt: xxh64 of the first generation (original, not the later verified copy), md5 of the
  // second.
  const MhlHashEntry* a = entryOf(flat, "a.txt");
  ASSERT_NE(a, nullptr);
  ASSERT_EQ(a->hashes.size(), 2U);
  EXPECT_EQ(valueOf(a->hashes, "xxh64"), aXxh64);
  EXPECT_EQ(hashOf(a->hashes, "xxh64")->action, MhlHashAction::original);
  EXPECT_EQ(hashOf(a->hashes, "xxh64")->hashDate,
            history.generations[0].manifest.creatorInfo.creationDate);
  EXPECT_EQ(valueOf(a->hashes, "md5"), toolHash("md5sum", tree.path("a.txt")));
  // b.txt: the failed xxh64 of the second generation is dropped; the original stays.
  const MhlHashEntry* b = entryOf(flat, "b.txt");
  ASSERT_NE(b, nullptr);
  ASSERT_NE(hashOf(b->hashes, "xxh64"), nullptr);
  EXPECT_EQ(valueOf(b->hashes, "xxh64"), bOriginal);
  EXPECT_EQ(hashOf(b->hashes, "xxh64")->action, MhlHashAction::original);
  for (const MhlHash& hash : b->hashes) EXPECT_NE(hash.action, MhlHashAction::failed);
  // Files of the nested history, with paths relative to the top.
  const MhlHashEntry* s = entryOf(flat, "sub/s.txt");
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(valueOf(s->hashes, "xxh64"), toolHash("xxhsum -H1", tree.path("sub/s.txt")));
  EXPECT_EQ(hashOf(s->hashes, "xxh64")->action, MhlHashAction::original);
}

TEST(MhlHistoryFlatten, FailedHashThatCameFirstIsDropped) {
  // A hand-written second generation whose xxh3 of a file is `failed` without any earlier xxh3:
  // flatten must not carry it, even as the earliest of its format.
  Tree tree("Card");
  tree.write("a.txt", "alpha");
  ASSERT_TRUE(create(tree.root()).clean());
  MhlManifest manifest;
  manifest.creatorInfo.creationDate = MhlDateTime::fromText("2024-05-01T09:15:00Z").value();
  manifest.creatorInfo.hostName = "host";
  manifest.creatorInfo.tool = {"hand", "1"};
  MhlHashEntry entry;
  entry.path = "a.txt";
  entry.hashes.push_back(
      {"xxh3", "0123456789abcdef", MhlHashAction::failed, std::nullopt, std::nullopt});
  manifest.hashes.push_back(entry);
  const std::string bytes = writeMhlManifest(manifest).value();
  const std::string name = mhlManifestFileName(2, "Card", std::chrono::system_clock::now());
  testsupport::writeFile(historyFolder(tree.root()) + "/" + name, bytesOf(bytes));
  MhlChain chain = readChain(tree.root());
  MhlChainEntry second;
  second.sequenceNumber = 2;
  second.path = name;
  second.c4.value = c4OfBytes(bytes);
  chain.entries.push_back(second);
  testsupport::writeFile(chainPath(tree.root()), bytesOf(writeMhlChain(chain).value()));

  const std::string destination = tree.scratch().file("out");
  fs::create_directories(destination);
  const MhlResult<std::string> written = flattenMhlHistory(tree.root(), destination);
  ASSERT_TRUE(written.ok()) << written.error().description();
  const MhlManifest flat = readMhlManifest(*written).value();
  ASSERT_EQ(flat.hashes.size(), 1U);
  ASSERT_EQ(flat.hashes[0].hashes.size(), 1U);
  EXPECT_EQ(flat.hashes[0].hashes[0].format, "xxh64");
}

TEST(MhlHistoryFlatten, BrokenHistoryIsAnErrorAndNothingIsWritten) {
  Tree tree("Card");
  tree.write("a.txt", "alpha");
  ASSERT_TRUE(create(tree.root()).clean());
  fs::remove(historyFolder(tree.root()) + "/" + readChain(tree.root()).entries.at(0).path);
  const std::string destination = tree.scratch().file("out");
  fs::create_directories(destination);
  EXPECT_FALSE(flattenMhlHistory(tree.root(), destination).ok());
  EXPECT_TRUE(namesIn(destination).empty());
}

// ----- reading --------------------------------------------------------------------------------

TEST(MhlHistoryRead, RootWithoutHistoryHasNoGenerations) {
  Tree tree;
  tree.write("a.txt", "a");
  const MhlHistory history = readHistory(tree.root());
  EXPECT_TRUE(history.generations.empty());
  EXPECT_TRUE(history.children.empty());
  EXPECT_EQ(history.ignorePatterns(), (std::vector<std::string>{".DS_Store", "ascmhl", "ascmhl/"}));
  const MhlReport diff = diffMhlHistory(tree.root());
  EXPECT_EQ(outcomeOf(diff, "a.txt"), MhlFileOutcome::newFile) << describe(diff);
}

TEST(MhlHistoryRead, ManifestFileNameIsSequenceFolderAndUtcTime) {
  EXPECT_EQ(mhlManifestFileName(1, "A002R2EC", std::chrono::system_clock::from_time_t(1546848148)),
            "0001_A002R2EC_2019-01-07_080228Z.mhl");  // the example name of ASC MHL 6.3
  EXPECT_EQ(mhlManifestFileName(12345, "Card", std::chrono::system_clock::from_time_t(0)),
            "12345_Card_1970-01-01_000000Z.mhl");
}

}  // namespace
}  // namespace corvane
