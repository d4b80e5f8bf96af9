#pragma once

// The kernel's node numbers and the locations they stand for. A node is known by its parent
// and its name, so renaming a folder moves everything below it at once. A node lives while
// the kernel holds references to it (lookups not yet forgotten) or a child of it does.

#include <vfs/absolute_iri.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <utility>

namespace vfs_tool::mount {

namespace vfs = foundation::storage::vfs;

using NodeId = std::uint64_t;

enum class NodeKind { File, Folder };

class InodeTable {
public:
  /// The root folder, node 1 (the kernel's root number), never forgotten.
  static constexpr NodeId Root = 1;

  explicit InodeTable(vfs::AbsoluteIRI root);

  /// Where the node is now; nothing for a node removed, replaced or never known.
  std::optional<vfs::AbsoluteIRI> location(NodeId node) const;
  /// The location of `name` in the folder `parent`; nothing when the parent is unknown.
  std::optional<vfs::AbsoluteIRI> childLocation(NodeId parent, std::string const& name) const;
  std::optional<NodeKind> kind(NodeId node) const;
  /// The kind last seen of `name` in `parent`, if the kernel holds its node.
  std::optional<NodeKind> childKind(NodeId parent, std::string const& name) const;
  /// The node of `name` in `parent`, made when new, with one more kernel reference.
  NodeId remember(NodeId parent, std::string const& name, NodeKind kind);
  /// Drops `count` kernel references; the node goes when none are left.
  void forget(NodeId node, std::uint64_t count);
  /// `name` in `parent` is gone: its node, if any, keeps living for the kernel but has no
  /// location any more.
  void removed(NodeId parent, std::string const& name);
  /// `name` moved from `parent` to `newName` in `newParent`, replacing what was there.
  void renamed(NodeId parent, std::string const& name, NodeId newParent, std::string const& newName);
  /// Nodes alive, the root included.
  std::size_t size() const;

private:
  struct Node {
    NodeId parent; ///< 0 once detached
    std::string name;
    NodeKind kind;
    std::uint64_t lookups;
    std::uint64_t children;
  };
  using Key = std::pair<NodeId, std::string>;

  std::optional<vfs::AbsoluteIRI> locationLocked(NodeId node, std::string const* childName) const;
  void detachLocked(NodeId node);
  void eraseUnreferencedLocked(NodeId node);

  vfs::AbsoluteIRI root_;
  mutable std::shared_mutex mutex_;
  std::unordered_map<NodeId, Node> nodes_;
  std::map<Key, NodeId> byName_;
  NodeId next_ = Root + 1;
};

} // namespace vfs_tool::mount
