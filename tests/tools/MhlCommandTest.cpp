// Runs `corvane-checksum mhl` on scratch folder trees and checks what it prints, what it writes
// into the `ascmhl` folder and its exit status. Checksums are cross-checked with the md5sum and
// xxhsum programs and the independent references of support/References.hpp; manifests and chain
// files are validated with xmllint against the ASC MHL schemas when it is installed, and read
// back with the library's reader to look at their records.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "corvane/MhlManifest.hpp"
#include "corvane/MhlXml.hpp"
#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"
#include "support/Vectors.hpp"

namespace {

namespace fs = std::filesystem;
using corvane::MhlHash;
using corvane::MhlHashAction;
using corvane::MhlHashEntry;
using corvane::MhlManifest;
using corvane::testsupport::bytesOf;
using corvane::testsupport::haveProgram;
using corvane::testsupport::readFile;
using corvane::testsupport::RunResult;
using corvane::testsupport::runShell;
using corvane::testsupport::runTool;
using corvane::testsupport::ScratchDirectory;
using corvane::testsupport::shellQuote;

// Relative path -> content.
using Tree = std::map<std::string, std::string>;

const Tree kTree = {{"a.txt", "hello"}, {"b.bin", "\x01\x02\x03"}, {"sub/c.txt", "world"}};

std::string xxh64(const std::string& data) {
  return corvane::testsupport::xxHash64Reference(bytesOf(data));
}
std::string c4(const std::string& data) { return corvane::testsupport::c4Reference(bytesOf(data)); }

std::string files(std::size_t count) {
  return std::to_string(count) + (count == 1 ? " file" : " files");
}

// The summary lines of create, verify and diff.
std::string createSummary(std::size_t original, std::size_t verified, std::size_t failed,
                          std::size_t missing, std::size_t unreadable) {
  return files(original + verified + failed + missing + unreadable) + ": " +
         std::to_string(original) + " original, " + std::to_string(verified) + " verified, " +
         std::to_string(failed) + " failed, " + std::to_string(missing) + " missing, " +
         std::to_string(unreadable) + " unreadable\n";
}
std::string verifySummary(std::size_t verified, std::size_t failed, std::size_t missing,
                          std::size_t added, std::size_t unreadable) {
  return files(verified + failed + missing + added + unreadable) + ": " + std::to_string(verified) +
         " verified, " + std::to_string(failed) + " failed, " + std::to_string(missing) +
         " missing, " + std::to_string(added) + " new, " + std::to_string(unreadable) +
         " unreadable\n";
}
std::string diffSummary(std::size_t missing, std::size_t added) {
  return std::to_string(missing) + " missing, " + std::to_string(added) + " new, 0 unreadable\n";
}

// The checksum a program such as md5sum prints for the bytes of the file at `path`.
std::string checksumFromProgram(const std::string& program, const fs::path& path) {
  const std::string line =
      runShell(program + " < " + shellQuote(path.string()) + " 2>/dev/null").out;
  return line.substr(0, line.find(' '));
}

fs::path schemaDirectory() {
  return corvane::testsupport::testDataDirectory().parent_path().parent_path() / "src" / "mhl" /
         "xsd";
}

// Validates `file` with xmllint against `schema` (ASCMHL.xsd or ASCMHLDirectory.xsd); nothing
// when xmllint is not installed.
void expectValidAgainst(const fs::path& file, const std::string& schema) {
  if (!haveProgram("xmllint")) return;
  const RunResult run =
      runShell("xmllint --noout --schema " + shellQuote((schemaDirectory() / schema).string()) +
               " " + shellQuote(file.string()) + " 2>&1");
  EXPECT_EQ(run.status, 0) << file << ": " << run.out;
}

const MhlHashEntry* entryOf(const MhlManifest& manifest, const std::string& path) {
  for (const MhlHashEntry& entry : manifest.hashes) {
    if (entry.path == path) return &entry;
  }
  return nullptr;
}

std::optional<MhlHash> hashOf(const MhlManifest& manifest, const std::string& path,
                              const std::string& format) {
  const MhlHashEntry* entry = entryOf(manifest, path);
  if (entry == nullptr) return std::nullopt;
  for (const MhlHash& hash : entry->hashes) {
    if (hash.format == format) return hash;
  }
  return std::nullopt;
}

// `text` with the characters that mean something in a regular expression escaped.
std::string regexEscaped(const std::string& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

// Runs the tool without root's right to read and write everything: nothing when the tests do
// not run as root, setpriv to "nobody" (65534) when they do, nothing possible without setpriv.
std::optional<std::string> unprivilegedPrefix() {
  if (::geteuid() != 0) return std::string();
  if (!haveProgram("setpriv")) return std::nullopt;
  return std::string("setpriv --reuid=65534 --regid=65534 --clear-groups ");
}

class MhlCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_TOOL();
    root_ = scratch_.path() / "card";
    fs::create_directories(root_);
  }

  std::string root() const { return root_.string(); }

  void write(const Tree& tree, const fs::path& scope = {}) const {
    for (const auto& [path, content] : tree) {
      const fs::path file = (scope.empty() ? root_ : scope) / path;
      fs::create_directories(file.parent_path());
      corvane::testsupport::writeFile(file.string(), bytesOf(content));
    }
  }

  static RunResult mhl(std::vector<std::string> arguments, const std::string& prefix = "") {
    arguments.insert(arguments.begin(), "mhl");
    return runTool(arguments, prefix);
  }

  // The manifest files of the history of `scope` (default: the root), in name order.
  std::vector<std::string> manifests(const fs::path& scope = {}) const {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry :
         fs::directory_iterator((scope.empty() ? root_ : scope) / "ascmhl", error)) {
      if (entry.path().extension() == ".mhl") names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  fs::path historyFile(const std::string& name, const fs::path& scope = {}) const {
    return (scope.empty() ? root_ : scope) / "ascmhl" / name;
  }

  MhlManifest readManifest(const fs::path& path) const {
    auto manifest = corvane::readMhlManifest(path.string());
    if (!manifest) {
      ADD_FAILURE() << manifest.error().description();
      return {};
    }
    return *manifest;
  }

  // Replaces the first match of `pattern` in the file at `path`.
  static void edit(const fs::path& path, const std::string& pattern,
                   const std::string& replacement) {
    const std::string text = readFile(path);
    const std::string changed = std::regex_replace(text, std::regex(pattern), replacement,
                                                   std::regex_constants::format_first_only);
    ASSERT_NE(changed, text) << "no " << pattern << " in " << path;
    corvane::testsupport::writeFile(path.string(), bytesOf(changed));
  }

  ScratchDirectory scratch_;
  fs::path root_;
};

// ----- create --------------------------------------------------------------------------------

TEST_F(MhlCommand, CreateWritesFirstManifestAndChainThatValidate) {
  write(kTree);
  const RunResult run = mhl({"create", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  const std::vector<std::string> names = manifests();
  ASSERT_EQ(names.size(), 1u);
  EXPECT_TRUE(std::regex_match(names[0], std::regex(R"(0001_card_\d{4}-\d\d-\d\d_\d{6}Z\.mhl)")))
      << names[0];
  EXPECT_EQ(run.out, "created: ascmhl/" + names[0] + "\n" + createSummary(3, 0, 0, 0, 0));
  EXPECT_TRUE(fs::is_regular_file(historyFile("ascmhl_chain.xml")));
  expectValidAgainst(historyFile(names[0]), "ASCMHL.xsd");
  expectValidAgainst(historyFile("ascmhl_chain.xml"), "ASCMHLDirectory.xsd");

  const MhlManifest manifest = readManifest(historyFile(names[0]));
  EXPECT_EQ(manifest.processInfo.process, corvane::MhlProcess::inPlace);
  ASSERT_EQ(manifest.hashes.size(), 3u);
  for (const auto& [path, content] : kTree) {
    const auto hash = hashOf(manifest, path, "xxh64");
    ASSERT_TRUE(hash) << path;
    EXPECT_EQ(hash->value, xxh64(content)) << path;
    EXPECT_EQ(hash->action, MhlHashAction::original) << path;
    EXPECT_EQ(entryOf(manifest, path)->size, content.size());
  }
  // The chain lists the manifest with the C4 ID of its bytes.
  const std::string chain = readFile(historyFile("ascmhl_chain.xml"));
  EXPECT_NE(chain.find("<path>" + names[0] + "</path>"), std::string::npos) << chain;
  EXPECT_NE(chain.find(c4(readFile(historyFile(names[0])))), std::string::npos) << chain;
}

TEST_F(MhlCommand, SecondCreateRecordsFailedVerifiedOriginalAndMissing) {
  write(kTree);
  ASSERT_EQ(mhl({"create", root()}).status, 0);
  write({{"a.txt", "HELLO"}, {"new.txt", "fresh"}});
  fs::remove(root_ / "sub" / "c.txt");
  const RunResult run = mhl({"create", "-v", root()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "");
  const std::vector<std::string> names = manifests();
  ASSERT_EQ(names.size(), 2u);
  EXPECT_TRUE(names[1].starts_with("0002_card_")) << names[1];
  EXPECT_EQ(run.out, "failed: a.txt (XXH64 " + xxh64("hello") + " != " + xxh64("HELLO") +
                         ")\n"
                         "verified: b.bin\n"
                         "original: new.txt\n"
                         "missing: sub/c.txt\n"
                         "created: ascmhl/" +
                         names[1] + "\n" + createSummary(1, 1, 1, 1, 0));
  expectValidAgainst(historyFile(names[1]), "ASCMHL.xsd");
  expectValidAgainst(historyFile("ascmhl_chain.xml"), "ASCMHLDirectory.xsd");

  const MhlManifest second = readManifest(historyFile(names[1]));
  EXPECT_EQ(hashOf(second, "a.txt", "xxh64")->action, MhlHashAction::failed);
  EXPECT_EQ(hashOf(second, "a.txt", "xxh64")->value, xxh64("HELLO"));
  EXPECT_EQ(hashOf(second, "b.bin", "xxh64")->action, MhlHashAction::verified);
  EXPECT_EQ(hashOf(second, "new.txt", "xxh64")->action, MhlHashAction::original);
  EXPECT_EQ(entryOf(second, "sub/c.txt"), nullptr);
  // Without -v only what needs attention is printed.
  const RunResult quiet = mhl({"create", root()});
  EXPECT_EQ(quiet.status, 1);
  EXPECT_EQ(quiet.out, "failed: a.txt (XXH64 " + xxh64("hello") + " != " + xxh64("HELLO") +
                           ")\n"
                           "missing: sub/c.txt\n"
                           "created: ascmhl/" +
                           manifests()[2] + "\n" + createSummary(0, 2, 1, 1, 0));
}

TEST_F(MhlCommand, IgnorePatternsKeepFilesOutAndLaterGenerationsKeepThem) {
  write({{"a.txt", "a"}, {"x.tmp", "x"}, {"sub/y.tmp", "y"}, {"log/run.log", "l"}});
  const std::string patterns =
      scratch_.writeText("patterns", "# comments and blanks skipped\n\n*.log\r\n");
  RunResult run = mhl({"create", "--ignore", "*.tmp", "--ignore-from", patterns, root()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "created: ascmhl/" + manifests()[0] + "\n" + createSummary(1, 0, 0, 0, 0));
  MhlManifest manifest = readManifest(historyFile(manifests()[0]));
  ASSERT_EQ(manifest.hashes.size(), 1u);
  EXPECT_EQ(manifest.hashes[0].path, "a.txt");
  const std::vector<std::string>& recorded = manifest.processInfo.ignorePatterns;
  EXPECT_NE(std::find(recorded.begin(), recorded.end(), "*.tmp"), recorded.end());
  EXPECT_NE(std::find(recorded.begin(), recorded.end(), "*.log"), recorded.end());
  EXPECT_EQ(std::find(recorded.begin(), recorded.end(), "# comments and blanks skipped"),
            recorded.end());

  // The next generation keeps the patterns without being told.
  write({{"z.tmp", "z"}, {"sub/more.log", "m"}});
  run = mhl({"create", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "created: ascmhl/" + manifests()[1] + "\n" + createSummary(0, 1, 0, 0, 0));
  manifest = readManifest(historyFile(manifests()[1]));
  ASSERT_EQ(manifest.hashes.size(), 1u);
  const std::vector<std::string>& kept = manifest.processInfo.ignorePatterns;
  EXPECT_NE(std::find(kept.begin(), kept.end(), "*.tmp"), kept.end());
  EXPECT_NE(std::find(kept.begin(), kept.end(), "*.log"), kept.end());
  // Neither verify nor diff sees the ignored files.
  run = mhl({"diff", root()});
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_EQ(run.out, diffSummary(0, 0));
  run = mhl({"verify", root()});
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_EQ(run.out, verifySummary(1, 0, 0, 0, 0));
}

TEST_F(MhlCommand, SeveralFormatsAreRecordedAndMatchOtherPrograms) {
  if (!haveProgram("md5sum") || !haveProgram("xxhsum")) {
    GTEST_SKIP() << "md5sum or xxhsum not installed";
  }
  write(kTree);
  // Names without regard to case, comma lists and repeats, a repeat counting once.
  const RunResult run = mhl({"create", "-a", "md5,XXH64", "-a", "c4,md5", "--json", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  const auto document = nlohmann::json::parse(run.out);
  EXPECT_EQ(document["command"], "create");
  EXPECT_EQ(document["formats"], nlohmann::json::array({"md5", "xxh64", "c4"}));
  ASSERT_EQ(document["files"].size(), kTree.size());
  const MhlManifest manifest = readManifest(historyFile(manifests()[0]));
  expectValidAgainst(historyFile(manifests()[0]), "ASCMHL.xsd");
  for (const auto& file : document["files"]) {
    const std::string path = file["path"];
    const fs::path onDisk = root_ / path;
    const std::string md5 = checksumFromProgram("md5sum", onDisk);
    const std::string xxhash = checksumFromProgram("xxhsum -H1", onDisk);
    EXPECT_EQ(file["outcome"], "original");
    EXPECT_EQ(file["checksums"]["md5"], md5) << path;
    EXPECT_EQ(file["checksums"]["xxh64"], xxhash) << path;
    EXPECT_EQ(file["checksums"]["c4"], c4(kTree.at(path))) << path;
    EXPECT_EQ(hashOf(manifest, path, "md5")->value, md5) << path;
    EXPECT_EQ(hashOf(manifest, path, "xxh64")->value, xxhash) << path;
    EXPECT_EQ(hashOf(manifest, path, "c4")->value, c4(kTree.at(path))) << path;
    // Written in the schema's order: c4, md5, xxh64.
    const MhlHashEntry* entry = entryOf(manifest, path);
    ASSERT_EQ(entry->hashes.size(), 3u);
    EXPECT_EQ(entry->hashes[0].format, "c4");
    EXPECT_EQ(entry->hashes[1].format, "md5");
    EXPECT_EQ(entry->hashes[2].format, "xxh64");
  }
}

TEST_F(MhlCommand, NestedHistoryIsReferencedAndKeepsTheRecordsOfItsFiles) {
  write(kTree);
  const fs::path sub = root_ / "sub";
  RunResult run = mhl({"create", sub.string()});
  ASSERT_EQ(run.status, 0) << run.err;
  ASSERT_EQ(manifests(sub).size(), 1u);
  EXPECT_TRUE(manifests(sub)[0].starts_with("0001_sub_"));

  run = mhl({"create", "-v", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  // The nested history gets a generation of its own first, verifying its file.
  const std::vector<std::string> nested = manifests(sub);
  ASSERT_EQ(nested.size(), 2u);
  EXPECT_TRUE(nested[1].starts_with("0002_sub_")) << nested[1];
  const std::vector<std::string> top = manifests();
  ASSERT_EQ(top.size(), 1u);
  EXPECT_EQ(run.out,
            "verified: sub/c.txt\n"
            "original: a.txt\n"
            "original: b.bin\n"
            "created: sub/ascmhl/" +
                nested[1] +
                "\n"
                "created: ascmhl/" +
                top[0] + "\n" + createSummary(2, 1, 0, 0, 0));

  const MhlManifest manifest = readManifest(historyFile(top[0]));
  expectValidAgainst(historyFile(top[0]), "ASCMHL.xsd");
  EXPECT_EQ(entryOf(manifest, "sub/c.txt"), nullptr);
  ASSERT_EQ(manifest.hashes.size(), 2u);
  ASSERT_EQ(manifest.references.size(), 1u);
  EXPECT_EQ(manifest.references[0].path, "sub/ascmhl/" + nested[1]);
  EXPECT_EQ(manifest.references[0].c4.value, c4(readFile(historyFile(nested[1], sub))));
  // The nested file's records stay in the nested history.
  const MhlManifest nestedManifest = readManifest(historyFile(nested[1], sub));
  EXPECT_EQ(hashOf(nestedManifest, "c.txt", "xxh64")->action, MhlHashAction::verified);

  // Verify walks both histories and names files from the top.
  write({{"c.txt", "WORLD"}}, sub);
  run = mhl({"verify", root()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "failed: sub/c.txt (XXH64 " + xxh64("world") + " != " + xxh64("WORLD") +
                         ")\n" + verifySummary(2, 1, 0, 0, 0));
  // info lists the nested history after the top one.
  run = mhl({"info", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("history: " + root() + " (1 generation)\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("    reference: sub/ascmhl/" + nested[1] + "\n"), std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("nested history: " + root() + "/sub (2 generations)\n"), std::string::npos)
      << run.out;
}

TEST_F(MhlCommand, NonAsciiNamesAreRecordedAndVerified) {
  const Tree tree = {{"caf\xc3\xa9/\xe6\x97\xa5\xe6\x9c\xac.txt", "nihon"},
                     {"\xc3\x9c"
                      "ber gro\xc3\x9f.bin",
                      "gross"}};
  write(tree);
  RunResult run = mhl({"create", "-v", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("original: caf\xc3\xa9/\xe6\x97\xa5\xe6\x9c\xac.txt\n"), std::string::npos)
      << run.out;
  const MhlManifest manifest = readManifest(historyFile(manifests()[0]));
  expectValidAgainst(historyFile(manifests()[0]), "ASCMHL.xsd");
  for (const auto& [path, content] : tree) {
    ASSERT_TRUE(hashOf(manifest, path, "xxh64")) << path;
    EXPECT_EQ(hashOf(manifest, path, "xxh64")->value, xxh64(content));
  }
  run = mhl({"verify", "--json", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  const auto document = nlohmann::json::parse(run.out);
  std::vector<std::string> paths;
  for (const auto& file : document["files"]) paths.push_back(file["path"]);
  // In byte order of the paths.
  EXPECT_EQ(paths, (std::vector<std::string>{"caf\xc3\xa9/\xe6\x97\xa5\xe6\x9c\xac.txt",
                                             "\xc3\x9c"
                                             "ber gro\xc3\x9f.bin"}));
}

TEST_F(MhlCommand, NameThatIsNotUtf8IsReportedAndTheOtherFilesRecorded) {
  // XML holds UTF-8 text only: a manifest cannot name such a file. It is reported before any
  // hashing and left out; the rest of the generation is written, and the run fails.
  write({{"ok.txt", "ok"},
         {"b\xff"
          "d.txt",
          "bad"}});
  const RunResult run = mhl({"create", root()});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("the name is not UTF-8 text that ASC MHL can record"), std::string::npos)
      << run.err;
  ASSERT_EQ(manifests().size(), 1u);
  const MhlManifest manifest = readManifest(historyFile(manifests()[0]));
  ASSERT_EQ(manifest.hashes.size(), 1u);
  EXPECT_EQ(manifest.hashes[0].path, "ok.txt");
  // The top folder holds a file that is not recorded: no honest root hash.
  EXPECT_FALSE(manifest.processInfo.rootHash.has_value());
  EXPECT_NE(run.out.find("created:"), std::string::npos) << run.out;
}

TEST_F(MhlCommand, EmptyFoldersGetDirectoryHashesUnlessTurnedOff) {
  write({{"a.txt", "hello"}});
  fs::create_directories(root_ / "empty");
  fs::create_directories(root_ / "nest" / "deeper");
  RunResult run = mhl({"create", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  MhlManifest manifest = readManifest(historyFile(manifests()[0]));
  std::map<std::string, std::string> content;
  for (const auto& folder : manifest.directoryHashes) {
    ASSERT_EQ(folder.content.size(), 1u);
    content[folder.path] = folder.content[0].value;
  }
  // An empty folder's content hash is the hash of no bytes.
  EXPECT_EQ(content,
            (std::map<std::string, std::string>{
                {"empty", xxh64("")}, {"nest", content["nest"]}, {"nest/deeper", xxh64("")}}));
  EXPECT_TRUE(manifest.processInfo.rootHash.has_value());
  run = mhl({"verify", "--directory-hashes", root()});
  EXPECT_EQ(run.status, 0) << run.out << run.err;

  run = mhl({"create", "--no-directory-hashes", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  manifest = readManifest(historyFile(manifests()[1]));
  EXPECT_TRUE(manifest.directoryHashes.empty());
  EXPECT_FALSE(manifest.processInfo.rootHash.has_value());
}

TEST_F(MhlCommand, CreatorInformationIsRecorded) {
  write(kTree);
  const RunResult run =
      mhl({"create", "--author-name", "Ann Example", "--author-email", "ann@example.com",
           "--author-phone", "+49 89 1234", "--author-role", "DIT", "--location", "Munich",
           "--comment", "day 1 \xe2\x80\x93 card A", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  const MhlManifest manifest = readManifest(historyFile(manifests()[0]));
  ASSERT_EQ(manifest.creatorInfo.authors.size(), 1u);
  EXPECT_EQ(manifest.creatorInfo.authors[0],
            (corvane::MhlAuthor{"Ann Example", "ann@example.com", "+49 89 1234", "DIT"}));
  EXPECT_EQ(manifest.creatorInfo.location, "Munich");
  EXPECT_EQ(manifest.creatorInfo.comment, "day 1 \xe2\x80\x93 card A");
}

TEST_F(MhlCommand, UsageErrorsWriteNothingAndExitTwo) {
  write(kTree);
  struct Case {
    std::vector<std::string> arguments;
    std::string message;
  };
  const std::vector<Case> cases = {
      {{"create", "-a", "sha256", root()},
       "corvane-checksum: -a sha256: SHA-2 256 is not an ASC MHL hash format; ASC MHL records c4, "
       "md5, sha1, xxh128, xxh3 and xxh64\n"},
      {{"create", "-a", "crc32", root()}, "is not an ASC MHL hash format"},
      {{"create", "-a", "sha512", root()}, "is not an ASC MHL hash format"},
      {{"create", "-a", "blake3", root()}, "\"blake3\" is not an ASC MHL hash format"},
      {{"create", "-a", "md5,", root()}, "empty format name"},
      {{"create", "--author-email", "a@b.c", root()}, "need --author-name"},
      {{"create", "--author-name", "A", "--author-email", "nobody", root()}, "e-mail"},
      {{"create", "--ignore", "", root()}, "empty pattern"},
      {{"create", "--ignore-from", scratch_.file("no-such-list"), root()},
       "no-such-list: No such file or directory"},
      {{"create"}, "ROOT is required"},
      {{"create", scratch_.file("no-such-folder")}, "no-such-folder: No such file or directory"},
      {{"verify", scratch_.file("no-such-folder")}, "no-such-folder: No such file or directory"},
      {{"flatten", root()}, "DEST is required"},
      {{"frobnicate", root()}, ""},
      {{}, "subcommand is required"},
  };
  for (const Case& c : cases) {
    const RunResult run = mhl(c.arguments);
    std::string line;
    for (const auto& argument : c.arguments) line += " '" + argument + "'";
    EXPECT_EQ(run.status, 2) << line << "\n" << run.err;
    EXPECT_EQ(run.out, "") << line;
    EXPECT_NE(run.err.find(c.message), std::string::npos) << line << "\n" << run.err;
  }
  EXPECT_FALSE(fs::exists(root_ / "ascmhl"));
}

TEST_F(MhlCommand, ReadOnlyRootIsRefusedBeforeAnythingIsHashed) {
  const auto prefix = unprivilegedPrefix();
  if (!prefix) GTEST_SKIP() << "running as root and setpriv is not available";
  write(kTree);
  const auto readable = fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                        fs::perms::others_read | fs::perms::others_exec;
  fs::permissions(scratch_.path(), readable);
  for (const auto& entry : fs::recursive_directory_iterator(root_)) {
    fs::permissions(entry.path(),
                    entry.is_directory()
                        ? readable
                        : fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  }
  // chmod 555: nobody may read and enter, no one but root may write.
  fs::permissions(root_, fs::perms::owner_read | fs::perms::owner_exec | fs::perms::group_read |
                             fs::perms::group_exec | fs::perms::others_read |
                             fs::perms::others_exec);
  const RunResult run = mhl({"create", "--summary", root()}, *prefix);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out,
            "0 files: 0 original, 0 verified, 0 failed, 0 missing, 0 unreadable, 1 problem\n");
  EXPECT_NE(run.err.find("corvane-checksum: " + root() +
                         ": cannot write the history: Permission denied\n"),
            std::string::npos)
      << run.err;
  // Nothing was read.
  EXPECT_NE(run.err.find("corvane-checksum: 0 files, 0 bytes in"), std::string::npos) << run.err;
  EXPECT_FALSE(fs::exists(root_ / "ascmhl"));
}

TEST_F(MhlCommand, UnreadableFileIsReportedAndTheOthersRecorded) {
  const auto prefix = unprivilegedPrefix();
  if (!prefix) GTEST_SKIP() << "running as root and setpriv is not available";
  write(kTree);
  fs::permissions(scratch_.path(),
                  fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec);
  for (const auto& entry : fs::recursive_directory_iterator(root_)) {
    fs::permissions(entry.path(), entry.is_directory()
                                      ? fs::perms::all
                                      : fs::perms::owner_read | fs::perms::others_read);
  }
  fs::permissions(root_, fs::perms::all);
  fs::permissions(root_ / "b.bin", fs::perms::none);
  const RunResult run = mhl({"create", root()}, *prefix);
  EXPECT_EQ(run.status, 1);
  ASSERT_EQ(manifests().size(), 1u);
  EXPECT_EQ(run.out, "unreadable: b.bin\ncreated: ascmhl/" + manifests()[0] + "\n" +
                         createSummary(2, 0, 0, 0, 1));
  EXPECT_EQ(run.err, "corvane-checksum: " + root() + "/b.bin: Permission denied\n");
  const MhlManifest manifest = readManifest(historyFile(manifests()[0]));
  EXPECT_EQ(entryOf(manifest, "b.bin"), nullptr);
  EXPECT_NE(entryOf(manifest, "a.txt"), nullptr);
}

// ----- verify ----------------------------------------------------------------------------------

TEST_F(MhlCommand, VerifyOfAnUntouchedTreePassesAndWritesNothing) {
  write(kTree);
  ASSERT_EQ(mhl({"create", root()}).status, 0);
  const std::string chain = readFile(historyFile("ascmhl_chain.xml"));
  const RunResult run = mhl({"verify", "-v", "--summary", "-j", "2", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "verified: a.txt\nverified: b.bin\nverified: sub/c.txt\n" +
                         verifySummary(3, 0, 0, 0, 0));
  EXPECT_TRUE(std::regex_search(run.err, std::regex("^corvane-checksum: 3 files, 13 bytes in ")))
      << run.err;
  EXPECT_EQ(manifests().size(), 1u);
  EXPECT_EQ(readFile(historyFile("ascmhl_chain.xml")), chain);
}

TEST_F(MhlCommand, VerifyReportsACorruptedFile) {
  write(kTree);
  ASSERT_EQ(mhl({"create", root()}).status, 0);
  write({{"sub/c.txt", "w0rld"}});
  const RunResult run = mhl({"verify", root()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, "failed: sub/c.txt (XXH64 " + xxh64("world") + " != " + xxh64("w0rld") +
                         ")\n" + verifySummary(2, 1, 0, 0, 0));
  EXPECT_EQ(manifests().size(), 1u);
}

TEST_F(MhlCommand, VerifyComputesAFormatTheHistoryRecorded) {
  write(kTree);
  ASSERT_EQ(mhl({"create", "-a", "md5", root()}).status, 0);
  ASSERT_EQ(mhl({"create", "-a", "xxh3", root()}).status, 0);
  write({{"a.txt", "jello"}});
  const RunResult run = mhl({"verify", "--json", root()});
  EXPECT_EQ(run.status, 1);
  const auto document = nlohmann::json::parse(run.out);
  EXPECT_EQ(document["totals"]["failed"], 1);
  EXPECT_EQ(document["totals"]["verified"], 2);
  for (const auto& file : document["files"]) {
    if (file["path"] != "a.txt") continue;
    EXPECT_EQ(file["outcome"], "failed");
    EXPECT_EQ(file["recorded"], corvane::testsupport::xxHash3_64Reference(bytesOf("hello")))
        << file.dump();
  }
}

TEST_F(MhlCommand, VerifyDetectsADeletedManifest) {
  write(kTree);
  ASSERT_EQ(mhl({"create", root()}).status, 0);
  ASSERT_EQ(mhl({"create", root()}).status, 0);
  const std::string first = manifests()[0];
  fs::remove(historyFile(first));
  const RunResult run = mhl({"verify", root()});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("corvane-checksum: " + historyFile(first).string() +
                         ": No such file or directory\n"),
            std::string::npos)
      << run.err;
  EXPECT_TRUE(run.out.ends_with(", 1 problem\n")) << run.out;
  // A history that does not verify is not appended to.
  const RunResult create = mhl({"create", root()});
  EXPECT_EQ(create.status, 1);
  EXPECT_EQ(manifests().size(), 1u);
}

TEST_F(MhlCommand, VerifyDetectsAnEditedManifest) {
  write(kTree);
  ASSERT_EQ(mhl({"create", root()}).status, 0);
  const fs::path manifest = historyFile(manifests()[0]);
  edit(manifest, "<hostname>[^<]*</hostname>", "<hostname>elsewhere</hostname>");
  const RunResult run = mhl({"verify", root()});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("corvane-checksum: " + manifest.string() + ": "), std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("C4 ID does not match"), std::string::npos) << run.err;
}

TEST_F(MhlCommand, VerifyDetectsAManifestThatBreaksTheSchema) {
  write(kTree);
  ASSERT_EQ(mhl({"create", root()}).status, 0);
  const fs::path manifest = historyFile(manifests()[0]);
  const std::string before = c4(readFile(manifest));
  edit(manifest, "<process>in-place</process>", "<process>teleport</process>");
  // The chain is made to match, so that only the schema can tell.
  edit(historyFile("ascmhl_chain.xml"), before, c4(readFile(manifest)));
  const RunResult run = mhl({"verify", root()});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(
      std::regex_search(run.err, std::regex("corvane-checksum: " + regexEscaped(manifest.string()) +
                                            ":[0-9]+: Element .process.")))
      << run.err;
}

TEST_F(MhlCommand, VerifyDetectsAGapInTheSequence) {
  write(kTree);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(mhl({"create", root()}).status, 0);
  edit(historyFile("ascmhl_chain.xml"), R"(\s*<hashlist sequencenr="2">[\s\S]*?</hashlist>)", "");
  const RunResult run = mhl({"verify", root()});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("ascmhl_chain.xml"), std::string::npos) << run.err;
  EXPECT_EQ(mhl({"diff", root()}).status, 1);
  EXPECT_EQ(mhl({"info", root()}).status, 1);
}

TEST_F(MhlCommand, VerifyOfAFolderWithoutHistoryFails) {
  write(kTree);
  const RunResult run = mhl({"verify", root()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "corvane-checksum: " + root() + ": no ASC MHL history (no ascmhl folder)\n");
}

// ----- diff ------------------------------------------------------------------------------------

TEST_F(MhlCommand, DiffListsNewAndMissingFiles) {
  write(kTree);
  ASSERT_EQ(mhl({"create", root()}).status, 0);
  write({{"sub/later.txt", "later"}});
  RunResult run = mhl({"diff", root()});
  EXPECT_EQ(run.status, 3);
  EXPECT_EQ(run.out, "new: sub/later.txt\n" + diffSummary(0, 1));
  run = mhl({"verify", root()});
  EXPECT_EQ(run.status, 3);
  EXPECT_EQ(run.out, "new: sub/later.txt\n" + verifySummary(3, 0, 0, 1, 0));

  fs::remove(root_ / "a.txt");
  run = mhl({"diff", root()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "new: sub/later.txt\nmissing: a.txt\n" + diffSummary(1, 1));
  run = mhl({"diff", "--json", root()});
  EXPECT_EQ(run.status, 1);
  const auto document = nlohmann::json::parse(run.out);
  EXPECT_EQ(document["command"], "diff");
  EXPECT_EQ(document["totals"]["new"], 1);
  EXPECT_EQ(document["totals"]["missing"], 1);
  // Nothing was hashed.
  for (const auto& file : document["files"]) EXPECT_FALSE(file.contains("checksums"));
}

// ----- info ------------------------------------------------------------------------------------

TEST_F(MhlCommand, InfoListsTheGenerations) {
  write(kTree);
  fs::create_directories(root_ / "empty");
  ASSERT_EQ(mhl({"create", root()}).status, 0);
  ASSERT_EQ(mhl({"create", "--no-directory-hashes", "--author-name", "Ann", root()}).status, 0);
  const std::vector<std::string> names = manifests();
  RunResult run = mhl({"info", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  const std::string date = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)";
  const std::string tool = R"(  in-place  CorvaneSecurity [^ ]+  3 files, )";
  const std::regex expected("history: " + regexEscaped(root()) + " \\(2 generations\\)\n" +
                            "  1  " + regexEscaped(names[0]) + "  " + date + tool +
                            "2 folders, 0 references\n" + "  2  " + regexEscaped(names[1]) + "  " +
                            date + tool + "0 folders, 0 references\n");
  EXPECT_TRUE(std::regex_match(run.out, expected)) << run.out;

  run = mhl({"info", "--json", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  const auto document = nlohmann::json::parse(run.out);
  ASSERT_EQ(document["histories"].size(), 1u);
  const auto& generations = document["histories"][0]["generations"];
  ASSERT_EQ(generations.size(), 2u);
  EXPECT_EQ(generations[0]["sequence"], 1);
  EXPECT_EQ(generations[0]["manifest"], names[0]);
  EXPECT_EQ(generations[0]["process"], "in-place");
  EXPECT_EQ(generations[0]["files"], 3);
  EXPECT_EQ(generations[1]["authors"][0]["name"], "Ann");
}

TEST_F(MhlCommand, InfoFileShowsTheRecordsOfOneFile) {
  write(kTree);
  ASSERT_EQ(mhl({"create", root()}).status, 0);
  ASSERT_EQ(mhl({"create", "-a", "md5", root()}).status, 0);
  const MhlManifest first = readManifest(historyFile(manifests()[0]));
  const MhlManifest second = readManifest(historyFile(manifests()[1]));
  const std::string md5 =
      corvane::testsupport::hexEncode(corvane::testsupport::evpDigest(EVP_md5(), bytesOf("hello")));
  RunResult run = mhl({"info", root(), "--file", "a.txt"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "1  a.txt  xxh64  original  " + xxh64("hello") + "  " +
                         first.creatorInfo.creationDate.text() +
                         "\n"
                         "2  a.txt  md5  original  " +
                         md5 + "  " + second.creatorInfo.creationDate.text() +
                         "\n"
                         "2  a.txt  xxh64  verified  " +
                         xxh64("hello") + "  " + second.creatorInfo.creationDate.text() + "\n");
  run = mhl({"info", "--json", "--file", "sub/c.txt", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  const auto document = nlohmann::json::parse(run.out);
  ASSERT_EQ(document["records"].size(), 3u);
  EXPECT_EQ(document["records"][0]["action"], "original");
  EXPECT_EQ(document["records"][0]["value"], xxh64("world"));

  run = mhl({"info", "--file", "nowhere.txt", root()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "corvane-checksum: nowhere.txt: not recorded in the history of " + root() + "\n");
}

TEST_F(MhlCommand, InfoFileAndVerifyFollowARename) {
  write({{"old.txt", "hello"}});
  ASSERT_EQ(mhl({"create", root()}).status, 0);
  fs::rename(root_ / "old.txt", root_ / "new.txt");
  // A second generation that records the rename, as a renaming tool writes it.
  MhlManifest manifest = readManifest(historyFile(manifests()[0]));
  manifest.creatorInfo.creationDate = *corvane::MhlDateTime::fromText("2030-01-02T03:04:05Z");
  manifest.hashes[0].path = "new.txt";
  manifest.hashes[0].previousPath = "old.txt";
  manifest.hashes[0].hashes[0].action = MhlHashAction::verified;
  manifest.directoryHashes.clear();
  manifest.processInfo.rootHash.reset();
  const auto bytes = corvane::writeMhlManifest(manifest);
  ASSERT_TRUE(bytes) << bytes.error().description();
  const std::string name = "0002_card_2030-01-02_030405Z.mhl";
  corvane::testsupport::writeFile(historyFile(name).string(), bytesOf(*bytes));
  auto chain = corvane::readMhlChain(historyFile("ascmhl_chain.xml").string());
  ASSERT_TRUE(chain) << chain.error().description();
  corvane::MhlChainEntry entry;
  entry.sequenceNumber = 2;
  entry.path = name;
  entry.c4.value = c4(*bytes);
  chain->entries.push_back(entry);
  const auto chainBytes = corvane::writeMhlChain(*chain);
  ASSERT_TRUE(chainBytes) << chainBytes.error().description();
  corvane::testsupport::writeFile(historyFile("ascmhl_chain.xml").string(), bytesOf(*chainBytes));

  RunResult run = mhl({"info", "--file", "new.txt", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  const MhlManifest first = readManifest(historyFile(manifests()[0]));
  EXPECT_EQ(run.out, "1  old.txt  xxh64  original  " + xxh64("hello") + "  " +
                         first.creatorInfo.creationDate.text() +
                         "\n"
                         "2  new.txt  renamed from old.txt\n"
                         "2  new.txt  xxh64  verified  " +
                         xxh64("hello") + "  2030-01-02T03:04:05Z\n");
  run = mhl({"verify", root()});
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_EQ(run.out, verifySummary(1, 0, 0, 0, 0));
}

// ----- flatten ---------------------------------------------------------------------------------

TEST_F(MhlCommand, FlattenWritesTheEarliestHashesWithoutFailedOnes) {
  write(kTree);
  ASSERT_EQ(mhl({"create", root()}).status, 0);
  write({{"b.bin", "changed"}});
  ASSERT_EQ(mhl({"create", "-a", "xxh64,md5", root()}).status, 1);
  const MhlManifest first = readManifest(historyFile(manifests()[0]));
  const fs::path destination = scratch_.path() / "out";
  fs::create_directories(destination);
  RunResult run = mhl({"flatten", root(), destination.string()});
  EXPECT_EQ(run.status, 0) << run.err;
  ASSERT_FALSE(run.out.empty());
  const fs::path written = run.out.substr(0, run.out.size() - 1);
  EXPECT_EQ(run.out.back(), '\n');
  EXPECT_EQ(written.parent_path(), destination);
  EXPECT_TRUE(std::regex_match(written.filename().string(),
                               std::regex(R"(card_\d{4}-\d\d-\d\d_\d{6}Z\.mhl)")))
      << written;
  expectValidAgainst(written, "ASCMHL.xsd");
  const MhlManifest flat = readManifest(written);
  EXPECT_EQ(flat.processInfo.process, corvane::MhlProcess::flatten);
  ASSERT_EQ(flat.hashes.size(), 3u);
  // The earliest xxh64 of every file is the original of generation 1, dated then; b.bin's failed
  // hash is not carried over.
  for (const auto& [path, content] : kTree) {
    const auto hash = hashOf(flat, path, "xxh64");
    ASSERT_TRUE(hash) << path;
    EXPECT_EQ(hash->value, xxh64(content)) << path;
    EXPECT_EQ(hash->action, MhlHashAction::original) << path;
    ASSERT_TRUE(hash->hashDate) << path;
    EXPECT_EQ(hash->hashDate->text(), first.creatorInfo.creationDate.text()) << path;
    // b.bin failed in generation 2: its damaged bytes get no md5 "original" to flatten.
    EXPECT_EQ(hashOf(flat, path, "md5").has_value(), path != "b.bin") << path;
  }
  // (A second flattening in the same second would have the same name: another folder.)
  const fs::path other = scratch_.path() / "other";
  fs::create_directories(other);
  run = mhl({"flatten", "--json", root(), other.string()});
  EXPECT_EQ(run.status, 0) << run.err;
  const auto document = nlohmann::json::parse(run.out);
  EXPECT_TRUE(fs::is_regular_file(document["written"].get<std::string>()));
  // The history itself is unchanged.
  EXPECT_EQ(manifests().size(), 2u);
}

// ----- JSON ------------------------------------------------------------------------------------

TEST_F(MhlCommand, JsonReportOfCreateHasFilesProblemsManifestsAndTotals) {
  write(kTree);
  RunResult run = mhl({"create", "--json", root()});
  EXPECT_EQ(run.status, 0) << run.err;
  auto document = nlohmann::json::parse(run.out);
  EXPECT_EQ(document["command"], "create");
  EXPECT_EQ(document["root"], root());
  ASSERT_EQ(document["files"].size(), 3u);
  EXPECT_EQ(document["files"][0]["path"], "a.txt");
  EXPECT_EQ(document["files"][0]["outcome"], "original");
  EXPECT_EQ(document["files"][0]["checksums"]["xxh64"], xxh64("hello"));
  EXPECT_EQ(document["problems"], nlohmann::json::array());
  ASSERT_EQ(document["manifestsWritten"].size(), 1u);
  EXPECT_EQ(document["manifestsWritten"][0]["path"], "ascmhl/" + manifests()[0]);
  EXPECT_EQ(document["totals"]["files"], 3);
  EXPECT_EQ(document["totals"]["original"], 3);

  write({{"a.txt", "HELLO"}});
  run = mhl({"create", "--json", root()});
  EXPECT_EQ(run.status, 1);
  document = nlohmann::json::parse(run.out);
  const auto& failed = document["files"][0];
  EXPECT_EQ(failed["outcome"], "failed");
  EXPECT_EQ(failed["format"], "xxh64");
  EXPECT_EQ(failed["recorded"], xxh64("hello"));
  EXPECT_EQ(failed["computed"], xxh64("HELLO"));
  EXPECT_EQ(document["totals"]["failed"], 1);
  EXPECT_EQ(document["totals"]["verified"], 2);

  // A broken history is listed among the problems.
  const std::string removed = manifests()[0];
  fs::remove(historyFile(removed));
  run = mhl({"verify", "--json", root()});
  EXPECT_EQ(run.status, 1);
  document = nlohmann::json::parse(run.out);
  ASSERT_EQ(document["problems"].size(), 1u);
  EXPECT_EQ(document["problems"][0]["source"], historyFile(removed).string());
  EXPECT_EQ(document["problems"][0]["kind"], "unreadable");
  EXPECT_EQ(document["totals"]["problems"], 1);
}

}  // namespace
