#pragma once

// Reads a folder's entries with their type from the directory itself (d_type), so that a
// names-only listing costs no stat. Linux reads with getdents64 into a large buffer; other
// systems use readdir on a duplicate of the descriptor.

#include "unique_fd.hpp"

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

} // namespace foundation::storage::providers::local::detail

#include "directory_reader_impl.hpp"
