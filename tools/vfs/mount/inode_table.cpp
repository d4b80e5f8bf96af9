#include "inode_table.hpp"

#include <fl/i18n/i18n.hpp>

#include <mutex>
#include <vector>

namespace vfs_tool::mount {

InodeTable::InodeTable(vfs::AbsoluteIRI root) : root_(std::move(root)) {
  nodes_.emplace(Root, Node{0, {}, NodeKind::Folder, 1, 0});
}

std::optional<vfs::AbsoluteIRI> InodeTable::locationLocked(NodeId node, std::string const* childName) const {
  // Walks up to the root; a detached or unknown node on the way means the place is gone.
  std::vector<std::string const*> names;
  if (childName) names.push_back(childName);
  for (NodeId at = node; at != Root;) {
    auto const found = nodes_.find(at);
    if (found == nodes_.end() || found->second.parent == 0) return std::nullopt;
    names.push_back(&found->second.name);
    at = found->second.parent;
  }
  if (node == Root && !nodes_.count(Root)) return std::nullopt;
  if (names.empty()) return root_;
  std::string path;
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    if (!path.empty()) path += '/';
    path += **name;
  }
  return vfs::AbsoluteIRI(root_, fl::i18n::to_ustring(path));
}

std::optional<vfs::AbsoluteIRI> InodeTable::location(NodeId node) const {
  std::shared_lock lock(mutex_);
  return locationLocked(node, nullptr);
}

std::optional<vfs::AbsoluteIRI> InodeTable::childLocation(NodeId parent, std::string const& name) const {
  std::shared_lock lock(mutex_);
  return locationLocked(parent, &name);
}

std::optional<NodeKind> InodeTable::kind(NodeId node) const {
  std::shared_lock lock(mutex_);
  auto const found = nodes_.find(node);
  if (found == nodes_.end()) return std::nullopt;
  return found->second.kind;
}

std::optional<NodeKind> InodeTable::childKind(NodeId parent, std::string const& name) const {
  std::shared_lock lock(mutex_);
  auto const known = byName_.find({parent, name});
  if (known == byName_.end()) return std::nullopt;
  return nodes_.at(known->second).kind;
}

NodeId InodeTable::remember(NodeId parent, std::string const& name, NodeKind kind) {
  std::unique_lock lock(mutex_);
  auto const known = byName_.find({parent, name});
  if (known != byName_.end()) {
    Node& node = nodes_.at(known->second);
    node.kind = kind; // something else may stand there now
    ++node.lookups;
    return known->second;
  }
  NodeId const id = next_++;
  nodes_.emplace(id, Node{parent, name, kind, 1, 0});
  byName_.emplace(Key{parent, name}, id);
  ++nodes_.at(parent).children;
  return id;
}

void InodeTable::forget(NodeId node, std::uint64_t count) {
  std::unique_lock lock(mutex_);
  auto const found = nodes_.find(node);
  if (found == nodes_.end() || node == Root) return;
  found->second.lookups -= std::min(count, found->second.lookups);
  eraseUnreferencedLocked(node);
}

void InodeTable::eraseUnreferencedLocked(NodeId node) {
  // Erasing a child may leave its parent unreferenced too: walk up, not recurse.
  while (node != Root && node != 0) {
    auto const found = nodes_.find(node);
    if (found == nodes_.end() || found->second.lookups > 0 || found->second.children > 0) return;
    NodeId const parent = found->second.parent;
    if (parent != 0) {
      byName_.erase({parent, found->second.name});
      --nodes_.at(parent).children;
    }
    nodes_.erase(found);
    node = parent;
  }
}

void InodeTable::detachLocked(NodeId node) {
  Node& detached = nodes_.at(node);
  NodeId const parent = detached.parent;
  byName_.erase({parent, detached.name});
  --nodes_.at(parent).children;
  detached.parent = 0;
  eraseUnreferencedLocked(node);
  eraseUnreferencedLocked(parent);
}

void InodeTable::removed(NodeId parent, std::string const& name) {
  std::unique_lock lock(mutex_);
  auto const known = byName_.find({parent, name});
  if (known != byName_.end()) detachLocked(known->second);
}

void InodeTable::renamed(NodeId parent, std::string const& name, NodeId newParent, std::string const& newName) {
  std::unique_lock lock(mutex_);
  auto const moving = byName_.find({parent, name});
  if (moving == byName_.end()) {
    // The kernel never looked the source up: only what it replaced changes.
    auto const replaced = byName_.find({newParent, newName});
    if (replaced != byName_.end()) detachLocked(replaced->second);
    return;
  }
  NodeId const id = moving->second;
  if (parent == newParent && name == newName) return;
  auto const replaced = byName_.find({newParent, newName});
  // Pin the new parent: detaching what stood there must not erase it.
  ++nodes_.at(newParent).children;
  if (replaced != byName_.end()) detachLocked(replaced->second);
  byName_.erase({parent, name});
  Node& node = nodes_.at(id);
  node.parent = newParent;
  node.name = newName;
  byName_.emplace(Key{newParent, newName}, id);
  --nodes_.at(parent).children;
  eraseUnreferencedLocked(parent);
}

std::size_t InodeTable::size() const {
  std::shared_lock lock(mutex_);
  return nodes_.size();
}

} // namespace vfs_tool::mount
