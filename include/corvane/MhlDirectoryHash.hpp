// MhlDirectoryHash: the directory hashes of ASC MHL, computed from the hashes of files.
//
// ASC MHL gives every folder a pair of hashes per format (ASC MHL 6.5.2 DirectoryHashType and
// Appendix G; Implementation Guidelines 2.5):
// - the hash of a list of hashes in format H: the hash texts sorted, each turned into its bytes
//   (mhlHashBytes: hex digits to bytes, a C4 ID to its 64-byte digest), concatenated without
//   separators (duplicates kept) and hashed with H. An empty list hashes zero bytes.
// - content hash of a folder: the hash of the list of the hashes of its files and the content
//   hashes of its subfolders. Names play no part: renaming changes nothing, moving a file to
//   another folder does.
// - structure hash of a folder: the hash of the list holding, for each file, H(name bytes
//   followed by the bytes of the file's hash) and, for each subfolder, H(name bytes followed by the
//   bytes of the subfolder's structure hash). Names count here.
// Names are used as the bytes given (the bytes the file system returned, normally UTF-8), without
// Unicode normalisation. Sizes and dates play no part. Hash texts of the same format sort the same
// way as their bytes, so the list is sorted by bytes; the results are lowercase, as every ASC MHL
// text we write.
//
// Which files and folders take part is the caller's business: the tree holds exactly what was
// added. A caller walking a folder for ASC MHL leaves out what the ignore patterns exclude
// (MhlIgnorePatterns, whose defaults exclude the `ascmhl` folder and `.DS_Store` files), and thus
// never adds the `ascmhl` folder of the history itself.
//
// Thread safety: a const MhlDirectoryTree may be read from several threads; the functions here
// keep no state.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/Bytes.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/Export.hpp"

namespace corvane {

// The hash of a list of hash texts in `format` (ASC MHL Appendix G), as a text of `format`.
// The texts are decoded with mhlHashBytes (hex: any even number of digits of either case; c4: a
// full C4 ID) and sorted by their bytes, which is the order of the texts themselves; duplicates
// are kept. Throws Exception("ArgumentException", ...) naming the format or the text when
// `format` is not an ASC MHL format or a text cannot be decoded.
CORVANE_API std::string mhlHashOfHashes(ChecksumType format,
                                        const std::vector<std::string>& hashes);

// A folder tree of per-file hashes, the input of computeMhlDirectoryHashes. A value type.
//
// Paths are relative to the top folder, '/'-separated, without a leading or trailing '/', and
// without empty, "." or ".." components ("A/A1.txt"); a path's names are kept as given, byte for
// byte. Adding a file or folder also adds every folder above it. Errors throw
// Exception("ArgumentException", reason) and leave the tree as it was:
// - a path that is empty or breaks the rules above;
// - a path used both as a file and as a folder;
// - a format that is not an ASC MHL format, or a hash text that is not well formed for it
//   (isWellFormedMhlHash);
// - a second, different hash of the same format for the same file (adding the same one again is
//   accepted and changes nothing).
class CORVANE_API MhlDirectoryTree {
 public:
  MhlDirectoryTree();
  ~MhlDirectoryTree();
  MhlDirectoryTree(const MhlDirectoryTree&);
  MhlDirectoryTree& operator=(const MhlDirectoryTree&);
  MhlDirectoryTree(MhlDirectoryTree&&) noexcept;
  MhlDirectoryTree& operator=(MhlDirectoryTree&&) noexcept;

  // Records the hash of `format` of the file `relativePath`. A file may get hashes of several
  // formats through several calls.
  void addFile(std::string_view relativePath, ChecksumType format, std::string_view hash);
  // Records the folder `relativePath` (needed only for folders without files: an empty folder
  // takes part in its parent's hashes as well).
  void addFolder(std::string_view relativePath);

  // Files and folders below the top folder.
  std::size_t fileCount() const noexcept;
  std::size_t folderCount() const noexcept;
  // The formats any file has at least one hash of, in mhlFormats() order.
  std::vector<ChecksumType> formats() const;

 private:
  friend struct MhlDirectoryTreeAccess;
  struct Folder;
  struct File;
  std::vector<Folder> folders_;  // folders_[0] is the top folder
  std::vector<File> files_;
};

// The directory hash of one folder in one format.
struct CORVANE_API MhlDirectoryHashPair {
  ChecksumType format;
  std::string content;
  std::string structure;
  friend bool operator==(const MhlDirectoryHashPair&, const MhlDirectoryHashPair&) = default;
};

// The directory hashes of one folder.
struct CORVANE_API MhlFolderHashes {
  // "" for the top folder (the ASC MHL roothash), otherwise as MhlDirectoryTree takes paths.
  std::string relativePath;
  // One pair per format that could be computed, in mhlFormats() order.
  std::vector<MhlDirectoryHashPair> hashes;

  // The pair of `format`, or null when this folder has none.
  const MhlDirectoryHashPair* find(ChecksumType format) const;
  friend bool operator==(const MhlFolderHashes&, const MhlFolderHashes&) = default;
};

// The content and structure hashes of every folder of `tree`, the top folder first, then the
// others in the byte order of their paths followed by '/' (the order of DirectoryWalk: a folder
// before its contents).
//
// `formats`: the formats to compute (each at most once is computed, in mhlFormats() order); empty
// means tree.formats(). Throws Exception("ArgumentException", ...) for a format that is not an
// ASC MHL format.
//
// A folder gets a directory hash of format H only when every file at any depth below it has a
// hash of H: with a file's hash missing there is nothing to put in its place, and a value
// computed without the file would prove something untrue. Such a format is left out of that
// folder's `hashes` (and so out of the folders above it); other formats are not affected. An
// empty folder has nothing that could lack a format, so it gets every format: its content and
// structure hashes are both H of zero bytes, the hash of an empty list (and in its parent's
// structure list it stands as H(name bytes + bytes of that hash)).
//
// Cost: one hash per folder and format for each of content and structure, plus one small hash
// per file and folder and format for the structure lists. The tree is walked without recursion,
// so any depth works.
CORVANE_API std::vector<MhlFolderHashes> computeMhlDirectoryHashes(
    const MhlDirectoryTree& tree, const std::vector<ChecksumType>& formats = {});

}  // namespace corvane
