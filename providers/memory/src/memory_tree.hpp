#pragma once

// The memory provider's tree: nodes, path resolution, space accounting and change
// subscriptions. Everything here is guarded by Tree::mutex unless said otherwise.

#include "change_queue.hpp"
#include "writer_preferring_mutex.hpp"

#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/provider.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

namespace foundation::storage::providers::memory::detail {

namespace p = foundation::storage::provider;
using Names = std::vector<std::u16string>;

struct Node {
  Node(bool folder, std::u16string n);
  /// Takes a subtree apart level by level: a chain thousands deep must not recurse.
  ~Node();
  Node(Node const&) = delete;
  Node& operator=(Node const&) = delete;

  bool const isFolder;
  std::u16string name; ///< as created (letter case preserved)
  boost::posix_time::ptime modified;
  bool writable = true;
  bool attached = true; ///< false once removed; open streams keep working on it
  /// A file's bytes, shared like an inode: open streams keep the bytes they opened, and a
  /// commit or copy installs new ones, so a reader never sees a mix of two versions.
  std::shared_ptr<std::vector<char>> content = std::make_shared<std::vector<char>>();
  std::map<std::u16string, std::shared_ptr<Node>> children; ///< by key (see Tree::key)
};
using NodePtr = std::shared_ptr<Node>;

/// Native change subscriptions. Has its own lock; callbacks run without any lock held.
class Watches {
public:
  void add(std::u16string key, p::StorageIRI location, bool folder, bool recursive, std::vector<events::Kind> kinds,
           p::ChangeCallback callback);
  void remove(std::u16string const& key, bool folder);
  void clear();
  bool empty() const;
  /// Delivers the change to every matching subscription; `keyOf` gives a location's key.
  template <class KeyOf>
  void notify(Change const& change, KeyOf keyOf) const;

private:
  struct Watch {
    p::StorageIRI location;
    bool folder;
    bool recursive;
    std::vector<events::Kind> kinds;
    p::ChangeCallback callback;
  };
  static bool covers(std::u16string const& watchKey, Watch const& w, std::u16string const& itemKey);

  mutable std::mutex mutex_;
  std::map<std::u16string, Watch> files_;
  std::map<std::u16string, Watch> folders_;
};

struct Tree {
  Tree(std::u16string scheme, std::u16string authority, p::FilenameSensitivity sensitivity);

  std::u16string const scheme;
  std::u16string const authority;
  p::FilenameSensitivity const sensitivity;

  mutable WriterPreferringMutex mutex;
  NodePtr root;
  std::uint64_t used = 0;
  std::uint64_t capacity = UINT64_MAX;
  std::uint64_t maxFileSize = std::uint64_t{1} << 34;
  Watches watches;
  ChangeQueue changeQueue;

  /// The map key of a name: the name itself, or its case folding.
  std::u16string key(std::u16string_view name) const;
  /// Whether `location` belongs to this tree (scheme, authority, not nested, has a path).
  bool serves(p::StorageIRI const& location) const noexcept;
  /// The resolved names of a location; InvalidLocation for a location of another tree.
  Names namesOf(p::StorageIRI const& location, char16_t const* op) const;
  /// The node at `names`; null when missing or when the path passes through a file.
  NodePtr find(Names const& names) const;
  /// The folder holding the last name; null when missing or a file.
  NodePtr findParent(Names const& names) const;
  /// The location with the stored letter case of every existing node.
  p::StorageIRI canonical(Names const& names) const;
  /// The key of a location for change matching (resolved, folded as names are).
  std::u16string pathKey(p::StorageIRI const& location) const;
  /// Accounts for a file's contents changing from `oldSize` to `newSize` bytes; FileTooLarge
  /// or NoSpaceLeft (nothing accounted) when they cannot.
  void account(Node const& file, std::uint64_t oldSize, std::uint64_t newSize, p::StorageIRI const& location);
  /// `account`, then resizes the contents (zero-filling growth).
  void resize(Node& file, std::uint64_t newSize, p::StorageIRI const& location);
  /// Detaches a subtree and gives back its space; appends Removed changes, children first,
  /// unless `changes` is null.
  void detach(Node& node, p::StorageIRI const& location, std::vector<Change>* changes);
  /// Delivers the queued changes to the subscriptions (see ChangeQueue).
  void deliverPending();
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

/// Throws the provider Exception with the context "memory.<op>".
[[noreturn]] void refuse(p::ErrorCode code, p::StorageIRI const& location, char16_t const* op, std::string message);

template <class KeyOf>
void Watches::notify(Change const& change, KeyOf keyOf) const {
  std::vector<std::pair<p::ChangeCallback, p::StorageIRI>> targets;
  {
    std::lock_guard lock(mutex_);
    if (files_.empty() && folders_.empty()) return;
    std::u16string itemKey = keyOf(change.item);
    std::u16string fromKey;
    if (auto from = change.extra.get_optional<std::string>("renamedFrom")) fromKey = keyOf(p::StorageIRI::fromUtf8(*from));
    auto wanted = [&](Watch const& w) {
      return w.kinds.empty() || std::find(w.kinds.begin(), w.kinds.end(), change.kind) != w.kinds.end();
    };
    for (auto const& [key, w] : files_)
      if ((key == itemKey || key == fromKey) && wanted(w)) targets.emplace_back(w.callback, w.location);
    for (auto const& [key, w] : folders_)
      if ((covers(key, w, itemKey) || (!fromKey.empty() && covers(key, w, fromKey))) && wanted(w))
        targets.emplace_back(w.callback, w.location);
  }
  for (auto const& [callback, location] : targets) {
    try {
      callback(change.kind, location, change.item, change.type, change.extra);
    } catch (...) {
      // A subscriber's failure must not undo or interrupt the change that was made.
    }
  }
}

} // namespace foundation::storage::providers::memory::detail
