#pragma once

// Mounting a MountedFolder and serving it until it is unmounted or the process is told to stop.

#include "mounted_folder.hpp"

#include <functional>
#include <string>

namespace vfs_tool::mount {

/// Mounts `folder` at `mountpoint`, calls `ready` once the mount is in place, then answers
/// the kernel on several threads until unmounted or SIGINT, SIGTERM or SIGHUP; unmounts on
/// the way out. False, with libfuse's message on standard error, when mounting fails.
bool serve(MountedFolder& folder, std::string const& mountpoint, std::string const& name, bool readOnly,
           std::function<void()> const& ready);

/// Unmounts `mountpoint`, also one whose serving process died. A busy mount is detached: it
/// goes once no program uses it. Returns 0 or the errno of the failure.
int unmount(std::string const& mountpoint, bool& detached);

} // namespace vfs_tool::mount
