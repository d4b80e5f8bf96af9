#include "core/folder_copy_visitor.hpp"

namespace foundation::storage::vfs::detail {

namespace {

using Policy = provider::ReplacementPolicy;

/// The policy a file is copied with. Only the library's two overwriting policies replace an
/// existing file. For the others the provider's landing that never replaces is the
/// existence check: atomic, so that neither a file another writer creates meanwhile nor a
/// namesake differing in case only (on a destination that ignores case) is overwritten.
Policy landingPolicy(Policy policy) {
  bool const overwrites = policy == Policy::ForceOverwrite || policy == Policy::OverwriteDeferringPermissionErrors;
  return overwrites ? policy : Policy::KeepExisting;
}

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
      if (failure.getErrorCode() != ErrorCode::UnsupportedOperation &&
          failure.getErrorCode() != ErrorCode::InvalidLocation)
        throw;
      deferredFolderFailure_ = failure;
    }
  }
  currentDestination_ = target;
  return FolderVisitResult::Continue;
}

FolderVisitResult FolderCopyVisitor::visit(File const& file) {
  deferredFolderFailure_.reset();
  File const target(currentOrRoot(), file.getName());
  provider::CopyResult copied{};
  try {
    copied = file.copyFile(target, landingPolicy(policy_));
  } catch (Exception const& failure) {
    ErrorCode const code = failure.getErrorCode();
    if (policy_ == Policy::OverwriteDeferringPermissionErrors && code == ErrorCode::PermissionDenied) {
      deferredFileFailure_ = failure;
    } else if (code != ErrorCode::ResourceNotFound && code != ErrorCode::InvalidLocation) {
      throw; // a file that vanished or cannot be named here is skipped
    }
    notCopied_.insert(file.getLocation());
    return FolderVisitResult::Continue;
  }
  if (copied == provider::CopyResult::Skipped) {
    // An existing file is kept; a folder in its place is refused unless the policy keeps
    // whatever is there.
    if (policy_ != Policy::KeepExisting && Folder(currentOrRoot(), file.getName()).folderExists())
      throw Exception(ErrorCode::ResourceAlreadyExists, target.getLocation());
    notCopied_.insert(file.getLocation());
  }
  return FolderVisitResult::Continue;
}

FolderVisitResult FolderCopyVisitor::visitAfter(Folder const& folder) {
  if (deferredFolderFailure_) throw *deferredFolderFailure_;
  if (!currentDestination_) return FolderVisitResult::Continue;
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
