#include "MhlCommand.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "AlgorithmNames.hpp"
#include "ExitStatus.hpp"
#include "OutputFormat.hpp"
#include "corvane/MhlHashFormat.hpp"
#include "corvane/MhlHistory.hpp"

namespace corvane::tool {
namespace {

constexpr const char* kFormatNames = "c4, md5, sha1, xxh128, xxh3, xxh64";

std::string lowerAscii(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return lower;
}

// The reason `path` cannot be the scope of a history (it does not exist, is not a folder), or
// nothing.
std::optional<std::string> reasonNotAFolder(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::string(std::strerror(errno));
  if (!S_ISDIR(status.st_mode)) return std::string(std::strerror(ENOTDIR));
  return std::nullopt;
}

// Whether `root` holds a history of its own or below it. A history that cannot be read counts:
// the operation reports what is wrong with it.
bool holdsHistory(const std::string& root) {
  struct stat status {};
  if (::stat(pathBelow(root, std::string(kMhlHistoryFolderName)).c_str(), &status) == 0) {
    return true;
  }
  const MhlResult<MhlHistory> history = readMhlHistory(root);
  return !history || !history->generations.empty() || !history->children.empty();
}

const char* kindName(MhlErrorKind kind) {
  switch (kind) {
    case MhlErrorKind::unreadable:
      return "unreadable";
    case MhlErrorKind::malformedXml:
      return "malformed XML";
    case MhlErrorKind::schemaViolation:
      return "schema violation";
    case MhlErrorKind::invalidContent:
      return "invalid content";
  }
  return "";
}

int runMhlFlatten(const MhlOptions& options, std::ostream& out, std::ostream& err) {
  if (const auto reason = reasonNotAFolder(options.destination)) {
    err << kProgramName << ": " << options.destination << ": " << *reason << '\n';
    return kExitUsage;
  }
  const MhlResult<std::string> written = flattenMhlHistory(options.root, options.destination);
  if (!written) err << kProgramName << ": " << written.error().description() << '\n';
  if (options.json) {
    nlohmann::ordered_json document = nlohmann::ordered_json::object();
    document["command"] = "flatten";
    putName(document, "root", options.root);
    putName(document, "destination", options.destination);
    if (written) {
      putName(document, "written", *written);
    } else {
      document["written"] = nullptr;
    }
    nlohmann::ordered_json problems = nlohmann::ordered_json::array();
    if (!written) problems.push_back(problemJson(written.error()));
    document["problems"] = std::move(problems);
    out << dumpJson(document) << '\n';
  } else if (written) {
    out << *written << '\n';
  }
  out.flush();
  return written ? kExitOk : kExitFailed;
}

// The options of create that describe the manifest rather than the hashing.
void addCreatorOptions(CLI::App& create, MhlOptions& options) {
  const auto into = [](std::optional<std::string>& target) {
    return [&target](const std::string& value) { target = value; };
  };
  create
      .add_option_function<std::string>("--author-name", into(options.authorName),
                                        "Name of the person responsible, recorded as the author")
      ->type_name("NAME");
  create
      .add_option_function<std::string>("--author-email", into(options.authorEmail),
                                        "The author's e-mail address (name@host.tld)")
      ->type_name("EMAIL");
  create
      .add_option_function<std::string>("--author-phone", into(options.authorPhone),
                                        "The author's phone number")
      ->type_name("PHONE");
  create
      .add_option_function<std::string>("--author-role", into(options.authorRole),
                                        "The author's role (\"DIT\", \"Data Wrangler\", ...)")
      ->type_name("ROLE");
  create
      .add_option_function<std::string>("--location", into(options.location),
                                        "Where the process ran, recorded in the manifest")
      ->type_name("TEXT");
  create
      .add_option_function<std::string>("--comment", into(options.comment),
                                        "A comment recorded in the manifest")
      ->type_name("TEXT");
}

}  // namespace

std::string pathBelow(const std::string& root, const std::string& relative) {
  if (relative.empty()) return root;
  return joinPath(root, relative);
}

nlohmann::ordered_json problemJson(const MhlError& problem) {
  nlohmann::ordered_json object = nlohmann::ordered_json::object();
  putName(object, "source", problem.source);
  object["line"] = problem.line;
  object["kind"] = kindName(problem.kind);
  object["message"] = problem.message;
  return object;
}

std::variant<std::vector<ChecksumType>, std::string> parseMhlFormats(
    const std::vector<std::string>& values) {
  if (values.empty()) return std::vector<ChecksumType>{ChecksumTypeXXHash64};
  std::vector<ChecksumType> formats;
  for (const std::string& value : values) {
    std::size_t begin = 0;
    while (true) {
      const std::size_t comma = value.find(',', begin);
      const std::string name = lowerAscii(std::string_view(value).substr(
          begin, comma == std::string::npos ? std::string::npos : comma - begin));
      if (name.empty()) {
        return "-a: empty format name in '" + value + "' (ASC MHL formats: " + kFormatNames + ")";
      }
      // An algorithm of the tool that ASC MHL has no place for is refused by its full name.
      const AlgorithmName* algorithm = findAlgorithm(name);
      const auto checked = algorithm != nullptr
                               ? std::variant<ChecksumType, MhlFormatRefusal>(algorithm->type)
                               : checkMhlFormatName(name);
      if (const auto* refusal = std::get_if<MhlFormatRefusal>(&checked)) {
        return "-a " + name + ": " + refusal->message;
      }
      const ChecksumType type = std::get<ChecksumType>(checked);
      const auto format = checkMhlFormat(type);
      if (const auto* refusal = std::get_if<MhlFormatRefusal>(&format)) {
        return "-a " + name + ": " + refusal->message;
      }
      if (std::find(formats.begin(), formats.end(), type) == formats.end()) {
        formats.push_back(type);
      }
      if (comma == std::string::npos) break;
      begin = comma + 1;
    }
  }
  return formats;
}

CLI::App* addMhlCommand(CLI::App& app, MhlOptions& options) {
  CLI::App* mhl = app.add_subcommand(
      "mhl", "Create, verify and inspect ASC MHL histories (the ascmhl folder of a folder tree)");
  mhl->require_subcommand(1);
  mhl->footer("Run '" + std::string(kProgramName) +
              " mhl COMMAND --help' for the options of a command.");
  const auto selects = [&options](MhlSubcommand command) {
    return [&options, command] { options.command = command; };
  };
  const auto addRoot = [&options](CLI::App& command) {
    command.add_option("ROOT", options.root, "The folder whose history it is (the scope)")
        ->required()
        ->type_name("");
  };

  CLI::App* create = mhl->add_subcommand(
      "create",
      "Hash every file of ROOT and append a generation to its history (verifying the "
      "files it recorded before)");
  create->parse_complete_callback(selects(MhlSubcommand::kCreate));
  create
      ->add_option("-a,--algorithm", options.formatValues,
                   std::string("ASC MHL hash formats to record, comma-separated and/or repeated "
                               "(default: xxh64). Known: ") +
                       kFormatNames)
      ->allow_extra_args(false)
      ->type_name("FORMAT[,FORMAT...]");
  create
      ->add_option("--ignore", options.ignorePatterns,
                   "Leave out what PATTERN matches (gitignore syntax); recorded in the manifest, "
                   "so later generations keep it. May be repeated")
      ->allow_extra_args(false)
      ->type_name("PATTERN");
  create
      ->add_option("--ignore-from", options.ignoreFrom,
                   "Read further ignore patterns from FILE, one per line (blank lines and lines "
                   "starting with # are skipped)")
      ->type_name("FILE");
  create->add_flag("--no-directory-hashes", options.noDirectoryHashes,
                   "Do not record the content and structure hashes of folders");
  addCreatorOptions(*create, options);
  create->add_flag("-v,--verbose", options.verbose,
                   "Also print a line for every file recorded as original or verified");
  create->add_flag("--json", options.json,
                   "Write one JSON document: files, outcomes, checksums, problems, manifests "
                   "written, totals");
  addRoot(*create);
  addCommonOptions(*create, options.common);
  create->footer(
      "Output: 'failed: <path> (<TAG> <recorded> != <computed>)', 'missing: <path>', "
      "'unreadable: <path>' (reason on stderr), with -v also 'original: <path>' and 'verified: "
      "<path>'; then 'created: <manifest>' for each manifest written and '<N> files: <o> "
      "original, <v> verified, <f> failed, <m> missing, <u> unreadable'.\n"
      "Exit status: 0 every file original or verified, 1 a file failed, missing or unreadable, "
      "a broken history, or a manifest that could not be written, 2 usage error.");

  CLI::App* verify = mhl->add_subcommand(
      "verify",
      "Check every file ROOT's history recorded (and its chain and manifests); writes "
      "nothing");
  verify->parse_complete_callback(selects(MhlSubcommand::kVerify));
  verify->add_flag("--directory-hashes", options.directoryHashes,
                   "Also recompute and check the folder hashes of the latest generation that "
                   "recorded them");
  verify->add_flag("-v,--verbose", options.verbose,
                   "Also print a line for every file that verified");
  verify->add_flag("--json", options.json,
                   "Write one JSON document: files, outcomes, checksums, problems, totals");
  addRoot(*verify);
  addCommonOptions(*verify, options.common);
  verify->footer(
      "Output: 'failed: <path> (<TAG> <recorded> != <computed>)', 'missing: <path>', 'new: "
      "<path>', 'unreadable: <path>' (with -v also 'verified: <path>'), problems of the history "
      "on stderr as 'corvane-checksum: <file>:<line>: <message>', then '<N> files: <v> verified, "
      "<f> failed, <m> missing, <n> new, <u> unreadable'.\n"
      "Exit status: 0 every file verified, 1 a file failed, missing or unreadable, or a broken "
      "chain or invalid manifest, 2 usage error, 3 new files only.");

  CLI::App* diff =
      mhl->add_subcommand("diff", "List files new in ROOT or missing from it, without hashing");
  diff->parse_complete_callback(selects(MhlSubcommand::kDiff));
  diff->add_flag("--json", options.json, "Write one JSON document: files, problems, totals");
  addRoot(*diff);
  diff->footer(
      "Output: 'new: <path>', 'missing: <path>', 'unreadable: <path>', then '<m> missing, <n> "
      "new, <u> unreadable'.\n"
      "Exit status: 0 nothing new or missing, 1 a file missing or unreadable, or a broken "
      "history, 2 usage error, 3 new files only.");

  CLI::App* info = mhl->add_subcommand(
      "info", "Describe the generations of ROOT's history and of its nested histories");
  info->parse_complete_callback(selects(MhlSubcommand::kInfo));
  info->add_option_function<std::string>(
          "--file", [&options](const std::string& value) { options.file = value; },
          "Instead, print every hash recorded for the file PATH (relative to ROOT) across the "
          "generations, following renames")
      ->type_name("PATH");
  info->add_flag("--json", options.json, "Write one JSON document");
  addRoot(*info);
  info->footer(
      "Output: 'history: <ROOT> (<G> generations)', then per generation '<sequence>  <manifest>  "
      "<creation date>  <process>  <tool>  <F> files, <D> folders, <R> references' and one "
      "'reference: <manifest>' line per nested manifest referenced; each nested history follows "
      "as 'nested history: <path> (...)'. With --file: '<generation>  <path>  <format>  <action>  "
      "<value>  <hash date>' per hash.\n"
      "Exit status: 0 printed, 1 the history cannot be read (or --file: the file is not "
      "recorded), 2 usage error.");

  CLI::App* flatten = mhl->add_subcommand(
      "flatten",
      "Write one manifest with the earliest hashes of every file of ROOT's history "
      "(nested histories included) into the folder DEST");
  flatten->parse_complete_callback(selects(MhlSubcommand::kFlatten));
  flatten->add_flag("--json", options.json, "Write one JSON document");
  addRoot(*flatten);
  flatten->add_option("DEST", options.destination, "The folder to write the manifest into")
      ->required()
      ->type_name("");
  flatten->footer(
      "Output: the path of the manifest written.\n"
      "Exit status: 0 written, 1 the history cannot be read or the manifest not written, 2 "
      "usage error.");
  return mhl;
}

int runMhlCommand(const MhlOptions& options, std::ostream& out, std::ostream& err) {
  if (const auto reason = reasonNotAFolder(options.root)) {
    err << kProgramName << ": " << options.root << ": " << *reason << '\n';
    return kExitUsage;
  }
  if (options.command != MhlSubcommand::kCreate && !holdsHistory(options.root)) {
    err << kProgramName << ": " << options.root << ": no ASC MHL history (no "
        << kMhlHistoryFolderName << " folder)\n";
    return kExitFailed;
  }
  switch (options.command) {
    case MhlSubcommand::kCreate:
      return runMhlCreate(options, out, err);
    case MhlSubcommand::kVerify:
      return runMhlVerify(options, out, err);
    case MhlSubcommand::kDiff:
      return runMhlDiff(options, out, err);
    case MhlSubcommand::kInfo:
      return runMhlInfo(options, out, err);
    case MhlSubcommand::kFlatten:
      return runMhlFlatten(options, out, err);
    case MhlSubcommand::kNone:
      break;
  }
  return usageError(err, "mhl needs a command: create, verify, diff, info or flatten");
}

}  // namespace corvane::tool
