// The wildcard matcher that every listing filter uses, on hostile input: 64-unit patterns
// built to make a backtracking matcher explode, against a 4,096-unit name that almost
// matches. The worst of these is the figure to watch.

#include <foundation/storage/provider/wildcard.hpp>

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace {

using foundation::storage::provider::matchesWildcard;

std::u16string repeat(std::u16string const& unit, std::size_t length) {
  std::u16string out;
  while (out.size() < length) out += unit;
  out.resize(length);
  return out;
}

struct Case {
  char const* label;
  std::u16string pattern;
  std::u16string name;
};

std::vector<Case> const& cases() {
  static std::vector<Case> const all = [] {
    std::u16string const as = std::u16string(4096, u'a');
    std::u16string const asThenB = std::u16string(4095, u'a') + u'b';
    std::u16string const surrogates = repeat(u"\xD800\xDC00\xDC00", 4096);
    return std::vector<Case>{
        {"star-a runs, no final match", repeat(u"*a", 63) + u"b", as},
        {"star-a runs, match at the end", repeat(u"*a", 63) + u"b", asThenB},
        {"star-question runs", repeat(u"*?", 63) + u"b", as},
        {"only stars", std::u16string(64, u'*'), as},
        {"stars then a literal", std::u16string(63, u'*') + u"b", as},
        {"question marks then star", std::u16string(63, u'?') + u"*", as},
        {"unpaired surrogates", repeat(u"*\xD800", 63) + u"\xDC01", surrogates},
    };
  }();
  return all;
}

void MatchHostilePattern(benchmark::State& state) {
  auto const& c = cases()[static_cast<std::size_t>(state.range(0))];
  state.SetLabel(c.label);
  for (auto _ : state) benchmark::DoNotOptimize(matchesWildcard(c.pattern, c.name));
}

} // namespace

BENCHMARK(MatchHostilePattern)->DenseRange(0, 6)->Unit(benchmark::kMicrosecond);
