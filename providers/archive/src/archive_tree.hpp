#pragma once

// The folder tree of one archive: entries as they were read, and the changes made since.

#include "spilled_content.hpp"

#include <foundation/storage/providers/common/name_tree.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace foundation::storage::providers::archive::detail {

namespace p = foundation::storage::provider;

/// Where an entry's data lies in the archive as read: the format's entry number, the
/// offset of its data in the archive file (when it can be read in place) and its declared
/// size.
struct EntryRef {
  std::uint64_t index = 0;
  std::optional<std::uint64_t> dataOffset;
  std::uint64_t size = 0;
};

/// One entry as a format reports it; `name` is the path as UTF-8 (raw bytes when the format
/// could not decode it, which the tree then skips).
struct RawEntry {
  std::string name;
  bool folder = false;
  bool symlink = false;
  std::string linkTarget; ///< a symbolic link's target, as stored
  bool writable = true;
  boost::posix_time::ptime modified;
  EntryRef ref;
  std::uint32_t mode = 0; ///< POSIX permission bits; 0 when the archive has none
  /// Why the entry cannot be shown (a device, a link to nothing, damage); empty when it can.
  std::string problem;
};

/// A file or folder of the archive: `name`, `folder`, `symlink`, `writable`, `modified` and
/// `children` (by name: archives compare names exactly) come from the shared tree node.
struct Node : common::TreeNode<Node, std::unique_ptr<Node>> {
  std::string linkTarget; ///< a symbolic link's target, as stored (UTF-8)
  /// The file's data in the archive as read, unless `content` replaced it.
  std::optional<EntryRef> entry;
  /// The archive's entry this node was read from (files and folders with an entry).
  std::optional<std::uint64_t> index;
  /// Moved since it was read: its entry, and those below it, take their new names.
  bool moved = false;
  std::shared_ptr<Content> content;
  std::uint32_t mode = 0;
  /// A folder with an entry of its own (or made here), not only implied by entry paths.
  bool explicitEntry = false;
  /// Where the entry first appears in the archive; listings follow it, so that a walk reads
  /// an archive front to back. Nodes made here come last.
  std::uint64_t position = UINT64_MAX;

  std::uint64_t size() const { return content ? content->size() : entry ? entry->size : 0; }
};

using Segments = common::Names;
using common::pathOf;

/// An entry that was not put in the tree, and why. `name` shows bytes that are not UTF-8
/// as \xHH.
struct SkippedEntry {
  std::string name;
  std::string reason;
};

/// What a symbolic link at `path` leads to inside the archive, following further links.
enum class LinkEnd { File, Folder, Nothing };

/// The tree of an archive. Not synchronised: its archive's lock guards it.
class Tree {
public:
  Tree();
  /// Builds the tree from entries in archive order; bad names are skipped (see SkippedEntry).
  explicit Tree(std::vector<RawEntry> const& entries);

  Node& root() { return *root_; }
  Node const& root() const { return *root_; }
  Node* find(Segments const& path) const;
  /// The folder that holds `path`, when it exists and is a folder.
  Node* findParent(Segments const& path) const;
  std::vector<SkippedEntry> const& skipped() const { return skipped_; }
  /// The entries read into nodes (`Node::index`), in archive order; the others were skipped.
  std::vector<std::uint64_t> const& placed() const { return placed_; }
  /// Why the entry at `path` was skipped, when it was.
  std::optional<std::string> whySkipped(Segments const& path) const;
  /// The number of files and folders below the root.
  std::uint64_t count() const;
  /// Where the link at `path` ends. Targets are resolved inside the archive only: an
  /// absolute one, one that climbs out or a loop ends nowhere.
  LinkEnd resolveLink(Segments const& path) const;

private:
  void add(RawEntry const& entry);

  std::unique_ptr<Node> root_;
  std::vector<SkippedEntry> skipped_;
  std::vector<std::uint64_t> placed_;
  std::uint64_t added_ = 0;
};

/// Why a new entry cannot be named `path`: a name that reading the archive back would
/// skip, or one longer than an entry header holds. None when it can.
std::optional<std::string> refusedName(Segments const& path);
/// The children of `folder` in archive order (see Node::position).
std::vector<Node const*> inArchiveOrder(Node const& folder);

} // namespace foundation::storage::providers::archive::detail
