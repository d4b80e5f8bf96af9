#include <foundation/storage/provider/wildcard.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using foundation::storage::provider::matchesWildcard;

namespace {

/// The matching rules as stated, step by step and recursive: the oracle for the fast
/// matcher. Exponential, so only for short inputs.
bool referenceMatch(std::u16string_view pattern, std::u16string_view name) {
  if (pattern.empty()) return name.empty();
  std::size_t n = 0;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    char16_t c = pattern[i];
    if (c == u'*') {
      if (i + 1 == pattern.size()) return true;
      if (n == name.size()) return false;
      std::u16string_view rest = pattern.substr(i + 1);
      for (std::size_t start = n; start < name.size(); ++start)
        if (referenceMatch(rest, name.substr(start))) return true;
      return false;
    }
    if (n == name.size()) return false;
    if (c != u'?' && c != name[n]) return false;
    ++n;
    if (i + 1 == pattern.size()) return n == name.size();
  }
  return false;
}

/// Every string over `alphabet` of length 0..maxLength.
std::vector<std::u16string> allStrings(std::u16string const& alphabet, std::size_t maxLength) {
  std::vector<std::u16string> out{u""};
  for (std::size_t begin = 0, length = 1; length <= maxLength; ++length) {
    std::size_t end = out.size();
    for (std::size_t i = begin; i < end; ++i)
      for (char16_t c : alphabet) out.push_back(out[i] + c);
    begin = end;
  }
  return out;
}

} // namespace

TEST(Wildcard, AgreesWithTheStatedRulesOnEveryShortInput) {
  auto patterns = allStrings(u"a*?", 5);
  auto names = allStrings(u"ab", 5);
  for (auto const& pattern : patterns)
    for (auto const& name : names)
      ASSERT_EQ(matchesWildcard(pattern, name), referenceMatch(pattern, name))
          << "pattern \"" << std::string(pattern.begin(), pattern.end()) << "\" name \""
          << std::string(name.begin(), name.end()) << "\"";
}

TEST(Wildcard, KeepsTheDeliberateAsymmetries) {
  EXPECT_TRUE(matchesWildcard(u"", u""));
  EXPECT_FALSE(matchesWildcard(u"", u"a"));
  EXPECT_TRUE(matchesWildcard(u"*", u""));
  EXPECT_TRUE(matchesWildcard(u"a*", u"a"));
  EXPECT_FALSE(matchesWildcard(u"a**", u"a"));
  EXPECT_TRUE(matchesWildcard(u"a**", u"ab"));
  EXPECT_FALSE(matchesWildcard(u"**", u""));
  EXPECT_TRUE(matchesWildcard(u"?", u"x"));
  EXPECT_FALSE(matchesWildcard(u"??", u"a"));
}

TEST(Wildcard, MatchesCodeUnitsCaseSensitivelyWithoutEscapes) {
  EXPECT_TRUE(matchesWildcard(u"*.txt", u"a.txt"));
  EXPECT_TRUE(matchesWildcard(u"*.txt", u".txt"));
  EXPECT_FALSE(matchesWildcard(u"*.txt", u"a.TXT"));
  EXPECT_FALSE(matchesWildcard(u"*.txt", u"a.txt.bak"));
  EXPECT_TRUE(matchesWildcard(u"a*b*c", u"aXbYc"));
  EXPECT_TRUE(matchesWildcard(u"a*b*c", u"abc"));
  EXPECT_FALSE(matchesWildcard(u"a*c", u"ab"));
  EXPECT_TRUE(matchesWildcard(u"[a]", u"[a]"));
  EXPECT_FALSE(matchesWildcard(u"[a]", u"a"));
  EXPECT_TRUE(matchesWildcard(u"Gr??e*", u"Grüße.txt"));
}

TEST(Wildcard, StaysFastOnPatternsThatDefeatBacktracking) {
  std::u16string name(4000, u'a');
  std::u16string pattern;
  for (int i = 0; i < 30; ++i) pattern += u"*a";
  pattern += u"*b";
  EXPECT_FALSE(matchesWildcard(pattern, name)); // exponential for a naive recursion
}
