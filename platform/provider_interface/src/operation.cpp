#include <foundation/storage/provider/operation.hpp>

#include <ostream>

namespace foundation::storage::provider {

char const* toString(Operation op) noexcept {
  switch (op) {
  case Operation::GetCanonicalLocation: return "getCanonicalLocation";
  case Operation::Exists: return "exists";
  case Operation::ExistsExtended: return "existsExtended";
  case Operation::FileExists: return "fileExists";
  case Operation::FolderExists: return "folderExists";
  case Operation::GetFileAttributes: return "getFileAttributes";
  case Operation::GetFolderAttributes: return "getFolderAttributes";
  case Operation::GetExtendedAttributes: return "getExtendedAttributes";
  case Operation::SetLastModified: return "setLastModified";
  case Operation::SetWritable: return "setWritable";
  case Operation::CreateFile: return "createFile";
  case Operation::RemoveFile: return "removeFile";
  case Operation::TruncateToSize: return "truncateToSize";
  case Operation::OpenStream: return "openStream";
  case Operation::OpenReadOnlyStream: return "openReadOnlyStream";
  case Operation::OpenTransactionalStream: return "openTransactionalStream";
  case Operation::MoveFile: return "moveFile";
  case Operation::CopyFile: return "copyFile";
  case Operation::CreateFolder: return "createFolder";
  case Operation::CreateFolderRecursive: return "createFolderRecursive";
  case Operation::RemoveFolder: return "removeFolder";
  case Operation::RemoveFolderRecursively: return "removeFolderRecursively";
  case Operation::MoveFolder: return "moveFolder";
  case Operation::GetFilenameSensitivity: return "getFilenameSensitivity";
  case Operation::GetPathComparator: return "getPathComparator";
  case Operation::ListAllNamesOnly: return "listAllNamesOnly";
  case Operation::ListFilesNamesOnly: return "listFilesNamesOnly";
  case Operation::ListFoldersNamesOnly: return "listFoldersNamesOnly";
  case Operation::ListAll: return "listAll";
  case Operation::ListFiles: return "listFiles";
  case Operation::ListFolders: return "listFolders";
  case Operation::ListAllRecursiveNamesOnly: return "listAllRecursiveNamesOnly";
  case Operation::ListAllRecursive: return "listAllRecursive";
  case Operation::HasFeature: return "hasFeature";
  case Operation::Configure: return "configure";
  case Operation::ShutdownProvider: return "shutdownProvider";
  case Operation::GetProviderStorageInfo: return "getProviderStorageInfo";
  case Operation::PublishFileEvents: return "publishFileEvents";
  case Operation::StopPublishingFileEvents: return "stopPublishingFileEvents";
  case Operation::PublishFolderEvents: return "publishFolderEvents";
  case Operation::StopPublishingFolderEvents: return "stopPublishingFolderEvents";
  case Operation::StartChangePollingMechanism: return "startChangePollingMechanism";
  case Operation::StopChangePollingMechanism: return "stopChangePollingMechanism";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& os, Operation op) { return os << toString(op); }

} // namespace foundation::storage::provider
