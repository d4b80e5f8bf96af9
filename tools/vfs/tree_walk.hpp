#pragma once

// Walks a folder tree for the commands that report every entry (ls -R, find, du).

#include "session.hpp"

#include <vfs/walk.hpp>

#include <atomic>
#include <cstdint>
#include <functional>

namespace vfs_tool {

/// One entry met by a walk: its location, whether it is a folder, and the size a listing
/// delivered with it (zero for folders).
struct WalkedEntry {
  vfs::AbsoluteIRI location;
  std::u16string const& name;
  bool folder;
  std::uint64_t size;
};

/// Calls `onEntry` for the folder and every entry below it, on the calling thread or (with
/// `parallel`) concurrently on worker threads. A sub-folder that cannot be listed is
/// reported on standard error and left out; the walk goes on. Returns the exit status of
/// the first such failure, or Success.
int walkTree(vfs::Folder const& root, bool parallel, std::function<void(WalkedEntry const&)> const& onEntry);

} // namespace vfs_tool
