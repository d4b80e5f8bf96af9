// The one wildcard matcher as the listings apply it, whether the provider filters or the
// library does, against an independent reference built on std::regex.

#include "harness.hpp"

#include <foundation/storage/providers/wrappers/feature_switching_provider.hpp>

#include <cctype>
#include <random>
#include <regex>
#include <set>

namespace {

using namespace harness;

/// `*` is any run, `?` one character, everything else itself; a trailing run of two or more
/// `*` needs at least one character (the matcher's deliberate asymmetry).
bool referenceMatch(std::string const& pattern, std::string const& name) {
  if (pattern.empty()) return name.empty();
  std::size_t stem = pattern.find_last_not_of('*') + 1; // npos + 1 == 0 for all stars
  std::string regex;
  for (std::size_t i = 0; i < stem; ++i) {
    char c = pattern[i];
    if (c == '*')
      regex += ".*";
    else if (c == '?')
      regex += '.';
    else if (std::isalnum(static_cast<unsigned char>(c)))
      regex += c;
    else
      regex += std::string("\\") + c;
  }
  std::size_t trailing = pattern.size() - stem;
  regex += trailing == 0 ? "" : trailing == 1 ? ".*" : ".+";
  return std::regex_match(name, std::regex(regex));
}

std::string randomText(std::mt19937& random, std::string const& alphabet, std::size_t maxLength) {
  std::string out(std::uniform_int_distribution<std::size_t>(0, maxLength)(random), ' ');
  for (char& c : out) c = alphabet[std::uniform_int_distribution<std::size_t>(0, alphabet.size() - 1)(random)];
  return out;
}

TEST(ListingWildcards, AgreeWithAReferenceWhoeverFilters) {
  Harness h = make("mem");
  auto features = std::make_shared<wrappers::FeatureSwitchingProvider>(h.counts);
  h.system->registerProvider(u"mem", [features](p::StorageIRI const&) { return features; });

  std::mt19937 random(20261123);
  std::set<std::string> names;
  while (names.size() < 60) names.insert(randomText(random, "ab.x", 6));
  for (auto special : {"", ".", ".."}) names.erase(special);
  for (auto const& name : names) h.file(fl::i18n::to_ustring(name)).createFile();

  vfs::Folder folder(h.root, h.reference());
  for (int round = 0; round < 150; ++round) {
    std::string pattern = randomText(random, "ab.*?", 7);
    std::set<std::string> expected;
    for (auto const& name : names)
      if (referenceMatch(pattern, name)) expected.insert(name);
    for (bool providerFilters : {true, false}) {
      if (providerFilters)
        features->enable(p::ExtendedFeature::FlatWildcardListing);
      else
        features->disable(p::ExtendedFeature::FlatWildcardListing);
      std::set<std::string> got;
      for (auto const& file : folder.listFiles(fl::i18n::to_ustring(pattern))) {
        auto name = file.getName();
        got.insert(std::string(name.begin(), name.end()));
      }
      if (pattern.empty()) continue; // an empty pattern does not filter
      ASSERT_EQ(got, expected) << "pattern \"" << pattern << "\", provider filters: " << providerFilters;
    }
  }
}

TEST(ListingWildcards, KeepTheMatchersRulesThroughEveryElementType) {
  Harness h = make("mem");
  auto features = std::make_shared<wrappers::FeatureSwitchingProvider>(h.counts);
  features->disable(p::ExtendedFeature::FlatWildcardListing);
  h.system->registerProvider(u"mem", [features](p::StorageIRI const&) { return features; });
  for (auto name : {u"a", u"ab", u"a.txt", u".txt", u"a.TXT", u"a.txt.bak", u"aXbYc", u"abc", u"[a]"})
    h.file(name).createFile();
  vfs::Folder folder(h.root, h.reference());

  auto const names = [&](std::u16string const& pattern) {
    std::set<std::u16string> out;
    for (auto const& entry : folder.listAll(pattern)) out.insert(entry.getFilename());
    std::set<std::u16string> viaEntries;
    for (auto const& entry : folder.listFileEntries(pattern)) viaEntries.insert(entry.getName());
    EXPECT_EQ(out, viaEntries) << std::string(pattern.begin(), pattern.end());
    return out;
  };
  using Names = std::set<std::u16string>;
  EXPECT_EQ(names(u"?"), Names{u"a"});
  EXPECT_EQ(names(u"*.txt"), (Names{u"a.txt", u".txt"}));
  EXPECT_EQ(names(u"a*b*c"), (Names{u"aXbYc", u"abc"}));
  EXPECT_EQ(names(u"a**"), (Names{u"ab", u"a.txt", u"a.TXT", u"a.txt.bak", u"aXbYc", u"abc"}));
  EXPECT_EQ(names(u"a*"), (Names{u"a", u"ab", u"a.txt", u"a.TXT", u"a.txt.bak", u"aXbYc", u"abc"}));
  EXPECT_EQ(names(u"[a]"), Names{u"[a]"});
}

} // namespace
