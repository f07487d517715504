#include "corvane/MhlDirectoryHash.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <utility>

#include "corvane/ChecksumGenerator.hpp"
#include "corvane/Exception.hpp"
#include "corvane/MhlHashFormat.hpp"

namespace corvane {

struct MhlDirectoryTree::File {
  std::string name;
  // At most one entry per format; the bytes the hash text stands for (mhlHashBytes).
  std::vector<std::pair<ChecksumType, Bytes>> hashes;

  const Bytes* hashOf(ChecksumType format) const {
    for (const auto& [type, bytes] : hashes) {
      if (type == format) return &bytes;
    }
    return nullptr;
  }
};

struct MhlDirectoryTree::Folder {
  struct Child {
    bool isFolder = false;
    std::size_t index = 0;  // into folders_ or files_
  };
  std::string name;
  // Every folder is created after its parent, so a parent's index is always below its
  // children's; computeMhlDirectoryHashes relies on that to work bottom-up without recursion.
  std::size_t parent = 0;
  std::map<std::string, Child, std::less<>> children;
};

// Gives computeMhlDirectoryHashes read access to the tree without making the layout public.
struct MhlDirectoryTreeAccess {
  static const std::vector<MhlDirectoryTree::Folder>& folders(const MhlDirectoryTree& tree) {
    return tree.folders_;
  }
  static const std::vector<MhlDirectoryTree::File>& files(const MhlDirectoryTree& tree) {
    return tree.files_;
  }
};

namespace {

[[noreturn]] void throwArgument(const std::string& reason) {
  throw Exception("ArgumentException", reason);
}

// `text` in double quotes, for messages. Built by appending: g++ 12 warns falsely
// (-Wrestrict) about "literal" + std::string temporaries.
std::string quoted(std::string_view text) {
  std::string result;
  result.reserve(text.size() + 2);
  result += '"';
  result += text;
  result += '"';
  return result;
}

std::string formatText(ChecksumType format) {
  const std::optional<std::string_view> name = mhlFormatName(format);
  return name ? std::string(*name) : "";
}

ChecksumType requireFormat(ChecksumType format) {
  const auto checked = checkMhlFormat(format);
  if (const auto* refusal = std::get_if<MhlFormatRefusal>(&checked)) {
    throwArgument(refusal->message);
  }
  return format;
}

// The components of a relative path, or a throw saying why it is not one.
std::vector<std::string_view> splitRelativePath(std::string_view path) {
  const auto refuse = [path](const char* why) {
    throwArgument(quoted(path) + " is not a relative path for a directory hash: " + why);
  };
  if (path.empty()) refuse("it is empty");
  if (path.front() == '/') refuse("it starts with '/'");
  if (path.back() == '/') refuse("it ends with '/'");
  std::vector<std::string_view> components;
  std::size_t start = 0;
  while (true) {
    const std::size_t slash = path.find('/', start);
    const std::string_view component = path.substr(
        start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
    if (component.empty()) refuse("it has an empty component (\"//\")");
    if (component == "." || component == "..") refuse("it has a \".\" or \"..\" component");
    components.push_back(component);
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  return components;
}

// H of `data` in the text form of `format`.
std::string hashText(ChecksumType format, const Bytes& data) {
  std::optional<std::string> text = ChecksumGenerator::generateChecksumForData(data, format);
  // Every ASC MHL format has a generator in this library; a missing result is a broken build.
  if (!text) {
    throw Exception("NSInternalInconsistencyException",
                    std::string("no ") + formatText(format) + " checksum could be computed");
  }
  return std::move(*text);
}

Bytes bytesOfOwnHash(ChecksumType format, const std::string& text) {
  std::optional<Bytes> bytes = mhlHashBytes(format, text);
  if (!bytes) {
    throw Exception("NSInternalInconsistencyException", std::string("the ") + formatText(format) +
                                                            " checksum " + quoted(text) +
                                                            " cannot be decoded");
  }
  return std::move(*bytes);
}

// ASC MHL Appendix G over hashes already turned into bytes. Sorting the bytes is sorting the
// texts as ASC MHL writes them (lowercase hex, C4 IDs): hex digits and the base-58 alphabet both
// ascend in ASCII, so for texts of one format the byte order is the text order (a shorter hex
// text that is a prefix of a longer one sorts first either way). Uppercase hex digits thus sort
// as their lowercase forms, which keeps a directory hash a function of the bytes alone.
std::string hashOfHashBytes(ChecksumType format, std::vector<Bytes> hashes) {
  // Spelt out rather than Bytes' operator<, whose inlined memcmp draws a false
  // -Wstringop-overread from g++ 12.
  std::sort(hashes.begin(), hashes.end(), [](const Bytes& a, const Bytes& b) {
    const std::size_t common = std::min(a.size(), b.size());
    const int order = common == 0 ? 0 : std::memcmp(a.data(), b.data(), common);
    return order != 0 ? order < 0 : a.size() < b.size();
  });
  Bytes joined;
  std::size_t total = 0;
  for (const Bytes& hash : hashes) total += hash.size();
  joined.reserve(total);
  for (const Bytes& hash : hashes) joined.insert(joined.end(), hash.begin(), hash.end());
  return hashText(format, joined);
}

// H(name bytes followed by hash bytes), as bytes: one item of a structure list.
Bytes structureItem(ChecksumType format, const std::string& name, const Bytes& hash) {
  Bytes data(name.begin(), name.end());
  data.insert(data.end(), hash.begin(), hash.end());
  return bytesOfOwnHash(format, hashText(format, data));
}

}  // namespace

std::string mhlHashOfHashes(ChecksumType format, const std::vector<std::string>& hashes) {
  requireFormat(format);
  std::vector<Bytes> decoded;
  decoded.reserve(hashes.size());
  for (const std::string& text : hashes) {
    std::optional<Bytes> bytes = mhlHashBytes(format, text);
    if (!bytes) {
      throwArgument(quoted(text) + " is not a hash value of the format " + formatText(format));
    }
    decoded.push_back(std::move(*bytes));
  }
  return hashOfHashBytes(format, std::move(decoded));
}

// ----- MhlDirectoryTree
// ---------------------------------------------------------------------------

MhlDirectoryTree::MhlDirectoryTree() : folders_(1) {}
MhlDirectoryTree::~MhlDirectoryTree() = default;
MhlDirectoryTree::MhlDirectoryTree(const MhlDirectoryTree&) = default;
MhlDirectoryTree& MhlDirectoryTree::operator=(const MhlDirectoryTree&) = default;
// A moved-from tree has no folders at all, not even the top one (moving must not allocate);
// every member puts the top folder back before it is needed.
MhlDirectoryTree::MhlDirectoryTree(MhlDirectoryTree&&) noexcept = default;
MhlDirectoryTree& MhlDirectoryTree::operator=(MhlDirectoryTree&&) noexcept = default;

namespace {

// The part of `path` up to and including `component` (a view into `path`).
std::string pathThrough(std::string_view path, std::string_view component) {
  return std::string(
      path.substr(0, static_cast<std::size_t>(component.data() - path.data()) + component.size()));
}

}  // namespace

void MhlDirectoryTree::addFile(std::string_view relativePath, ChecksumType format,
                               std::string_view hash) {
  requireFormat(format);
  if (!isWellFormedMhlHash(format, hash)) {
    throwArgument(quoted(hash) + " is not a hash value of the format " + formatText(format) +
                  " (file " + quoted(relativePath) + ")");
  }
  const std::vector<std::string_view> components = splitRelativePath(relativePath);
  if (folders_.empty()) folders_.resize(1);

  // Check everything before changing anything, so that a refused call leaves the tree as it was.
  std::size_t folder = 0;
  std::size_t depth = 0;
  for (; depth + 1 < components.size(); ++depth) {
    const auto found = folders_[folder].children.find(components[depth]);
    if (found == folders_[folder].children.end()) break;
    if (!found->second.isFolder) {
      throwArgument(quoted(relativePath) + " lies below the file " +
                    quoted(pathThrough(relativePath, components[depth])));
    }
    folder = found->second.index;
  }
  std::optional<std::size_t> existingFile;
  if (depth + 1 == components.size()) {
    const auto found = folders_[folder].children.find(components.back());
    if (found != folders_[folder].children.end()) {
      if (found->second.isFolder) {
        throwArgument(quoted(relativePath) + " was added as a folder");
      }
      existingFile = found->second.index;
      if (const Bytes* known = files_[*existingFile].hashOf(format)) {
        if (*known != *mhlHashBytes(format, hash)) {
          throwArgument(quoted(relativePath) + " already has a different " + formatText(format) +
                        " hash");
        }
        return;
      }
    }
  }

  for (; depth + 1 < components.size(); ++depth) {
    Folder created;
    created.name = std::string(components[depth]);
    created.parent = folder;
    const std::size_t index = folders_.size();
    folders_.push_back(std::move(created));
    folders_[folder].children.emplace(std::string(components[depth]), Folder::Child{true, index});
    folder = index;
  }
  if (!existingFile) {
    existingFile = files_.size();
    files_.push_back(File{std::string(components.back()), {}});
    folders_[folder].children.emplace(std::string(components.back()),
                                      Folder::Child{false, *existingFile});
  }
  files_[*existingFile].hashes.emplace_back(format, *mhlHashBytes(format, hash));
}

void MhlDirectoryTree::addFolder(std::string_view relativePath) {
  const std::vector<std::string_view> components = splitRelativePath(relativePath);
  if (folders_.empty()) folders_.resize(1);

  std::size_t folder = 0;
  std::size_t depth = 0;
  for (; depth < components.size(); ++depth) {
    const auto found = folders_[folder].children.find(components[depth]);
    if (found == folders_[folder].children.end()) break;
    if (!found->second.isFolder) {
      throwArgument(quoted(pathThrough(relativePath, components[depth])) +
                    " was added as a file, not a folder");
    }
    folder = found->second.index;
  }
  for (; depth < components.size(); ++depth) {
    Folder created;
    created.name = std::string(components[depth]);
    created.parent = folder;
    const std::size_t index = folders_.size();
    folders_.push_back(std::move(created));
    folders_[folder].children.emplace(std::string(components[depth]), Folder::Child{true, index});
    folder = index;
  }
}

std::size_t MhlDirectoryTree::fileCount() const noexcept { return files_.size(); }

std::size_t MhlDirectoryTree::folderCount() const noexcept {
  return folders_.empty() ? 0 : folders_.size() - 1;
}

std::vector<ChecksumType> MhlDirectoryTree::formats() const {
  std::vector<ChecksumType> present;
  for (ChecksumType format : mhlFormats()) {
    const bool used = std::any_of(files_.begin(), files_.end(),
                                  [format](const File& file) { return file.hashOf(format); });
    if (used) present.push_back(format);
  }
  return present;
}

// ----- computing
// ----------------------------------------------------------------------------------

const MhlDirectoryHashPair* MhlFolderHashes::find(ChecksumType format) const {
  for (const MhlDirectoryHashPair& pair : hashes) {
    if (pair.format == format) return &pair;
  }
  return nullptr;
}

namespace {

// One folder's result in one format, with the bytes its parent needs.
struct Computed {
  std::string content;
  std::string structure;
  Bytes contentBytes;
  Bytes structureBytes;
};

}  // namespace

std::vector<MhlFolderHashes> computeMhlDirectoryHashes(const MhlDirectoryTree& tree,
                                                       const std::vector<ChecksumType>& formats) {
  for (ChecksumType format : formats) requireFormat(format);
  std::vector<ChecksumType> chosen;
  if (formats.empty()) {
    chosen = tree.formats();
  } else {
    for (ChecksumType format : mhlFormats()) {
      if (std::find(formats.begin(), formats.end(), format) != formats.end()) {
        chosen.push_back(format);
      }
    }
  }

  if (MhlDirectoryTreeAccess::folders(tree).empty()) {
    return computeMhlDirectoryHashes(MhlDirectoryTree(), chosen);  // a moved-from tree
  }
  const auto& folders = MhlDirectoryTreeAccess::folders(tree);
  const auto& files = MhlDirectoryTreeAccess::files(tree);
  // results[folder * chosen.size() + k]: empty when the folder cannot have format k.
  std::vector<std::optional<Computed>> results(folders.size() * chosen.size());

  // Children have higher indices than their parents: going down the indices finishes every
  // subfolder before the folder that holds it.
  for (std::size_t f = folders.size(); f-- > 0;) {
    for (std::size_t k = 0; k < chosen.size(); ++k) {
      const ChecksumType format = chosen[k];
      std::vector<Bytes> contentList;
      std::vector<Bytes> structureList;
      contentList.reserve(folders[f].children.size());
      structureList.reserve(folders[f].children.size());
      bool complete = true;
      for (const auto& [name, child] : folders[f].children) {
        if (child.isFolder) {
          const std::optional<Computed>& sub = results[child.index * chosen.size() + k];
          if (!sub) {
            complete = false;
            break;
          }
          contentList.push_back(sub->contentBytes);
          structureList.push_back(structureItem(format, name, sub->structureBytes));
        } else {
          const Bytes* hash = files[child.index].hashOf(format);
          if (hash == nullptr) {
            complete = false;
            break;
          }
          contentList.push_back(*hash);
          structureList.push_back(structureItem(format, name, *hash));
        }
      }
      if (!complete) continue;
      Computed computed;
      computed.content = hashOfHashBytes(format, std::move(contentList));
      computed.structure = hashOfHashBytes(format, std::move(structureList));
      computed.contentBytes = bytesOfOwnHash(format, computed.content);
      computed.structureBytes = bytesOfOwnHash(format, computed.structure);
      results[f * chosen.size() + k] = std::move(computed);
    }
  }

  // Paths, built top-down (parents come first in the folder vector).
  std::vector<std::string> paths(folders.size());
  for (std::size_t f = 1; f < folders.size(); ++f) {
    const std::size_t parent = folders[f].parent;
    paths[f] = parent == 0 ? folders[f].name : paths[parent] + "/" + folders[f].name;
  }
  std::vector<std::size_t> order(folders.size());
  for (std::size_t f = 0; f < order.size(); ++f) order[f] = f;
  // The walk's order: a folder's path followed by '/', the top folder ("") first.
  std::vector<std::string> keys(folders.size());
  for (std::size_t f = 1; f < folders.size(); ++f) keys[f] = paths[f] + "/";
  std::sort(order.begin(), order.end(),
            [&keys](std::size_t a, std::size_t b) { return keys[a] < keys[b]; });

  std::vector<MhlFolderHashes> out;
  out.reserve(folders.size());
  for (std::size_t f : order) {
    MhlFolderHashes folderHashes;
    folderHashes.relativePath = std::move(paths[f]);
    for (std::size_t k = 0; k < chosen.size(); ++k) {
      std::optional<Computed>& computed = results[f * chosen.size() + k];
      if (!computed) continue;
      folderHashes.hashes.push_back(MhlDirectoryHashPair{chosen[k], std::move(computed->content),
                                                         std::move(computed->structure)});
    }
    out.push_back(std::move(folderHashes));
  }
  return out;
}

}  // namespace corvane
