#pragma once

// System calls that differ between platforms, each behind one function with a portable
// fallback. Every function returns 0 or an errno value and retries EINTR itself.

#include "temporary_files.hpp"
#include "unique_fd.hpp"

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace foundation::storage::providers::local::detail {

/// renameat, or with `noReplace` one that fails with EEXIST instead of replacing.
int renameAt(int fromDir, char const* from, int toDir, char const* to, bool noReplace) noexcept;

/// Copies `size` bytes from `in` to `out` (both at offset 0): reflink where the file
/// system shares extents, else copy_file_range, else read/write. `progress(done)` is called
/// as data moves.
template <class Progress>
int copyContents(int in, int out, std::uint64_t size, Progress&& progress) noexcept;

/// fsync: the file's or folder's data and metadata reach the disk.
int syncFile(int fd) noexcept;

/// Flushes the file system holding `fd` (syncfs), or everything (sync) elsewhere.
int syncFilesystem(int fd) noexcept;

/// fstatat with EINTR retried.
int statAt(int dirfd, char const* name, struct stat& st, bool follow) noexcept;

/// open/openat with EINTR retried; the descriptor or -errno.
int openAt(int dirfd, char const* name, int flags, mode_t mode = 0) noexcept;

/// Writes all of `n` bytes.
int writeAll(int fd, char const* data, std::size_t n) noexcept;

/// Modification time with nanoseconds.
timespec modificationTime(struct stat const& st) noexcept;
timespec accessTime(struct stat const& st) noexcept;
timespec changeTime(struct stat const& st) noexcept;

namespace fallback {
int reflink(int in, int out) noexcept;
int copyRange(int in, int out, std::uint64_t size, std::uint64_t& done) noexcept;
} // namespace fallback

} // namespace foundation::storage::providers::local::detail

#include "posix_calls_copy.hpp"
