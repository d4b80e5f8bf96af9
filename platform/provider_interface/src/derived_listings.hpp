#pragma once

#include <foundation/storage/provider/folder_entry.hpp>
#include <foundation/storage/provider/provider_base.hpp>

#include <functional>
#include <memory>

namespace foundation::storage::provider::detail {

/// Keeps the entries of `inner` that a request wants: the kinds asked and, when
/// `filterNames`, the names its pattern matches (on the last segment of a relative name).
std::unique_ptr<IFolderEntryIterator> filterEntries(std::unique_ptr<IFolderEntryIterator> inner,
                                                    ListingRequest const& request, bool filterNames);

/// Lists one folder flat (all kinds, with attributes, no pattern); the relative path of a
/// subfolder is appended to the root's location.
using FlatLister = std::function<std::unique_ptr<IFolderEntryIterator>(StorageIRI const& folder)>;

/// Every item below `root`, depth first, each folder right before its contents, names as
/// relative paths, from flat listings of each folder. Folders are entered one cursor at a
/// time from an explicit stack, so depth costs memory, not call stack. A subfolder that
/// vanishes before it is entered is skipped, as if it had gone before the listing began.
/// A link to a folder is listed but never entered, so the walk stays inside the tree and
/// ends on link cycles: only the attributes tell links apart, so the lister always delivers
/// them, and they are dropped here unless `withAttributes`.
std::unique_ptr<IFolderEntryIterator> listBelow(StorageIRI const& root, FlatLister lister, bool withAttributes);

/// Whether `entry` is a link to a folder, as far as its attributes tell.
bool isLinkToFolder(FolderEntry const& entry);

} // namespace foundation::storage::provider::detail
