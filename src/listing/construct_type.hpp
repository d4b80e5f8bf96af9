#pragma once

#include "listing/element_types.hpp"

#include <foundation/storage/provider/folder_entry.hpp>

#include <memory>

namespace foundation::storage::vfs::detail {

/// The element of type T for the provider entry `entry` of `parent`. Entries get the
/// attributes the listing delivered, or fetch them lazily; names-only listings carry none.
template <class T>
T constructType(Folder const& parent, provider::FolderEntry const& entry);

/// One level of a tree walk: the unfiltered flat listing of `folder` (names only for
/// ListEntry, with attributes for FileOrFolderEntry).
template <class T>
FolderListing<T> constructType(Folder const& folder);

#define VFS_DECLARE_CONSTRUCT_TYPE(T)                                                                                  \
  template <>                                                                                                          \
  T constructType<T>(Folder const& parent, provider::FolderEntry const& entry);
VFS_FOR_EACH_ELEMENT_TYPE(VFS_DECLARE_CONSTRUCT_TYPE)
#undef VFS_DECLARE_CONSTRUCT_TYPE

#define VFS_DECLARE_CONSTRUCT_LEVEL(T)                                                                                 \
  template <>                                                                                                          \
  FolderListing<T> constructType<T>(Folder const& folder);
VFS_FOR_EACH_TREE_ELEMENT_TYPE(VFS_DECLARE_CONSTRUCT_LEVEL)
#undef VFS_DECLARE_CONSTRUCT_LEVEL

/// `to` becomes a clone of `from` (null if `from` is), dropping the cursor it held.
void cloneFolderEntryIterator(std::unique_ptr<provider::IFolderEntryIterator> const& from,
                              std::unique_ptr<provider::IFolderEntryIterator>& to);

} // namespace foundation::storage::vfs::detail
