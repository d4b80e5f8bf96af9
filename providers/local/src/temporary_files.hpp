#pragma once

// The provider's temporary files: a copy or a transaction is written to one beside its
// target and lands all at once, durable, by one link or rename.
//
// Ownership: the writer holds an exclusive flock on its temporary file for as long as it
// writes (the lock dies with the process, also under SIGKILL). A named temporary file that
// nobody has locked, and that has not been written to for a while, belongs to no live
// writer: it is stale and may be removed. Listings never show temporary files.

#include "unique_fd.hpp"

#include <functional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace foundation::storage::providers::local::detail {

/// Makes an open file or folder durable (fsync); 0 or an errno value.
using SyncCall = std::function<int(int fd)>;

/// An unnamed file in the folder `dirfd` (O_TMPFILE), or a hidden named one where that is
/// not available; `name` receives the name, empty for an unnamed file. The file is locked
/// for this writer.
int openTemporaryFile(int dirfd, mode_t mode, UniqueFd& fd, std::string& name) noexcept;

/// Whether `name` (a last path segment) is one that openTemporaryFile or commitTemporaryFile
/// gives.
bool isTemporaryFileName(std::string_view name) noexcept;

/// Lands the temporary file `fd` (named `name` in `dirfd`, or unnamed) at `target` in
/// `dirfd`: syncs its data, links or renames it into place, then syncs the folder, so the
/// new file survives a crash before anything relies on it. Without `replace` the check that
/// `target` is free and the landing are one atomic step (linkat, renameat2 NOREPLACE):
/// EEXIST when something is there. `name` is cleared once the file has landed.
/// While a durability batch is open on this thread, a landing that replaces nothing skips
/// both syncs and leaves them to the batch.
int commitTemporaryFile(int fd, int dirfd, std::string& name, char const* target, bool replace,
                        SyncCall const& sync) noexcept;

/// Removes the temporary file `name` in `dirfd` if it is stale (see above); true when it
/// was removed.
bool removeIfStale(int dirfd, char const* name) noexcept;

} // namespace foundation::storage::providers::local::detail
