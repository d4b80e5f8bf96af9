// Moving, copying and removing folder trees. The provider moves within its scheme; the
// library copies trees itself with a serial walk, and removes them with one where the
// provider has no recursive removal of its own.

#include <vfs/folder.hpp>
#include <vfs/walk.hpp>

#include "core/durability_scope.hpp"
#include "core/entry_deletion_visitor.hpp"
#include "core/folder_copy_visitor.hpp"
#include "errors/guard.hpp"

#include <set>

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

/// Copies the tree `source` onto `destination` (whose provider item is `destinationItem`);
/// returns the source files it did not copy.
std::set<AbsoluteIRI> copyTree(Folder const& source, Folder const& destination,
                               provider::StorageItem const& destinationItem, Policy policy) {
  if (!source.folderExists()) throw Exception(vfs::ErrorCode::ResourceNotFound, source.getLocation());
  // Copying a folder into itself would copy its own copies, without end on a provider
  // without a path length limit: compare with dot segments resolved.
  auto const resolved = [](provider::StorageIRI const& iri) { return iri.withPath(iri.getResolvedPath()); };
  auto const from = resolved(source.getLocation().toStorageIRI());
  auto const to = resolved(destinationItem.getLocation());
  if (from == to || from.isAncestorOf(to)) throw Exception(vfs::ErrorCode::InvalidLocation, destination.getLocation());
  return detail::guarded([&] {
    detail::DurabilityScope batch(destinationItem);
    detail::FolderCopyVisitor visitor(destination, policy);
    walkFolder(source, visitor);
    batch.complete(); // before a move removes the source
    if (policy == Policy::OverwriteDeferringPermissionErrors && visitor.deferredFileFailure())
      throw *visitor.deferredFileFailure();
    return visitor.notCopied();
  });
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
  // The source goes only once everything was copied: a failed copy leaves it whole. What
  // the copy left out (a destination file kept) stays, with the folders holding it.
  std::set<AbsoluteIRI> const notCopied = copyTree(*this, destination, destination.item_, policy);
  if (notCopied.empty()) {
    removeFolder(FolderRemovalPolicy::Recursive);
  } else {
    detail::EntryDeletionVisitor visitor(*this, &notCopied);
    walkFolder(*this, visitor);
  }
}

void Folder::copyFolder(Folder const& destination, Policy const& policy) const {
  copyTree(*this, destination, destination.item_, policy);
}

void Folder::copyFolderInto(Folder const& destinationParent, Policy const& policy) const {
  copyFolder(Folder(destinationParent, item_.getName()), policy);
}

void removeNonEmptyFolder(Folder const& folder) {
  detail::EntryDeletionVisitor visitor(folder);
  walkFolder(folder, visitor);
}

} // namespace foundation::storage::vfs
