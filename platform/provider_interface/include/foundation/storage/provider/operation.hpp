#pragma once

#include <foundation/core/visibility.hpp>

#include <cstddef>
#include <iosfwd>

namespace foundation::storage::provider {

/// One operation of the provider interface, for wrappers that count, check or fail calls.
enum class Operation {
  GetCanonicalLocation,
  Exists,
  ExistsExtended,
  FileExists,
  FolderExists,
  GetFileAttributes,
  GetFolderAttributes,
  GetExtendedAttributes,
  SetLastModified,
  SetWritable,
  CreateFile,
  RemoveFile,
  TruncateToSize,
  OpenStream,
  OpenReadOnlyStream,
  OpenTransactionalStream,
  MoveFile,
  CopyFile,
  CreateFolder,
  CreateFolderRecursive,
  RemoveFolder,
  RemoveFolderRecursively,
  MoveFolder,
  GetFilenameSensitivity,
  GetPathComparator,
  ListAllNamesOnly,
  ListFilesNamesOnly,
  ListFoldersNamesOnly,
  ListAll,
  ListFiles,
  ListFolders,
  ListAllRecursiveNamesOnly,
  ListAllRecursive,
  HasFeature,
  Configure,
  ShutdownProvider,
  GetProviderStorageInfo,
  PublishFileEvents,
  StopPublishingFileEvents,
  PublishFolderEvents,
  StopPublishingFolderEvents,
  StartChangePollingMechanism,
  StopChangePollingMechanism
};

inline constexpr std::size_t operationCount = static_cast<std::size_t>(Operation::StopChangePollingMechanism) + 1;

/// The operation's name as in the provider interface ("openStream").
FOUNDATION_API char const* toString(Operation op) noexcept;
FOUNDATION_API std::ostream& operator<<(std::ostream& os, Operation op);

} // namespace foundation::storage::provider
