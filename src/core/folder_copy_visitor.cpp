#include "core/folder_copy_visitor.hpp"

namespace foundation::storage::vfs::detail {

namespace {

using Policy = provider::ReplacementPolicy;

} // namespace

FolderCopyVisitor::FolderCopyVisitor(Folder destinationRoot, Policy policy)
    : destinationRoot_(std::move(destinationRoot)), policy_(policy) {}

FolderCopyVisitor::~FolderCopyVisitor() = default;

FolderVisitResult FolderCopyVisitor::visitBefore(Folder const& folder) {
  // The walked root maps onto the destination root, every other folder onto its namesake.
  Folder const target = currentDestination_ ? Folder(*currentDestination_, folder.getName()) : destinationRoot_;
  bool create = true;
  if (target.folderExists()) {
    if (policy_ == Policy::FailIfExists) throw Exception(ErrorCode::ResourceAlreadyExists, target.getLocation());
    create = false; // the other policies copy into the existing folder...
    if (policy_ == Policy::Overwrite) {
      // ...except Overwrite, which replaces it, as far as that loses nothing: an empty folder
      // is made anew, one with contents is kept (and its files with it, as Overwrite skips
      // existing files).
      try {
        target.removeFolder(FolderRemovalPolicy::NonRecursive);
        create = true;
      } catch (Exception const& failure) {
        if (failure.getErrorCode() != ErrorCode::FolderNotEmpty) throw;
      }
    }
  }
  if (create) {
    try {
      target.createFolder();
    } catch (Exception const& failure) {
      // A folder this destination cannot hold fails the copy only if no file follows it.
      if (failure.getErrorCode() != ErrorCode::UnsupportedOperation && failure.getErrorCode() != ErrorCode::InvalidLocation)
        throw;
      deferredFolderFailure_ = failure;
    }
  }
  currentDestination_ = target;
  createdLevels_.push_back(create && !deferredFolderFailure_);
  return FolderVisitResult::Continue;
}

FolderVisitResult FolderCopyVisitor::visit(File const& file) {
  deferredFolderFailure_.reset();
  File const target(currentOrRoot(), file.getName());
  // Only the two overwriting policies of the library's own replace an existing file. A
  // folder this copy has just created holds none: no need to ask.
  bool const createdHere = !createdLevels_.empty() && createdLevels_.back();
  if (policy_ != Policy::ForceOverwrite && policy_ != Policy::OverwriteDeferringPermissionErrors && !createdHere &&
      target.fileExists())
    return FolderVisitResult::Continue;
  try {
    file.copyFile(target, policy_);
  } catch (Exception const& failure) {
    ErrorCode const code = failure.getErrorCode();
    if (policy_ == Policy::OverwriteDeferringPermissionErrors && code == ErrorCode::PermissionDenied) {
      deferredFileFailure_ = failure;
    } else if (code != ErrorCode::ResourceNotFound && code != ErrorCode::InvalidLocation) {
      throw; // a file that vanished or cannot be named here is skipped
    }
  }
  return FolderVisitResult::Continue;
}

FolderVisitResult FolderCopyVisitor::visitAfter(Folder const& folder) {
  if (deferredFolderFailure_) throw *deferredFolderFailure_;
  if (!currentDestination_) return FolderVisitResult::Continue;
  if (!createdLevels_.empty()) createdLevels_.pop_back();
  Folder const done = *currentDestination_;
  if (done != destinationRoot_) currentDestination_ = done.getParent();
  if (done.getLocation().getScheme() == folder.getLocation().getScheme()) {
    try {
      done.setLastModified(folder.getAttributes().getLastModified());
    } catch (Exception const& failure) {
      // A folder that vanished on either side has no time to carry over; its siblings are
      // still to be copied.
      if (failure.getErrorCode() != ErrorCode::ResourceNotFound) throw;
    }
  }
  return FolderVisitResult::Continue;
}

} // namespace foundation::storage::vfs::detail
