#include "core/entry_deletion_visitor.hpp"

#include <vfs/entries.hpp>

namespace foundation::storage::vfs::detail {

EntryDeletionVisitor::EntryDeletionVisitor(Folder root, std::set<AbsoluteIRI> const* kept)
    : root_(std::move(root)), kept_(kept) {}

EntryDeletionVisitor::~EntryDeletionVisitor() = default;

FolderVisitResult EntryDeletionVisitor::visitEntryBefore(FolderEntry const& entry) {
  // Listings report a link by its target's kind; the attributes tell it is a link (for
  // listed entries they came with the listing, where the provider lists them).
  bool link = false;
  try {
    link = entry.getAttributes().isSymlink();
  } catch (Exception const& failure) {
    // Asked for now, they may find the folder gone meanwhile: nothing left to remove. Only
    // the folder asked to be removed must have been there.
    if (failure.getErrorCode() != ErrorCode::ResourceNotFound || isRoot(entry.getFolder())) throw;
    return FolderVisitResult::Skip;
  }
  if (!link) {
    holdsKept_.push_back(false);
    return FolderVisitResult::Continue;
  }
  Folder const& linked = entry.getFolder();
  // As with the providers' own recursive removal, a root that is a link is no folder to
  // remove.
  if (isRoot(linked)) throw Exception(ErrorCode::ResourceNotFound, linked.getLocation());
  visit(File(linked.getParent(), linked.getName()));
  return FolderVisitResult::Skip;
}

FolderVisitResult EntryDeletionVisitor::visit(File const& file) {
  if (kept_ && kept_->contains(file.getLocation())) {
    holdsKept_.back() = true;
    return FolderVisitResult::Continue;
  }
  try {
    file.removeFile();
  } catch (Exception const& failure) {
    if (failure.getErrorCode() != ErrorCode::ResourceNotFound) throw; // gone already
  }
  return FolderVisitResult::Continue;
}

FolderVisitResult EntryDeletionVisitor::visitAfter(Folder const& folder) {
  bool const holdsKept = holdsKept_.back();
  holdsKept_.pop_back();
  if (holdsKept) {
    if (!holdsKept_.empty()) holdsKept_.back() = true; // and so does its parent
    return FolderVisitResult::Continue;
  }
  try {
    folder.removeFolder(FolderRemovalPolicy::NonRecursive);
  } catch (Exception const& failure) {
    // Only the folder asked to be removed must have been there.
    if (failure.getErrorCode() != ErrorCode::ResourceNotFound || isRoot(folder)) throw;
  }
  return FolderVisitResult::Continue;
}

} // namespace foundation::storage::vfs::detail
