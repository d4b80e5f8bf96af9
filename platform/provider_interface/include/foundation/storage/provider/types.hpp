#pragma once

#include <foundation/core/visibility.hpp>

#include <boost/property_tree/ptree.hpp>

#include <cstdint>
#include <functional>
#include <iosfwd>

namespace foundation::storage::provider {

/// Why a provider operation failed. The numbers are fixed across the whole system.
enum class ErrorCode : std::uint32_t {
  FolderNotEmpty = 0,
  InvalidLocation = 1,
  PermissionDenied = 2,
  ResourceAlreadyExists = 3,
  ResourceNotFound = 4,
  FileTooLarge = 5,
  ResourceInUse = 6,
  ReadOnlyProvider = 7,
  NoSpaceLeft = 8,
  IOError = 9,
  InternalError = 10,
  UnsupportedOperation = 11,
  Unknown = 12,
};

/// Optional capabilities a provider may have (`IProvider::hasFeature`).
enum class ExtendedFeature : std::uint32_t {
  NativeRecursiveRemoval = 0,
  RecursiveListing = 1,
  FlatWildcardListing = 2,
  RecursiveChangeEvents = 3,
  RecursiveWildcardListing = 4,
};

/// Answer of `IProvider::exists`.
enum class ExistsResult : std::uint32_t { File = 0, Folder = 1, NotFound = 2 };

/// Answer of `IProvider::existsExtended`.
enum class ExtendedExistsResult : std::uint32_t {
  File = 0,
  Folder = 1,
  SymlinkToFile = 2,
  SymlinkToFolder = 3,
  BrokenSymlink = 4,
  Special = 5, ///< device, fifo or socket
  NotFound = 6,
};

/// What a copy or move does when the destination exists.
enum class ReplacementPolicy : std::uint32_t {
  FailIfExists = 0,
  Overwrite = 1,
  /// Like Overwrite; the library makes a read-only target writable and retries.
  ForceOverwrite = 2,
  /// The library's own; providers receive Overwrite instead and treat it as such.
  OverwriteDeferringPermissionErrors = 3,
  KeepExisting = 4,
};

/// True for one of the enumeration's values.
FOUNDATION_API bool isValid(ReplacementPolicy policy) noexcept;

/// True when the policy lets an existing destination be replaced (the Overwrite kinds);
/// FailIfExists and KeepExisting never replace.
FOUNDATION_API bool replaces(ReplacementPolicy policy) noexcept;

/// Result of a provider file copy.
enum class CopyResult : std::uint32_t {
  Copied = 0,
  Skipped = 1, ///< the destination was kept and nothing was copied
};

enum class ByteStreamAccess : std::uint32_t { WriteOnly = 0, ReadWrite = 1 };
enum class ByteStreamCreate : std::uint32_t { CreateIfMissing = 0, MustExist = 1 };
enum class ByteStreamTruncate : std::uint32_t { Truncate = 0, Keep = 1 };
enum class ByteStreamAppend : std::uint32_t { Append = 0, AtPosition = 1 };

/// How a writable byte stream is opened. Values outside the enumerations are rejected by
/// every provider with InvalidLocation.
struct ByteStreamOpenOptions {
  ByteStreamAccess access = ByteStreamAccess::ReadWrite;
  ByteStreamCreate create = ByteStreamCreate::CreateIfMissing;
  ByteStreamTruncate truncate = ByteStreamTruncate::Keep;
  ByteStreamAppend append = ByteStreamAppend::AtPosition;

  friend bool operator==(ByteStreamOpenOptions const&, ByteStreamOpenOptions const&) = default;
};

/// True when every member holds one of its enumeration's values.
FOUNDATION_API bool isValid(ByteStreamOpenOptions const& options) noexcept;

/// How a transactional stream ends.
enum class StreamClosePolicy : std::uint32_t {
  Commit = 0,
  Discard = 1,
  /// Commits only if nothing is at the location, checked and landed in one atomic step;
  /// otherwise discards and fails with ResourceAlreadyExists.
  CommitWithoutReplacing = 2,
};

enum class RecursiveWatching : std::uint32_t { Yes = 0, No = 1 };
enum class RecursivePolling : std::uint32_t { Yes = 0, No = 1 };

enum class FilenameSensitivity : std::uint32_t { CaseSensitive = 0, CaseInsensitive = 1 };

/// Case rule a path comparator applies; ProviderDefault is the provider's own sensitivity.
enum class CaseModifier : std::uint32_t { ProviderDefault = 0, CaseSensitive = 1, CaseInsensitive = 2 };

/// Equality of two names or paths under a case rule (`IProvider::getPathComparator`).
using PathComparatorFunction = std::function<bool(std::u16string const&, std::u16string const&, CaseModifier)>;

/// The comparator of a provider whose names have `sensitivity`: equality of the two texts,
/// after Unicode case folding when the modifier (or, for ProviderDefault, the provider)
/// ignores case.
FOUNDATION_API PathComparatorFunction makePathComparator(FilenameSensitivity sensitivity);

/// Reports a long copy's progress: bytes copied so far, bytes in all.
using CopyProgressCallback = std::function<void(std::uint64_t done, std::uint64_t total)>;

/// Options of `IProvider::copyFile`.
struct CopyFileOptions {
  ReplacementPolicy policy = ReplacementPolicy::FailIfExists;
  /// Called from the copying thread as data arrives; may be empty.
  CopyProgressCallback progress;
};

/// What a provider tells about the storage behind it. Byte counts are 0 when unknown;
/// `details` holds provider-specific keys.
struct StorageInfo {
  std::uint64_t totalBytes = 0;
  std::uint64_t freeBytes = 0;
  std::uint64_t availableBytes = 0;
  boost::property_tree::ptree details;
};

FOUNDATION_API char const* toString(ErrorCode c) noexcept;
FOUNDATION_API char const* toString(ExtendedFeature f) noexcept;
FOUNDATION_API char const* toString(ReplacementPolicy p) noexcept;
FOUNDATION_API std::ostream& operator<<(std::ostream& os, ErrorCode c);
FOUNDATION_API std::ostream& operator<<(std::ostream& os, ExtendedFeature f);
FOUNDATION_API std::ostream& operator<<(std::ostream& os, ReplacementPolicy p);
FOUNDATION_API std::ostream& operator<<(std::ostream& os, ByteStreamOpenOptions const& o);

} // namespace foundation::storage::provider
