#include <foundation/storage/providers/common/name_tree.hpp>

#include <fl/i18n/i18n.hpp>

namespace foundation::storage::providers::common {

Names namesOf(std::u16string_view path) {
  Names names;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find(u'/', start);
    if (end == std::u16string_view::npos) end = path.size();
    if (end > start) names.emplace_back(path.substr(start, end - start));
    start = end + 1;
  }
  return names;
}

std::u16string pathOf(Names const& names) {
  if (names.empty()) return u"/";
  std::u16string path;
  for (auto const& name : names) {
    path += u'/';
    path += name;
  }
  return path;
}

bool isHiddenName(std::u16string_view name) noexcept { return !name.empty() && name.front() == u'.'; }

std::u16string NameRule::key(std::u16string_view name) const {
  return folds() ? fl::i18n::fold_case(name) : std::u16string(name);
}

} // namespace foundation::storage::providers::common
