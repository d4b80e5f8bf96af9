#pragma once

// Walks a folder tree for the commands that report every entry (ls -R, find, du).

#include "session.hpp"

#include <vfs/walk.hpp>

#include <cstdint>
#include <functional>

namespace vfs_tool {

/// The size a listing delivered with a file entry; zero for a folder.
std::uint64_t sizeOf(vfs::FileOrFolderEntry const& entry);

/// Calls `onEntry` for the folder and every entry below it, on the calling thread or (with
/// `parallel`) concurrently on worker threads. A sub-folder that cannot be listed is
/// reported on standard error and left out; the walk goes on. Returns the exit status of
/// the first such failure, or Success.
int walkTree(vfs::Folder const& root, bool parallel, std::function<void(vfs::FileOrFolderEntry const&)> const& onEntry);

} // namespace vfs_tool
