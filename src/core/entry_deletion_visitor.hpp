#pragma once

// Removes a walked tree: each file when it is visited, each folder once it is empty.

#include <vfs/walk.hpp>

namespace foundation::storage::vfs::detail {

class EntryDeletionVisitor final : public FolderVisitor {
public:
  explicit EntryDeletionVisitor(Folder root);
  ~EntryDeletionVisitor() override;

  /// A link to a folder is removed as a link: what it points to is not part of the tree.
  FolderVisitResult visitEntryBefore(FolderEntry const& entry) override;
  FolderVisitResult visit(File const& file) override;
  FolderVisitResult visitAfter(Folder const& folder) override;

private:
  bool isRoot(Folder const& folder) const { return folder.getLocation() == root_.getLocation(); }

  Folder root_;
};

} // namespace foundation::storage::vfs::detail
