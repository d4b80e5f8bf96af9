#include <foundation/storage/provider/wildcard.hpp>

namespace foundation::storage::provider {

namespace {

/// Plain glob matching with backtracking to the last `*` only (O(pattern * name) worst
/// case, no recursion). `at(i)` yields the pattern's code unit i of `length`.
template <class PatternAt>
bool globMatch(std::size_t length, PatternAt at, std::u16string_view name) noexcept {
  constexpr std::size_t none = static_cast<std::size_t>(-1);
  std::size_t p = 0, n = 0, starP = none, starN = 0;
  while (n < name.size()) {
    if (p < length && at(p) == u'*') {
      starP = p++;
      starN = n;
    } else if (p < length && (at(p) == u'?' || at(p) == name[n])) {
      ++p;
      ++n;
    } else if (starP != none) {
      p = starP + 1;
      n = ++starN;
    } else {
      return false;
    }
  }
  while (p < length && at(p) == u'*') ++p;
  return p == length;
}

} // namespace

bool matchesWildcard(std::u16string_view pattern, std::u16string_view name) noexcept {
  if (pattern.empty()) return name.empty();
  std::size_t stem = pattern.size();
  while (stem > 0 && pattern[stem - 1] == u'*') --stem;
  if (pattern.size() - stem < 2) {
    return globMatch(
        pattern.size(), [&](std::size_t i) { return pattern[i]; }, name);
  }
  // A run of two or more trailing stars must still cover at least one code unit: the
  // pattern behaves as its stem followed by "?*".
  return globMatch(
      stem + 2, [&](std::size_t i) -> char16_t { return i < stem ? pattern[i] : (i == stem ? u'?' : u'*'); }, name);
}

} // namespace foundation::storage::provider
