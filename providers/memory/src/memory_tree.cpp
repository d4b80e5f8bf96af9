#include "memory_tree.hpp"

#include <fl/i18n/i18n.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

namespace foundation::storage::providers::memory::detail {

void refuse(p::ErrorCode code, p::StorageIRI const& location, char16_t const* op, std::string message) {
  p::fail(code, location, std::u16string(u"memory.") + op, std::move(message));
}

Node::Node(bool folder, std::u16string n) : isFolder(folder), name(std::move(n)), modified(Tree::now()) {}

Node::~Node() {
  std::vector<NodePtr> orphans;
  auto adopt = [&orphans](Node& node) {
    for (auto& [k, child] : node.children)
      if (child.use_count() == 1) orphans.push_back(std::move(child)); // the last owner: destroyed here
    node.children.clear();
  };
  adopt(*this);
  while (!orphans.empty()) {
    NodePtr node = std::move(orphans.back());
    orphans.pop_back();
    adopt(*node);
  }
}

Tree::Tree(std::u16string s, std::u16string a, p::FilenameSensitivity sens)
    : scheme(std::move(s)), authority(std::move(a)), sensitivity(sens), root(std::make_shared<Node>(true, u"")) {}

boost::posix_time::ptime Tree::now() { return boost::posix_time::microsec_clock::universal_time(); }

std::u16string Tree::key(std::u16string_view name) const {
  return sensitivity == p::FilenameSensitivity::CaseInsensitive ? fl::i18n::fold_case(name) : std::u16string(name);
}

bool Tree::serves(p::StorageIRI const& location) const noexcept {
  return location.getScheme() == scheme && location.getAuthority() == authority && !location.hasInnerIRI() &&
         location.hasPath();
}

Names Tree::namesOf(p::StorageIRI const& location, char16_t const* op) const {
  if (!serves(location)) refuse(p::ErrorCode::InvalidLocation, location, op, "not a location of this memory provider");
  Names names;
  std::u16string const path = location.getResolvedPath();
  std::size_t start = 1;
  while (start < path.size()) {
    std::size_t end = path.find(u'/', start);
    if (end == path.npos) end = path.size();
    names.emplace_back(path.substr(start, end - start));
    start = end + 1;
  }
  return names;
}

NodePtr Tree::find(Names const& names) const {
  NodePtr node = root;
  for (auto const& name : names) {
    if (!node->isFolder) return nullptr;
    auto it = node->children.find(key(name));
    if (it == node->children.end()) return nullptr;
    node = it->second;
  }
  return node;
}

NodePtr Tree::findParent(Names const& names) const {
  if (names.empty()) return nullptr;
  NodePtr parent = find(Names(names.begin(), names.end() - 1));
  return parent && parent->isFolder ? parent : nullptr;
}

p::StorageIRI Tree::canonical(Names const& names) const {
  std::u16string path;
  Node const* node = root.get();
  for (auto const& name : names) {
    Node const* child = nullptr;
    if (node && node->isFolder) {
      auto it = node->children.find(key(name));
      if (it != node->children.end()) child = it->second.get();
    }
    path += u'/';
    path += child ? child->name : name;
    node = child;
  }
  p::StorageIRI rootIRI(scheme + u"://" + authority + u"/");
  return p::StorageIRI(rootIRI, path);
}

std::u16string Tree::pathKey(p::StorageIRI const& location) const {
  return key(location.getResolvedPath());
}

void Tree::account(Node const& file, std::uint64_t oldSize, std::uint64_t newSize, p::StorageIRI const& location) {
  if (newSize > maxFileSize)
    refuse(p::ErrorCode::FileTooLarge, location, u"write", "beyond the largest file size of " + std::to_string(maxFileSize));
  if (!file.attached) return;
  if (newSize > oldSize && newSize - oldSize > capacity - std::min(capacity, used))
    refuse(p::ErrorCode::NoSpaceLeft, location, u"write", "the memory provider's capacity is used up");
  used = used - oldSize + newSize;
}

void Tree::resize(Node& file, std::uint64_t newSize, p::StorageIRI const& location) {
  account(file, file.content->size(), newSize, location);
  file.content->resize(newSize);
}

void Tree::detach(Node& top, p::StorageIRI const& location, std::vector<Change>* changes) {
  struct Level {
    Node* node;
    p::StorageIRI location;
    std::map<std::u16string, NodePtr>::iterator next;
  };
  std::vector<Level> stack{{&top, location, top.children.begin()}};
  while (!stack.empty()) {
    Level& level = stack.back();
    if (level.next != level.node->children.end()) {
      Node& child = *(level.next++)->second;
      p::StorageIRI childLocation = changes ? p::StorageIRI(level.location, child.name) : p::StorageIRI();
      stack.push_back({&child, std::move(childLocation), child.children.begin()});
      continue;
    }
    Node& node = *level.node;
    if (!node.isFolder && node.attached) used -= node.content->size();
    node.attached = false;
    if (changes)
      changes->push_back({events::Kind::Removed, std::move(level.location),
                          node.isFolder ? events::EntryType::Folder : events::EntryType::File, {}});
    stack.pop_back();
  }
}

void Tree::deliverPending() {
  changeQueue.deliverPending([this](Change const& change) {
    watches.notify(change, [this](p::StorageIRI const& location) { return pathKey(location); });
  });
}

WriteScope::WriteScope(Tree& tree) : tree_(tree), lock_(tree.mutex), watched(!tree.watches.empty()) {}

WriteScope::~WriteScope() {
  bool const report = watched && !changes.empty();
  if (report) {
    try {
      tree_.changeQueue.enqueue(std::move(changes));
    } catch (...) {
      // Out of memory for the report: the change itself stands.
    }
  }
  lock_.unlock();
  if (report) tree_.deliverPending();
}

void Watches::add(std::u16string key, p::StorageIRI location, bool folder, bool recursive,
                  std::vector<events::Kind> kinds, p::ChangeCallback callback) {
  std::lock_guard lock(mutex_);
  (folder ? folders_ : files_)[std::move(key)] =
      Watch{std::move(location), folder, recursive, std::move(kinds), std::move(callback)};
}

void Watches::remove(std::u16string const& key, bool folder) {
  std::lock_guard lock(mutex_);
  (folder ? folders_ : files_).erase(key);
}

bool Watches::empty() const {
  std::lock_guard lock(mutex_);
  return files_.empty() && folders_.empty();
}

void Watches::clear() {
  std::lock_guard lock(mutex_);
  files_.clear();
  folders_.clear();
}

bool Watches::covers(std::u16string const& watchKey, Watch const& w, std::u16string const& itemKey) {
  if (itemKey == watchKey) return true;
  std::u16string const prefix = watchKey == u"/" ? watchKey : watchKey + u"/";
  if (!itemKey.starts_with(prefix) || itemKey.size() == prefix.size()) return false;
  return w.recursive || itemKey.find(u'/', prefix.size()) == std::u16string::npos;
}

} // namespace foundation::storage::providers::memory::detail
