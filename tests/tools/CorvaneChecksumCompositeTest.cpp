// Runs `corvane-checksum composite` on scratch directory trees and compares its output with
// composites computed here independently: per-file checksums from OpenSSL's EVP_Digest and the
// xxHash library and hex decoded by hand (support/References.hpp), files ordered by relative path
// bytes, and the pairwise levels rebuilt by a reference loop of this file.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"
#include "support/Vectors.hpp"

namespace {

namespace fs = std::filesystem;
using corvane::Bytes;
using corvane::testsupport::bytesOf;
using corvane::testsupport::hexBytesByHand;
using corvane::testsupport::RunResult;
using corvane::testsupport::runTool;
using corvane::testsupport::ScratchDirectory;

// ----- independent references --------------------------------------------------------------

using HashFunction = std::function<std::string(const Bytes&)>;

const HashFunction kXxh64 = [](const Bytes& b) {
  return corvane::testsupport::xxHash64Reference(b);
};
const HashFunction kMd5 = [](const Bytes& b) {
  return corvane::testsupport::hexEncode(corvane::testsupport::evpDigest(EVP_md5(), b));
};
const HashFunction kSha256 = [](const Bytes& b) {
  return corvane::testsupport::hexEncode(corvane::testsupport::evpDigest(EVP_sha256(), b));
};

// (relative path, contents) of a test tree, given in no particular order.
using Tree = std::vector<std::pair<std::string, std::string>>;

// The per-file checksums of `tree` in the byte order of the relative paths.
std::vector<std::pair<std::string, std::string>> fileChecksumsInPathOrder(
    Tree tree, const HashFunction& hash) {
  std::sort(tree.begin(), tree.end());
  std::vector<std::pair<std::string, std::string>> result;
  for (const auto& [path, contents] : tree) {
    result.emplace_back(path, hash(bytesOf(contents)));
  }
  return result;
}

Bytes pieceBytes(const std::string& checksum, bool asData) {
  return asData ? hexBytesByHand(checksum, true) : bytesOf(checksum);
}

std::string referenceFlat(const std::vector<std::string>& checksums, const HashFunction& hash,
                          bool asData) {
  Bytes bytes;
  for (const auto& checksum : checksums) {
    const Bytes piece = pieceBytes(checksum, asData);
    bytes.insert(bytes.end(), piece.begin(), piece.end());
  }
  return hash(bytes);
}

// Drop repeats, sort, then per level hash neighbours, sort the hashes, put an odd item last.
std::string referenceTree(std::vector<std::string> level, const HashFunction& hash, bool asData) {
  std::set<std::string> unique(level.begin(), level.end());
  level.assign(unique.begin(), unique.end());
  while (level.size() > 1) {
    std::vector<std::string> next;
    std::size_t i = 0;
    for (; i + 1 < level.size(); i += 2) {
      Bytes bytes = pieceBytes(level[i], asData);
      const Bytes second = pieceBytes(level[i + 1], asData);
      bytes.insert(bytes.end(), second.begin(), second.end());
      next.push_back(hash(bytes));
    }
    std::sort(next.begin(), next.end());
    if (i < level.size()) next.push_back(level[i]);
    level = next;
  }
  return level.empty() ? std::string() : level.front();
}

std::vector<std::string> checksumsOnly(
    const std::vector<std::pair<std::string, std::string>>& pairs) {
  std::vector<std::string> checksums;
  for (const auto& pair : pairs) checksums.push_back(pair.second);
  return checksums;
}

// Paths chosen so that byte order differs from other plausible orders: upper case first, a
// blank sorts before "/", and the depth of a file plays no part.
const Tree kTree = {
    {"b.txt", "bee\n"},         {"a/z.bin", std::string("\0\1\2\3", 4)},
    {"A.txt", "upper a"},       {"a b/c", "blank"},
    {"sub/deeper/x", "deep"},   {"sub/empty", ""},
    {"copy-of-b.txt", "bee\n"},
};

void writeTree(const ScratchDirectory& scratch, const Tree& tree) {
  for (const auto& [path, contents] : tree) scratch.writeText(path, contents);
}

// ----- tests ---------------------------------------------------------------------------------

TEST(CorvaneChecksumComposite, DefaultIsXxh64DataFlatInPathOrder) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  writeTree(scratch, kTree);
  fs::create_directories(scratch.path() / "empty-dir");
  const auto files = fileChecksumsInPathOrder(kTree, kXxh64);
  ASSERT_EQ(files.front().first, "A.txt");
  ASSERT_EQ(files[1].first, "a b/c");
  const std::string expected = referenceFlat(checksumsOnly(files), kXxh64, true);
  const RunResult run = runTool({"composite", scratch.path().string()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, expected + "  " + scratch.path().string() + "\n");
  EXPECT_EQ(run.err, "");
  // Spelling the defaults out changes nothing.
  EXPECT_EQ(runTool({"composite", "-a", "xxh64", "--method", "data", "--scheme", "flat",
                     scratch.path().string()})
                .out,
            run.out);
}

TEST(CorvaneChecksumComposite, FlatKeepsDuplicateChecksums) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  writeTree(scratch, kTree);
  const auto files = fileChecksumsInPathOrder(kTree, kMd5);
  std::vector<std::string> checksums = checksumsOnly(files);
  const std::string withDuplicates = referenceFlat(checksums, kMd5, true);
  const RunResult run = runTool({"composite", "-a", "md5", scratch.path().string()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, withDuplicates + "  " + scratch.path().string() + "\n");
}

TEST(CorvaneChecksumComposite, TextMethodJoinsChecksumTexts) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  writeTree(scratch, kTree);
  const auto files = fileChecksumsInPathOrder(kTree, kSha256);
  const std::string expected = referenceFlat(checksumsOnly(files), kSha256, false);
  const RunResult run =
      runTool({"composite", "-a", "sha256", "--method", "text", scratch.path().string()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, expected + "  " + scratch.path().string() + "\n");
}

TEST(CorvaneChecksumComposite, TreeSchemeHashesSortedUniqueChecksumsPairwise) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  writeTree(scratch, kTree);
  for (const bool asData : {true, false}) {
    SCOPED_TRACE(asData ? "data" : "text");
    for (const auto& [name, hash] :
         std::vector<std::pair<std::string, HashFunction>>{{"md5", kMd5}, {"xxh64", kXxh64}}) {
      const auto files = fileChecksumsInPathOrder(kTree, hash);
      const std::string expected = referenceTree(checksumsOnly(files), hash, asData);
      const RunResult run = runTool({"composite", "-a", name, "--method", asData ? "data" : "text",
                                     "--scheme", "tree", scratch.path().string()});
      EXPECT_EQ(run.status, 0) << run.err;
      EXPECT_EQ(run.out, expected + "  " + scratch.path().string() + "\n") << name;
    }
  }
}

TEST(CorvaneChecksumComposite, TreeOfOneFileIsThatFilesChecksum) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  scratch.writeText("only/one.txt", "single");
  const RunResult run =
      runTool({"composite", "-a", "sha256", "--scheme", "tree", scratch.path().string()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, kSha256(bytesOf("single")) + "  " + scratch.path().string() + "\n");
}

TEST(CorvaneChecksumComposite, JsonListsSettingsCompositeAndFilesInPathOrder) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  writeTree(scratch, kTree);
  const auto files = fileChecksumsInPathOrder(kTree, kMd5);
  const RunResult run = runTool({"composite", "--json", "-a", "md5", "--scheme", "tree", "--method",
                                 "text", scratch.path().string()});
  ASSERT_EQ(run.status, 0) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json["directory"], scratch.path().string());
  EXPECT_EQ(json["algorithm"], "MD5");
  EXPECT_EQ(json["method"], "text");
  EXPECT_EQ(json["scheme"], "tree");
  EXPECT_EQ(json["composite"], referenceTree(checksumsOnly(files), kMd5, false));
  ASSERT_EQ(json["files"].size(), files.size());
  for (std::size_t i = 0; i < files.size(); ++i) {
    EXPECT_EQ(json["files"][i]["path"], files[i].first);
    EXPECT_EQ(json["files"][i]["checksum"], files[i].second);
  }
  // The keys come in the documented order.
  std::vector<std::string> keys;
  const auto ordered = nlohmann::ordered_json::parse(run.out);
  for (const auto& [key, value] : ordered.items()) {
    keys.push_back(key);
  }
  EXPECT_EQ(keys,
            (std::vector<std::string>{"directory", "algorithm", "method", "scheme", "composite",
                                      "fileCount", "distinctChecksums", "combined", "files"}));
  // kTree holds 7 files, two of them with the same content; the tree combines each distinct
  // checksum once.
  EXPECT_EQ(json["fileCount"], 7);
  EXPECT_EQ(json["distinctChecksums"], 6);
  EXPECT_EQ(json["combined"], 6);
}

TEST(CorvaneChecksumComposite, TreeSchemeSaysHowManyFilesAndDistinctChecksumsWentIn) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  scratch.writeText("two/hello-1", "hello");
  scratch.writeText("two/hello-2", "hello");
  scratch.writeText("one/hello", "hello");
  const std::string two = (scratch.path() / "two").string();
  const std::string one = (scratch.path() / "one").string();
  const RunResult twoFiles = runTool({"composite", "--scheme", "tree", two});
  const RunResult oneFile = runTool({"composite", "--scheme", "tree", one});
  ASSERT_EQ(twoFiles.status, 0) << twoFiles.err;
  ASSERT_EQ(oneFile.status, 0) << oneFile.err;
  // Equal content counts once: two files "hello" give the composite of one, and say so.
  EXPECT_EQ(twoFiles.out.substr(0, 16), oneFile.out.substr(0, 16));
  EXPECT_EQ(twoFiles.err, "corvane-checksum: " + two +
                              ": 2 files, 1 distinct checksum (the tree scheme combines each "
                              "distinct checksum once)\n");
  EXPECT_EQ(oneFile.err, "corvane-checksum: " + one +
                             ": 1 file, 1 distinct checksum (the tree scheme combines each "
                             "distinct checksum once)\n");
  // The flat scheme takes every file and says nothing more.
  const RunResult flat = runTool({"composite", "--json", two});
  ASSERT_EQ(flat.status, 0) << flat.err;
  EXPECT_EQ(flat.err, "");
  const auto json = nlohmann::json::parse(flat.out);
  EXPECT_EQ(json["fileCount"], 2);
  EXPECT_EQ(json["distinctChecksums"], 1);
  EXPECT_EQ(json["combined"], 2);
  EXPECT_NE(runTool({"composite", two}).out.substr(0, 16),
            runTool({"composite", one}).out.substr(0, 16));
}

TEST(CorvaneChecksumComposite, JsonKeepsNamesThatAreNotUtf8) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  scratch.writeText("dir/bad\xff", "1");
  scratch.writeText("dir/bad\xfe", "2");
  const RunResult run = runTool({"composite", "--json", (scratch.path() / "dir").string()});
  ASSERT_EQ(run.status, 0) << run.err;
  const auto files = nlohmann::json::parse(run.out).at("files");
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[0].at("path"), "bad\\xfe");
  EXPECT_EQ(files[0].at("pathHex"), "626164fe");
  EXPECT_EQ(files[1].at("path"), "bad\\xff");
  EXPECT_EQ(files[1].at("pathHex"), "626164ff");
}

TEST(CorvaneChecksumComposite, EmptyDirectoryFlatIsChecksumOfZeroBytesTreeFails) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  fs::create_directories(scratch.path() / "nothing" / "here");
  const RunResult flat = runTool({"composite", scratch.path().string()});
  EXPECT_EQ(flat.status, 0) << flat.err;
  // xxHash64 of empty input, from the xxHash library.
  EXPECT_EQ(flat.out,
            corvane::testsupport::xxHash64Reference({}) + "  " + scratch.path().string() + "\n");
  EXPECT_EQ(flat.out.substr(0, 16), "ef46db3751d8e999");
  const RunResult tree = runTool({"composite", "--scheme", "tree", scratch.path().string()});
  EXPECT_EQ(tree.status, 1);
  EXPECT_EQ(tree.out, "");
  EXPECT_EQ(tree.err, "corvane-checksum: " + scratch.path().string() + ": no files to combine\n");
}

TEST(CorvaneChecksumComposite, UnreadableFileOrDirectoryIsReportedAndNoCompositePrinted) {
  SKIP_WITHOUT_TOOL();
  // Root reads any file, so as root the tool runs as the unprivileged user "nobody" (65534).
  std::string prefix;
  if (::geteuid() == 0) {
    if (::system("command -v setpriv >/dev/null 2>&1") != 0) {
      GTEST_SKIP() << "running as root and setpriv is not available";
    }
    prefix = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
  }
  ScratchDirectory scratch;
  writeTree(scratch, kTree);
  // Everything but the two locked entries must be readable by the tool's user.
  for (const auto& entry : fs::recursive_directory_iterator(scratch.path())) {
    fs::permissions(entry.path(), entry.is_directory()
                                      ? fs::perms::owner_all | fs::perms::group_read |
                                            fs::perms::group_exec | fs::perms::others_read |
                                            fs::perms::others_exec
                                      : fs::perms::owner_read | fs::perms::owner_write |
                                            fs::perms::group_read | fs::perms::others_read);
  }
  fs::permissions(scratch.path(), fs::perms::owner_all | fs::perms::group_read |
                                      fs::perms::group_exec | fs::perms::others_read |
                                      fs::perms::others_exec);
  const fs::path locked = scratch.writeText("locked.bin", "secret");
  fs::permissions(locked, fs::perms::none);
  RunResult run = runTool({"composite", scratch.path().string()}, prefix);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "corvane-checksum: " + locked.string() + ": Permission denied\n");
  run = runTool({"composite", "--json", scratch.path().string()}, prefix);
  EXPECT_EQ(run.status, 1);
  const auto object = nlohmann::json::parse(run.out);
  EXPECT_TRUE(object["composite"].is_null());
  EXPECT_EQ(object["files"].size(), kTree.size());

  fs::permissions(locked, fs::perms::owner_read | fs::perms::others_read);
  const fs::path lockedDirectory = scratch.path() / "sub" / "deeper";
  fs::permissions(lockedDirectory, fs::perms::none);
  run = runTool({"composite", scratch.path().string()}, prefix);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "corvane-checksum: " + lockedDirectory.string() + ": Permission denied\n");
}

TEST(CorvaneChecksumComposite, MissingOrNonDirectoryArgumentIsReported) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  const std::string missing = (scratch.path() / "missing").string();
  RunResult run = runTool({"composite", missing});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "corvane-checksum: " + missing + ": No such file or directory\n");
  const std::string file = scratch.writeText("plain", "x");
  run = runTool({"composite", file});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "corvane-checksum: " + file + ": Not a directory\n");
}

TEST(CorvaneChecksumComposite, BadUsageExitsWithTwo) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  const std::string dir = scratch.path().string();
  for (const auto& arguments :
       std::vector<std::vector<std::string>>{{"composite"},
                                             {"composite", "--scheme", "bogus", dir},
                                             {"composite", "--method", "hex", dir},
                                             {"composite", "-a", "nope", dir},
                                             {"composite", "-a", "md5,sha1", dir},
                                             {"composite", "-a", "md5", "-a", "sha1", dir},
                                             {"composite", dir, dir}}) {
    std::string joined;
    for (const auto& argument : arguments) joined += argument + " ";
    SCOPED_TRACE(joined);
    const RunResult run = runTool(arguments);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("corvane-checksum: "), std::string::npos) << run.err;
  }
}

TEST(CorvaneChecksumComposite, HelpDescribesTheSubcommand) {
  SKIP_WITHOUT_TOOL();
  const RunResult run = runTool({"composite", "--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("--scheme"), std::string::npos);
  EXPECT_NE(run.out.find("--method"), std::string::npos);
}

}  // namespace
