#pragma once

// Removes a walked tree: each file when it is visited, each folder once it is empty.

#include <vfs/walk.hpp>

#include <set>
#include <vector>

namespace foundation::storage::vfs::detail {

class EntryDeletionVisitor final : public FolderVisitor {
public:
  /// Removes `root` and everything below it, except the files in `kept` (when given) and
  /// the folders holding them.
  explicit EntryDeletionVisitor(Folder root, std::set<AbsoluteIRI> const* kept = nullptr);
  ~EntryDeletionVisitor() override;

  /// A link to a folder is removed as a link: what it points to is not part of the tree.
  FolderVisitResult visitEntryBefore(FolderEntry const& entry) override;
  FolderVisitResult visit(File const& file) override;
  FolderVisitResult visitAfter(Folder const& folder) override;

private:
  bool isRoot(Folder const& folder) const { return folder.getLocation() == root_.getLocation(); }

  Folder root_;
  std::set<AbsoluteIRI> const* kept_;
  /// Per folder being walked, outermost first: whether it holds a kept file.
  std::vector<bool> holdsKept_;
};

} // namespace foundation::storage::vfs::detail
