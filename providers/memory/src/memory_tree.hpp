#pragma once

// The memory provider's tree: nodes, path resolution, space accounting and change
// reporting. Everything here is guarded by Tree::mutex unless said otherwise.

#include "writer_preferring_mutex.hpp"

#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/provider.hpp>
#include <foundation/storage/providers/common/change_subscriptions.hpp>
#include <foundation/storage/providers/common/name_tree.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

namespace foundation::storage::providers::memory::detail {

namespace p = foundation::storage::provider;
using common::Change;
using common::Names;

struct Node : common::TreeNode<Node, std::shared_ptr<Node>>, std::enable_shared_from_this<Node> {
  Node(bool isFolder, std::u16string n);

  bool attached = true; ///< false once removed; open streams keep working on it
  /// A file's bytes, shared like an inode: open streams keep the bytes they opened, and a
  /// commit or copy installs new ones, so a reader never sees a mix of two versions.
  std::shared_ptr<std::vector<char>> content = std::make_shared<std::vector<char>>();

  std::uint64_t size() const { return content->size(); }
};
using NodePtr = std::shared_ptr<Node>;

struct Tree {
  Tree(std::u16string scheme, std::u16string authority, p::FilenameSensitivity sensitivity);

  std::u16string const scheme;
  std::u16string const authority;
  common::NameRule const names;

  mutable WriterPreferringMutex mutex;
  NodePtr root;
  std::uint64_t used = 0;
  std::uint64_t capacity = UINT64_MAX;
  std::uint64_t maxFileSize = std::uint64_t{1} << 34;
  /// Has its own locks; see WriteScope for how changes reach it.
  common::ChangeSubscriptions subscriptions;

  /// The map key of a name: the name itself, or its case folding.
  std::u16string key(std::u16string_view name) const { return names.key(name); }
  /// Whether `location` belongs to this tree (scheme, authority, not nested, has a path).
  bool serves(p::StorageIRI const& location) const noexcept;
  /// The resolved names of a location; InvalidLocation (with the context of `op`) for a
  /// location of another tree.
  Names namesOf(p::StorageIRI const& location, p::Operation op) const;
  /// The node at `names`; null when missing or when the path passes through a file.
  NodePtr find(Names const& names) const;
  /// The folder holding the last name; null when missing or a file.
  NodePtr findParent(Names const& names) const;
  /// The location with the stored letter case of every existing node.
  p::StorageIRI canonical(Names const& names) const;
  /// Accounts for a file's contents changing from `oldSize` to `newSize` bytes; FileTooLarge
  /// or NoSpaceLeft (nothing accounted) when they cannot.
  void account(Node const& file, std::uint64_t oldSize, std::uint64_t newSize, p::StorageIRI const& location);
  /// `account`, then resizes the contents (zero-filling growth).
  void resize(Node& file, std::uint64_t newSize, p::StorageIRI const& location);
  /// Detaches a subtree and gives back its space; appends Removed changes, children first,
  /// unless `changes` is null.
  void detach(Node& node, p::StorageIRI const& location, std::vector<Change>* changes);
  static boost::posix_time::ptime now();
};

/// The tree's write lock and the changes made under it. Ending the scope queues the changes
/// while the lock is still held, so that they are delivered in the order they were made,
/// then releases the lock and delivers them. Changes are worth building only when `watched`
/// (the location of every level of a deep chain costs as much as the chain).
class WriteScope {
public:
  explicit WriteScope(Tree& tree);
  ~WriteScope();
  WriteScope(WriteScope const&) = delete;
  WriteScope& operator=(WriteScope const&) = delete;

private:
  Tree& tree_;
  std::unique_lock<WriterPreferringMutex> lock_;

public:
  bool const watched;
  std::vector<Change> changes;
  /// `&changes` when watched, else null (for Tree::detach).
  std::vector<Change>* changesIfWatched() { return watched ? &changes : nullptr; }
};

/// "memory.<what>", the context key of failures raised outside the provider's members
/// (streams, space accounting), built as the provider builds its own.
std::u16string contextKey(std::u16string_view what);
/// Throws the provider Exception with the context "memory.<what>".
[[noreturn]] void refuse(p::ErrorCode code, p::StorageIRI const& location, std::u16string_view what,
                         std::string message);
/// The same, for a failure of the provider member `op`.
[[noreturn]] void refuse(p::ErrorCode code, p::StorageIRI const& location, p::Operation op, std::string message);

} // namespace foundation::storage::providers::memory::detail
