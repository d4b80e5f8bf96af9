#include "storage_iri_rep.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <fl/i18n/i18n.hpp>

#include <boost/container_hash/hash.hpp>

#include <ostream>
#include <vector>

namespace foundation::storage::provider {

namespace {

std::size_t hashOf(std::u16string const& s) { return std::hash<std::u16string>{}(s); }

/// Segment-wise order of two decoded paths: '/' sorts before every other character, so a
/// shorter segment (a prefix) comes first and a folder precedes its contents.
int comparePaths(std::u16string_view a, std::u16string_view b) {
  std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    char16_t ca = a[i], cb = b[i];
    if (ca == cb) continue;
    if (ca == u'/') return -1;
    if (cb == u'/') return 1;
    return ca < cb ? -1 : 1;
  }
  return a.size() < b.size() ? -1 : (a.size() > b.size() ? 1 : 0);
}

int compareReps(StorageIRI::Rep const& a, StorageIRI::Rep const& b) {
  if (int c = a.scheme.compare(b.scheme)) return c < 0 ? -1 : 1;
  if (int c = a.authority.compare(b.authority)) return c < 0 ? -1 : 1;
  if (a.inner != b.inner) {
    if (!a.inner) return -1;
    if (!b.inner) return 1;
    if (int c = compareReps(*a.inner, *b.inner)) return c;
  }
  if (a.hasPath != b.hasPath) return a.hasPath ? 1 : -1;
  return comparePaths(a.path, b.path);
}

bool equalReps(StorageIRI::Rep const& a, StorageIRI::Rep const& b) {
  if (&a == &b) return true;
  return a.hash == b.hash && compareReps(a, b) == 0;
}

std::vector<std::u16string_view> segmentsOf(std::u16string_view path) {
  std::vector<std::u16string_view> segments;
  std::size_t start = 1;
  while (start < path.size()) {
    std::size_t end = path.find(u'/', start);
    if (end == path.npos) end = path.size();
    segments.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return segments;
}

[[noreturn]] void invalid(StorageIRI const& iri, char16_t const* key, std::string message) {
  fail(ErrorCode::InvalidLocation, iri, key, std::move(message));
}

} // namespace

namespace iri {
void seal(StorageIRI::Rep& rep) {
  std::size_t h = hashOf(rep.scheme);
  boost::hash_combine(h, hashOf(rep.authority));
  boost::hash_combine(h, rep.inner ? rep.inner->hash : 0);
  boost::hash_combine(h, rep.hasPath);
  boost::hash_combine(h, hashOf(rep.path));
  rep.hash = h;
}
} // namespace iri

StorageIRI::Rep const& StorageIRI::rep() const noexcept {
  static Rep const empty;
  return rep_ ? *rep_ : empty;
}

StorageIRI::StorageIRI(std::u16string const& text) : rep_(iri::parse(text)) {}

StorageIRI StorageIRI::fromUtf8(std::string_view text) {
  std::u16string utf16;
  try {
    utf16 = fl::i18n::strict::utf8_to_utf16(text);
  } catch (std::invalid_argument const&) {
    invalid(StorageIRI(), u"iri.parse", "invalid UTF-8 in \"" + std::string(text) + "\"");
  }
  return StorageIRI(utf16);
}

StorageIRI::StorageIRI(StorageIRI const& parent, std::u16string const& name) : rep_(parent.rep_) {
  if (parent.empty()) invalid(parent, u"iri.child", "no parent location");
  if (name.find_first_not_of(u'/') == std::u16string::npos) return; // "" or "/": the parent itself
  auto child = std::make_shared<Rep>(parent.rep());
  child->hasPath = true;
  iri::appendNames(child->path, name);
  iri::seal(*child);
  rep_ = std::move(child);
}

StorageIRI::StorageIRI(std::u16string const& scheme, StorageIRI const& inner, std::u16string path) {
  if (inner.empty()) invalid(inner, u"iri.nested", "no inner location");
  auto rep = std::make_shared<Rep>();
  rep->scheme = iri::normaliseScheme(scheme);
  rep->inner = inner.rep_;
  if (!path.empty()) {
    if (path[0] != u'/') invalid(inner, u"iri.nested", "the path of a nested IRI must start with '/'");
    rep->hasPath = true;
    iri::appendNames(rep->path, path);
  }
  iri::seal(*rep);
  rep_ = std::move(rep);
}

std::u16string const& StorageIRI::getScheme() const noexcept { return rep().scheme; }
std::u16string const& StorageIRI::getAuthority() const noexcept { return rep().authority; }
bool StorageIRI::hasPath() const noexcept { return rep().hasPath; }
std::u16string const& StorageIRI::getPath() const noexcept { return rep().path; }
bool StorageIRI::hasInnerIRI() const noexcept { return rep().inner != nullptr; }
std::size_t StorageIRI::hashValue() const noexcept { return rep().hash; }

std::u16string StorageIRI::getResolvedPath() const {
  if (!hasPath()) return {};
  std::vector<std::u16string_view> kept;
  for (auto segment : segmentsOf(getPath())) {
    if (segment == u".") continue;
    if (segment == u"..") {
      if (!kept.empty()) kept.pop_back();
      continue;
    }
    kept.push_back(segment);
  }
  if (kept.empty()) return u"/";
  std::u16string resolved;
  for (auto segment : kept) {
    resolved += u'/';
    resolved += segment;
  }
  return resolved;
}

std::u16string StorageIRI::getName() const {
  auto const& path = getPath();
  if (path.size() <= 1) return {};
  return path.substr(path.rfind(u'/') + 1);
}

bool StorageIRI::hasParent() const noexcept { return getPath().size() > 1; }

StorageIRI StorageIRI::getParent() const {
  if (!hasParent()) invalid(*this, u"iri.getParent", "the location has no parent");
  auto parent = std::make_shared<Rep>(rep());
  std::size_t slash = parent->path.rfind(u'/');
  parent->path.resize(slash == 0 ? 1 : slash);
  iri::seal(*parent);
  return StorageIRI(std::move(parent));
}

bool StorageIRI::hasSameRoot(StorageIRI const& other) const noexcept {
  Rep const& a = rep();
  Rep const& b = other.rep();
  if (a.scheme != b.scheme || a.authority != b.authority) return false;
  if (a.inner == b.inner) return true;
  return a.inner && b.inner && equalReps(*a.inner, *b.inner);
}

bool StorageIRI::isAncestorOf(StorageIRI const& other) const noexcept {
  if (!hasPath() || !other.hasPath() || !hasSameRoot(other)) return false;
  auto const& mine = getPath();
  auto const& theirs = other.getPath();
  if (mine == u"/") return theirs.size() > 1;
  return theirs.size() > mine.size() && theirs.starts_with(mine) && theirs[mine.size()] == u'/';
}

std::u16string StorageIRI::makePathRelativeTo(StorageIRI const& base) const {
  if (!hasPath() || !base.hasPath() || !hasSameRoot(base))
    invalid(*this, u"iri.makePathRelativeTo", "not under the same root as " + base.toIRI());
  auto mine = segmentsOf(getPath());
  auto theirs = segmentsOf(base.getPath());
  std::size_t common = 0;
  while (common < mine.size() && common < theirs.size() && mine[common] == theirs[common]) ++common;
  std::u16string relative;
  for (std::size_t i = common; i < theirs.size(); ++i) relative += relative.empty() ? u".." : u"/..";
  for (std::size_t i = common; i < mine.size(); ++i) {
    if (!relative.empty()) relative += u'/';
    relative += mine[i];
  }
  return relative;
}

StorageIRI StorageIRI::withPath(std::u16string const& path) const {
  if (!path.empty() && path[0] != u'/') invalid(*this, u"iri.withPath", "a path must start with '/'");
  auto rep = std::make_shared<Rep>(this->rep());
  rep->hasPath = !path.empty();
  rep->path.clear();
  if (rep->hasPath) iri::appendNames(rep->path, path);
  iri::seal(*rep);
  return StorageIRI(std::move(rep));
}

StorageIRI StorageIRI::getInnerIRI() const {
  if (!hasInnerIRI()) invalid(*this, u"iri.getInnerIRI", "the location is not nested");
  return StorageIRI(rep().inner);
}

std::u16string StorageIRI::toString() const {
  if (empty()) return {};
  std::u16string text;
  iri::print(rep(), false, text);
  return text;
}

std::string StorageIRI::toIRI() const { return fl::i18n::to_utf8(toString()); }

std::string StorageIRI::toAsciiString() const {
  if (empty()) return {};
  std::u16string text;
  iri::print(rep(), true, text);
  return std::string(text.begin(), text.end()); // every unit is ASCII here
}

bool operator==(StorageIRI const& a, StorageIRI const& b) noexcept { return equalReps(a.rep(), b.rep()); }

bool operator<(StorageIRI const& a, StorageIRI const& b) noexcept { return compareReps(a.rep(), b.rep()) < 0; }

std::size_t hash_value(StorageIRI const& iri) noexcept { return iri.hashValue(); }

std::ostream& operator<<(std::ostream& os, StorageIRI const& iri) { return os << iri.toIRI(); }

} // namespace foundation::storage::provider
