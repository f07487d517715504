// MhlIgnorePatterns: the ignore patterns of an ASC MHL history and the files and folders they
// leave out.
//
// ASC MHL records, in every manifest, the patterns of the files and folders that were left out
// (ASC MHL 5.6.1.2 and 6.4.7 IgnoreType); each pattern is one line of a .gitignore file and means
// what it means there (ASC MHL Appendix C, after gitignore(5)). A path is matched like this:
// - Blank patterns and patterns starting with "#" match nothing. Trailing spaces are removed
//   unless escaped with a backslash ("a\ " keeps one space); other white space is kept.
// - "!" in front negates: a path the last matching pattern negates is not ignored. A backslash in
//   front of a leading "!" or "#" makes it literal ("\!important!.txt").
// - A pattern ending in "/" matches folders only (the "/" is not part of what is compared).
// - A pattern with no other "/" is compared with the last name of the path, at any depth
//   ("*.tmp" ignores "a/b/c.tmp"); one with a "/" at the start or in the middle is compared with
//   the whole path from the top folder ("/tmp" and "doc/frotz/" only at the top).
// - "*" matches any run of characters except "/", "?" any one character except "/", "[a-z]",
//   "[!a-z]", "[^a-z]" and "[[:alpha:]]" (alnum, alpha, blank, cntrl, digit, graph, lower, print,
//   punct, space, upper, xdigit; ASCII only) one character of (or not of) a set, never "/".
//   A backslash makes the next character literal. A pattern with a bracket that is not closed or
//   names an unknown class, or that ends in a lone backslash, matches nothing.
// - "**" is special only as a whole path component: a leading "**/" and an inner "/**/" match zero
//   or more folders ("**/foo", "a/**/b" matches "a/b" and "a/x/y/b"), a trailing "/**" everything
//   inside ("abc/**"), and "**" alone everything. Any other run of asterisks is a plain "*"
//   (ASC MHL Appendix C: "Other consecutive asterisks are considered regular asterisks"). Git
//   itself, for anchored patterns, lets "**" right after a leading run of plain characters match
//   across folders ("a**/b" ignores "ax/y/b" in git 2.39); we keep to the written rule.
// - The last pattern that matches a path decides. A path inside an ignored folder is ignored
//   whatever later patterns say: a folder's contents cannot be taken back with "!".
// Names are compared byte for byte and case-sensitively (ASC MHL paths preserve case); nothing is
// normalised.
//
// Paths given to ignores() are relative to the folder of the history (the scope of the ASC MHL
// manifest), '/'-separated, without a leading "/" or "./" and without a trailing "/".
//
// The defaults (ASC MHL 5.6.1.2) leave out every ".DS_Store" and every "ascmhl" (the history's own
// folder, and the folder of every nested history). A later generation keeps every pattern of the
// earlier ones and may add more (ASC MHL Implementation Guidelines 2.4: the list "can only
// grow"); mergePatterns builds that list.
//
// A value type: copies share the compiled patterns, which are never changed; every member is
// const and safe to call from several threads at once.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/DirectoryWalk.hpp"
#include "corvane/Export.hpp"

namespace corvane {

class CORVANE_API MhlIgnorePatterns {
 public:
  // No patterns: nothing is ignored.
  MhlIgnorePatterns();
  // The patterns in order, as recorded (each the text of one ASC MHL <pattern> element).
  explicit MhlIgnorePatterns(std::vector<std::string> patterns);

  // ".DS_Store", "ascmhl", "ascmhl/".
  static const std::vector<std::string>& defaultPatterns();
  static MhlIgnorePatterns defaults();

  // The list of an ASC MHL generation that follows `earlier`: `earlier`, then `later`, each
  // pattern text at its first place only (an exact repeat of a text is dropped; texts that differ
  // in any byte, even only in trailing spaces, are both kept). Order matters to negated patterns;
  // dropping a repeat can only change a verdict when a "!" pattern lies between the two copies.
  static std::vector<std::string> mergePatterns(const std::vector<std::string>& earlier,
                                                const std::vector<std::string>& later);
  // MhlIgnorePatterns(mergePatterns(patterns(), later)).
  MhlIgnorePatterns mergedWith(const std::vector<std::string>& later) const;

  // The patterns as given, blanks and comments included.
  const std::vector<std::string>& patterns() const noexcept { return patterns_; }

  // Whether the file or folder `relativePath` is left out: it, or a folder above it, is matched
  // by a pattern and not negated by a later one. The folders above are judged as folders. An empty
  // path (the top folder itself) is never ignored.
  bool ignores(std::string_view relativePath, bool isDirectory) const;

  // ignores() as a DirectoryWalk hook (WalkOptions::ignore): the walk calls it for every entry and
  // neither opens nor descends an ignored folder. The rule holds its own reference to the compiled
  // patterns, so it may outlive this object. Empty patterns give an empty rule (nothing ignored,
  // no call per entry).
  WalkIgnoreRule asWalkRule() const;

  friend bool operator==(const MhlIgnorePatterns& a, const MhlIgnorePatterns& b) {
    return a.patterns_ == b.patterns_;
  }

 private:
  struct Compiled;
  std::vector<std::string> patterns_;
  std::shared_ptr<const Compiled> compiled_;
};

}  // namespace corvane
