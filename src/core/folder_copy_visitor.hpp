#pragma once

// Copies a walked tree onto a destination folder, one folder and one file at a time.

#include <vfs/walk.hpp>

#include <boost/optional.hpp>

#include <set>

namespace foundation::storage::vfs::detail {

class FolderCopyVisitor final : public FolderVisitor {
public:
  FolderCopyVisitor(Folder destinationRoot, provider::ReplacementPolicy policy);
  ~FolderCopyVisitor() override;

  /// Makes the walked folder's counterpart the current destination.
  FolderVisitResult visitBefore(Folder const& folder) override;
  FolderVisitResult visit(File const& file) override;
  /// Carries the folder's modification time over and returns to the parent destination.
  FolderVisitResult visitAfter(Folder const& folder) override;

  /// The latest file refused for lack of permission under OverwriteDeferringPermissionErrors.
  boost::optional<Exception> const& deferredFileFailure() const noexcept { return deferredFileFailure_; }
  /// The walked files that were not copied: their destination was kept, or they were
  /// skipped as vanished or as names the destination cannot hold.
  std::set<AbsoluteIRI> const& notCopied() const noexcept { return notCopied_; }

private:
  Folder currentOrRoot() const { return currentDestination_ ? *currentDestination_ : destinationRoot_; }

  boost::optional<Exception> deferredFolderFailure_;
  boost::optional<Exception> deferredFileFailure_;
  Folder destinationRoot_;
  boost::optional<Folder> currentDestination_;
  provider::ReplacementPolicy policy_;
  std::set<AbsoluteIRI> notCopied_;
};

} // namespace foundation::storage::vfs::detail
