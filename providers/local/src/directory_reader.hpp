#pragma once

// Reads a folder's entries with their type from the directory itself (d_type), so that a
// names-only listing costs no stat. Linux reads with getdents64 into a large buffer; other
// systems use readdir on a duplicate of the descriptor.

#include "unique_fd.hpp"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace foundation::storage::providers::local::detail {

enum class EntryKind : std::uint8_t { File, Folder, Symlink, Other, Unknown };

/// Calls `visit(std::string_view name, EntryKind kind)` for every entry except "." and
/// "..". Returns 0, or the errno of a failed read (EINTR is retried).
template <class Visit>
int readDirectory(int dirfd, Visit&& visit);

EntryKind kindFromMode(unsigned mode) noexcept;

#if defined(__linux__)

/// Bytes a listing reads from a folder at a time.
constexpr std::size_t directoryBatchSize = 32 * 1024;

/// Reads the next batch of records of `dirfd` into `buffer` (8-byte aligned): the bytes
/// read, 0 at the end of the folder, or -errno (EINTR is retried).
long readDirectoryBatch(int dirfd, char* buffer, std::size_t size) noexcept;

/// One record of a batch: its NUL-terminated name, its kind, its length in the batch, and
/// the folder offset just past it (for lseek on another descriptor of the folder).
struct DirectoryRecord {
  char const* name;
  EntryKind kind;
  std::size_t length;
  bool dotOrDotDot;
  long long nextOffset;
};

DirectoryRecord decodeDirectoryRecord(char const* record) noexcept;

#endif

} // namespace foundation::storage::providers::local::detail

#include "directory_reader_impl.hpp"
