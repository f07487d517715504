// What the history operations share: loading a history while collecting every problem (verify
// reports them all; create and readMhlHistory stop at the first), walking a scope without its
// ignored entries and without the folders of nested histories, and small conversions.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "corvane/DirectoryWalk.hpp"
#include "corvane/MhlHistory.hpp"

namespace corvane::mhl {

// `root` + "/ascmhl".
std::string historyFolder(const std::string& root);

struct ScopeWalk;

// Reads the history of `root` and its nested histories. Every manifest the chain lists is read,
// its bytes checked against the chain's C4 ID and parsed (with schema validation); what goes
// wrong is added to `problems` and the rest is still read. Nested histories are found by walking
// each scope with the history's ignore patterns plus `extraPatterns`; with `scopes`, those walks
// are kept there by history root, so that the caller need not walk the tree again.
MhlHistory loadHistory(const std::string& root, std::vector<MhlError>& problems,
                       const std::vector<std::string>& extraPatterns = {},
                       std::map<std::string, ScopeWalk>* scopes = nullptr);

// The entries of the scope `root` that a history covers: files and folders below it, without what
// `patterns` ignore and without the folders of nested histories (whose relative paths go to
// `nestedRoots`). The walk does not follow links.
struct ScopeWalk {
  std::vector<WalkEntry> files;     // regular files, in walk order
  std::vector<WalkEntry> folders;   // folders, in walk order
  std::vector<WalkEntry> problems;  // unreadable entries
  std::vector<std::string> nestedRoots;
};
ScopeWalk walkScope(const std::string& root, const std::vector<std::string>& patterns);

// The latest generation's sequence number, 0 for a history without generations.
std::uint64_t lastSequence(const MhlHistory& history);

// The name of the folder `root` (its last component after resolving ".", ".." and links).
std::string scopeFolderName(const std::string& root);

// Where the nested history `child` lies below `parent`'s scope ("A002R2EC").
std::string nestedPath(const MhlHistory& parent, const MhlHistory& child);

// `path` below `folder` ("" for the top): "folder/path".
std::string below(const std::string& folder, const std::string& path);

// The creator information every manifest we write starts from: this host, this library, `time`.
MhlCreatorInfo creatorInfo(std::chrono::system_clock::time_point time);

MhlDateTime dateTimeOf(const FileTime& time);
MhlDateTime now();

// The C4 ID of `bytes`.
std::string c4IdOf(std::string_view bytes);

// The ASC MHL element name of `type`, which must be an ASC MHL format.
std::string formatNameOf(ChecksumType type);

MhlError problem(MhlErrorKind kind, std::string source, std::string message, int code = 0);

}  // namespace corvane::mhl
