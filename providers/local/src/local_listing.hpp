#pragma once

#include "local_support.hpp"

#include <foundation/storage/provider/folder_entry.hpp>

#include <vector>

namespace foundation::storage::providers::local::detail {

enum class Kinds { All, Files, Folders };

struct ListingRequest {
  Kinds kinds;
  bool attributes;
  std::u16string pattern;
  bool recursive;
};

/// Lists the folder open as `dirfd` into `out`, names relative to it. A symbolic link is
/// listed as what it points to (a broken one as a file) with its symlink flag set, and a
/// recursive listing never enters a linked folder, so links cannot make it loop. Subfolders
/// that cannot be read or vanish meanwhile are left out; a failure to read `dirfd` itself
/// is the provider Exception for `location`.
void listFolder(int dirfd, ListingRequest const& request, UserIdentity const& user, p::StorageIRI const& location,
                std::vector<p::FolderEntry>& out);

/// Removes a folder and everything in it without following symbolic links: every level is
/// opened relative to its parent (openat, O_NOFOLLOW), so a folder swapped for a link
/// meanwhile is removed as a link, not followed. Returns 0 or the first errno.
int removeTree(char const* path) noexcept;

} // namespace foundation::storage::providers::local::detail
