// ASC MHL manifests to and from XML: the example manifest of the ASC MHL material read field by
// field; every element and attribute written and read back; what we write validates against the
// ASC MHL schema (our embedded copy and xmllint with the shipped .xsd); schema faults, content
// faults and malformed XML refused with file and line; hostile XML (entities, DOCTYPE, XInclude,
// schema hints) refused or left inert; dates; many entries.
//
// Expected values come from the test data files (tests/data/ascmhl/SOURCES.md) or are written out
// here; checksum values that must be well-formed come from the test support's independent
// references (c4Reference) or are texts of the right length.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "corvane/MhlManifest.hpp"
#include "corvane/MhlXml.hpp"
#include "support/MhlTestData.hpp"
#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"

namespace corvane {
namespace {

using testsupport::ScratchDirectory;

const std::string kExampleName = "0001_TEST01_2019-10-11_155603.mhl";

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

// A real C4 ID (SHA-512 of `seed`, written by the test support's reference encoder).
std::string c4Of(std::string_view seed) { return testsupport::c4Reference(bytesOf(seed)); }

MhlDateTime date(std::string_view text) {
  std::optional<MhlDateTime> parsed = MhlDateTime::fromText(text);
  EXPECT_TRUE(parsed) << text;
  return parsed.value_or(MhlDateTime{});
}

MhlHash hash(std::string format, std::string value,
             std::optional<MhlHashAction> action = MhlHashAction::original) {
  MhlHash h;
  h.format = std::move(format);
  h.value = std::move(value);
  h.action = action;
  return h;
}

bool xmllintAvailable() { return std::system("command -v xmllint >/dev/null 2>&1") == 0; }

// Runs `xmllint --noout --schema <schema> <file>`; the exit status and what it printed.
std::pair<int, std::string> xmllint(const std::string& schema, const std::string& file) {
  const std::string command =
      "xmllint --nonet --noout --schema '" + schema + "' '" + file + "' 2>&1";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return {-1, "popen failed"};
  std::string output;
  char buffer[4096];
  while (std::size_t count = std::fread(buffer, 1, sizeof buffer, pipe))
    output.append(buffer, count);
  const int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

// A manifest with every element and attribute of the schema set (hash formats in the schema's
// order, so that what is read back compares equal).
MhlManifest fullManifest() {
  MhlManifest m;
  m.creatorInfo.creationDate = date("2024-05-01T11:15:00+02:00");
  m.creatorInfo.hostName = "dit-cart.local";
  m.creatorInfo.tool = {"corvane-checksum", "1.0.0"};
  m.creatorInfo.authors = {{"Dana Ito", "dana@example.com", "+49 89 1234", "DIT"},
                           {"Ben Zed", std::nullopt, std::nullopt, "Loader"}};
  m.creatorInfo.location = "Munich, Germany";
  m.creatorInfo.comment = "Backup of /Volumes/A001 to /Volumes/RAID (second copy on /Volumes/T2)";
  m.processInfo.process = MhlProcess::transfer;
  m.processInfo.rootHash =
      MhlRootHash{{hash("md5", "afd3e0ec44cdcde02d17b580329b566b", std::nullopt),
                   hash("xxh64", "7680e5f98f4a80fd", std::nullopt)},
                  {hash("md5", "4cdcde02d17b580329b566bafd3e0ec4", std::nullopt),
                   hash("xxh64", "8f4a80fd7680e5f9", std::nullopt)}};
  m.processInfo.ignorePatterns = {".DS_Store", "/tmp", "*.RMD ", "!keep.RMD", "ascmhl/"};

  MhlHashEntry clip;
  clip.path = "Clips/A001C001_240501_R1AB.mov";
  clip.size = 1234567890123ULL;
  clip.creationDate = date("2024-05-01T08:00:00Z");
  clip.lastModificationDate = date("2024-05-01T08:59:59.123456-07:00");
  clip.hashes = {hash("c4", c4Of("clip")),
                 hash("md5", "9e107d9d372bb6826bd81d3542a419d6"),
                 hash("sha1", "2fd4e1c67a2d28fced849ee1bb76e7391b93eb12", MhlHashAction::verified),
                 hash("xxh128", "00fd03cd9996ee8cf8be6a756bf82a42", MhlHashAction::verified),
                 hash("xxh3", "3ab5a4166b9bde44", MhlHashAction::failed),
                 hash("xxh64", "0ea03b369a463d9d", MhlHashAction::original)};
  clip.hashes[0].hashDate = date("2024-05-01T09:10:00Z");
  clip.hashes[2].structure = "free text of the schema's structure attribute";
  clip.metadata = MhlMetadata{{{"take", "3"}}, "good take &amp; sharp"};
  m.hashes.push_back(clip);

  MhlHashEntry renamed;
  renamed.path = "Clips/A001C002_240501_R1AB.mov";
  renamed.size = 0;
  renamed.hashes = {hash("xxh64", "ef46db3751d8e999", MhlHashAction::verified)};
  renamed.previousPath = "Clips/0002.mov";
  m.hashes.push_back(renamed);

  MhlDirectoryHashEntry folder;
  folder.path = "Clips";
  folder.creationDate = date("2024-05-01T07:00:00Z");
  folder.lastModificationDate = date("2024-05-01T09:00:00Z");
  folder.content = {hash("md5", "afd3e0ec44cdcde02d17b580329b566b", MhlHashAction::verified),
                    hash("xxh64", "7680e5f98f4a80fd", MhlHashAction::verified)};
  folder.structure = {hash("md5", "4cdcde02d17b580329b566bafd3e0ec4", MhlHashAction::verified),
                      hash("xxh64", "8f4a80fd7680e5f9", MhlHashAction::verified)};
  folder.previousPath = "Clips_0001";
  folder.metadata = MhlMetadata{{}, "<camera id=\"A\">ALEXA 35</camera>"};
  m.directoryHashes.push_back(folder);

  m.metadata = MhlMetadata{{{"project", "Corvane"}, {"xmlns:cam", "urn:example:camera"}},
                           "\n    shooting day 3\n    <cam:reel>A001</cam:reel>\n  "};

  MhlHashListReference reference;
  reference.path = "A002R2EC/ascmhl/0002_A002R2EC_2020-01-17_143000Z.mhl";
  reference.c4.value = c4Of("nested manifest");
  m.references.push_back(reference);
  reference.path = "A003R2EC/ascmhl/0001_A003R2EC_2020-01-17_143000Z.mhl";
  reference.c4.value = c4Of("another nested manifest");
  reference.c4.action = MhlHashAction::original;
  reference.c4.hashDate = date("2020-01-17T14:30:00Z");
  m.references.push_back(reference);
  return m;
}

// A small manifest with one record, for mutations.
MhlManifest smallManifest() {
  MhlManifest m;
  m.creatorInfo.creationDate = date("2024-05-01T09:15:00Z");
  m.creatorInfo.hostName = "dit-cart";
  m.creatorInfo.tool = {"corvane-checksum", "1.0"};
  MhlHashEntry entry;
  entry.path = "Clips/A001.mov";
  entry.size = 5;
  entry.lastModificationDate = date("2024-05-01T09:00:00Z");
  entry.hashes = {hash("xxh64", "0ea03b369a463d9d")};
  m.hashes.push_back(entry);
  return m;
}

MhlManifest roundTrip(const MhlManifest& manifest) {
  MhlResult<std::string> bytes = writeMhlManifest(manifest);
  EXPECT_TRUE(bytes) << bytes.error().description();
  if (!bytes) return {};
  MhlResult<MhlManifest> read = parseMhlManifest(*bytes, "written");
  EXPECT_TRUE(read) << read.error().description() << "\n" << *bytes;
  return read ? *read : MhlManifest{};
}

// ----- the example manifest ------------------------------------------------------------------

TEST(MhlManifestXml, ReadsTheExampleManifestFieldByField) {
  const MhlResult<MhlManifest> read = readMhlManifest(testsupport::ascmhlDataPath(kExampleName));
  ASSERT_TRUE(read) << read.error().description();
  const MhlManifest& m = *read;

  EXPECT_EQ(m.creatorInfo.creationDate.text(), "2019-10-11T15:56:03+02:00");
  EXPECT_EQ(m.creatorInfo.hostName, "donkey.local");
  EXPECT_EQ(m.creatorInfo.tool.name, "ascmhl-tool");
  EXPECT_EQ(m.creatorInfo.tool.version, "0.0.3");
  ASSERT_EQ(m.creatorInfo.authors.size(), 2u);
  EXPECT_EQ(m.creatorInfo.authors[0],
            (MhlAuthor{"Liz Foo", "foo@bar.foo.foo.com", "+1 234 567 890 88", std::nullopt}));
  EXPECT_EQ(m.creatorInfo.authors[1],
            (MhlAuthor{"Ben Zed", "zed@bar.foo.foo.com", "+1 234 567 890 99", std::nullopt}));
  EXPECT_EQ(m.creatorInfo.location, "Munich, Germany");
  EXPECT_EQ(m.creatorInfo.comment, std::nullopt);

  EXPECT_EQ(m.processInfo.process, MhlProcess::inPlace);
  ASSERT_TRUE(m.processInfo.rootHash);
  const std::string rootC4 =
      "c44pdRyHLMvHsYbJnRpTrh5ohdWW6uVbm4mZx421aTN7y9MUKk74TqyshmTLgvnq2tcZex6khpxrYUq87Hczcmnyq3";
  EXPECT_EQ(m.processInfo.rootHash->content,
            (std::vector<MhlHash>{hash("c4", rootC4, std::nullopt)}));
  EXPECT_EQ(m.processInfo.rootHash->structure,
            (std::vector<MhlHash>{hash("c4", rootC4, std::nullopt)}));
  EXPECT_EQ(m.processInfo.ignorePatterns, (std::vector<std::string>{"*.DS_Store", "/tmp"}));

  ASSERT_EQ(m.hashes.size(), 3u);
  EXPECT_EQ(m.hashes[0].path, "Clips/A002C006_141024_R2EC.mov");
  EXPECT_EQ(m.hashes[0].size, 5u);
  EXPECT_EQ(m.hashes[0].creationDate, std::nullopt);
  EXPECT_EQ(m.hashes[0].lastModificationDate, date("2019-10-11T15:56:03+02:00"));
  EXPECT_EQ(m.hashes[0].hashes, (std::vector<MhlHash>{hash("xxh64", "0ea03b369a463d9d")}));
  EXPECT_EQ(m.hashes[0].previousPath, std::nullopt);
  EXPECT_EQ(m.hashes[0].metadata, std::nullopt);
  EXPECT_EQ(m.hashes[1].path, "Clips/A002C007_141024_R2EC.mov");
  EXPECT_EQ(m.hashes[1].hashes, (std::vector<MhlHash>{hash("xxh64", "7680e5f98f4a80fd")}));
  EXPECT_EQ(m.hashes[2].path, "Sidecar.txt");
  EXPECT_EQ(m.hashes[2].size, 58u);
  EXPECT_EQ(m.hashes[2].hashes,
            (std::vector<MhlHash>{hash("xxh64", "3ab5a4166b9bde44", MhlHashAction::failed)}));
  EXPECT_EQ(m.hashes[2].metadata, (MhlMetadata{{{"bar", "Foo"}}, ""}));

  ASSERT_EQ(m.directoryHashes.size(), 1u);
  const MhlDirectoryHashEntry& folder = m.directoryHashes[0];
  EXPECT_EQ(folder.path, "Clips/");
  EXPECT_EQ(folder.lastModificationDate, date("2019-10-11T15:56:01+02:00"));
  EXPECT_EQ(folder.content,
            (std::vector<MhlHash>{hash("xxh64", "7680e5f98f4a80fd", std::nullopt)}));
  EXPECT_EQ(folder.structure,
            (std::vector<MhlHash>{hash("xxh64", "8f4a80fd7680e5f9", std::nullopt)}));
  EXPECT_EQ(folder.metadata, (MhlMetadata{{}, "test2"}));

  EXPECT_EQ(m.metadata, (MhlMetadata{{}, "\n    test\n    <foo bar=\"1\">lorem</foo>\n  "}));

  ASSERT_EQ(m.references.size(), 2u);
  EXPECT_EQ(m.references[0].path, "A002R2EC/ascmhl/A002R2EC_2020-01-17_143000_0002.mhl");
  // The example's values are made up (16 hex digits under <c4>): read as they stand.
  EXPECT_EQ(m.references[0].c4, hash("c4", "87210d6e0589c31c", std::nullopt));
  EXPECT_EQ(m.references[1].path, "A003R2EC/ascmhl/A003R2EC_2020-01-17_143000_0002.mhl");
  EXPECT_EQ(m.references[1].c4, hash("c4", "40116e7da1ca1487", std::nullopt));
}

TEST(MhlManifestXml, TheExampleValidatesWithOurSchemaAndWithXmllint) {
  EXPECT_EQ(validateMhlManifest(testsupport::readFile(testsupport::ascmhlDataPath(kExampleName)),
                                kExampleName),
            std::nullopt);
  if (!xmllintAvailable()) GTEST_SKIP() << "xmllint is not installed (Debian: libxml2-utils)";
  const auto [status, output] = xmllint(testsupport::shippedMhlSchema("ASCMHL.xsd"),
                                        testsupport::ascmhlDataPath(kExampleName));
  EXPECT_EQ(status, 0) << output;
}

TEST(MhlManifestXml, WritingRefusesTheMadeUpC4ValuesOfTheExample) {
  const MhlResult<MhlManifest> read = readMhlManifest(testsupport::ascmhlDataPath(kExampleName));
  ASSERT_TRUE(read);
  const MhlResult<std::string> written = writeMhlManifest(*read);
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().kind, MhlErrorKind::invalidContent);
  EXPECT_EQ(written.error().message,
            "reference 'A002R2EC/ascmhl/A002R2EC_2020-01-17_143000_0002.mhl': c4 value "
            "'87210d6e0589c31c' is not a C4 ID ('c4' and 88 base-58 digits)");
}

TEST(MhlManifestXml, ReadWriteReadKeepsEveryValueOfTheExample) {
  MhlResult<MhlManifest> read = readMhlManifest(testsupport::ascmhlDataPath(kExampleName));
  ASSERT_TRUE(read);
  // The made-up reference values replaced by real C4 IDs; everything else as the example has it.
  read->references[0].c4.value = c4Of("A002R2EC");
  read->references[1].c4.value = c4Of("A003R2EC");
  EXPECT_EQ(roundTrip(*read), *read);
}

// ----- writing ---------------------------------------------------------------------------------

TEST(MhlManifestXml, WritesTheLayoutOfTheExample) {
  const MhlResult<std::string> written = writeMhlManifest(smallManifest());
  ASSERT_TRUE(written) << written.error().description();
  EXPECT_EQ(*written,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<hashlist version=\"2.0\" xmlns=\"urn:ASC:MHL:v2.0\" "
            "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
            "xsi:schemaLocation=\"urn:ASC:MHL:v2.0 ASCMHL.xsd\">\n"
            "  <creatorinfo>\n"
            "    <creationdate>2024-05-01T09:15:00Z</creationdate>\n"
            "    <hostname>dit-cart</hostname>\n"
            "    <tool version=\"1.0\">corvane-checksum</tool>\n"
            "  </creatorinfo>\n"
            "  <processinfo>\n"
            "    <process>in-place</process>\n"
            "  </processinfo>\n"
            "  <hashes>\n"
            "    <hash>\n"
            "      <path size=\"5\" lastmodificationdate=\"2024-05-01T09:00:00Z\">Clips/A001.mov"
            "</path>\n"
            "      <xxh64 action=\"original\">0ea03b369a463d9d</xxh64>\n"
            "    </hash>\n"
            "  </hashes>\n"
            "</hashlist>\n");
}

TEST(MhlManifestXml, WritesEveryElementAndAttributeAndReadsThemBack) {
  const MhlManifest manifest = fullManifest();
  EXPECT_EQ(roundTrip(manifest), manifest);
}

TEST(MhlManifestXml, TheSameManifestAlwaysGivesTheSameBytes) {
  const MhlResult<std::string> first = writeMhlManifest(fullManifest());
  const MhlResult<std::string> second = writeMhlManifest(fullManifest());
  ASSERT_TRUE(first && second);
  EXPECT_EQ(*first, *second);
  // and reading then writing again gives them back
  const MhlResult<MhlManifest> read = parseMhlManifest(*first);
  ASSERT_TRUE(read);
  EXPECT_EQ(writeMhlManifest(*read).value(), *first);
}

TEST(MhlManifestXml, EverythingWrittenValidatesWithXmllintToo) {
  ScratchDirectory scratch;
  std::vector<std::string> files;
  for (const MhlManifest& manifest : {fullManifest(), smallManifest()}) {
    const MhlResult<std::string> written = writeMhlManifest(manifest);
    ASSERT_TRUE(written) << written.error().description();
    EXPECT_EQ(validateMhlManifest(*written), std::nullopt);
    files.push_back(scratch.writeText("m" + std::to_string(files.size()) + ".mhl", *written));
  }
  if (!xmllintAvailable()) GTEST_SKIP() << "xmllint is not installed (Debian: libxml2-utils)";
  for (const std::string& file : files) {
    const auto [status, output] = xmllint(testsupport::shippedMhlSchema("ASCMHL.xsd"), file);
    EXPECT_EQ(status, 0) << output << testsupport::readFile(file);
  }
}

TEST(MhlManifestXml, HashFormatsAreWrittenInTheSchemasOrderWhateverTheirOrderInTheModel) {
  MhlManifest manifest = smallManifest();
  manifest.hashes[0].hashes = {hash("xxh64", "0ea03b369a463d9d"),
                               hash("md5", "9e107d9d372bb6826bd81d3542a419d6"),
                               hash("xxh3", "3ab5a4166b9bde44"),
                               hash("c4", c4Of("x")),
                               hash("xxh128", "00fd03cd9996ee8cf8be6a756bf82a42"),
                               hash("sha1", "2fd4e1c67a2d28fced849ee1bb76e7391b93eb12")};
  const MhlManifest read = roundTrip(manifest);
  ASSERT_EQ(read.hashes.size(), 1u);
  std::vector<std::string> formats;
  for (const MhlHash& h : read.hashes[0].hashes) formats.push_back(h.format);
  EXPECT_EQ(formats, (std::vector<std::string>{"c4", "md5", "sha1", "xxh128", "xxh3", "xxh64"}));
  EXPECT_EQ(read.hashes[0].hashes[5].value, "0ea03b369a463d9d");
  EXPECT_EQ(read.hashes[0].hashes[1].value, "9e107d9d372bb6826bd81d3542a419d6");
}

TEST(MhlManifestXml, PreviousPathsOfRenamedFilesAndFoldersSurvive) {
  MhlManifest manifest = smallManifest();
  manifest.hashes[0].previousPath = "Clips/0001.mov";
  MhlDirectoryHashEntry folder;
  folder.path = "Clips_141024";
  folder.previousPath = "Clips_0001";
  folder.content = {hash("xxh64", "7680e5f98f4a80fd", MhlHashAction::verified)};
  folder.structure = {hash("xxh64", "8f4a80fd7680e5f9", MhlHashAction::verified)};
  manifest.directoryHashes.push_back(folder);
  const MhlResult<std::string> written = writeMhlManifest(manifest);
  ASSERT_TRUE(written);
  // previousPath follows the hashes (ASC MHL 6.5 example)
  EXPECT_NE(written->find("      <xxh64 action=\"original\">0ea03b369a463d9d</xxh64>\n"
                          "      <previousPath>Clips/0001.mov</previousPath>\n"),
            std::string::npos)
      << *written;
  const MhlManifest read = roundTrip(manifest);
  EXPECT_EQ(read.hashes[0].previousPath, "Clips/0001.mov");
  EXPECT_EQ(read.directoryHashes[0].previousPath, "Clips_0001");
  EXPECT_EQ(read, manifest);
}

TEST(MhlManifestXml, NonAsciiNamesAreWrittenAsUtf8AndReadBack) {
  MhlManifest manifest = smallManifest();
  manifest.creatorInfo.authors = {{"Zoë Ünal-Øster", "zoe@exämple.com", std::nullopt, "DIT"}};
  manifest.creatorInfo.location = "Zürich, Schweiz";
  manifest.creatorInfo.comment = "Κάμερα A · 日本語のコメント";
  manifest.hashes[0].path = "Drehtag 3/Szene ä/日本語/🎬 take.mov";
  manifest.hashes[0].previousPath = "Drehtag 3/Szene a/clip.mov";
  manifest.processInfo.ignorePatterns = {"*.tmp", "Überspielung/"};
  const MhlResult<std::string> written = writeMhlManifest(manifest);
  ASSERT_TRUE(written) << written.error().description();
  EXPECT_NE(written->find(">Drehtag 3/Szene ä/日本語/🎬 take.mov</path>"), std::string::npos);
  EXPECT_EQ(roundTrip(manifest), manifest);
}

TEST(MhlManifestXml, MarkupCharactersAndWhitespaceInTextsSurvive) {
  MhlManifest manifest = smallManifest();
  manifest.creatorInfo.hostName = "  host <with> & \"quotes\" 'and' spaces  ";
  manifest.creatorInfo.comment = "line one\nline two\r\n\ttabbed";
  manifest.creatorInfo.authors = {{" Name ", std::nullopt, "a\tb\nc", "<role>"}};
  manifest.hashes[0].path = " leading and trailing spaces .mov ";
  manifest.processInfo.ignorePatterns = {"trailing space matters\\ ", "*.tmp "};
  EXPECT_EQ(roundTrip(manifest), manifest);
}

TEST(MhlManifestXml, ManifestsWithOnlyReferencesOrOnlyFolderHashesAreWritten) {
  MhlManifest onlyReferences = fullManifest();
  onlyReferences.hashes.clear();
  onlyReferences.directoryHashes.clear();
  EXPECT_EQ(roundTrip(onlyReferences), onlyReferences);
  MhlManifest onlyFolders = fullManifest();
  onlyFolders.hashes.clear();
  onlyFolders.references.clear();
  EXPECT_EQ(roundTrip(onlyFolders), onlyFolders);
}

TEST(MhlManifestXml, TenThousandEntriesWriteAndReadQuickly) {
  MhlManifest manifest = smallManifest();
  manifest.hashes.clear();
  for (int i = 0; i < 10000; ++i) {
    MhlHashEntry entry;
    entry.path = "Day 1/Card " + std::to_string(i / 100) + "/Clip_" + std::to_string(i) + ".mov";
    entry.size = static_cast<std::uint64_t>(i) * 4096;
    entry.lastModificationDate = date("2024-05-01T09:00:00Z");
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016x", i * 2654435761u);
    entry.hashes = {hash("md5", std::string(hex) + hex), hash("xxh64", hex)};
    manifest.hashes.push_back(std::move(entry));
  }
  const auto start = std::chrono::steady_clock::now();
  const MhlResult<std::string> written = writeMhlManifest(manifest);
  const auto writtenAt = std::chrono::steady_clock::now();
  ASSERT_TRUE(written) << written.error().description();
  const MhlResult<MhlManifest> read = parseMhlManifest(*written);
  const auto readAt = std::chrono::steady_clock::now();
  ASSERT_TRUE(read) << read.error().description();
  EXPECT_EQ(*read, manifest);
  const auto ms = [](auto d) { return std::chrono::duration<double, std::milli>(d).count(); };
  // No assertion on time (shared machines); printed so that a quadratic step would show.
  std::printf("10,000 entries, %zu bytes: written and checked in %.1f ms, read in %.1f ms\n",
              written->size(), ms(writtenAt - start), ms(readAt - writtenAt));
}

// ----- write refusals
// -----------------------------------------------------------------------------

struct WriteRefusal {
  const char* what;
  void (*change)(MhlManifest&);
  std::string message;  // the start of the message
};

TEST(MhlManifestXml, WritingRefusesWhatAscMhlForbids) {
  const WriteRefusal refusals[] = {
      {"no creation date", [](MhlManifest& m) { m.creatorInfo.creationDate = MhlDateTime{}; },
       "creator info: the creation date is missing"},
      {"nothing recorded", [](MhlManifest& m) { m.hashes.clear(); },
       "a manifest needs at least one hash entry, directory hash or reference"},
      {"no hash", [](MhlManifest& m) { m.hashes[0].hashes.clear(); },
       "hash entry 'Clips/A001.mov' has no hash"},
      {"no action", [](MhlManifest& m) { m.hashes[0].hashes[0].action.reset(); },
       "hash entry 'Clips/A001.mov': xxh64 hash without action (original, verified or failed)"},
      {"upper-case hex", [](MhlManifest& m) { m.hashes[0].hashes[0].value = "0EA03B369A463D9D"; },
       "hash entry 'Clips/A001.mov': xxh64 value '0EA03B369A463D9D' is not 16 lowercase hex "
       "digits"},
      {"short md5",
       [](MhlManifest& m) { m.hashes[0].hashes = {hash("md5", "9e107d9d372bb6826bd81d3542a419")}; },
       "hash entry 'Clips/A001.mov': md5 value '9e107d9d372bb6826bd81d3542a419' is not 32 "
       "lowercase hex digits"},
      {"bad c4",
       [](MhlManifest& m) { m.hashes[0].hashes = {hash("c4", "c4" + std::string(88, '0'))}; },
       "hash entry 'Clips/A001.mov': c4 value 'c4" + std::string(88, '0') +
           "' is not a C4 ID ('c4' and 88 base-58 digits)"},
      {"c4 beyond 512 bits",
       [](MhlManifest& m) { m.hashes[0].hashes = {hash("c4", "c4" + std::string(88, 'z'))}; },
       "hash entry 'Clips/A001.mov': c4 value 'c4" + std::string(88, 'z') + "' is not a C4 ID"},
      {"unknown format",
       [](MhlManifest& m) { m.hashes[0].hashes = {hash("sha256", std::string(64, 'a'))}; },
       "hash entry 'Clips/A001.mov': unknown hash format 'sha256'"},
      {"format twice",
       [](MhlManifest& m) { m.hashes[0].hashes.push_back(hash("xxh64", "7680e5f98f4a80fd")); },
       "hash entry 'Clips/A001.mov' has two xxh64 hashes"},
      {"absolute path", [](MhlManifest& m) { m.hashes[0].path = "/Clips/A001.mov"; },
       "hash entry path '/Clips/A001.mov' starts with '/' (paths are relative to the scope)"},
      {"dot-dot", [](MhlManifest& m) { m.hashes[0].path = "Clips/../A001.mov"; },
       "hash entry path 'Clips/../A001.mov' has a '..' component (the most direct path is "
       "required)"},
      {"dot", [](MhlManifest& m) { m.hashes[0].path = "./A001.mov"; },
       "hash entry path './A001.mov' has a '.' component (the most direct path is required)"},
      {"empty component", [](MhlManifest& m) { m.hashes[0].path = "Clips//A001.mov"; },
       "hash entry path 'Clips//A001.mov' has an empty component"},
      {"file path with slash", [](MhlManifest& m) { m.hashes[0].path = "Clips/"; },
       "hash entry path 'Clips/' ends with '/' (only folder paths may)"},
      {"empty path", [](MhlManifest& m) { m.hashes[0].path = ""; }, "hash entry path '' is empty"},
      {"bad previous path", [](MhlManifest& m) { m.hashes[0].previousPath = "../old.mov"; },
       "hash entry 'Clips/A001.mov' previous path '../old.mov' has a '..' component (the most "
       "direct path is required)"},
      {"two records of a path",
       [](MhlManifest& m) {
         MhlDirectoryHashEntry folder;
         folder.path = "Clips/A001.mov/";
         folder.content = {hash("xxh64", "7680e5f98f4a80fd")};
         folder.structure = {hash("xxh64", "8f4a80fd7680e5f9")};
         m.directoryHashes.push_back(folder);
       },
       "directory hash entry 'Clips/A001.mov/': a second record of path 'Clips/A001.mov/'"},
      {"content and structure differ",
       [](MhlManifest& m) {
         MhlDirectoryHashEntry folder;
         folder.path = "Clips";
         folder.content = {hash("xxh64", "7680e5f98f4a80fd")};
         folder.structure = {hash("md5", "4cdcde02d17b580329b566bafd3e0ec4")};
         m.directoryHashes.push_back(folder);
       },
       "directory hash entry 'Clips': content and structure hashes of different formats"},
      {"empty root hash", [](MhlManifest& m) { m.processInfo.rootHash = MhlRootHash{}; },
       "root hash content has no hash"},
      {"bad e-mail",
       [](MhlManifest& m) {
         m.creatorInfo.authors = {{"Dana", "dana@localhost", {}, {}}};
       },
       "author 'Dana': e-mail address 'dana@localhost' does not match the schema's pattern "
       "[^@]+@[^\\.]+\\..+"},
      {"control character", [](MhlManifest& m) { m.creatorInfo.hostName = "bell\a"; },
       "host name is not valid UTF-8 text of characters XML allows"},
      {"invalid UTF-8", [](MhlManifest& m) { m.creatorInfo.comment = "caf\xe9"; },
       "comment is not valid UTF-8 text of characters XML allows"},
      {"empty ignore pattern", [](MhlManifest& m) { m.processInfo.ignorePatterns = {""}; },
       "an ignore pattern is empty"},
      {"unbalanced metadata",
       [](MhlManifest& m) {
         m.metadata = MhlMetadata{{}, "<open>"};
       },
       "manifest metadata: metadata is not well-formed XML: "},
      {"metadata closing its element",
       [](MhlManifest& m) {
         m.metadata = MhlMetadata{{}, "</metadata><metadata>"};
       },
       "manifest metadata: metadata is not well-formed XML: "},
      {"metadata redeclaring the namespace",
       [](MhlManifest& m) {
         m.metadata = MhlMetadata{{{"xmlns", "urn:other"}}, ""};
       },
       "manifest metadata: metadata may not declare the default namespace (it is the "
       "manifest's)"},
      {"reference hash not c4",
       [](MhlManifest& m) {
         m.references = {{"A/ascmhl/0001_A_2024-05-01_091500Z.mhl",
                          hash("md5", "9e107d9d372bb6826bd81d3542a419d6")}};
       },
       "reference 'A/ascmhl/0001_A_2024-05-01_091500Z.mhl': the hash of a referenced manifest is "
       "a c4, not md5"},
  };
  for (const WriteRefusal& refusal : refusals) {
    SCOPED_TRACE(refusal.what);
    MhlManifest manifest = smallManifest();
    refusal.change(manifest);
    const std::optional<MhlError> fault = checkMhlManifest(manifest);
    ASSERT_TRUE(fault);
    EXPECT_EQ(fault->kind, MhlErrorKind::invalidContent);
    EXPECT_EQ(fault->line, 0u);
    EXPECT_EQ(fault->source, "");
    EXPECT_EQ(fault->message.substr(0, refusal.message.size()), refusal.message) << fault->message;
    const MhlResult<std::string> written = writeMhlManifest(manifest);
    ASSERT_FALSE(written);
    EXPECT_EQ(written.error(), *fault);
  }
}

TEST(MhlManifestXml, FolderPathsMayEndWithASlash) {
  MhlManifest manifest = smallManifest();
  MhlDirectoryHashEntry folder;
  folder.path = "Clips/";
  folder.content = {hash("xxh64", "7680e5f98f4a80fd", std::nullopt)};
  folder.structure = {hash("xxh64", "8f4a80fd7680e5f9", std::nullopt)};
  manifest.directoryHashes.push_back(folder);
  EXPECT_EQ(checkMhlManifest(manifest), std::nullopt);
  EXPECT_EQ(roundTrip(manifest), manifest);
}

// ----- reading refusals, with file and line -----------------------------------------------------

// A valid manifest, one element per line, so that a fault's line is known.
const std::vector<std::string> kBaseLines = {
    R"(<?xml version="1.0" encoding="UTF-8"?>)",                               // 1
    R"(<hashlist version="2.0" xmlns="urn:ASC:MHL:v2.0">)",                    // 2
    R"(  <creatorinfo>)",                                                      // 3
    R"(    <creationdate>2024-05-01T09:15:00Z</creationdate>)",                // 4
    R"(    <hostname>dit-cart</hostname>)",                                    // 5
    R"(    <tool version="1.0">corvane-test</tool>)",                          // 6
    R"(    <author email="dit@example.com" role="DIT">Dana</author>)",         // 7
    R"(  </creatorinfo>)",                                                     // 8
    R"(  <processinfo>)",                                                      // 9
    R"(    <process>transfer</process>)",                                      // 10
    R"(  </processinfo>)",                                                     // 11
    R"(  <hashes>)",                                                           // 12
    R"(    <hash>)",                                                           // 13
    R"(      <path size="5">Clips/A.mov</path>)",                              // 14
    R"(      <md5 action="original">9e107d9d372bb6826bd81d3542a419d6</md5>)",  // 15
    R"(    </hash>)",                                                          // 16
    R"(  </hashes>)",                                                          // 17
    R"(</hashlist>)",                                                          // 18
};

std::string withLine(std::size_t line, const std::string& replacement) {
  std::string text;
  for (std::size_t i = 0; i < kBaseLines.size(); ++i) {
    text += (i + 1 == line ? replacement : kBaseLines[i]) + "\n";
  }
  return text;
}

struct ReadRefusal {
  std::size_t line;         // the line replaced
  std::string replacement;  // its new text
  MhlErrorKind kind;
  std::uint64_t faultLine;  // where the fault is reported
  std::string message;      // the start of the message
};

void expectRefused(const ReadRefusal& refusal) {
  SCOPED_TRACE(refusal.replacement);
  ScratchDirectory scratch;
  const std::string path =
      scratch.writeText("0002_x.mhl", withLine(refusal.line, refusal.replacement));
  const MhlResult<MhlManifest> read = readMhlManifest(path);
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().kind, refusal.kind);
  EXPECT_EQ(read.error().source, path);
  EXPECT_EQ(read.error().line, refusal.faultLine);
  EXPECT_EQ(read.error().message.substr(0, refusal.message.size()), refusal.message)
      << read.error().message;
  EXPECT_EQ(read.error().description().substr(
                0, path.size() + 1 + std::to_string(refusal.faultLine).size() + 2),
            path + ":" + std::to_string(refusal.faultLine) + ": ");
  // validate* agrees for faults of the schema and of the XML
  if (refusal.kind != MhlErrorKind::invalidContent) {
    const std::optional<MhlError> fault =
        validateMhlManifest(withLine(refusal.line, refusal.replacement), "0002_x.mhl");
    ASSERT_TRUE(fault);
    EXPECT_EQ(fault->line, refusal.faultLine);
    EXPECT_EQ(fault->kind, refusal.kind);
  }
}

TEST(MhlManifestXml, TheBaseOfTheRefusalTestsIsValid) {
  const MhlResult<MhlManifest> read = parseMhlManifest(withLine(0, ""), "base");
  ASSERT_TRUE(read) << read.error().description();
  EXPECT_EQ(read->hashes.at(0).path, "Clips/A.mov");
}

TEST(MhlManifestXml, SchemaViolationsAreRefusedWithFileAndLine) {
  const MhlErrorKind schema = MhlErrorKind::schemaViolation;
  const ReadRefusal refusals[] = {
      {5, "    <hostnam>dit-cart</hostnam>", schema, 5,
       "Element 'hostnam': This element is not expected. Expected is ( hostname )."},
      {15, R"(      <md5 action="bogus">9e107d9d372bb6826bd81d3542a419d6</md5>)", schema, 15,
       "Element 'md5', attribute 'action': [facet 'enumeration'] The value 'bogus' is not an "
       "element of the set {'original', 'verified', 'failed'}."},
      {14, R"(      <path size="five">Clips/A.mov</path>)", schema, 14,
       "Element 'path', attribute 'size': 'five' is not a valid value of the atomic type "
       "'xs:integer'."},
      {4, "    <creationdate>yesterday</creationdate>", schema, 4,
       "Element 'creationdate': 'yesterday' is not a valid value of the atomic type "
       "'xs:dateTime'."},
      {2, R"(<hashlist version="1.1" xmlns="urn:ASC:MHL:v2.0">)", schema, 2,
       "Element 'hashlist', attribute 'version': The value '1.1' does not match the fixed value "
       "constraint '2.0'."},
      {15, R"(      <sha256 action="original">9e107d9d372bb6826bd81d3542a419d6</sha256>)", schema,
       15, "Element 'sha256': This element is not expected."},
      {7, R"(    <author email="not-an-address">Dana</author>)", schema, 7,
       "Element 'author', attribute 'email': [facet 'pattern'] The value 'not-an-address' is not "
       "accepted by the pattern"},
      {10, "    <process>copy</process>", schema, 10,
       "Element 'process': [facet 'enumeration'] The value 'copy' is not an element of the set "
       "{'in-place', 'transfer', 'flatten'}."},
      {16, R"(      <md5 action="original">9e107d9d372bb6826bd81d3542a419d6</md5></hash>)", schema,
       16, "Element 'md5': This element is not expected."},
      {15,
       R"(      <xxh64 action="original">0ea03b369a463d9d</xxh64>)"
       R"(<md5 action="original">9e107d9d372bb6826bd81d3542a419d6</md5>)",
       schema, 15, "Element 'md5': This element is not expected."},
      {14, "      <pth>Clips/A.mov</pth>", schema, 14,
       "Element 'pth': This element is not expected. Expected is ( path )."},
      {8, "    <weather>sunny</weather></creatorinfo>", schema, 8,
       "Element 'weather': This element is not expected."},
      {10, "    <process>transfer</process><ignore></ignore>", schema, 10,
       "Element 'ignore': Missing child element(s). Expected is ( pattern )."},
      {10, "    <process>transfer</process><roothash><content/></roothash>", schema, 10,
       "Element 'roothash': Missing child element(s). Expected is ( structure )."},
      {2, R"(<hashlist version="2.0" xmlns="urn:ASC:MHL:v1.0">)", schema, 2,
       "Element 'hashlist' of namespace urn:ASC:MHL:v1.0: not an ASC MHL manifest (expected "
       "<hashlist> of namespace urn:ASC:MHL:v2.0)"},
      {2, R"(<hashlist version="1.1">)", schema, 2,
       "Element 'hashlist' (no namespace): not an ASC MHL manifest"},
  };
  for (const ReadRefusal& refusal : refusals) expectRefused(refusal);
}

TEST(MhlManifestXml, ContentTheSchemaAllowsButAscMhlForbidsIsRefusedWithFileAndLine) {
  const MhlErrorKind content = MhlErrorKind::invalidContent;
  const ReadRefusal refusals[] = {
      {14, "      <path>/etc/passwd</path>", content, 14, "absolute path '/etc/passwd'"},
      {14, "      <path>Clips/../../../etc/passwd</path>", content, 14,
       "path 'Clips/../../../etc/passwd' leaves the scope ('..')"},
      {14, "      <path></path>", content, 14, "empty path"},
      {16, "      <previousPath>../A.mov</previousPath></hash>", content, 16,
       "path '../A.mov' leaves the scope ('..')"},
      {14, R"(      <path size="-5">Clips/A.mov</path>)", content, 14,
       "attribute 'size': '-5' is not a size in bytes"},
      {14, R"(      <path size="18446744073709551616">Clips/A.mov</path>)", content, 14,
       "attribute 'size': '18446744073709551616' is not a size in bytes"},
      {16,
       R"(    </hash><hash><path>Clips/A.mov</path>)"
       R"(<md5 action="original">9e107d9d372bb6826bd81d3542a419d6</md5></hash>)",
       content, 16, "a second record of path 'Clips/A.mov' (the first is on line 14)"},
      {16,
       R"(    </hash><directoryhash><path>Clips/A.mov/</path>)"
       R"(<content/><structure/></directoryhash>)",
       content, 16, "a second record of path 'Clips/A.mov/' (the first is on line 14)"},
      {17,
       R"(  </hashes><references><hashlistreference><path>../other/ascmhl/0001.mhl</path>)"
       R"(<c4>c4x</c4></hashlistreference></references>)",
       content, 17, "path '../other/ascmhl/0001.mhl' leaves the scope ('..')"},
  };
  for (const ReadRefusal& refusal : refusals) expectRefused(refusal);
}

TEST(MhlManifestXml, LargestSizeIsRead) {
  const MhlResult<MhlManifest> read = parseMhlManifest(
      withLine(14, R"(      <path size="18446744073709551615">Clips/A.mov</path>)"));
  ASSERT_TRUE(read) << read.error().description();
  EXPECT_EQ(read->hashes[0].size, 18446744073709551615ULL);
}

TEST(MhlManifestXml, MalformedXmlIsRefusedWithFileAndLine) {
  const MhlErrorKind malformed = MhlErrorKind::malformedXml;
  const ReadRefusal refusals[] = {
      {16, "    </hsh>", malformed, 16, "Opening and ending tag mismatch: hash line 13 and hsh"},
      {5, "    <hostname>caf\xe9</hostname>", malformed, 5,
       "Input is not proper UTF-8, indicate encoding !"},
      {5, "    <hostname>&xxe;</hostname>", malformed, 5, "Entity 'xxe' not defined"},
      {5, "    <hostname>a & b</hostname>", malformed, 5, "xmlParseEntityRef: no name"},
      {5, "    <x:hostname>dit-cart</x:hostname>", malformed, 5,
       "Namespace prefix x on hostname is not defined"},
  };
  for (const ReadRefusal& refusal : refusals) expectRefused(refusal);

  const MhlResult<MhlManifest> truncated = parseMhlManifest(withLine(0, "").substr(0, 300), "cut");
  ASSERT_FALSE(truncated);
  EXPECT_EQ(truncated.error().kind, malformed);
  EXPECT_GT(truncated.error().line, 0u);
  const MhlResult<MhlManifest> empty = parseMhlManifest("", "empty.mhl");
  ASSERT_FALSE(empty);
  EXPECT_EQ(empty.error().kind, malformed);
}

TEST(MhlManifestXml, SchemaFaultsBeyondLine65535ReportTheirLine) {
  std::string text = withLine(0, "");
  std::string entries;
  for (int i = 0; i < 20000; ++i) {
    entries += "    <hash>\n      <path>f" + std::to_string(i) +
               "</path>\n      <xxh64 action=\"original\">0ea03b369a463d9d</xxh64>\n    </hash>\n";
  }
  entries +=
      "    <hash>\n      <path>last</path>\n      <xxh64 action=\"maybe\">0</xxh64>\n    </hash>\n";
  text.insert(text.find("  <hashes>\n") + 11, entries);
  const std::uint64_t faultLine = 12 + 20000 * 4 + 3;
  const MhlResult<MhlManifest> read = parseMhlManifest(text, "big.mhl");
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().line, faultLine) << read.error().description();
}

TEST(MhlManifestXml, AMissingFileIsUnreadableWithItsErrno) {
  ScratchDirectory scratch;
  const std::string path = scratch.file("missing.mhl");
  const MhlResult<MhlManifest> read = readMhlManifest(path);
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().kind, MhlErrorKind::unreadable);
  EXPECT_EQ(read.error().code, ENOENT);
  EXPECT_EQ(read.error().description(), path + ": No such file or directory");
}

// ----- hostile XML
// ---------------------------------------------------------------------------------

std::string hostile(const std::string& prolog, const std::string& hostName) {
  std::string text = withLine(5, "    <hostname>" + hostName + "</hostname>");
  text.insert(text.find('\n') + 1, prolog + "\n");
  return text;
}

void expectDoctypeRefused(const std::string& text) {
  SCOPED_TRACE(text.substr(0, 200));
  const MhlResult<MhlManifest> read = parseMhlManifest(text, "hostile.mhl");
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().kind, MhlErrorKind::malformedXml);
  EXPECT_EQ(read.error().line, 2u);
  EXPECT_EQ(read.error().message.rfind("document type declarations are not accepted", 0), 0u)
      << read.error().message;
  const std::optional<MhlError> fault = validateMhlManifest(text, "hostile.mhl");
  ASSERT_TRUE(fault);
  EXPECT_EQ(fault->message, read.error().message);
}

TEST(MhlManifestXml, AnExternalEntityIsNeverFollowed) {
  ScratchDirectory scratch;
  const std::string secret = scratch.writeText("secret.txt", "TOP-SECRET-MARKER");
  const std::string text =
      hostile("<!DOCTYPE hashlist [<!ENTITY xxe SYSTEM \"file://" + secret + "\">]>", "&xxe;");
  expectDoctypeRefused(text);
  const MhlResult<MhlManifest> read = parseMhlManifest(text);
  EXPECT_EQ(read.error().description().find("TOP-SECRET"), std::string::npos);
  expectDoctypeRefused(
      hostile("<!DOCTYPE hashlist [<!ENTITY xxe SYSTEM \"file:///etc/passwd\">]>", "&xxe;"));
}

TEST(MhlManifestXml, AnEntityExpansionBombIsRefusedAtOnce) {
  std::string entities = "<!ENTITY lol \"lol\">";
  for (int level = 1; level <= 9; ++level) {
    std::string value;
    for (int i = 0; i < 10; ++i)
      value += "&lol" + (level > 1 ? std::to_string(level - 1) : "") + ";";
    entities += "<!ENTITY lol" + std::to_string(level) + " \"" + value + "\">";
  }
  const auto start = std::chrono::steady_clock::now();
  expectDoctypeRefused(hostile("<!DOCTYPE hashlist [" + entities + "]>", "&lol9;"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(MhlManifestXml, DocumentTypeDeclarationsOfEveryKindAreRefused) {
  expectDoctypeRefused(hostile("<!DOCTYPE hashlist SYSTEM \"http://127.0.0.1:9/evil.dtd\">", "x"));
  expectDoctypeRefused(
      hostile("<!DOCTYPE hashlist [<!ENTITY % p SYSTEM \"file:///etc/passwd\"> %p;]>", "x"));
  expectDoctypeRefused(hostile("<!DOCTYPE hashlist>", "x"));
  expectDoctypeRefused(hostile("<!DOCTYPE hashlist [<!ENTITY name \"harmless\">]>", "&name;"));
}

TEST(MhlManifestXml, XIncludeInMetadataStaysInertText) {
  const std::string text =
      withLine(16, R"(      <metadata><xi:include xmlns:xi="http://www.w3.org/2001/XInclude")"
                   R"( href="/etc/passwd" parse="text"/></metadata></hash>)");
  const MhlResult<MhlManifest> read = parseMhlManifest(text);
  ASSERT_TRUE(read) << read.error().description();
  ASSERT_TRUE(read->hashes[0].metadata);
  EXPECT_EQ(read->hashes[0].metadata->content,
            R"(<xi:include xmlns:xi="http://www.w3.org/2001/XInclude" href="/etc/passwd")"
            R"( parse="text"/>)");
}

TEST(MhlManifestXml, ASchemaLocationHintIsNeverLoaded) {
  // Valid against our schema; the hint names a schema that would refuse everything.
  const std::string text =
      withLine(2, R"(<hashlist version="2.0" xmlns="urn:ASC:MHL:v2.0")"
                  R"( xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance")"
                  R"( xsi:schemaLocation="urn:ASC:MHL:v2.0 http://127.0.0.1:9/evil.xsd">)");
  EXPECT_EQ(validateMhlManifest(text), std::nullopt);
  EXPECT_TRUE(parseMhlManifest(text));
}

// ----- documents other tools may write ---------------------------------------------------------

TEST(MhlManifestXml, PrefixedNamespacesCdataCommentsAndInterleavedRecordsAreRead) {
  const std::string text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!-- written by another tool -->\n"
      "<a:hashlist version=\"2.0\" xmlns:a=\"urn:ASC:MHL:v2.0\" xmlns:cam=\"urn:example:cam\">\n"
      "  <a:creatorinfo>\n"
      "    <a:creationdate>2024-05-01T09:15:00.5Z</a:creationdate>\n"
      "    <a:hostname><![CDATA[host<1>]]></a:hostname>\n"
      "    <a:tool>t<!-- c -->ool</a:tool>\n"
      "  </a:creatorinfo>\n"
      "  <a:processinfo><a:process>flatten</a:process></a:processinfo>\n"
      "  <a:hashes>\n"
      "    <a:directoryhash><a:path>D</a:path>\n"
      "      <a:content><a:md5>afd3e0ec44cdcde02d17b580329b566b</a:md5></a:content>\n"
      "      <a:structure><a:md5>4cdcde02d17b580329b566bafd3e0ec4</a:md5></a:structure>\n"
      "    </a:directoryhash>\n"
      "    <a:hash><a:path>D/f</a:path>\n"
      "      <a:xxh64 action=\"original\" hashdate=\"2024-05-01T09:00:00+14:00\">\n"
      "        0ea03b369a463d9d\n"
      "      </a:xxh64>\n"
      "      <a:metadata cam:reel=\"A001\" note=\"1 &lt; 2\"><cam:lens>35mm</cam:lens>"
      "<plain>no namespace</plain><![CDATA[<raw>]]><!-- c --></a:metadata>\n"
      "    </a:hash>\n"
      "  </a:hashes>\n"
      "</a:hashlist>\n";
  const MhlResult<MhlManifest> read = parseMhlManifest(text, "foreign.mhl");
  ASSERT_TRUE(read) << read.error().description();
  EXPECT_EQ(read->creatorInfo.creationDate.text(), "2024-05-01T09:15:00.5Z");
  EXPECT_EQ(read->creatorInfo.hostName, "host<1>");
  EXPECT_EQ(read->creatorInfo.tool.name, "tool");
  EXPECT_EQ(read->processInfo.process, MhlProcess::flatten);
  ASSERT_EQ(read->hashes.size(), 1u);
  ASSERT_EQ(read->directoryHashes.size(), 1u);
  EXPECT_EQ(read->hashes[0].hashes, (std::vector<MhlHash>{[] {
              MhlHash h = hash("xxh64", "0ea03b369a463d9d");
              h.hashDate = date("2024-05-01T09:00:00+14:00");
              return h;
            }()}));
  const MhlMetadata expected{
      {{"cam:reel", "A001"},
       {"note", "1 < 2"},
       {"xmlns:a", "urn:ASC:MHL:v2.0"},
       {"xmlns:cam", "urn:example:cam"}},
      "<cam:lens>35mm</cam:lens><plain xmlns=\"\">no namespace</plain><![CDATA[<raw>]]><!-- c -->"};
  EXPECT_EQ(read->hashes[0].metadata, expected);

  // Written in our form and read again: the same values, the metadata's namespaces intact.
  const MhlResult<std::string> written = writeMhlManifest(*read);
  ASSERT_TRUE(written) << written.error().description();
  EXPECT_NE(written->find("<metadata cam:reel=\"A001\" note=\"1 &lt; 2\" "
                          "xmlns:a=\"urn:ASC:MHL:v2.0\" xmlns:cam=\"urn:example:cam\">"
                          "<cam:lens>35mm</cam:lens><plain xmlns=\"\">no namespace</plain>"),
            std::string::npos)
      << *written;
  EXPECT_EQ(roundTrip(*read), *read);
}

// ----- results and errors ------------------------------------------------------------------------

TEST(MhlResult, ValueOfAFailedResultThrowsTheDescription) {
  const MhlResult<MhlManifest> read = parseMhlManifest("<hashlist", "x.mhl");
  ASSERT_FALSE(read);
  try {
    (void)read.value();
    FAIL() << "no exception";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "MhlError");
    EXPECT_EQ(e.reason(), read.error().description());
  }
  const MhlResult<std::string> ok = std::string("bytes");
  EXPECT_THROW((void)ok.error(), Exception);
}

TEST(MhlError, DescriptionLeavesOutWhatIsNotKnown) {
  MhlError error{MhlErrorKind::schemaViolation, "a.mhl", 17, "Element 'hash': bad", 0};
  EXPECT_EQ(error.description(), "a.mhl:17: Element 'hash': bad");
  error.line = 0;
  EXPECT_EQ(error.description(), "a.mhl: Element 'hash': bad");
  error.source = "";
  EXPECT_EQ(error.description(), "Element 'hash': bad");
  error.line = 3;
  EXPECT_EQ(error.description(), "line 3: Element 'hash': bad");
}

TEST(MhlManifestXml, ManyThreadsReadAndWriteAtOnce) {
  const std::string example = testsupport::readFile(testsupport::ascmhlDataPath(kExampleName));
  const MhlResult<std::string> full = writeMhlManifest(fullManifest());
  ASSERT_TRUE(full);
  std::vector<std::thread> threads;
  std::vector<int> failures(8, 0);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        const MhlResult<MhlManifest> a = parseMhlManifest(example);
        const MhlResult<std::string> b = writeMhlManifest(fullManifest());
        const std::optional<MhlError> c = validateMhlManifest(withLine(10, "<process>x</process>"));
        if (!a || !b || *b != *full || !c) ++failures[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(8, 0));
}

// ----- dates -----------------------------------------------------------------------------------

TEST(MhlDateTime, AcceptsTheDateTimesOfXmlSchema) {
  for (const char* text :
       {"2019-10-11T15:56:03+02:00", "2024-05-01T09:15:00Z", "2024-05-01T09:15:00",
        "2024-02-29T00:00:00Z", "2000-02-29T23:59:59.999999999-14:00", "2024-12-31T24:00:00Z",
        "-0044-03-15T12:00:00Z", "12024-01-01T00:00:00+14:00", "2024-05-01T09:15:00.5+05:30"}) {
    const std::optional<MhlDateTime> parsed = MhlDateTime::fromText(text);
    ASSERT_TRUE(parsed) << text;
    EXPECT_EQ(parsed->text(), text);
  }
}

TEST(MhlDateTime, RefusesWhatIsNotADateTime) {
  for (const char* text : {"",
                           "2019-10-11",
                           "2019-10-11 15:56:03Z",
                           "2019-10-11T15:56Z",
                           "19-10-11T15:56:03Z",
                           "2023-02-29T00:00:00Z",
                           "1900-02-29T00:00:00Z",
                           "2024-13-01T00:00:00Z",
                           "2024-04-31T00:00:00Z",
                           "2024-05-01T25:00:00Z",
                           "2024-05-01T24:00:01Z",
                           "2024-05-01T23:60:00Z",
                           "2024-05-01T23:59:60Z",
                           "2024-05-01T09:15:00+15:00",
                           "2024-05-01T09:15:00+14:30",
                           "2024-05-01T09:15:00+0200",
                           "0000-01-01T00:00:00Z",
                           "02024-01-01T00:00:00Z",
                           "2024-05-01T09:15:00.Z",
                           " 2024-05-01T09:15:00Z",
                           "2024-05-01T09:15:00z"}) {
    EXPECT_FALSE(MhlDateTime::fromText(text)) << text;
  }
}

TEST(MhlDateTime, NamesTheSameMomentInEveryZone) {
  const auto local = date("2019-10-11T15:56:03+02:00").timePoint();
  const auto utc = date("2019-10-11T13:56:03Z").timePoint();
  ASSERT_TRUE(local && utc);
  EXPECT_EQ(*local, *utc);
  EXPECT_EQ(std::chrono::system_clock::to_time_t(*utc), 1570802163);  // date -d ... +%s
  EXPECT_EQ(date("2024-12-31T24:00:00Z").timePoint(), date("2025-01-01T00:00:00Z").timePoint());
  EXPECT_EQ(
      *date("2024-05-01T09:15:00.25Z").timePoint() - *date("2024-05-01T09:15:00Z").timePoint(),
      std::chrono::milliseconds(250));
  EXPECT_EQ(date("2019-10-11T15:56:03+02:00").utcOffset(), std::chrono::minutes(120));
  EXPECT_EQ(date("2019-10-11T15:56:03-03:30").utcOffset(), std::chrono::minutes(-210));
  EXPECT_EQ(date("2019-10-11T15:56:03Z").utcOffset(), std::chrono::minutes(0));
  EXPECT_EQ(date("2019-10-11T15:56:03").utcOffset(), std::nullopt);
  EXPECT_EQ(date("2019-10-11T15:56:03").timePoint(), std::nullopt);   // no zone: no moment
  EXPECT_EQ(date("9999-01-01T00:00:00Z").timePoint(), std::nullopt);  // beyond the clock
  EXPECT_EQ(MhlDateTime{}.timePoint(), std::nullopt);
}

TEST(MhlDateTime, WritesAMomentInUtcOrAtAnOffset) {
  const auto moment = std::chrono::system_clock::from_time_t(1570802163) +
                      std::chrono::milliseconds(999);  // 2019-10-11T13:56:03.999Z
  EXPECT_EQ(MhlDateTime::fromTimePoint(moment).text(), "2019-10-11T13:56:03Z");
  EXPECT_EQ(MhlDateTime::fromTimePoint(moment, std::chrono::minutes(120)).text(),
            "2019-10-11T15:56:03+02:00");
  EXPECT_EQ(MhlDateTime::fromTimePoint(moment, std::chrono::minutes(-570)).text(),
            "2019-10-11T04:26:03-09:30");
  EXPECT_EQ(MhlDateTime::fromTimePoint(std::chrono::system_clock::from_time_t(0)).text(),
            "1970-01-01T00:00:00Z");
  const MhlDateTime written = MhlDateTime::fromTimePoint(moment, std::chrono::minutes(120));
  EXPECT_EQ(written.timePoint(), std::chrono::system_clock::from_time_t(1570802163));
  EXPECT_EQ(MhlDateTime::fromText(written.text()), written);
}

TEST(MhlDateTimeDeathTest, AnOffsetBeyondFourteenHoursIsAProgrammingError) {
  EXPECT_DEATH((void)MhlDateTime::fromTimePoint(std::chrono::system_clock::now(),
                                                std::chrono::minutes(15 * 60)),
               "MhlDateTime");
}

TEST(MhlNames, ProcessesAndActionsByTheirXmlNames) {
  for (MhlProcess process : {MhlProcess::inPlace, MhlProcess::transfer, MhlProcess::flatten}) {
    EXPECT_EQ(mhlProcessFromName(mhlProcessName(process)), process);
  }
  EXPECT_EQ(mhlProcessName(MhlProcess::inPlace), "in-place");
  EXPECT_EQ(mhlProcessFromName("In-Place"), std::nullopt);
  for (MhlHashAction action :
       {MhlHashAction::original, MhlHashAction::verified, MhlHashAction::failed}) {
    EXPECT_EQ(mhlHashActionFromName(mhlHashActionName(action)), action);
  }
  EXPECT_EQ(mhlHashActionFromName("ok"), std::nullopt);
}

}  // namespace
}  // namespace corvane

namespace corvane {
namespace {

// ASC MHL documents are UTF-8 (ASC MHL 6.2). Others are refused before libxml2 converts them:
// its converters report failures on the process's stderr instead of to the parser.
TEST(MhlManifestXml, DocumentInAnotherEncodingIsRefusedWithoutPrintingToStderr) {
  struct Case {
    std::string name;
    std::string bytes;
    std::string message;
  };
  const std::string body = "<hashlist version=\"2.0\" xmlns=\"urn:ASC:MHL:v2.0\"/>\n";
  for (const Case& c : {
           Case{"utf-7 declared",
                "<?xml version=\"1.0\" encoding=\"UTF-7\"?>\n<hashlist>\x11</hashlist>\n",
                "the document declares the encoding \"UTF-7\" (ASC MHL documents are UTF-8)"},
           Case{"latin-1 declared",
                "<?xml version='1.0' encoding='iso-8859-1'?>\n" + body,
                "the document declares the encoding \"ISO-8859-1\" (ASC MHL documents are "
                "UTF-8)"},
           Case{"ucs-4 guessed", std::string("<\0\0\0?\0\0\0x\0\0\0", 12),
                "not UTF-8 text (ASC MHL documents are UTF-8)"},
           Case{"utf-16 mark", std::string("\xFF\xFE<\0?\0", 6),
                "not UTF-8 text (ASC MHL documents are UTF-8)"},
           // An unclosed name: the message quotes the name only, on one line.
           Case{"runaway name", "<?xml version=\"1.0\" encoding=\"Ution>\n<hashlist a=\"b\"/>\n",
                "the document declares the encoding \"UTION\" (ASC MHL documents are UTF-8)"},
       }) {
    SCOPED_TRACE(c.name);
    testing::internal::CaptureStderr();
    const MhlResult<MhlManifest> manifest = parseMhlManifest(c.bytes, "other.mhl");
    const std::optional<MhlError> validated = validateMhlManifest(c.bytes, "other.mhl");
    const MhlResult<MhlChain> chain = parseMhlChain(c.bytes, "other.xml");
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(printed, "");
    ASSERT_FALSE(manifest);
    EXPECT_EQ(manifest.error().kind, MhlErrorKind::malformedXml);
    EXPECT_EQ(manifest.error().message, c.message);
    ASSERT_TRUE(validated.has_value());
    EXPECT_EQ(validated->message, c.message);
    ASSERT_FALSE(chain);
    EXPECT_EQ(chain.error().message, c.message);
  }
  // UTF-8 declared in any spelling, with or without the byte-order mark, still reads.
  const std::string example = testsupport::readFile(testsupport::ascmhlDataPath(kExampleName));
  const std::string rest = example.substr(example.find("?>") + 2);
  for (const std::string declaration :
       {"<?xml version=\"1.0\" encoding=\"UTF-8\"?>", "<?xml version=\"1.0\" encoding='utf8'?>",
        "\xEF\xBB\xBF<?xml version=\"1.0\"?>"}) {
    const std::optional<MhlError> refused = validateMhlManifest(declaration + rest, "utf8.mhl");
    EXPECT_FALSE(refused.has_value()) << declaration << (refused ? refused->message : "");
  }
}

}  // namespace
}  // namespace corvane
