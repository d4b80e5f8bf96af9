#pragma once

// Every error code once, with what it means to each layer that maps it: the provider's and
// the library's number, the class of failure a command-line program reports, and the errno
// values of a POSIX system. Providers map errno values from it, the library converts the
// provider's codes with it, and the tools derive their exit statuses and errno values from
// it, so a code cannot be added or renumbered in one place and forgotten in another.

#include <foundation/storage/provider/types.hpp>

#include <cerrno>
#include <cstddef>
#include <cstdint>

/// `X(name, provider value, library value, failure class, errno...)`, one row per code, in the
/// provider's order:
/// - name: the enumerator, spelt the same in `provider::ErrorCode` and the library's `ErrorCode`;
/// - the numbers of the two enumerations, which order FileTooLarge, ResourceInUse and
///   ReadOnlyProvider differently;
/// - failure class: NotFound, Exists, NotPermitted, BadLocation, NoSpace, IOFailure or
///   OtherFailure;
/// - the errno values that mean the code (at most four), the first being the one a POSIX
///   program is shown for it; InternalError and Unknown have none of their own.
// clang-format off
#define FOUNDATION_STORAGE_ERROR_CODES(X)                                          \
  X(FolderNotEmpty,        0,  0,  Exists,       ENOTEMPTY)                        \
  X(InvalidLocation,       1,  1,  BadLocation,  EINVAL, ENAMETOOLONG, ELOOP)      \
  X(PermissionDenied,      2,  2,  NotPermitted, EACCES, EPERM)                    \
  X(ResourceAlreadyExists, 3,  3,  Exists,       EEXIST)                           \
  X(ResourceNotFound,      4,  4,  NotFound,     ENOENT, ENOTDIR)                  \
  X(FileTooLarge,          5,  6,  NoSpace,      EFBIG)                            \
  X(ResourceInUse,         6,  7,  NotPermitted, EBUSY, ETXTBSY)                   \
  X(ReadOnlyProvider,      7,  5,  NotPermitted, EROFS)                            \
  X(NoSpaceLeft,           8,  8,  NoSpace,      ENOSPC, EDQUOT)                   \
  X(IOError,               9,  9,  IOFailure,    EIO)                              \
  X(InternalError,         10, 10, OtherFailure)                                   \
  X(UnsupportedOperation,  11, 11, BadLocation,  ENOTSUP, EOPNOTSUPP, EXDEV)       \
  X(Unknown,               12, 12, OtherFailure)
// clang-format on

namespace foundation::storage::provider::error_code_table {

/// Number of rows; both enumerations number their codes densely from 0 to Unknown.
inline constexpr std::uint32_t rows = 0
#define FOUNDATION_STORAGE_COUNT_ROW(...) +1
    FOUNDATION_STORAGE_ERROR_CODES(FOUNDATION_STORAGE_COUNT_ROW);
#undef FOUNDATION_STORAGE_COUNT_ROW

/// Whether `values` (one per row) are 0 to rows - 1, each once.
template <std::size_t N>
constexpr bool numbersEveryCodeOnce(std::uint32_t const (&values)[N]) {
  std::uint32_t seen = 0;
  for (std::uint32_t value : values) {
    if (value >= rows || (seen & (1u << value)) != 0) return false;
    seen |= 1u << value;
  }
  return N == rows;
}

inline constexpr std::uint32_t providerValues[] = {
#define FOUNDATION_STORAGE_PROVIDER_VALUE(name, providerValue, ...) providerValue,
    FOUNDATION_STORAGE_ERROR_CODES(FOUNDATION_STORAGE_PROVIDER_VALUE)
#undef FOUNDATION_STORAGE_PROVIDER_VALUE
};
inline constexpr std::uint32_t libraryValues[] = {
#define FOUNDATION_STORAGE_LIBRARY_VALUE(name, providerValue, libraryValue, ...) libraryValue,
    FOUNDATION_STORAGE_ERROR_CODES(FOUNDATION_STORAGE_LIBRARY_VALUE)
#undef FOUNDATION_STORAGE_LIBRARY_VALUE
};

static_assert(rows == static_cast<std::uint32_t>(ErrorCode::Unknown) + 1, "every provider code needs a row");
static_assert(numbersEveryCodeOnce(providerValues), "the provider numbers must name every code once");
static_assert(numbersEveryCodeOnce(libraryValues), "the library numbers must name every code once");
#define FOUNDATION_STORAGE_CHECK_PROVIDER_VALUE(name, providerValue, ...)                                              \
  static_assert(static_cast<std::uint32_t>(ErrorCode::name) == (providerValue), "provider::ErrorCode::" #name);
FOUNDATION_STORAGE_ERROR_CODES(FOUNDATION_STORAGE_CHECK_PROVIDER_VALUE)
#undef FOUNDATION_STORAGE_CHECK_PROVIDER_VALUE

/// The errno values of a row, zero-padded.
using Errnos = int[4];

/// The errno a POSIX program is shown for a row: its first, or EIO when it has none.
constexpr int shownErrno(Errnos const& errnos) { return errnos[0] != 0 ? errnos[0] : EIO; }

} // namespace foundation::storage::provider::error_code_table
