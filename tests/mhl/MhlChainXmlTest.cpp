// ASC MHL chain files (ascmhl_chain.xml) to and from XML: the example chain read field by field;
// entries written and read back; what we write validates against the directory schema (ours and
// xmllint with the shipped .xsd, which imports ASCMHL.xsd); schema faults, broken sequence numbers
// and unsafe paths refused with file and line; hostile XML refused; many entries.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
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

// A real C4 ID (SHA-512 of `seed`, from the test support's reference encoder).
std::string c4Of(std::string_view seed) {
  return testsupport::c4Reference(Bytes(seed.begin(), seed.end()));
}

bool xmllintAvailable() { return std::system("command -v xmllint >/dev/null 2>&1") == 0; }

std::pair<int, std::string> xmllint(const std::string& schema, const std::string& file) {
  const std::string command =
      "xmllint --nonet --noout --schema '" + schema + "' '" + file + "' 2>&1";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return {-1, "popen failed"};
  std::string output;
  char buffer[4096];
  while (std::size_t count = std::fread(buffer, 1, sizeof buffer, pipe)) {
    output.append(buffer, count);
  }
  const int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

MhlChainEntry entry(std::uint64_t number, std::string path) {
  MhlChainEntry e;
  e.sequenceNumber = number;
  e.c4.value = c4Of(path);
  e.path = std::move(path);
  return e;
}

MhlChain threeGenerations() {
  MhlChain chain;
  chain.entries = {entry(1, "0001_A002R2EC_2020-01-16_091500Z.mhl"),
                   entry(2, "0002_A002R2EC_2020-01-17_143000Z.mhl"),
                   entry(3, "0003_A002R2EC_2020-01-20_080000Z.mhl")};
  return chain;
}

MhlChain roundTrip(const MhlChain& chain) {
  MhlResult<std::string> bytes = writeMhlChain(chain);
  EXPECT_TRUE(bytes) << bytes.error().description();
  if (!bytes) return {};
  MhlResult<MhlChain> read = parseMhlChain(*bytes, "written");
  EXPECT_TRUE(read) << read.error().description() << "\n" << *bytes;
  return read ? *read : MhlChain{};
}

TEST(MhlChainXml, ReadsTheExampleChain) {
  const MhlResult<MhlChain> read = readMhlChain(testsupport::ascmhlDataPath("ascmhl_chain.xml"));
  ASSERT_TRUE(read) << read.error().description();
  ASSERT_EQ(read->entries.size(), 1u);
  const MhlChainEntry& first = read->entries[0];
  EXPECT_EQ(first.sequenceNumber, 1u);
  EXPECT_EQ(first.path, "0001_TEST01_2019-10-11_155603.mhl");
  EXPECT_EQ(first.c4.format, "c4");
  EXPECT_EQ(
      first.c4.value,
      "c44pdRyHLMvHsYbJnRpTrh5ohdWW6uVbm4mZx421aTN7y9MUKk74TqyshmTLgvnq2tcZex6khpxrYUq87Hczcmnyq3");
  EXPECT_EQ(first.c4.action, std::nullopt);
  EXPECT_EQ(first.c4.hashDate, std::nullopt);
}

TEST(MhlChainXml, TheExampleValidatesWithOurSchemaAndWithXmllint) {
  EXPECT_EQ(
      validateMhlChain(testsupport::readFile(testsupport::ascmhlDataPath("ascmhl_chain.xml"))),
      std::nullopt);
  if (!xmllintAvailable()) GTEST_SKIP() << "xmllint is not installed (Debian: libxml2-utils)";
  const auto [status, output] = xmllint(testsupport::shippedMhlSchema("ASCMHLDirectory.xsd"),
                                        testsupport::ascmhlDataPath("ascmhl_chain.xml"));
  EXPECT_EQ(status, 0) << output;
}

TEST(MhlChainXml, ReadWriteReadKeepsTheExample) {
  const MhlResult<MhlChain> read = readMhlChain(testsupport::ascmhlDataPath("ascmhl_chain.xml"));
  ASSERT_TRUE(read);
  EXPECT_EQ(roundTrip(*read), *read);
}

TEST(MhlChainXml, WritesTheLayoutOfTheExample) {
  MhlChain chain;
  chain.entries = {entry(1, "0001_TEST01_2019-10-11_155603Z.mhl")};
  chain.entries[0].c4.value =
      "c44pdRyHLMvHsYbJnRpTrh5ohdWW6uVbm4mZx421aTN7y9MUKk74TqyshmTLgvnq2tcZex6khpxrYUq87Hczcmnyq3";
  const MhlResult<std::string> written = writeMhlChain(chain);
  ASSERT_TRUE(written) << written.error().description();
  EXPECT_EQ(
      *written,
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<ascmhldirectory xmlns=\"urn:ASC:MHL:DIRECTORY:v2.0\">\n"
      "    <hashlist sequencenr=\"1\">\n"
      "        <path>0001_TEST01_2019-10-11_155603Z.mhl</path>\n"
      "        <c4>c44pdRyHLMvHsYbJnRpTrh5ohdWW6uVbm4mZx421aTN7y9MUKk74TqyshmTLgvnq2tcZex6khpxr"
      "YUq87Hczcmnyq3</c4>\n"
      "    </hashlist>\n"
      "</ascmhldirectory>\n");
}

TEST(MhlChainXml, WritesEntriesWithEveryAttributeAndReadsThemBack) {
  MhlChain chain = threeGenerations();
  chain.entries[1].c4.action = MhlHashAction::original;
  chain.entries[1].c4.hashDate = MhlDateTime::fromText("2020-01-17T14:30:00Z");
  chain.entries[2].c4.structure = "kept as written";
  EXPECT_EQ(roundTrip(chain), chain);
}

TEST(MhlChainXml, EverythingWrittenValidatesWithXmllintToo) {
  const MhlResult<std::string> written = writeMhlChain(threeGenerations());
  ASSERT_TRUE(written) << written.error().description();
  EXPECT_EQ(validateMhlChain(*written), std::nullopt);
  if (!xmllintAvailable()) GTEST_SKIP() << "xmllint is not installed (Debian: libxml2-utils)";
  ScratchDirectory scratch;
  const std::string file = scratch.writeText("ascmhl_chain.xml", *written);
  const auto [status, output] = xmllint(testsupport::shippedMhlSchema("ASCMHLDirectory.xsd"), file);
  EXPECT_EQ(status, 0) << output << *written;
}

TEST(MhlChainXml, NonAsciiManifestNamesSurvive) {
  MhlChain chain;
  chain.entries = {entry(1, "0001_Drehtag Ü_2024-05-01_091500Z.mhl"),
                   entry(2, "0002_日本語_2024-05-02_091500Z.mhl")};
  EXPECT_EQ(roundTrip(chain), chain);
}

TEST(MhlChainXml, TenThousandEntriesWriteAndReadQuickly) {
  MhlChain chain;
  const std::string c4 = c4Of("manifest");
  for (std::uint64_t i = 1; i <= 10000; ++i) {
    char name[64];
    std::snprintf(name, sizeof name, "%04llu_CARD_2024-05-01_091500Z.mhl",
                  static_cast<unsigned long long>(i));
    MhlChainEntry e;
    e.sequenceNumber = i;
    e.path = name;
    e.c4.value = c4;
    chain.entries.push_back(std::move(e));
  }
  const auto start = std::chrono::steady_clock::now();
  const MhlResult<std::string> written = writeMhlChain(chain);
  ASSERT_TRUE(written) << written.error().description();
  const auto writtenAt = std::chrono::steady_clock::now();
  const MhlResult<MhlChain> read = parseMhlChain(*written);
  const auto readAt = std::chrono::steady_clock::now();
  ASSERT_TRUE(read) << read.error().description();
  EXPECT_EQ(*read, chain);
  const auto ms = [](auto d) { return std::chrono::duration<double, std::milli>(d).count(); };
  std::printf("10,000 chain entries, %zu bytes: written and checked in %.1f ms, read in %.1f ms\n",
              written->size(), ms(writtenAt - start), ms(readAt - writtenAt));
}

struct ChainWriteRefusal {
  const char* what;
  void (*change)(MhlChain&);
  std::string message;
};

TEST(MhlChainXml, WritingRefusesWhatAscMhlForbids) {
  const ChainWriteRefusal refusals[] = {
      {"no entry", [](MhlChain& c) { c.entries.clear(); }, "a chain needs at least one entry"},
      {"starting at 0", [](MhlChain& c) { c.entries[0].sequenceNumber = 0; },
       "chain entry 1 '0001_A002R2EC_2020-01-16_091500Z.mhl': sequence number 0 where 1 is due "
       "(the entries count 1, 2, 3, ... in order)"},
      {"a gap", [](MhlChain& c) { c.entries[2].sequenceNumber = 4; },
       "chain entry 3 '0003_A002R2EC_2020-01-20_080000Z.mhl': sequence number 4 where 3 is due"},
      {"out of order", [](MhlChain& c) { std::swap(c.entries[0], c.entries[1]); },
       "chain entry 1 '0002_A002R2EC_2020-01-17_143000Z.mhl': sequence number 2 where 1 is due"},
      {"listed twice", [](MhlChain& c) { c.entries[2].path = c.entries[0].path; },
       "chain entry 3 '0001_A002R2EC_2020-01-16_091500Z.mhl': the manifest is listed twice"},
      {"absolute path", [](MhlChain& c) { c.entries[0].path = "/tmp/0001.mhl"; },
       "chain entry 1 '/tmp/0001.mhl': path starts with '/' (paths are relative to the scope)"},
      {"dot-dot", [](MhlChain& c) { c.entries[0].path = "../0001.mhl"; },
       "chain entry 1 '../0001.mhl': path has a '..' component"},
      {"not a c4", [](MhlChain& c) { c.entries[0].c4.format = "md5"; },
       "chain entry 1 '0001_A002R2EC_2020-01-16_091500Z.mhl': the hash of a manifest is a c4, "
       "not md5"},
      {"bad c4", [](MhlChain& c) { c.entries[0].c4.value = "87210d6e0589c31c"; },
       "chain entry 1 '0001_A002R2EC_2020-01-16_091500Z.mhl': c4 value '87210d6e0589c31c' is "
       "not a C4 ID"},
  };
  for (const ChainWriteRefusal& refusal : refusals) {
    SCOPED_TRACE(refusal.what);
    MhlChain chain = threeGenerations();
    refusal.change(chain);
    const std::optional<MhlError> fault = checkMhlChain(chain);
    ASSERT_TRUE(fault);
    EXPECT_EQ(fault->kind, MhlErrorKind::invalidContent);
    EXPECT_EQ(fault->message.substr(0, refusal.message.size()), refusal.message) << fault->message;
    const MhlResult<std::string> written = writeMhlChain(chain);
    ASSERT_FALSE(written);
    EXPECT_EQ(written.error(), *fault);
  }
}

// A valid chain of two entries, one element per line.
const std::vector<std::string> kBaseLines = {
    R"(<?xml version="1.0" encoding="UTF-8"?>)",                // 1
    R"(<ascmhldirectory xmlns="urn:ASC:MHL:DIRECTORY:v2.0">)",  // 2
    R"(  <hashlist sequencenr="1">)",                           // 3
    R"(    <path>0001_A_2024-05-01_091500Z.mhl</path>)",        // 4
    R"(    <c4>c4x</c4>)",                                      // 5
    R"(  </hashlist>)",                                         // 6
    R"(  <hashlist sequencenr="2">)",                           // 7
    R"(    <path>0002_A_2024-05-02_091500Z.mhl</path>)",        // 8
    R"(    <c4>c4y</c4>)",                                      // 9
    R"(  </hashlist>)",                                         // 10
    R"(</ascmhldirectory>)",                                    // 11
};

std::string withLine(std::size_t line, const std::string& replacement) {
  std::string text;
  for (std::size_t i = 0; i < kBaseLines.size(); ++i) {
    text += (i + 1 == line ? replacement : kBaseLines[i]) + "\n";
  }
  return text;
}

struct ChainReadRefusal {
  std::size_t line;
  std::string replacement;
  MhlErrorKind kind;
  std::uint64_t faultLine;
  std::string message;
};

TEST(MhlChainXml, TheBaseOfTheRefusalTestsIsValid) {
  const MhlResult<MhlChain> read = parseMhlChain(withLine(0, ""));
  ASSERT_TRUE(read) << read.error().description();
  EXPECT_EQ(read->entries.size(), 2u);
  EXPECT_EQ(read->entries[1].c4.value, "c4y");  // hash values are not checked when read
}

TEST(MhlChainXml, FaultsAreRefusedWithFileAndLine) {
  const MhlErrorKind schema = MhlErrorKind::schemaViolation;
  const MhlErrorKind content = MhlErrorKind::invalidContent;
  const MhlErrorKind malformed = MhlErrorKind::malformedXml;
  const ChainReadRefusal refusals[] = {
      {4, "    <pth>0001.mhl</pth>", schema, 4,
       "Element 'pth': This element is not expected. Expected is ( path )."},
      {5, "    <md5>9e107d9d372bb6826bd81d3542a419d6</md5>", schema, 5,
       "Element 'md5': This element is not expected. Expected is ( c4 )."},
      {3, R"(  <hashlist sequencenr="one">)", schema, 3,
       "Element 'hashlist', attribute 'sequencenr': 'one' is not a valid value of the atomic "
       "type 'xs:integer'."},
      {5, R"(    <c4 action="checked">c4x</c4>)", schema, 5,
       "Element 'c4', attribute 'action': [facet 'enumeration'] The value 'checked' is not an "
       "element of the set {'original', 'verified', 'failed'}."},
      {2, R"(<ascmhldirectory xmlns="urn:ASC:MHL:v2.0">)", schema, 2,
       "Element 'ascmhldirectory' of namespace urn:ASC:MHL:v2.0: not an ASC MHL chain file "
       "(expected <ascmhldirectory> of namespace urn:ASC:MHL:DIRECTORY:v2.0)"},
      {3, "  <hashlist>", content, 3, "Element 'hashlist': no attribute 'sequencenr' (expected 1)"},
      {7, R"(  <hashlist sequencenr="3">)", content, 7,
       "Element 'hashlist': sequence number '3' where 2 was expected (the entries count 1, 2, "
       "3, ... in order)"},
      {7, R"(  <hashlist sequencenr="1">)", content, 7,
       "Element 'hashlist': sequence number '1' where 2 was expected"},
      {3, R"(  <hashlist sequencenr="0">)", content, 3,
       "Element 'hashlist': sequence number '0' where 1 was expected"},
      {4, "    <path>/etc/passwd</path>", content, 4, "absolute path '/etc/passwd'"},
      {8, "    <path>../other/ascmhl/0001.mhl</path>", content, 8,
       "path '../other/ascmhl/0001.mhl' leaves the scope ('..')"},
      {6, "  </hashlst>", malformed, 6, "Opening and ending tag mismatch: hashlist line 3 and"},
  };
  for (const ChainReadRefusal& refusal : refusals) {
    SCOPED_TRACE(refusal.replacement);
    ScratchDirectory scratch;
    const std::string path =
        scratch.writeText("ascmhl_chain.xml", withLine(refusal.line, refusal.replacement));
    const MhlResult<MhlChain> read = readMhlChain(path);
    ASSERT_FALSE(read);
    EXPECT_EQ(read.error().kind, refusal.kind);
    EXPECT_EQ(read.error().source, path);
    EXPECT_EQ(read.error().line, refusal.faultLine);
    EXPECT_EQ(read.error().message.substr(0, refusal.message.size()), refusal.message)
        << read.error().message;
    EXPECT_EQ(
        read.error().description().rfind(path + ":" + std::to_string(refusal.faultLine) + ": ", 0),
        0u);
  }
}

TEST(MhlChainXml, HostileXmlIsRefused) {
  std::string text = withLine(4, "    <path>&xxe;</path>");
  text.insert(text.find('\n') + 1,
              "<!DOCTYPE ascmhldirectory [<!ENTITY xxe SYSTEM \"file:///etc/passwd\">]>\n");
  const MhlResult<MhlChain> read = parseMhlChain(text, "ascmhl_chain.xml");
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().kind, MhlErrorKind::malformedXml);
  EXPECT_EQ(read.error().line, 2u);
  EXPECT_EQ(read.error().message.rfind("document type declarations are not accepted", 0), 0u);
  EXPECT_TRUE(validateMhlChain(text));
}

TEST(MhlChainXml, AManifestIsNotAChainAndAChainIsNotAManifest) {
  const std::string manifest =
      testsupport::readFile(testsupport::ascmhlDataPath("0001_TEST01_2019-10-11_155603.mhl"));
  const std::string chain = testsupport::readFile(testsupport::ascmhlDataPath("ascmhl_chain.xml"));
  const MhlResult<MhlChain> asChain = parseMhlChain(manifest, "m.mhl");
  ASSERT_FALSE(asChain);
  EXPECT_EQ(asChain.error().kind, MhlErrorKind::schemaViolation);
  const MhlResult<MhlManifest> asManifest = parseMhlManifest(chain, "ascmhl_chain.xml");
  ASSERT_FALSE(asManifest);
  EXPECT_EQ(asManifest.error().kind, MhlErrorKind::schemaViolation);
  EXPECT_EQ(asManifest.error().line, 2u);
}

}  // namespace
}  // namespace corvane
