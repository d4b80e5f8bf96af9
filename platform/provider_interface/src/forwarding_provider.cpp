#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/forwarding_provider.hpp>

namespace foundation::storage::provider {

ForwardingProvider::ForwardingProvider(std::shared_ptr<IProvider> inner) : inner_(std::move(inner)) {
  if (!inner_) fail(ErrorCode::InvalidLocation, StorageIRI(), u"forwarding", "no provider to wrap");
}

ForwardingProvider::~ForwardingProvider() = default;

void ForwardingProvider::beforeCall(Operation, StorageIRI const&) {}

StorageItem ForwardingProvider::unwrap(StorageItem const& item) const {
  if (item.getProvider().get() != this) return item;
  return StorageItem(inner_, item.getLocation());
}

StorageIRI ForwardingProvider::getCanonicalLocation(StorageIRI const& location) {
  beforeCall(Operation::GetCanonicalLocation, location);
  return inner_->getCanonicalLocation(location);
}

ExistsResult ForwardingProvider::exists(StorageIRI const& location) {
  beforeCall(Operation::Exists, location);
  return inner_->exists(location);
}

ExtendedExistsResult ForwardingProvider::existsExtended(StorageIRI const& location) {
  beforeCall(Operation::ExistsExtended, location);
  return inner_->existsExtended(location);
}

bool ForwardingProvider::fileExists(StorageIRI const& location) {
  beforeCall(Operation::FileExists, location);
  return inner_->fileExists(location);
}

bool ForwardingProvider::folderExists(StorageIRI const& location) {
  beforeCall(Operation::FolderExists, location);
  return inner_->folderExists(location);
}

FileAttributes ForwardingProvider::getFileAttributes(StorageIRI const& file) {
  beforeCall(Operation::GetFileAttributes, file);
  return inner_->getFileAttributes(file);
}

FolderAttributes ForwardingProvider::getFolderAttributes(StorageIRI const& folder) {
  beforeCall(Operation::GetFolderAttributes, folder);
  return inner_->getFolderAttributes(folder);
}

ExtendedAttributes ForwardingProvider::getExtendedAttributes(StorageIRI const& location) {
  beforeCall(Operation::GetExtendedAttributes, location);
  return inner_->getExtendedAttributes(location);
}

void ForwardingProvider::setLastModified(StorageIRI const& location, boost::posix_time::ptime const& time) {
  beforeCall(Operation::SetLastModified, location);
  inner_->setLastModified(location, time);
}

void ForwardingProvider::setWritable(StorageIRI const& location, bool writable) {
  beforeCall(Operation::SetWritable, location);
  inner_->setWritable(location, writable);
}

void ForwardingProvider::createFile(StorageIRI const& file) {
  beforeCall(Operation::CreateFile, file);
  inner_->createFile(file);
}

void ForwardingProvider::removeFile(StorageIRI const& file) {
  beforeCall(Operation::RemoveFile, file);
  inner_->removeFile(file);
}

void ForwardingProvider::truncateToSize(StorageIRI const& file, std::uint64_t size) {
  beforeCall(Operation::TruncateToSize, file);
  inner_->truncateToSize(file, size);
}

std::unique_ptr<ByteStream> ForwardingProvider::openStream(StorageIRI const& file,
                                                           ByteStreamOpenOptions const& options) {
  beforeCall(Operation::OpenStream, file);
  return inner_->openStream(file, options);
}

std::unique_ptr<ByteStream> ForwardingProvider::openReadOnlyStream(StorageIRI const& file) {
  beforeCall(Operation::OpenReadOnlyStream, file);
  return inner_->openReadOnlyStream(file);
}

std::unique_ptr<TransactionalStream> ForwardingProvider::openTransactionalStream(StorageIRI const& file,
                                                                                 ByteStreamOpenOptions const& options) {
  beforeCall(Operation::OpenTransactionalStream, file);
  return inner_->openTransactionalStream(file, options);
}

void ForwardingProvider::moveFile(StorageIRI const& source, StorageIRI const& destination, ReplacementPolicy policy) {
  beforeCall(Operation::MoveFile, source);
  inner_->moveFile(source, destination, policy);
}

CopyResult ForwardingProvider::copyFile(StorageIRI const& source, StorageItem const& destination,
                                        CopyFileOptions const& options) {
  beforeCall(Operation::CopyFile, source);
  return inner_->copyFile(source, unwrap(destination), options);
}

void ForwardingProvider::createFolder(StorageIRI const& folder) {
  beforeCall(Operation::CreateFolder, folder);
  inner_->createFolder(folder);
}

void ForwardingProvider::createFolderRecursive(StorageIRI const& folder) {
  beforeCall(Operation::CreateFolderRecursive, folder);
  inner_->createFolderRecursive(folder);
}

void ForwardingProvider::removeFolder(StorageIRI const& folder) {
  beforeCall(Operation::RemoveFolder, folder);
  inner_->removeFolder(folder);
}

void ForwardingProvider::removeFolderRecursively(StorageIRI const& folder) {
  beforeCall(Operation::RemoveFolderRecursively, folder);
  inner_->removeFolderRecursively(folder);
}

void ForwardingProvider::moveFolder(StorageIRI const& source, StorageIRI const& destination, ReplacementPolicy policy) {
  beforeCall(Operation::MoveFolder, source);
  inner_->moveFolder(source, destination, policy);
}

FilenameSensitivity ForwardingProvider::getFilenameSensitivity(StorageIRI const& location) {
  beforeCall(Operation::GetFilenameSensitivity, location);
  return inner_->getFilenameSensitivity(location);
}

PathComparatorFunction ForwardingProvider::getPathComparator(StorageIRI const& location) {
  beforeCall(Operation::GetPathComparator, location);
  return inner_->getPathComparator(location);
}

std::unique_ptr<IFolderEntryIterator> ForwardingProvider::listAllNamesOnly(StorageIRI const& folder,
                                                                           std::u16string const& pattern) {
  beforeCall(Operation::ListAllNamesOnly, folder);
  return inner_->listAllNamesOnly(folder, pattern);
}

std::unique_ptr<IFolderEntryIterator> ForwardingProvider::listFilesNamesOnly(StorageIRI const& folder,
                                                                             std::u16string const& pattern) {
  beforeCall(Operation::ListFilesNamesOnly, folder);
  return inner_->listFilesNamesOnly(folder, pattern);
}

std::unique_ptr<IFolderEntryIterator> ForwardingProvider::listFoldersNamesOnly(StorageIRI const& folder,
                                                                               std::u16string const& pattern) {
  beforeCall(Operation::ListFoldersNamesOnly, folder);
  return inner_->listFoldersNamesOnly(folder, pattern);
}

std::unique_ptr<IFolderEntryIterator> ForwardingProvider::listAll(StorageIRI const& folder,
                                                                  std::u16string const& pattern) {
  beforeCall(Operation::ListAll, folder);
  return inner_->listAll(folder, pattern);
}

std::unique_ptr<IFolderEntryIterator> ForwardingProvider::listFiles(StorageIRI const& folder,
                                                                    std::u16string const& pattern) {
  beforeCall(Operation::ListFiles, folder);
  return inner_->listFiles(folder, pattern);
}

std::unique_ptr<IFolderEntryIterator> ForwardingProvider::listFolders(StorageIRI const& folder,
                                                                      std::u16string const& pattern) {
  beforeCall(Operation::ListFolders, folder);
  return inner_->listFolders(folder, pattern);
}

std::unique_ptr<IFolderEntryIterator> ForwardingProvider::listAllRecursiveNamesOnly(StorageIRI const& folder,
                                                                                    std::u16string const& pattern) {
  beforeCall(Operation::ListAllRecursiveNamesOnly, folder);
  return inner_->listAllRecursiveNamesOnly(folder, pattern);
}

std::unique_ptr<IFolderEntryIterator> ForwardingProvider::listAllRecursive(StorageIRI const& folder,
                                                                           std::u16string const& pattern) {
  beforeCall(Operation::ListAllRecursive, folder);
  return inner_->listAllRecursive(folder, pattern);
}

bool ForwardingProvider::hasFeature(ExtendedFeature feature) {
  beforeCall(Operation::HasFeature, StorageIRI());
  return inner_->hasFeature(feature);
}

void ForwardingProvider::configure(StorageIRI const& location, boost::property_tree::ptree settings) {
  beforeCall(Operation::Configure, location);
  inner_->configure(location, std::move(settings));
}

void ForwardingProvider::shutdownProvider(StorageIRI const& location) {
  beforeCall(Operation::ShutdownProvider, location);
  inner_->shutdownProvider(location);
}

StorageInfo ForwardingProvider::getProviderStorageInfo(StorageIRI const& location) {
  beforeCall(Operation::GetProviderStorageInfo, location);
  return inner_->getProviderStorageInfo(location);
}

void ForwardingProvider::publishFileEvents(StorageIRI const& file, ChangeCallback callback,
                                           std::vector<events::Kind> const& kinds) {
  beforeCall(Operation::PublishFileEvents, file);
  inner_->publishFileEvents(file, std::move(callback), kinds);
}

void ForwardingProvider::stopPublishingFileEvents(StorageIRI const& file) {
  beforeCall(Operation::StopPublishingFileEvents, file);
  inner_->stopPublishingFileEvents(file);
}

void ForwardingProvider::publishFolderEvents(StorageIRI const& folder, ChangeCallback callback,
                                             std::vector<events::Kind> const& kinds, RecursiveWatching recursive) {
  beforeCall(Operation::PublishFolderEvents, folder);
  inner_->publishFolderEvents(folder, std::move(callback), kinds, recursive);
}

void ForwardingProvider::stopPublishingFolderEvents(StorageIRI const& folder) {
  beforeCall(Operation::StopPublishingFolderEvents, folder);
  inner_->stopPublishingFolderEvents(folder);
}

void ForwardingProvider::startChangePollingMechanism(StorageIRI const& folder, ChangeCallback callback,
                                                     std::vector<events::Kind> const& kinds,
                                                     std::chrono::milliseconds interval, RecursivePolling recursive) {
  beforeCall(Operation::StartChangePollingMechanism, folder);
  inner_->startChangePollingMechanism(folder, std::move(callback), kinds, interval, recursive);
}

void ForwardingProvider::stopChangePollingMechanism(StorageIRI const& folder) {
  beforeCall(Operation::StopChangePollingMechanism, folder);
  inner_->stopChangePollingMechanism(folder);
}

void ForwardingProvider::invalidate(StorageIRI const& location) {
  if (auto* invalidatable = dynamic_cast<extensions::IInvalidatable*>(inner_.get()))
    invalidatable->invalidate(location);
}

void ForwardingProvider::flushFilesystem() {
  if (auto* flushable = dynamic_cast<extensions::IFlushableFilesystem*>(inner_.get())) flushable->flushFilesystem();
}

void ForwardingProvider::flushFilesystem(StorageIRI const& location) {
  if (auto* flushable = dynamic_cast<extensions::IFlushableFilesystem*>(inner_.get()))
    flushable->flushFilesystem(location);
}

} // namespace foundation::storage::provider
