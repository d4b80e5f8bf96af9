// Moving, copying and removing folder trees. The provider moves within its scheme; the
// library copies trees itself with a serial walk, and removes them with one where the
// provider has no recursive removal of its own.

#include <vfs/folder.hpp>
#include <vfs/walk.hpp>

#include "core/durability_batch.hpp"
#include "core/entry_deletion_visitor.hpp"
#include "core/folder_copy_visitor.hpp"
#include "errors/guard.hpp"

namespace foundation::storage::vfs {

namespace {

using Policy = provider::ReplacementPolicy;
using provider::ErrorCode;

/// Whether a provider's refusal of a folder move leaves the move to copying and removing.
bool copyInstead(provider::Exception const& failure, Policy policy) {
  ErrorCode const code = failure.getErrorCode();
  if (code == ErrorCode::UnsupportedOperation) return true;
  // The policies that keep or merge into an existing destination, where the provider only
  // replaces or refuses.
  bool const merging = policy == Policy::ForceOverwrite || policy == Policy::OverwriteDeferringPermissionErrors ||
                       policy == Policy::KeepExisting;
  return merging && (code == ErrorCode::PermissionDenied || code == ErrorCode::FolderNotEmpty ||
                     code == ErrorCode::ResourceAlreadyExists);
}

} // namespace

void Folder::moveFolder(Folder const& destination, Policy const& policy) const {
  if (item_.getScheme() == destination.item_.getScheme()) {
    try {
      item_.moveFolder(destination.item_.getLocation(), policy);
      return;
    } catch (provider::Exception const& failure) {
      if (!copyInstead(failure, policy)) handleException();
    } catch (...) {
      handleException();
    }
  }
  // The source goes only once everything was copied: a failed copy leaves it whole.
  copyFolder(destination, policy);
  removeFolder(FolderRemovalPolicy::Recursive);
}

void Folder::copyFolder(Folder const& destination, Policy const& policy) const {
  if (!folderExists()) throw Exception(vfs::ErrorCode::ResourceNotFound, getLocation());
  // Copying a folder into itself would copy its own copies, without end on a provider
  // without a path length limit: compare with dot segments resolved.
  auto const resolved = [](provider::StorageIRI const& iri) { return iri.withPath(iri.getResolvedPath()); };
  auto const source = resolved(item_.getLocation());
  auto const target = resolved(destination.item_.getLocation());
  if (source == target || source.isAncestorOf(target))
    throw Exception(vfs::ErrorCode::InvalidLocation, destination.getLocation());
  detail::guarded([&] {
    detail::DurabilityBatch batch(destination.item_);
    detail::FolderCopyVisitor visitor(destination, policy);
    walkFolder(*this, visitor);
    batch.complete(); // before a move removes the source
    if (policy == Policy::OverwriteDeferringPermissionErrors && visitor.deferredFileFailure())
      throw *visitor.deferredFileFailure();
  });
}

void Folder::copyFolderInto(Folder const& destinationParent, Policy const& policy) const {
  copyFolder(Folder(destinationParent, item_.getName()), policy);
}

void removeNonEmptyFolder(Folder const& folder) {
  detail::EntryDeletionVisitor visitor(folder);
  walkFolder(folder, visitor);
}

} // namespace foundation::storage::vfs
