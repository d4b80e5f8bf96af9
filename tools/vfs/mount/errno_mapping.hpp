#pragma once

// What a POSIX program sees when the library fails: one errno per error code.

#include <vfs/exceptions.hpp>

namespace vfs_tool::mount {

/// The errno for a library error code. UnsupportedOperation is EXDEV for `rename`, so that
/// programs fall back to copying, and ENOTSUP elsewhere.
int errnoFor(foundation::storage::vfs::ErrorCode code, bool renaming = false) noexcept;

/// The errno for the exception in flight: the library's exceptions by their code, allocation
/// failures ENOMEM, anything else EIO. Call only from a catch handler.
int currentErrno(bool renaming = false) noexcept;

} // namespace vfs_tool::mount
