#include "corvane/MhlIgnorePatterns.hpp"

#include <algorithm>
#include <bitset>
#include <optional>
#include <unordered_set>
#include <utility>

namespace corvane {
namespace {

// ----- one pattern, compiled
// ----------------------------------------------------------------------
//
// A pattern becomes a sequence of tokens matched by a set-of-states simulation (one pass over the
// path, no backtracking), so that no pattern, however many asterisks it has, costs more than
// (tokens x characters).

enum class TokenKind {
  literal,       // one given character
  oneCharacter,  // "?": any character but '/'
  characterSet,  // "[...]": a character of the set (never '/')
  star,          // "*": any run of characters without '/', also none
  anything,      // "**" at the end after '/' (or alone): any run of characters, also none
  // "**/" at the start or after '/': nothing, or any run of characters that ends with '/'. Two
  // tokens, because once the run has begun it can only be left through a '/':
  folderRunStart,  // before the run: may skip "**/" entirely, or begin the run
  folderRun,       // inside the run: any character; a '/' may also end it
};

struct Token {
  TokenKind kind = TokenKind::literal;
  unsigned char character = 0;
  std::bitset<256> set;
};

struct Rule {
  bool negated = false;
  bool directoryOnly = false;
  bool lastNameOnly = false;  // compared with the last name of the path, not the whole path
  // When the pattern has no wildcard at all: its text, compared directly.
  std::optional<std::string> plain;
  std::vector<Token> tokens;
};

// gitignore(5): trailing spaces go unless quoted with a backslash. A backslash quotes whatever
// follows it, so "a\\ " (escaped backslash, then a space) loses its space; a line ending in a
// lone backslash is kept whole.
std::string_view trimTrailingSpaces(std::string_view text) {
  std::optional<std::size_t> firstTrailingSpace;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == ' ') {
      if (!firstTrailingSpace) firstTrailingSpace = i;
    } else if (text[i] == '\\') {
      ++i;
      if (i == text.size()) return text;
      firstTrailingSpace.reset();
    } else {
      firstTrailingSpace.reset();
    }
  }
  return firstTrailingSpace ? text.substr(0, *firstTrailingSpace) : text;
}

bool inNamedClass(std::string_view name, unsigned char c, bool& known) {
  known = true;
  const bool upper = c >= 'A' && c <= 'Z';
  const bool lower = c >= 'a' && c <= 'z';
  const bool digit = c >= '0' && c <= '9';
  const bool print = c >= 0x20 && c <= 0x7E;
  const bool space = c == ' ' || (c >= '\t' && c <= '\r');
  if (name == "alnum") return upper || lower || digit;
  if (name == "alpha") return upper || lower;
  if (name == "blank") return c == ' ' || c == '\t';
  if (name == "cntrl") return c < 0x20 || c == 0x7F;
  if (name == "digit") return digit;
  if (name == "graph") return print && c != ' ';
  if (name == "lower") return lower;
  if (name == "print") return print;
  if (name == "punct") return print && c != ' ' && !upper && !lower && !digit;
  if (name == "space") return space;
  if (name == "upper") return upper;
  if (name == "xdigit") return digit || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  known = false;
  return false;
}

// Parses the bracket expression that opens at pattern[open] ('['). On success stores the set
// (negation applied, '/' never in it) and returns the index just after the closing ']'. Nothing
// when the bracket is never closed or names an unknown class: such a pattern cannot match.
//
// The rules are those of git's matcher, which gitignore(5) refers to: a ']' right after the '['
// (or after the "!" or "^" that negates) is a member; "a-z" is a range when '-' follows a plain
// member and precedes something other than ']'; a backslash makes the next character a plain
// member; "[:name:]" is a class, and a "[:" that finds no ":]" before the next ']' is just a '['.
std::optional<std::size_t> parseBracket(std::string_view pattern, std::size_t open,
                                        std::bitset<256>& set) {
  std::size_t p = open + 1;
  bool negated = false;
  if (p < pattern.size() && (pattern[p] == '!' || pattern[p] == '^')) {
    negated = true;
    ++p;
  }
  std::bitset<256> members;
  // The previous plain member, the start of a possible range; 0 after a range or a class.
  unsigned char previous = 0;
  bool first = true;
  while (true) {
    if (p >= pattern.size()) return std::nullopt;
    unsigned char c = static_cast<unsigned char>(pattern[p]);
    if (c == ']' && !first) break;
    first = false;
    if (c == '\\') {
      ++p;
      if (p >= pattern.size()) return std::nullopt;
      c = static_cast<unsigned char>(pattern[p]);
      members.set(c);
      previous = c;
    } else if (c == '-' && previous != 0 && p + 1 < pattern.size() && pattern[p + 1] != ']') {
      ++p;
      unsigned char last = static_cast<unsigned char>(pattern[p]);
      if (last == '\\') {
        ++p;
        if (p >= pattern.size()) return std::nullopt;
        last = static_cast<unsigned char>(pattern[p]);
      }
      for (unsigned v = previous; v <= last; ++v) members.set(v);
      previous = 0;
    } else if (c == '[' && p + 1 < pattern.size() && pattern[p + 1] == ':') {
      const std::size_t nameStart = p + 2;
      const std::size_t close = pattern.find(']', nameStart);
      if (close == std::string_view::npos) return std::nullopt;
      if (close < nameStart + 1 || pattern[close - 1] != ':') {
        // No ":]": the '[' is a plain member and the scan goes on after it.
        members.set('[');
        previous = '[';
      } else {
        const std::string_view name = pattern.substr(nameStart, close - 1 - nameStart);
        bool known = false;
        for (unsigned v = 0; v < 256; ++v) {
          if (inNamedClass(name, static_cast<unsigned char>(v), known)) members.set(v);
          if (!known) return std::nullopt;
        }
        p = close;
        previous = 0;
      }
    } else {
      members.set(c);
      previous = c;
    }
    ++p;
  }
  set = negated ? ~members : members;
  set.reset('/');
  return p + 1;
}

// The tokens of a pattern (after "!", the trailing '/' and an anchoring leading '/' were taken
// off). Nothing when the pattern can never match.
std::optional<std::vector<Token>> tokenize(std::string_view pattern) {
  std::vector<Token> tokens;
  std::size_t p = 0;
  while (p < pattern.size()) {
    const char c = pattern[p];
    Token token;
    if (c == '\\') {
      if (p + 1 == pattern.size()) return std::nullopt;  // a lone backslash at the end
      token.character = static_cast<unsigned char>(pattern[p + 1]);
      p += 2;
    } else if (c == '?') {
      token.kind = TokenKind::oneCharacter;
      ++p;
    } else if (c == '[') {
      const std::optional<std::size_t> next = parseBracket(pattern, p, token.set);
      if (!next) return std::nullopt;
      token.kind = TokenKind::characterSet;
      p = *next;
    } else if (c == '*') {
      std::size_t end = p;
      while (end < pattern.size() && pattern[end] == '*') ++end;
      // "**" is special only as a whole component: after the start or a '/', and before the end,
      // a '/' or an escaped '/' (the character before is looked at as written, as git does).
      const bool startsComponent = p == 0 || pattern[p - 1] == '/';
      const bool endsComponent =
          end == pattern.size() || pattern[end] == '/' ||
          (pattern[end] == '\\' && end + 1 < pattern.size() && pattern[end + 1] == '/');
      if (end - p >= 2 && startsComponent && endsComponent) {
        if (end < pattern.size() && pattern[end] == '/') {
          token.kind = TokenKind::folderRunStart;
          tokens.push_back(token);
          token.kind = TokenKind::folderRun;
          p = end + 1;
        } else {
          token.kind = TokenKind::anything;
          p = end;
        }
      } else {
        token.kind = TokenKind::star;
        p = end;
      }
    } else {
      token.character = static_cast<unsigned char>(c);
      ++p;
    }
    tokens.push_back(token);
  }
  return tokens;
}

bool hasWildcard(std::string_view pattern) {
  return pattern.find_first_of("*?[\\") != std::string_view::npos;
}

// The rule of one pattern text; nothing for blanks and comments.
std::optional<Rule> compile(std::string_view text) {
  if (text.empty() || text.front() == '#') return std::nullopt;
  std::string_view pattern = trimTrailingSpaces(text);
  Rule rule;
  if (!pattern.empty() && pattern.front() == '!') {
    rule.negated = true;
    pattern.remove_prefix(1);
  }
  if (!pattern.empty() && pattern.back() == '/') {
    rule.directoryOnly = true;
    pattern.remove_suffix(1);
  }
  rule.lastNameOnly = pattern.find('/') == std::string_view::npos;
  if (!rule.lastNameOnly && pattern.front() == '/') pattern.remove_prefix(1);
  if (pattern.empty()) {
    rule.plain = std::string();  // " ", "!", "/": nothing is left to match a name with
    return rule;
  }
  if (!hasWildcard(pattern)) {
    rule.plain = std::string(pattern);
    return rule;
  }
  std::optional<std::vector<Token>> tokens = tokenize(pattern);
  if (!tokens) {
    rule.plain = std::string();  // can never match
    return rule;
  }
  rule.tokens = std::move(*tokens);
  return rule;
}

bool tokensMatch(const std::vector<Token>& tokens, std::string_view text) {
  const std::size_t n = tokens.size();
  std::vector<char> current(n + 1, 0);
  std::vector<char> next(n + 1, 0);
  // States move forward only, so one ascending pass closes over the moves that read nothing.
  const auto close = [&tokens, n](std::vector<char>& states) {
    for (std::size_t i = 0; i < n; ++i) {
      if (!states[i]) continue;
      const TokenKind kind = tokens[i].kind;
      if (kind == TokenKind::star || kind == TokenKind::anything) states[i + 1] = 1;
      if (kind == TokenKind::folderRunStart) states[i + 2] = 1;  // zero folders
    }
  };
  current[0] = 1;
  close(current);
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    std::fill(next.begin(), next.end(), 0);
    bool alive = false;
    for (std::size_t i = 0; i < n; ++i) {
      if (!current[i]) continue;
      const Token& token = tokens[i];
      switch (token.kind) {
        case TokenKind::literal:
          if (c == token.character) next[i + 1] = 1;
          break;
        case TokenKind::oneCharacter:
          if (c != '/') next[i + 1] = 1;
          break;
        case TokenKind::characterSet:
          if (token.set.test(c)) next[i + 1] = 1;
          break;
        case TokenKind::star:
          if (c != '/') next[i] = 1;
          break;
        case TokenKind::anything:
          next[i] = 1;
          break;
        case TokenKind::folderRunStart:
          next[i + 1] = 1;
          if (c == '/') next[i + 2] = 1;
          break;
        case TokenKind::folderRun:
          next[i] = 1;
          if (c == '/') next[i + 1] = 1;
          break;
      }
    }
    close(next);
    for (char state : next) alive = alive || state;
    if (!alive) return false;
    current.swap(next);
  }
  return current[n] != 0;
}

bool ruleMatches(const Rule& rule, std::string_view path, bool isDirectory) {
  if (rule.directoryOnly && !isDirectory) return false;
  std::string_view subject = path;
  if (rule.lastNameOnly) {
    const std::size_t slash = path.rfind('/');
    if (slash != std::string_view::npos) subject = path.substr(slash + 1);
  }
  if (rule.plain) return !rule.plain->empty() && *rule.plain == subject;
  return tokensMatch(rule.tokens, subject);
}

}  // namespace

struct MhlIgnorePatterns::Compiled {
  std::vector<Rule> rules;  // blanks and comments left out

  // The verdict of the patterns on this path alone: the last matching pattern decides.
  bool excludesItself(std::string_view path, bool isDirectory) const {
    for (auto rule = rules.rbegin(); rule != rules.rend(); ++rule) {
      if (ruleMatches(*rule, path, isDirectory)) return !rule->negated;
    }
    return false;
  }

  bool ignores(std::string_view path, bool isDirectory) const {
    if (path.empty() || rules.empty()) return false;
    // A folder above that is ignored takes everything inside with it, whatever "!" says later.
    for (std::size_t slash = path.find('/'); slash != std::string_view::npos;
         slash = path.find('/', slash + 1)) {
      if (excludesItself(path.substr(0, slash), true)) return true;
    }
    return excludesItself(path, isDirectory);
  }
};

MhlIgnorePatterns::MhlIgnorePatterns() : MhlIgnorePatterns(std::vector<std::string>{}) {}

MhlIgnorePatterns::MhlIgnorePatterns(std::vector<std::string> patterns)
    : patterns_(std::move(patterns)) {
  auto compiled = std::make_shared<Compiled>();
  for (const std::string& text : patterns_) {
    if (std::optional<Rule> rule = compile(text)) compiled->rules.push_back(std::move(*rule));
  }
  compiled_ = std::move(compiled);
}

const std::vector<std::string>& MhlIgnorePatterns::defaultPatterns() {
  // ASC MHL 5.6.1.2: all files named .DS_Store and all directories named ascmhl.
  static const std::vector<std::string> patterns{".DS_Store", "ascmhl", "ascmhl/"};
  return patterns;
}

MhlIgnorePatterns MhlIgnorePatterns::defaults() { return MhlIgnorePatterns(defaultPatterns()); }

std::vector<std::string> MhlIgnorePatterns::mergePatterns(const std::vector<std::string>& earlier,
                                                          const std::vector<std::string>& later) {
  std::vector<std::string> merged;
  merged.reserve(earlier.size() + later.size());
  std::unordered_set<std::string_view> seen;
  for (const std::vector<std::string>* list : {&earlier, &later}) {
    for (const std::string& pattern : *list) {
      if (seen.insert(pattern).second) merged.push_back(pattern);
    }
  }
  return merged;
}

MhlIgnorePatterns MhlIgnorePatterns::mergedWith(const std::vector<std::string>& later) const {
  return MhlIgnorePatterns(mergePatterns(patterns_, later));
}

bool MhlIgnorePatterns::ignores(std::string_view relativePath, bool isDirectory) const {
  return compiled_->ignores(relativePath, isDirectory);
}

WalkIgnoreRule MhlIgnorePatterns::asWalkRule() const {
  if (compiled_->rules.empty()) return {};
  return [compiled = compiled_](std::string_view relativePath, bool isDirectory) {
    return compiled->ignores(relativePath, isDirectory);
  };
}

}  // namespace corvane
