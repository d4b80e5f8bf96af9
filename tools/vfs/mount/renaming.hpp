#pragma once

// What a rename through the mount does to the storage: rename(2)'s rules over the library's
// moves.

#include <vfs/folder.hpp>

namespace vfs_tool::mount {

namespace vfs = foundation::storage::vfs;

/// Moves the file or folder at `from` to `to` as rename(2) does: a file replaces a file, a
/// folder replaces only an empty folder (FolderNotEmpty for a full one); with `noReplace`
/// nothing is replaced (ResourceAlreadyExists). What `to` held stays when the move fails.
void renameItem(vfs::AbsoluteIRI const& from, vfs::AbsoluteIRI const& to, vfs::StorageSystemReference const& system,
                bool noReplace);

} // namespace vfs_tool::mount
