#include "core/entry_deletion_visitor.hpp"

#include <vfs/entries.hpp>

namespace foundation::storage::vfs::detail {

EntryDeletionVisitor::EntryDeletionVisitor(Folder root) : root_(std::move(root)) {}

EntryDeletionVisitor::~EntryDeletionVisitor() = default;

FolderVisitResult EntryDeletionVisitor::visitEntryBefore(FolderEntry const& entry) {
  // Listings report a link by its target's kind; the attributes tell it is a link (for
  // listed entries they came with the listing).
  if (!entry.getAttributes().isSymlink()) return FolderVisitResult::Continue;
  Folder const& link = entry.getFolder();
  // As with the providers' own recursive removal, a root that is a link is no folder to
  // remove.
  if (isRoot(link)) throw Exception(ErrorCode::ResourceNotFound, link.getLocation());
  visit(File(link.getParent(), link.getName()));
  return FolderVisitResult::Skip;
}

FolderVisitResult EntryDeletionVisitor::visit(File const& file) {
  try {
    file.removeFile();
  } catch (Exception const& failure) {
    if (failure.getErrorCode() != ErrorCode::ResourceNotFound) throw; // gone already
  }
  return FolderVisitResult::Continue;
}

FolderVisitResult EntryDeletionVisitor::visitAfter(Folder const& folder) {
  try {
    folder.removeFolder(FolderRemovalPolicy::NonRecursive);
  } catch (Exception const& failure) {
    // Only the folder asked to be removed must have been there.
    if (failure.getErrorCode() != ErrorCode::ResourceNotFound || isRoot(folder)) throw;
  }
  return FolderVisitResult::Continue;
}

} // namespace foundation::storage::vfs::detail
