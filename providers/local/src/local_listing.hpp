#pragma once

#include "local_support.hpp"
#include "unique_fd.hpp"

#include <foundation/storage/provider/folder_entry.hpp>
#include <foundation/storage/provider/provider_base.hpp>

#include <memory>

namespace foundation::storage::providers::local::detail {

/// A cursor over the folder `folder`, names relative to it, that reads the folder as it
/// moves (memory bounded by the depth of the tree, not by the number of entries) and lends
/// one entry, refilled per move: once its buffers fit, it allocates nothing per entry. A symbolic link is listed as
/// what it points to (a broken one as a file) with its symlink flag set, and a recursive
/// listing never enters a linked folder, so links cannot make it loop. The provider's
/// temporary files are left out. The walk is a loop with a bounded number of open
/// descriptors (FolderDescent), whatever the depth. Subfolders that cannot be read or
/// vanish meanwhile are left out; any other failure (running out of descriptors included)
/// is the provider Exception for `location` in the name of the request's operation (thrown
/// by the cursor's `next`), never a shortened listing.
std::unique_ptr<p::IFolderEntryIterator> listFolder(UniqueFd folder, p::ListingRequest const& request,
                                                    UserIdentity const& user, p::StorageIRI const& location);

/// Removes the folder `name` of `parent` and everything in it without following symbolic
/// links: every level is opened relative to its parent (O_NOFOLLOW), so a folder swapped
/// for a link meanwhile is removed as a link, not followed. Walks in a loop with a bounded
/// number of open descriptors. Returns 0 or the first errno.
int removeTree(int parent, char const* name) noexcept;

} // namespace foundation::storage::providers::local::detail
