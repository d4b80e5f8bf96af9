// Folder's listing members: the provider lists, and filters or walks where it can; the
// library filters and walks where it cannot.

#include <vfs/folder.hpp>

#include "errors/guard.hpp"
#include "listing/flat_listing.hpp"
#include "listing/recursive_listing.hpp"
#include "listing/wildcard_listing.hpp"

namespace foundation::storage::vfs {

namespace {

using provider::ExtendedFeature;

template <class T>
using ImplPtr = std::shared_ptr<detail::IFolderIteratorImpl<T>>;

/// `impl`, filtered by `pattern` here unless the provider has filtered already.
template <class T>
FolderListing<T> filtered(ImplPtr<T> impl, std::u16string const& pattern, bool providerFiltered) {
  if (pattern.empty() || providerFiltered) return FolderListing<T>(impl);
  return FolderListing<T>(std::make_shared<detail::FolderIteratorWildcardsImpl<T>>(std::move(impl), pattern));
}

template <class T>
ImplPtr<T> overCursor(Folder const& folder, std::unique_ptr<provider::IFolderEntryIterator> cursor) {
  return std::make_shared<detail::FolderListingIteratorImpl<T>>(folder, std::move(cursor));
}

} // namespace

// The provider receives the pattern whether it can filter or not.
#define VFS_FLAT_LISTING(T, member, worker)                                                                            \
  FolderListing<T> Folder::member(std::u16string pattern) const {                                                      \
    return detail::guarded([&] {                                                                                       \
      auto impl = overCursor<T>(*this, worker(pattern));                                                               \
      return filtered<T>(std::move(impl), pattern, !pattern.empty() && providerSupportsFlatWildcardListing());         \
    });                                                                                                                \
  }

VFS_FLAT_LISTING(ListEntry, listAll, doListAll)
VFS_FLAT_LISTING(File, listFiles, doListFiles)
VFS_FLAT_LISTING(Folder, listFolders, doListFolders)
VFS_FLAT_LISTING(FileEntry, listFileEntries, doListFileEntries)
VFS_FLAT_LISTING(FolderEntry, listFolderEntries, doListFolderEntries)
VFS_FLAT_LISTING(FileOrFolderEntry, listAllEntries, doListAllEntries)
#undef VFS_FLAT_LISTING

// The provider lists the tree where it can (names are then relative paths), otherwise the
// library walks it; the walk enters every folder, matching or not.
#define VFS_TREE_LISTING(T, member, worker)                                                                            \
  FolderListing<T> Folder::member(std::u16string pattern) const {                                                      \
    return detail::guarded([&] {                                                                                       \
      if (item_.hasFeature(ExtendedFeature::RecursiveListing)) {                                                       \
        auto impl = overCursor<T>(*this, worker(pattern));                                                             \
        return filtered<T>(std::move(impl), pattern,                                                                   \
                           !pattern.empty() && item_.hasFeature(ExtendedFeature::RecursiveWildcardListing));           \
      }                                                                                                                \
      return filtered<T>(std::make_shared<detail::RecursiveFolderListingIteratorImpl<T>>(*this, pattern), pattern,     \
                         false);                                                                                       \
    });                                                                                                                \
  }

VFS_TREE_LISTING(ListEntry, listAllRecursive, doListAllRecursive_provider_specialization)
VFS_TREE_LISTING(FileOrFolderEntry, listAllEntriesRecursive, doListAllEntriesRecursive_provider_specialization)
#undef VFS_TREE_LISTING

bool Folder::providerSupportsFlatWildcardListing() const {
  return detail::guarded([&] { return item_.hasFeature(ExtendedFeature::FlatWildcardListing); });
}

#define VFS_LISTING_WORKER(worker, call)                                                                               \
  std::unique_ptr<provider::IFolderEntryIterator> Folder::worker(std::u16string const& pattern) const {                \
    return detail::guarded([&] { return item_.call(pattern); });                                                       \
  }

VFS_LISTING_WORKER(doListAll, listAllNamesOnly)
VFS_LISTING_WORKER(doListFiles, listFilesNamesOnly)
VFS_LISTING_WORKER(doListFolders, listFoldersNamesOnly)
VFS_LISTING_WORKER(doListFileEntries, listFiles)
VFS_LISTING_WORKER(doListFolderEntries, listFolders)
VFS_LISTING_WORKER(doListAllEntries, listAll)
VFS_LISTING_WORKER(doListAllRecursive_provider_specialization, listAllRecursiveNamesOnly)
VFS_LISTING_WORKER(doListAllEntriesRecursive_provider_specialization, listAllRecursive)
#undef VFS_LISTING_WORKER

} // namespace foundation::storage::vfs
