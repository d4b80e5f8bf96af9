#include "memory_tree.hpp"

#include <fl/i18n/i18n.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

namespace foundation::storage::providers::memory::detail {

std::u16string contextKey(std::u16string_view what) {
  std::u16string key = u"memory.";
  key += what;
  return key;
}

void refuse(p::ErrorCode code, p::StorageIRI const& location, std::u16string_view what, std::string message) {
  p::fail(code, location, contextKey(what), std::move(message));
}

void refuse(p::ErrorCode code, p::StorageIRI const& location, p::Operation op, std::string message) {
  refuse(code, location, fl::i18n::to_ustring(std::string_view(p::toString(op))), std::move(message));
}

Node::Node(bool isFolder, std::u16string n) {
  folder = isFolder;
  name = std::move(n);
  modified = Tree::now();
}

Tree::Tree(std::u16string s, std::u16string a, p::FilenameSensitivity sensitivity)
    : scheme(std::move(s)), authority(std::move(a)), names(sensitivity), root(std::make_shared<Node>(true, u"")),
      subscriptions([this](p::StorageIRI const& location) { return key(location.getResolvedPath()); }) {}

boost::posix_time::ptime Tree::now() { return boost::posix_time::microsec_clock::universal_time(); }

bool Tree::serves(p::StorageIRI const& location) const noexcept {
  return location.getScheme() == scheme && location.getAuthority() == authority && !location.hasInnerIRI() &&
         location.hasPath();
}

Names Tree::namesOf(p::StorageIRI const& location, p::Operation op) const {
  if (!serves(location)) refuse(p::ErrorCode::InvalidLocation, location, op, "not a location of this memory provider");
  return common::namesOf(location.getResolvedPath());
}

NodePtr Tree::find(Names const& path) const {
  Node* node = common::findNode(*root, path, names);
  return node ? node->shared_from_this() : nullptr;
}

NodePtr Tree::findParent(Names const& path) const {
  Node* parent = common::findParentNode(*root, path, names);
  return parent ? parent->shared_from_this() : nullptr;
}

p::StorageIRI Tree::canonical(Names const& path) const {
  std::u16string stored;
  Node const* node = root.get();
  for (auto const& name : path) {
    Node const* child = node && node->folder ? common::childOf(*node, name, names) : nullptr;
    stored += u'/';
    stored += child ? child->name : name;
    node = child;
  }
  p::StorageIRI rootIRI(scheme + u"://" + authority + u"/");
  return p::StorageIRI(rootIRI, stored);
}

void Tree::account(Node const& file, std::uint64_t oldSize, std::uint64_t newSize, p::StorageIRI const& location) {
  if (newSize > maxFileSize)
    refuse(p::ErrorCode::FileTooLarge, location, u"write",
           "beyond the largest file size of " + std::to_string(maxFileSize));
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
    Node::Children::iterator next;
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
    if (!node.folder && node.attached) used -= node.content->size();
    node.attached = false;
    if (changes)
      changes->push_back({events::Kind::Removed, std::move(level.location),
                          node.folder ? events::EntryType::Folder : events::EntryType::File});
    stack.pop_back();
  }
}

WriteScope::WriteScope(Tree& tree) : tree_(tree), lock_(tree.mutex), watched(tree.subscriptions.any()) {}

WriteScope::~WriteScope() {
  bool const report = watched && !changes.empty();
  if (report) {
    try {
      tree_.subscriptions.enqueue(std::move(changes));
    } catch (...) {
      // Out of memory for the report: the change itself stands.
    }
  }
  lock_.unlock();
  if (report) tree_.subscriptions.deliverPending();
}

} // namespace foundation::storage::providers::memory::detail
