// ASC MHL directory hashes: the hash of a list of hashes, the content and structure hashes of
// every folder of a tree, empty folders, missing formats, names as bytes, deep trees and the
// refusals of MhlDirectoryTree.
//
// Known answers:
// - the list ["bb", "aa10", "aa01", "aa"] and the tree Stuff.txt = "stuff\n", A/A1.txt = "A1\n"
//   (xxh64) are the shared vectors of ASC MHL directory hashing that tools in the industry
//   reproduce; we re-derived every one of them with Python 3 hashlib (md5, sha1) and xxhsum 0.8.1
//   over the concatenated raw bytes;
// - the C4 list and the larger tree (empty folder, empty file, equal contents, names in
//   Japanese and "Café" in both Unicode normal forms) were computed for this suite by an
//   independent Python 3 script: hashlib for md5, sha1 and sha512 (C4 = base 58 of the SHA-512
//   digest with the C4 alphabet), the xxhsum 0.8.1 command for xxh64, xxh3 and xxh128, following
//   ASC MHL 6.5.2 and Appendix G (sort the texts, concatenate their raw bytes, hash).
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/ChecksumGenerator.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/Exception.hpp"
#include "corvane/MhlDirectoryHash.hpp"
#include "corvane/MhlHashFormat.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using testsupport::bytesOf;

std::string hashOf(ChecksumType format, std::string_view content) {
  const std::optional<std::string> text =
      ChecksumGenerator::generateChecksumForData(bytesOf(content), format);
  EXPECT_TRUE(text.has_value());
  return text.value_or("");
}

const MhlFolderHashes* folder(const std::vector<MhlFolderHashes>& all, std::string_view path) {
  for (const MhlFolderHashes& candidate : all) {
    if (candidate.relativePath == path) return &candidate;
  }
  return nullptr;
}

std::vector<std::string> pathsOf(const std::vector<MhlFolderHashes>& all) {
  std::vector<std::string> paths;
  for (const MhlFolderHashes& folderHashes : all) paths.push_back(folderHashes.relativePath);
  return paths;
}

std::string exceptionReason(const std::function<void()>& action) {
  try {
    action();
  } catch (const Exception& exception) {
    EXPECT_EQ(exception.name(), "ArgumentException");
    return exception.reason();
  }
  ADD_FAILURE() << "no exception";
  return "";
}

// ----- the hash of a list of hashes --------------------------------------------------------------

TEST(MhlHashOfHashes, SharedListVectorIsReproducedInEveryHexFormat) {
  const std::vector<std::string> list{"bb", "aa10", "aa01", "aa"};
  EXPECT_EQ(mhlHashOfHashes(ChecksumTypeMD5, list), "88abf5c156ff637c6380ae461fc50c3f");
  EXPECT_EQ(mhlHashOfHashes(ChecksumTypeSHA1, list), "22ad6b98111f6571c9ae1449988260b920960c16");
  EXPECT_EQ(mhlHashOfHashes(ChecksumTypeXXHash64, list), "c4e803e454029ee4");
  EXPECT_EQ(mhlHashOfHashes(ChecksumTypeXXHashH364, list), "d908e88da5ad4928");
  EXPECT_EQ(mhlHashOfHashes(ChecksumTypeXXHashH3128, list), "9041108a28887a9d35b4eac5bbaa5794");
}

TEST(MhlHashOfHashes, ListIsSortedConcatenatedAsRawBytesAndHashed) {
  // Sorted: aa, aa01, aa10, bb; raw bytes aa aa 01 aa 10 bb.
  const std::vector<std::string> list{"bb", "aa10", "aa01", "aa"};
  for (ChecksumType format : {ChecksumTypeMD5, ChecksumTypeSHA1, ChecksumTypeXXHash64,
                              ChecksumTypeXXHashH364, ChecksumTypeXXHashH3128, ChecksumTypeC4}) {
    SCOPED_TRACE(format.rawValue());
    if (format == ChecksumTypeC4) continue;  // needs C4 IDs; see the C4 test
    const Bytes raw{0xAA, 0xAA, 0x01, 0xAA, 0x10, 0xBB};
    EXPECT_EQ(mhlHashOfHashes(format, list),
              *ChecksumGenerator::generateChecksumForData(raw, format));
  }
}

TEST(MhlHashOfHashes, EmptyListHashesZeroBytes) {
  for (ChecksumType format : mhlFormats()) {
    SCOPED_TRACE(format.rawValue());
    EXPECT_EQ(mhlHashOfHashes(format, {}), format.emptyChecksumValue());
  }
}

TEST(MhlHashOfHashes, OneHashIsHashedAgainNotPassedThrough) {
  const std::string one = hashOf(ChecksumTypeXXHash64, "stuff\n");
  EXPECT_NE(mhlHashOfHashes(ChecksumTypeXXHash64, {one}), one);
  EXPECT_EQ(mhlHashOfHashes(ChecksumTypeXXHash64, {one}),
            hashOf(ChecksumTypeXXHash64, std::string_view("\x94\xc3\x99\xc2\xa9\xa2\x1f\x9a", 8)));
}

TEST(MhlHashOfHashes, DuplicatesAreKept) {
  const std::string a = hashOf(ChecksumTypeMD5, "a");
  EXPECT_NE(mhlHashOfHashes(ChecksumTypeMD5, {a, a}), mhlHashOfHashes(ChecksumTypeMD5, {a}));
  const Bytes twice = [&] {
    Bytes bytes = *testsupport::hexDecode(a);
    const Bytes once = bytes;
    bytes.insert(bytes.end(), once.begin(), once.end());
    return bytes;
  }();
  EXPECT_EQ(mhlHashOfHashes(ChecksumTypeMD5, {a, a}),
            *ChecksumGenerator::generateChecksumForData(twice, ChecksumTypeMD5));
}

TEST(MhlHashOfHashes, OrderOfTheListDoesNotMatter) {
  std::vector<std::string> list;
  for (const char* content : {"1", "2", "3", "4", "5", "6", "7"}) {
    list.push_back(hashOf(ChecksumTypeSHA1, content));
  }
  const std::string expected = mhlHashOfHashes(ChecksumTypeSHA1, list);
  std::reverse(list.begin(), list.end());
  EXPECT_EQ(mhlHashOfHashes(ChecksumTypeSHA1, list), expected);
  std::rotate(list.begin(), list.begin() + 3, list.end());
  EXPECT_EQ(mhlHashOfHashes(ChecksumTypeSHA1, list), expected);
}

TEST(MhlHashOfHashes, C4ListHashesTheSixtyFourByteDigests) {
  // C4 IDs of "a", "b", "a" (see the top of this file for the independent computation).
  const std::string a =
      "c41dF3bGD8iqVcrJJQpS6fEsVgg9iKeNHGCCEhK2C2cGYRm2dx8xeFU1wKbkBsCWdefaz82KeyfbBf8Pfkpm4C56cc";
  const std::string b =
      "c42eZGVoPnaooPQKkZQFrwnTKhsHwi8GZftxNyzKBfx3dZJm5Zzuy6JbTA2eZDLdL8PCPQ51f3SvLLBA7V3fjLZ8Nm";
  ASSERT_EQ(hashOf(ChecksumTypeC4, "a"), a);
  ASSERT_EQ(hashOf(ChecksumTypeC4, "b"), b);
  EXPECT_EQ(mhlHashOfHashes(ChecksumTypeC4, {a, b, a}),
            "c43iCmqejWXgETYbwLdnUh4msEFw6qnmw6zrV34cTwYNdJJBPqebMhA8TautbEMPRNdC5iZK81rcoKqrs8G2c6"
            "xA7d");
}

TEST(MhlHashOfHashes, UppercaseHexDigitsCountAsTheBytesTheySpell) {
  // Sorting is by the bytes, which is the order of the lowercase texts ASC MHL writes.
  EXPECT_EQ(mhlHashOfHashes(ChecksumTypeMD5, {"AA10", "BB"}),
            mhlHashOfHashes(ChecksumTypeMD5, {"aa10", "bb"}));
  EXPECT_EQ(mhlHashOfHashes(ChecksumTypeMD5, {"Ab", "aa"}),
            mhlHashOfHashes(ChecksumTypeMD5, {"aa", "ab"}));
}

TEST(MhlHashOfHashes, UndecodableTextsAndOtherAlgorithmsAreRefused) {
  EXPECT_EQ(exceptionReason([] {
              mhlHashOfHashes(ChecksumTypeMD5, {"aa", "abc"});
            }),
            "\"abc\" is not a hash value of the format md5");
  EXPECT_EQ(exceptionReason([] { mhlHashOfHashes(ChecksumTypeC4, {"aa"}); }),
            "\"aa\" is not a hash value of the format c4");
  EXPECT_EQ(exceptionReason([] { mhlHashOfHashes(ChecksumTypeSHA256, {}); }),
            "SHA-2 256 is not an ASC MHL hash format; ASC MHL records c4, md5, sha1, xxh128, xxh3 "
            "and xxh64");
}

// ----- folders
// ----------------------------------------------------------------------------------------

TEST(MhlDirectoryHash, SharedTreeVectorIsReproduced) {
  MhlDirectoryTree tree;
  tree.addFile("Stuff.txt", ChecksumTypeXXHash64, hashOf(ChecksumTypeXXHash64, "stuff\n"));
  tree.addFile("A/A1.txt", ChecksumTypeXXHash64, hashOf(ChecksumTypeXXHash64, "A1\n"));
  const std::vector<MhlFolderHashes> hashes = computeMhlDirectoryHashes(tree);

  EXPECT_EQ(pathsOf(hashes), (std::vector<std::string>{"", "A"}));
  const MhlFolderHashes* a = folder(hashes, "A");
  ASSERT_NE(a, nullptr);
  ASSERT_NE(a->find(ChecksumTypeXXHash64), nullptr);
  EXPECT_EQ(a->find(ChecksumTypeXXHash64)->content, "d3904ee76bba3d2a");
  EXPECT_EQ(a->find(ChecksumTypeXXHash64)->structure, "3fbe33b2924e26aa");
  const MhlFolderHashes* top = folder(hashes, "");
  ASSERT_NE(top, nullptr);
  ASSERT_NE(top->find(ChecksumTypeXXHash64), nullptr);
  EXPECT_EQ(top->find(ChecksumTypeXXHash64)->content, "ca56d22f064fdf1b");
  EXPECT_EQ(top->find(ChecksumTypeXXHash64)->structure, "2ccca3899111eabb");
  EXPECT_EQ(top->hashes.size(), 1u);
}

TEST(MhlDirectoryHash, RecipeHoldsForContentAndStructure) {
  // Rebuilt by hand from mhlHashOfHashes and the one-shot hashes, for every format.
  for (ChecksumType format : mhlFormats()) {
    SCOPED_TRACE(format.rawValue());
    const std::string stuff = hashOf(format, "stuff\n");
    const std::string a1 = hashOf(format, "A1\n");
    MhlDirectoryTree tree;
    tree.addFile("Stuff.txt", format, stuff);
    tree.addFile("A/A1.txt", format, a1);
    const std::vector<MhlFolderHashes> hashes = computeMhlDirectoryHashes(tree);

    const auto named = [format](std::string_view name, const std::string& hash) {
      Bytes data = bytesOf(name);
      const Bytes raw = *mhlHashBytes(format, hash);
      data.insert(data.end(), raw.begin(), raw.end());
      return *ChecksumGenerator::generateChecksumForData(data, format);
    };
    const std::string aContent = mhlHashOfHashes(format, {a1});
    const std::string aStructure = mhlHashOfHashes(format, {named("A1.txt", a1)});
    EXPECT_EQ(folder(hashes, "A")->find(format)->content, aContent);
    EXPECT_EQ(folder(hashes, "A")->find(format)->structure, aStructure);
    EXPECT_EQ(folder(hashes, "")->find(format)->content,
              mhlHashOfHashes(format, {stuff, aContent}));
    EXPECT_EQ(folder(hashes, "")->find(format)->structure,
              mhlHashOfHashes(format, {named("Stuff.txt", stuff), named("A", aStructure)}));
  }
}

struct TreeVector {
  ChecksumType format;
  std::string_view path;
  std::string_view content;
  std::string_view structure;
};

// The larger tree of the independent Python computation (see the top of this file):
//   README                 ""               Clips/A001C001_Ü.mov  "clip one\n"
//   Clips/A001C002.mov     "clip one\n"     Clips/Empty/          (empty folder)
//   Sound/日本語/take1.wav  "take 1\n"       Café/x (NFC, U+00E9)  "x"
//   Café/x (NFD, e + U+0301) "x"
const std::vector<TreeVector>& largerTreeVectors() {
  static const std::vector<TreeVector> vectors{
      {ChecksumTypeC4, "",
       "c452w8KMvstd4emjqhJmVbNgxAeRRgYvdgZ2dgWhfEDseBBT7YfqaRNNm6NUStsop82Vo2fENuxjczG4LfzstDdpD"
       "J",
       "c41bJmQLK8AhTVhYN9JySqWNdkE4qbAP1FVWPbDk2SCuTb2uS4mUzDXfd9gmTGYQt8GJfo98XF1kMuMneC9pWqHaU"
       "b"},
      {ChecksumTypeC4, "Clips",
       "c42d7MDSmHgeMRVPRfbPDqNohrJ5RkixAJWD55Hp9PwzRapk6ZKgxBVVq4fKvAfMTjFwLU3fxd4iuenABzzXBKPXx"
       "C",
       "c43E5NJP5Cdp1JGkM9pvUHwSUB2ZD5SFe36c4u9PPekApzqEB8gRciDbxfrrMCmepPvksdo3thx59ZXwr731Byacs"
       "M"},
      {ChecksumTypeC4, "Clips/Empty",
       "c459dsjfscH38cYeXXYogktxf4Cd9ibshE3BHUo6a58hBXmRQdZrAkZzsWcbWtDg5oQstpDuni4Hirj75GEmTc1sF"
       "T",
       "c459dsjfscH38cYeXXYogktxf4Cd9ibshE3BHUo6a58hBXmRQdZrAkZzsWcbWtDg5oQstpDuni4Hirj75GEmTc1sF"
       "T"},
      {ChecksumTypeC4, "Sound",
       "c43QX4TDG8caZcQBV3GwxWzWC1qPHF5qG6RakViQDSon3KzcBMZo2EDHzXBaXd7EgTVpu3KhqLKoLxSCDWfLmcMtS"
       "j",
       "c42QNogHELFWC65jk7HpxXnAtV6sZty6C5hHWP11DNp87y9qnME6VrcBCwVLDV4pJzhTUwh24JBjWJRaQLVcLiCSz"
       "x"},
      {ChecksumTypeC4, "Sound/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e",
       "c44dMyBthXeXa8663XhHqejZm2ZjyoTiFUFEUE3hS2hmc1LDP7Pw3mp4W192CfKb86A2ewqyyfyJrA6n2Sr3hy3EA"
       "P",
       "c43dsmngycViKXvR9s4DeNftnU55LqFXhPmQ283FUJZuYHxwVTAUjAGAYPsuWciWfadcrDfSubf6N3cuWrm3uRqHh"
       "d"},
      {ChecksumTypeC4, "Caf\xc3\xa9",
       "c42Fz6D4QRuNGXkxvupX69qr8vKivUWBM5cJFYtXxHSDMz6qgB87ksAQRgyTsh3moChiotgfiEnxmR32kYo2JHhCw"
       "Y",
       "c41QSXNgDbX3DQ54Z9QFzBqPfXV9DMxk6dvdcLRT44KVJ1ACXeY7BnSANzDhceRiRQE9qe29e6egTkpKa6vTqAny7"
       "H"},
      {ChecksumTypeC4, "Cafe\xcc\x81",
       "c42Fz6D4QRuNGXkxvupX69qr8vKivUWBM5cJFYtXxHSDMz6qgB87ksAQRgyTsh3moChiotgfiEnxmR32kYo2JHhCw"
       "Y",
       "c41QSXNgDbX3DQ54Z9QFzBqPfXV9DMxk6dvdcLRT44KVJ1ACXeY7BnSANzDhceRiRQE9qe29e6egTkpKa6vTqAny7"
       "H"},
      {ChecksumTypeMD5, "", "6a0fc3fa2c1ab4be8f7d4227e86a2625", "43205c196c722bb9325da0c771cb1188"},
      {ChecksumTypeMD5, "Clips", "83faee20d075c7bdac4094a95a6cde0a",
       "2a66f817edf8f6142cecf34d445a46f5"},
      {ChecksumTypeMD5, "Clips/Empty", "d41d8cd98f00b204e9800998ecf8427e",
       "d41d8cd98f00b204e9800998ecf8427e"},
      {ChecksumTypeMD5, "Sound", "a3d5b6150348cc77d336404b0c464b46",
       "da83ab9b9ecc73bd30f6747ca22fcdca"},
      {ChecksumTypeMD5, "Sound/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e",
       "74d09c1e2a2cb2f316366918570ea75e", "98977d930472a34561f76cc59e0a952f"},
      {ChecksumTypeMD5, "Caf\xc3\xa9", "9affad555af89da9b0bfcd5e45bc93da",
       "9a44af1fd43ecb307daab718e14a63e0"},
      {ChecksumTypeMD5, "Cafe\xcc\x81", "9affad555af89da9b0bfcd5e45bc93da",
       "9a44af1fd43ecb307daab718e14a63e0"},
      {ChecksumTypeSHA1, "", "d406d92b909f3351da2b062853fbd4d2f7416924",
       "9e35f22f5eeb020f09d83e6f35f13244005871b9"},
      {ChecksumTypeSHA1, "Clips", "8aaecd080098f448140c2b5998f3cd14ceba45e5",
       "9c23415d82d3ff9d1863db4687fca9c5fbae27d4"},
      {ChecksumTypeSHA1, "Clips/Empty", "da39a3ee5e6b4b0d3255bfef95601890afd80709",
       "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {ChecksumTypeSHA1, "Sound", "e318ccd9f614ad26c22df2d1b299f808f1589875",
       "3e3d8204f3a89736fc661b6a2f2017e233dbe96c"},
      {ChecksumTypeSHA1, "Sound/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e",
       "0f3991c426c5b62fcd1e34e9e9dc37c266c9209b", "edea59add2333043590d2022eb540d053ea3dc5f"},
      {ChecksumTypeSHA1, "Caf\xc3\xa9", "b69027d44f6e5edc07f1aead1477967b16f28227",
       "f5ee267865c1f90b6dc40a5488c8ce475823748a"},
      {ChecksumTypeSHA1, "Cafe\xcc\x81", "b69027d44f6e5edc07f1aead1477967b16f28227",
       "f5ee267865c1f90b6dc40a5488c8ce475823748a"},
      {ChecksumTypeXXHashH3128, "", "0474c898eb347d0a0e79f4ee58828f7e",
       "47ecefe91f24c852f49bc30fe7067012"},
      {ChecksumTypeXXHashH3128, "Clips", "3f9f92e44cf0b6697a4112ff060c2598",
       "99bfd0c5bb9dfa2b3919a6e2e4725dcd"},
      {ChecksumTypeXXHashH3128, "Clips/Empty", "99aa06d3014798d86001c324468d497f",
       "99aa06d3014798d86001c324468d497f"},
      {ChecksumTypeXXHashH3128, "Sound", "50e286e10067db7d1fbaf4c0f5fb0718",
       "95620c2f4af3c245dd4aac527f9551df"},
      {ChecksumTypeXXHashH3128, "Sound/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e",
       "1990f43050722aaba3f65c5288512840", "89276c63fad73a10900d640e97816437"},
      {ChecksumTypeXXHashH3128, "Caf\xc3\xa9", "2cf122d639d0a316eaa9235a04545692",
       "59a37aca546534e5b7c9bc289e09b523"},
      {ChecksumTypeXXHashH3128, "Cafe\xcc\x81", "2cf122d639d0a316eaa9235a04545692",
       "59a37aca546534e5b7c9bc289e09b523"},
      {ChecksumTypeXXHashH364, "", "396d979a7b72ad08", "4dba755a05a9fb1d"},
      {ChecksumTypeXXHashH364, "Clips", "4dfb8ef340c170b7", "efadc18ce0cb814b"},
      {ChecksumTypeXXHashH364, "Clips/Empty", "2d06800538d394c2", "2d06800538d394c2"},
      {ChecksumTypeXXHashH364, "Sound", "ab04fb0578930e1d", "1473736a341ff66d"},
      {ChecksumTypeXXHashH364, "Sound/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e", "384766d882f6380d",
       "74d9c22be6c0b347"},
      {ChecksumTypeXXHashH364, "Caf\xc3\xa9", "b2a31c70b94d6184", "f5d8f618d9d413e6"},
      {ChecksumTypeXXHashH364, "Cafe\xcc\x81", "b2a31c70b94d6184", "f5d8f618d9d413e6"},
      {ChecksumTypeXXHash64, "", "57dc73fc48bc29ba", "058210823c80ed4d"},
      {ChecksumTypeXXHash64, "Clips", "6d947bfb8a14ec7b", "18585ccfb9098689"},
      {ChecksumTypeXXHash64, "Clips/Empty", "ef46db3751d8e999", "ef46db3751d8e999"},
      {ChecksumTypeXXHash64, "Sound", "c07920cd108ea5cd", "002607f25435d9b0"},
      {ChecksumTypeXXHash64, "Sound/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e", "e21a485ecd1dfe54",
       "12013c0e42c61b48"},
      {ChecksumTypeXXHash64, "Caf\xc3\xa9", "d43f190b95d5c63c", "5c69cfb119e3899c"},
      {ChecksumTypeXXHash64, "Cafe\xcc\x81", "d43f190b95d5c63c", "5c69cfb119e3899c"},
  };
  return vectors;
}

MhlDirectoryTree largerTree(const std::vector<ChecksumType>& formats) {
  const std::vector<std::pair<std::string_view, std::string_view>> files{
      {"README", ""},
      {"Clips/A001C001_\xc3\x9c.mov", "clip one\n"},
      {"Clips/A001C002.mov", "clip one\n"},
      {"Sound/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e/take1.wav", "take 1\n"},
      {"Caf\xc3\xa9/x", "x"},
      {"Cafe\xcc\x81/x", "x"},
  };
  MhlDirectoryTree tree;
  for (const auto& [path, content] : files) {
    for (ChecksumType format : formats) tree.addFile(path, format, hashOf(format, content));
  }
  tree.addFolder("Clips/Empty");
  return tree;
}

TEST(MhlDirectoryHash, LargerTreeMatchesTheIndependentComputationInEveryFormat) {
  const std::vector<MhlFolderHashes> hashes = computeMhlDirectoryHashes(largerTree(mhlFormats()));
  for (const TreeVector& vector : largerTreeVectors()) {
    SCOPED_TRACE(std::string(*mhlFormatName(vector.format)) + " " + std::string(vector.path));
    const MhlFolderHashes* found = folder(hashes, vector.path);
    ASSERT_NE(found, nullptr);
    const MhlDirectoryHashPair* pair = found->find(vector.format);
    ASSERT_NE(pair, nullptr);
    EXPECT_EQ(pair->content, vector.content);
    EXPECT_EQ(pair->structure, vector.structure);
  }
  for (const MhlFolderHashes& folderHashes : hashes) {
    SCOPED_TRACE(folderHashes.relativePath);
    ASSERT_EQ(folderHashes.hashes.size(), 6u);
    for (std::size_t k = 0; k < 6; ++k) EXPECT_EQ(folderHashes.hashes[k].format, mhlFormats()[k]);
  }
}

TEST(MhlDirectoryHash, FoldersComeTopFirstThenInWalkOrder) {
  const std::vector<MhlFolderHashes> hashes =
      computeMhlDirectoryHashes(largerTree({ChecksumTypeXXHash64}));
  EXPECT_EQ(pathsOf(hashes),
            (std::vector<std::string>{"", "Cafe\xcc\x81", "Caf\xc3\xa9", "Clips", "Clips/Empty",
                                      "Sound", "Sound/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e"}));
  // A folder's path followed by '/' decides: "a b" (space) before "a", "a" before "a0".
  MhlDirectoryTree tree;
  for (const char* path : {"a0/f", "a/f", "a b/f", "a/z/f"}) {
    tree.addFile(path, ChecksumTypeXXHash64, hashOf(ChecksumTypeXXHash64, path));
  }
  EXPECT_EQ(pathsOf(computeMhlDirectoryHashes(tree)),
            (std::vector<std::string>{"", "a b", "a", "a/z", "a0"}));
}

TEST(MhlDirectoryHash, EmptyFolderHashesAreTheHashOfZeroBytes) {
  for (ChecksumType format : mhlFormats()) {
    SCOPED_TRACE(format.rawValue());
    MhlDirectoryTree tree;
    tree.addFolder("Empty");
    const std::vector<MhlFolderHashes> hashes = computeMhlDirectoryHashes(tree, {format});
    const MhlDirectoryHashPair* empty = folder(hashes, "Empty")->find(format);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->content, format.emptyChecksumValue());
    EXPECT_EQ(empty->structure, format.emptyChecksumValue());
    // The top holds one empty folder: a list of one hash, hashed again.
    const MhlDirectoryHashPair* top = folder(hashes, "")->find(format);
    ASSERT_NE(top, nullptr);
    EXPECT_EQ(top->content, mhlHashOfHashes(format, {format.emptyChecksumValue()}));
  }
}

TEST(MhlDirectoryHash, EmptyTreeGivesTheTopFolderTheHashOfZeroBytes) {
  const MhlDirectoryTree tree;
  EXPECT_EQ(tree.fileCount(), 0u);
  EXPECT_EQ(tree.folderCount(), 0u);
  EXPECT_TRUE(tree.formats().empty());
  const std::vector<MhlFolderHashes> none = computeMhlDirectoryHashes(tree);
  ASSERT_EQ(none.size(), 1u);
  EXPECT_TRUE(none[0].hashes.empty());  // no format asked, none present
  const std::vector<MhlFolderHashes> md5 = computeMhlDirectoryHashes(tree, {ChecksumTypeMD5});
  ASSERT_EQ(md5.size(), 1u);
  EXPECT_EQ(md5[0].relativePath, "");
  EXPECT_EQ(md5[0].hashes,
            (std::vector<MhlDirectoryHashPair>{{ChecksumTypeMD5, "d41d8cd98f00b204e9800998ecf8427e",
                                                "d41d8cd98f00b204e9800998ecf8427e"}}));
}

TEST(MhlDirectoryHash, FolderWithAFileLackingAFormatGetsNoHashOfThatFormat) {
  MhlDirectoryTree tree;
  tree.addFile("A/both.txt", ChecksumTypeMD5, hashOf(ChecksumTypeMD5, "both"));
  tree.addFile("A/both.txt", ChecksumTypeXXHash64, hashOf(ChecksumTypeXXHash64, "both"));
  tree.addFile("A/B/md5only.txt", ChecksumTypeMD5, hashOf(ChecksumTypeMD5, "md5"));
  tree.addFile("C/xxh64only.txt", ChecksumTypeXXHash64, hashOf(ChecksumTypeXXHash64, "xxh"));
  tree.addFolder("D");
  const std::vector<MhlFolderHashes> hashes = computeMhlDirectoryHashes(tree);
  const auto formatsOf = [&hashes](std::string_view path) {
    std::vector<ChecksumType> formats;
    for (const MhlDirectoryHashPair& pair : folder(hashes, path)->hashes) {
      formats.push_back(pair.format);
    }
    return formats;
  };
  // mhlFormats() order: md5 before xxh64.
  EXPECT_EQ(formatsOf("A/B"), (std::vector<ChecksumType>{ChecksumTypeMD5}));
  EXPECT_EQ(formatsOf("A"), (std::vector<ChecksumType>{ChecksumTypeMD5}));
  EXPECT_EQ(formatsOf("C"), (std::vector<ChecksumType>{ChecksumTypeXXHash64}));
  EXPECT_EQ(formatsOf("D"), (std::vector<ChecksumType>{ChecksumTypeMD5, ChecksumTypeXXHash64}));
  EXPECT_TRUE(formatsOf("").empty());
  // The hash of the format every file has is unaffected by the other format's gaps.
  MhlDirectoryTree onlyMd5;
  onlyMd5.addFile("A/both.txt", ChecksumTypeMD5, hashOf(ChecksumTypeMD5, "both"));
  onlyMd5.addFile("A/B/md5only.txt", ChecksumTypeMD5, hashOf(ChecksumTypeMD5, "md5"));
  EXPECT_EQ(*folder(hashes, "A")->find(ChecksumTypeMD5),
            *folder(computeMhlDirectoryHashes(onlyMd5), "A")->find(ChecksumTypeMD5));
}

TEST(MhlDirectoryHash, ContentIgnoresNamesStructureDoesNot) {
  const auto compute = [](std::string_view first, std::string_view second) {
    MhlDirectoryTree tree;
    tree.addFile(first, ChecksumTypeXXHash64, hashOf(ChecksumTypeXXHash64, "one"));
    tree.addFile(second, ChecksumTypeXXHash64, hashOf(ChecksumTypeXXHash64, "two"));
    return *folder(computeMhlDirectoryHashes(tree), "")->find(ChecksumTypeXXHash64);
  };
  const MhlDirectoryHashPair original = compute("D/one.txt", "two.txt");
  const MhlDirectoryHashPair fileRenamed = compute("D/one.txt", "2.txt");
  const MhlDirectoryHashPair folderRenamed = compute("E/one.txt", "two.txt");
  const MhlDirectoryHashPair moved = compute("one.txt", "D/two.txt");
  // Implementation Guidelines 2.5.1 and 2.5.2.
  EXPECT_EQ(fileRenamed.content, original.content);
  EXPECT_NE(fileRenamed.structure, original.structure);
  EXPECT_EQ(folderRenamed.content, original.content);
  EXPECT_NE(folderRenamed.structure, original.structure);
  EXPECT_NE(moved.content, original.content);
  EXPECT_NE(moved.structure, original.structure);
}

TEST(MhlDirectoryHash, NamesAreBytesWithoutUnicodeNormalisation) {
  const auto topOf = [](std::string_view name) {
    MhlDirectoryTree tree;
    tree.addFile(std::string(name) + "/x", ChecksumTypeMD5, hashOf(ChecksumTypeMD5, "x"));
    return *folder(computeMhlDirectoryHashes(tree), "")->find(ChecksumTypeMD5);
  };
  const MhlDirectoryHashPair composed = topOf("Caf\xc3\xa9");     // U+00E9
  const MhlDirectoryHashPair decomposed = topOf("Cafe\xcc\x81");  // e + U+0301
  EXPECT_EQ(composed.content, decomposed.content);
  EXPECT_NE(composed.structure, decomposed.structure);
  // Not even valid UTF-8 is refused: names are what the file system returned.
  EXPECT_NE(topOf("\xff\xfe").structure, topOf("\xff\xfd").structure);
}

TEST(MhlDirectoryHash, DeepTreesNeedNoRecursion) {
  std::string path;
  for (int depth = 0; depth < 20000; ++depth) path += depth == 0 ? "d" : "/d";
  MhlDirectoryTree tree;
  tree.addFile(path + "/leaf", ChecksumTypeXXHash64, hashOf(ChecksumTypeXXHash64, "leaf"));
  EXPECT_EQ(tree.folderCount(), 20000u);
  const std::vector<MhlFolderHashes> hashes = computeMhlDirectoryHashes(tree);
  ASSERT_EQ(hashes.size(), 20001u);
  EXPECT_EQ(hashes.back().relativePath, path);
  // The deepest folder holds one file; each folder above holds one folder.
  const std::string leaf = hashOf(ChecksumTypeXXHash64, "leaf");
  std::string content = mhlHashOfHashes(ChecksumTypeXXHash64, {leaf});
  EXPECT_EQ(hashes.back().find(ChecksumTypeXXHash64)->content, content);
  for (int level = 0; level < 3; ++level) {
    content = mhlHashOfHashes(ChecksumTypeXXHash64, {content});
    EXPECT_EQ(hashes[hashes.size() - 2 - level].find(ChecksumTypeXXHash64)->content, content);
  }
}

TEST(MhlDirectoryHash, FormatsAskedForAreComputedInSchemaOrderOnce) {
  const MhlDirectoryTree tree = largerTree(mhlFormats());
  const std::vector<MhlFolderHashes> hashes =
      computeMhlDirectoryHashes(tree, {ChecksumTypeXXHash64, ChecksumTypeC4, ChecksumTypeXXHash64});
  for (const MhlFolderHashes& folderHashes : hashes) {
    ASSERT_EQ(folderHashes.hashes.size(), 2u);
    EXPECT_EQ(folderHashes.hashes[0].format, ChecksumTypeC4);
    EXPECT_EQ(folderHashes.hashes[1].format, ChecksumTypeXXHash64);
  }
  EXPECT_EQ(tree.formats(), mhlFormats());
  EXPECT_EQ(exceptionReason([&tree] { computeMhlDirectoryHashes(tree, {ChecksumTypeCRC32}); }),
            "CRC-32 is not an ASC MHL hash format; ASC MHL records c4, md5, sha1, xxh128, xxh3 and "
            "xxh64");
}

// ----- the tree's refusals -----------------------------------------------------------------------

TEST(MhlDirectoryTree, MalformedPathsAreRefused) {
  const std::string hash = hashOf(ChecksumTypeXXHash64, "x");
  for (const char* path : {"", "/a", "a/", "a//b", "./a", "a/./b", "a/../b", "..", "."}) {
    SCOPED_TRACE(path);
    MhlDirectoryTree tree;
    EXPECT_THROW(tree.addFile(path, ChecksumTypeXXHash64, hash), Exception);
    EXPECT_THROW(tree.addFolder(path), Exception);
    EXPECT_EQ(tree.fileCount() + tree.folderCount(), 0u);
  }
  EXPECT_EQ(
      exceptionReason([&hash] { MhlDirectoryTree().addFile("a//b", ChecksumTypeXXHash64, hash); }),
      "\"a//b\" is not a relative path for a directory hash: it has an empty component "
      "(\"//\")");
}

TEST(MhlDirectoryTree, MalformedHashesAndOtherAlgorithmsAreRefused) {
  MhlDirectoryTree tree;
  EXPECT_EQ(exceptionReason([&tree] { tree.addFile("a", ChecksumTypeXXHash64, "aa"); }),
            "\"aa\" is not a hash value of the format xxh64 (file \"a\")");
  EXPECT_EQ(exceptionReason([&tree] {
              tree.addFile("a", ChecksumTypeSHA256, hashOf(ChecksumTypeSHA256, "a"));
            }),
            "SHA-2 256 is not an ASC MHL hash format; ASC MHL records c4, md5, sha1, xxh128, xxh3 "
            "and xxh64");
  EXPECT_EQ(tree.fileCount(), 0u);
}

TEST(MhlDirectoryTree, PathCannotBeBothFileAndFolder) {
  const std::string hash = hashOf(ChecksumTypeMD5, "x");
  MhlDirectoryTree tree;
  tree.addFile("a/b", ChecksumTypeMD5, hash);
  EXPECT_EQ(exceptionReason([&] { tree.addFile("a", ChecksumTypeMD5, hash); }),
            "\"a\" was added as a folder");
  EXPECT_EQ(exceptionReason([&] { tree.addFile("a/b/c", ChecksumTypeMD5, hash); }),
            "\"a/b/c\" lies below the file \"a/b\"");
  EXPECT_EQ(exceptionReason([&] { tree.addFolder("a/b/c"); }),
            "\"a/b\" was added as a file, not a folder");
  EXPECT_EQ(exceptionReason([&] { tree.addFolder("a/b"); }),
            "\"a/b\" was added as a file, not a folder");
  EXPECT_EQ(tree.fileCount(), 1u);
  EXPECT_EQ(tree.folderCount(), 1u);
}

TEST(MhlDirectoryTree, SameHashTwiceIsAcceptedADifferentOneIsRefused) {
  MhlDirectoryTree tree;
  tree.addFile("a", ChecksumTypeMD5, hashOf(ChecksumTypeMD5, "x"));
  tree.addFile("a", ChecksumTypeMD5, hashOf(ChecksumTypeMD5, "x"));
  EXPECT_EQ(
      exceptionReason([&] { tree.addFile("a", ChecksumTypeMD5, hashOf(ChecksumTypeMD5, "y")); }),
      "\"a\" already has a different md5 hash");
  tree.addFile("a", ChecksumTypeSHA1, hashOf(ChecksumTypeSHA1, "x"));
  EXPECT_EQ(tree.fileCount(), 1u);
  EXPECT_EQ(tree.formats(), (std::vector<ChecksumType>{ChecksumTypeMD5, ChecksumTypeSHA1}));
  // Uppercase digits spell the same bytes: the same hash, not a different one.
  std::string upper = hashOf(ChecksumTypeMD5, "x");
  std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
  tree.addFile("a", ChecksumTypeMD5, upper);
}

TEST(MhlDirectoryTree, CopiesAreIndependentAndMovedFromTreesStayUsable) {
  MhlDirectoryTree tree;
  tree.addFile("a/x", ChecksumTypeXXHash64, hashOf(ChecksumTypeXXHash64, "x"));
  MhlDirectoryTree copy = tree;
  copy.addFile("b/y", ChecksumTypeXXHash64, hashOf(ChecksumTypeXXHash64, "y"));
  EXPECT_EQ(tree.fileCount(), 1u);
  EXPECT_EQ(copy.fileCount(), 2u);
  MhlDirectoryTree moved = std::move(copy);
  EXPECT_EQ(moved.fileCount(), 2u);
  // NOLINTNEXTLINE(bugprone-use-after-move): a moved-from tree is an empty tree.
  EXPECT_EQ(computeMhlDirectoryHashes(copy, {ChecksumTypeXXHash64}).size(), 1u);
  copy.addFile("c", ChecksumTypeXXHash64, hashOf(ChecksumTypeXXHash64, "c"));
  EXPECT_EQ(copy.fileCount(), 1u);
}

}  // namespace
}  // namespace corvane
