#pragma once

// The in-memory folder tree of the memory and archive providers: nodes found by names
// under one case rule, and the depth-first listing both take under their lock.

#include <foundation/storage/provider/folder_entry.hpp>
#include <foundation/storage/provider/provider_base.hpp>
#include <foundation/storage/provider/wildcard.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace foundation::storage::providers::common {

namespace p = foundation::storage::provider;

/// The names of a path, root first.
using Names = std::vector<std::u16string>;

/// The names of a resolved path: "/a/b" gives {"a", "b"}, "/" none.
Names namesOf(std::u16string_view path);
/// "/a/b" from {"a", "b"}; "/" for none.
std::u16string pathOf(Names const& names);
/// Dot names are hidden, as on POSIX systems.
bool isHiddenName(std::u16string_view name) noexcept;

/// How names compare: exactly, or ignoring letter case (then a name's key is its folding).
class NameRule {
public:
  explicit constexpr NameRule(p::FilenameSensitivity sensitivity) noexcept : sensitivity_(sensitivity) {}
  p::FilenameSensitivity sensitivity() const noexcept { return sensitivity_; }
  bool folds() const noexcept { return sensitivity_ == p::FilenameSensitivity::CaseInsensitive; }
  /// The key under which a folder holds the child `name`.
  std::u16string key(std::u16string_view name) const;

private:
  p::FilenameSensitivity sensitivity_;
};

/// What every node of such a tree holds. `Node` derives from it; `Owner` holds a child
/// (std::shared_ptr where open streams keep a removed file, std::unique_ptr otherwise).
template <class Node, class Owner>
struct TreeNode {
  using Children = std::map<std::u16string, Owner>;

  std::u16string name; ///< as created (letter case kept)
  bool folder = false;
  bool symlink = false;
  bool writable = true;
  boost::posix_time::ptime modified;
  Children children; ///< by NameRule key

  TreeNode() = default;
  TreeNode(TreeNode const&) = delete;
  TreeNode& operator=(TreeNode const&) = delete;
  /// Takes a subtree apart level by level: a chain thousands deep must not recurse.
  ~TreeNode();
};

/// The child `name` of `folder`; null when there is none.
template <class Node>
Node* childOf(Node const& folder, std::u16string const& name, NameRule const& rule) {
  auto const found = rule.folds() ? folder.children.find(rule.key(name)) : folder.children.find(name);
  return found == folder.children.end() ? nullptr : &*found->second;
}

/// The node at `names` below `root`; null when missing or when the path passes through a file.
template <class Node>
Node* findNode(Node& root, Names const& names, NameRule const& rule) {
  Node* node = &root;
  for (auto const& name : names) {
    if (!node->folder) return nullptr;
    node = childOf(*node, name, rule);
    if (!node) return nullptr;
  }
  return node;
}

/// The folder holding the last of `names`; null for none, when missing or a file.
template <class Node>
Node* findParentNode(Node& root, Names const& names, NameRule const& rule) {
  if (names.empty()) return nullptr;
  Node* parent = findNode(root, Names(names.begin(), names.end() - 1), rule);
  return parent && parent->folder ? parent : nullptr;
}

/// Whether `top` and every folder below it may lose children (an all-or-nothing removal).
template <class Node>
bool everyFolderWritable(Node const& top) {
  for (std::vector<Node const*> pending{&top}; !pending.empty();) {
    Node const& node = *pending.back();
    pending.pop_back();
    if (!node.writable) return false;
    for (auto const& [key, child] : node.children)
      if (child->folder) pending.push_back(&*child);
  }
  return true;
}

template <class Node>
p::FileAttributes fileAttributesOf(Node const& node) {
  return p::FileAttributes(node.size(), node.modified, node.writable, isHiddenName(node.name), node.symlink);
}

template <class Node>
p::FolderAttributes folderAttributesOf(Node const& node) {
  return p::FolderAttributes(node.modified, node.writable, isHiddenName(node.name), false);
}

/// A folder's children in key order, the order of its map.
template <class Node>
std::vector<Node const*> inKeyOrder(Node const& folder) {
  std::vector<Node const*> children;
  children.reserve(folder.children.size());
  for (auto const& [key, child] : folder.children) children.push_back(&*child);
  return children;
}

/// The snapshot `request` asks of `folder`: the kinds asked, the names its pattern matches,
/// attributes when asked; when recursive, every item below, depth first, each folder right
/// before its contents, named by its path relative to `folder`. `order(folder)` gives the
/// children of a folder in listing order. Depth costs heap, not call stack.
template <class Node, class Order>
std::vector<p::FolderEntry> listTree(Node const& folder, p::ListingRequest const& request, Order order) {
  struct Level {
    std::vector<Node const*> children;
    std::u16string prefix;
    std::size_t next = 0;
  };
  std::vector<p::FolderEntry> out;
  std::vector<Level> stack;
  stack.push_back({order(folder), u""});
  while (!stack.empty()) {
    Level& level = stack.back();
    if (level.next == level.children.size()) {
      stack.pop_back();
      continue;
    }
    Node const& child = *level.children[level.next++];
    std::u16string name = level.prefix.empty() ? child.name : level.prefix + u"/" + child.name;
    bool const kindWanted =
        request.kinds == p::EntryKinds::All || (request.kinds == p::EntryKinds::Files) == !child.folder;
    if (kindWanted && (request.pattern.empty() || p::matchesWildcard(request.pattern, child.name))) {
      if (!request.withAttributes)
        out.emplace_back(name, !child.folder);
      else if (child.folder)
        out.emplace_back(name, folderAttributesOf(child));
      else
        out.emplace_back(name, fileAttributesOf(child));
    }
    if (request.recursive && child.folder) stack.push_back({order(child), std::move(name)});
  }
  return out;
}

namespace detail {
template <class Owner>
bool soleOwner(Owner const& owner) noexcept {
  if constexpr (requires { owner.use_count(); })
    return owner.use_count() == 1;
  else
    return true;
}
} // namespace detail

template <class Node, class Owner>
TreeNode<Node, Owner>::~TreeNode() {
  // A child someone else still holds (an open stream's file) lives on with its own subtree.
  std::vector<Owner> orphans;
  auto const adopt = [&orphans](Children& of) {
    for (auto& [key, child] : of)
      if (detail::soleOwner(child)) orphans.push_back(std::move(child));
    of.clear();
  };
  adopt(children);
  while (!orphans.empty()) {
    Owner node = std::move(orphans.back());
    orphans.pop_back();
    adopt(node->children);
  }
}

} // namespace foundation::storage::providers::common
