#include <foundation/storage/providers/wrappers/call_counting_provider.hpp>

namespace foundation::storage::providers::wrappers {

std::size_t CallCountingProvider::count(Operation op) const noexcept {
  return counts_[static_cast<std::size_t>(op)].load(std::memory_order_relaxed);
}

std::size_t CallCountingProvider::total() const noexcept {
  std::size_t sum = 0;
  for (auto const& c : counts_) sum += c.load(std::memory_order_relaxed);
  return sum;
}

void CallCountingProvider::reset() noexcept {
  for (auto& c : counts_) c.store(0, std::memory_order_relaxed);
}

provider::StorageIRI CallCountingProvider::getCanonicalLocation(provider::StorageIRI const& location) {
  counted(Operation::GetCanonicalLocation);
  return ForwardingProvider::getCanonicalLocation(location);
}

provider::ExistsResult CallCountingProvider::exists(provider::StorageIRI const& location) {
  counted(Operation::Exists);
  return ForwardingProvider::exists(location);
}

provider::ExtendedExistsResult CallCountingProvider::existsExtended(provider::StorageIRI const& location) {
  counted(Operation::ExistsExtended);
  return ForwardingProvider::existsExtended(location);
}

bool CallCountingProvider::fileExists(provider::StorageIRI const& location) {
  counted(Operation::FileExists);
  return ForwardingProvider::fileExists(location);
}

bool CallCountingProvider::folderExists(provider::StorageIRI const& location) {
  counted(Operation::FolderExists);
  return ForwardingProvider::folderExists(location);
}

provider::FileAttributes CallCountingProvider::getFileAttributes(provider::StorageIRI const& file) {
  counted(Operation::GetFileAttributes);
  return ForwardingProvider::getFileAttributes(file);
}

provider::FolderAttributes CallCountingProvider::getFolderAttributes(provider::StorageIRI const& folder) {
  counted(Operation::GetFolderAttributes);
  return ForwardingProvider::getFolderAttributes(folder);
}

provider::ExtendedAttributes CallCountingProvider::getExtendedAttributes(provider::StorageIRI const& location) {
  counted(Operation::GetExtendedAttributes);
  return ForwardingProvider::getExtendedAttributes(location);
}

void CallCountingProvider::setLastModified(provider::StorageIRI const& location, boost::posix_time::ptime const& time) {
  counted(Operation::SetLastModified);
  ForwardingProvider::setLastModified(location, time);
}

void CallCountingProvider::setWritable(provider::StorageIRI const& location, bool writable) {
  counted(Operation::SetWritable);
  ForwardingProvider::setWritable(location, writable);
}

void CallCountingProvider::createFile(provider::StorageIRI const& file) {
  counted(Operation::CreateFile);
  ForwardingProvider::createFile(file);
}

void CallCountingProvider::removeFile(provider::StorageIRI const& file) {
  counted(Operation::RemoveFile);
  ForwardingProvider::removeFile(file);
}

void CallCountingProvider::truncateToSize(provider::StorageIRI const& file, std::uint64_t size) {
  counted(Operation::TruncateToSize);
  ForwardingProvider::truncateToSize(file, size);
}

std::unique_ptr<provider::ByteStream> CallCountingProvider::openStream(provider::StorageIRI const& file, provider::ByteStreamOpenOptions const& options) {
  counted(Operation::OpenStream);
  return ForwardingProvider::openStream(file, options);
}

std::unique_ptr<provider::ByteStream> CallCountingProvider::openReadOnlyStream(provider::StorageIRI const& file) {
  counted(Operation::OpenReadOnlyStream);
  return ForwardingProvider::openReadOnlyStream(file);
}

std::unique_ptr<provider::TransactionalStream> CallCountingProvider::openTransactionalStream(provider::StorageIRI const& file, provider::ByteStreamOpenOptions const& options) {
  counted(Operation::OpenTransactionalStream);
  return ForwardingProvider::openTransactionalStream(file, options);
}

void CallCountingProvider::moveFile(provider::StorageIRI const& source, provider::StorageIRI const& destination, provider::ReplacementPolicy policy) {
  counted(Operation::MoveFile);
  ForwardingProvider::moveFile(source, destination, policy);
}

provider::CopyResult CallCountingProvider::copyFile(provider::StorageIRI const& source, provider::StorageItem const& destination, provider::CopyFileOptions const& options) {
  counted(Operation::CopyFile);
  return ForwardingProvider::copyFile(source, destination, options);
}

void CallCountingProvider::createFolder(provider::StorageIRI const& folder) {
  counted(Operation::CreateFolder);
  ForwardingProvider::createFolder(folder);
}

void CallCountingProvider::createFolderRecursive(provider::StorageIRI const& folder) {
  counted(Operation::CreateFolderRecursive);
  ForwardingProvider::createFolderRecursive(folder);
}

void CallCountingProvider::removeFolder(provider::StorageIRI const& folder) {
  counted(Operation::RemoveFolder);
  ForwardingProvider::removeFolder(folder);
}

void CallCountingProvider::removeFolderRecursively(provider::StorageIRI const& folder) {
  counted(Operation::RemoveFolderRecursively);
  ForwardingProvider::removeFolderRecursively(folder);
}

void CallCountingProvider::moveFolder(provider::StorageIRI const& source, provider::StorageIRI const& destination, provider::ReplacementPolicy policy) {
  counted(Operation::MoveFolder);
  ForwardingProvider::moveFolder(source, destination, policy);
}

provider::FilenameSensitivity CallCountingProvider::getFilenameSensitivity(provider::StorageIRI const& location) {
  counted(Operation::GetFilenameSensitivity);
  return ForwardingProvider::getFilenameSensitivity(location);
}

provider::PathComparatorFunction CallCountingProvider::getPathComparator(provider::StorageIRI const& location) {
  counted(Operation::GetPathComparator);
  return ForwardingProvider::getPathComparator(location);
}

std::unique_ptr<provider::IFolderEntryIterator> CallCountingProvider::listAllNamesOnly(provider::StorageIRI const& folder, std::u16string const& pattern) {
  counted(Operation::ListAllNamesOnly);
  return ForwardingProvider::listAllNamesOnly(folder, pattern);
}

std::unique_ptr<provider::IFolderEntryIterator> CallCountingProvider::listFilesNamesOnly(provider::StorageIRI const& folder, std::u16string const& pattern) {
  counted(Operation::ListFilesNamesOnly);
  return ForwardingProvider::listFilesNamesOnly(folder, pattern);
}

std::unique_ptr<provider::IFolderEntryIterator> CallCountingProvider::listFoldersNamesOnly(provider::StorageIRI const& folder, std::u16string const& pattern) {
  counted(Operation::ListFoldersNamesOnly);
  return ForwardingProvider::listFoldersNamesOnly(folder, pattern);
}

std::unique_ptr<provider::IFolderEntryIterator> CallCountingProvider::listAll(provider::StorageIRI const& folder, std::u16string const& pattern) {
  counted(Operation::ListAll);
  return ForwardingProvider::listAll(folder, pattern);
}

std::unique_ptr<provider::IFolderEntryIterator> CallCountingProvider::listFiles(provider::StorageIRI const& folder, std::u16string const& pattern) {
  counted(Operation::ListFiles);
  return ForwardingProvider::listFiles(folder, pattern);
}

std::unique_ptr<provider::IFolderEntryIterator> CallCountingProvider::listFolders(provider::StorageIRI const& folder, std::u16string const& pattern) {
  counted(Operation::ListFolders);
  return ForwardingProvider::listFolders(folder, pattern);
}

std::unique_ptr<provider::IFolderEntryIterator> CallCountingProvider::listAllRecursiveNamesOnly(provider::StorageIRI const& folder, std::u16string const& pattern) {
  counted(Operation::ListAllRecursiveNamesOnly);
  return ForwardingProvider::listAllRecursiveNamesOnly(folder, pattern);
}

std::unique_ptr<provider::IFolderEntryIterator> CallCountingProvider::listAllRecursive(provider::StorageIRI const& folder, std::u16string const& pattern) {
  counted(Operation::ListAllRecursive);
  return ForwardingProvider::listAllRecursive(folder, pattern);
}

bool CallCountingProvider::hasFeature(provider::ExtendedFeature feature) {
  counted(Operation::HasFeature);
  return ForwardingProvider::hasFeature(feature);
}

void CallCountingProvider::configure(provider::StorageIRI const& location, boost::property_tree::ptree settings) {
  counted(Operation::Configure);
  ForwardingProvider::configure(location, std::move(settings));
}

void CallCountingProvider::shutdownProvider(provider::StorageIRI const& location) {
  counted(Operation::ShutdownProvider);
  ForwardingProvider::shutdownProvider(location);
}

provider::StorageInfo CallCountingProvider::getProviderStorageInfo(provider::StorageIRI const& location) {
  counted(Operation::GetProviderStorageInfo);
  return ForwardingProvider::getProviderStorageInfo(location);
}

void CallCountingProvider::publishFileEvents(provider::StorageIRI const& file, provider::ChangeCallback callback, std::vector<events::Kind> const& kinds) {
  counted(Operation::PublishFileEvents);
  ForwardingProvider::publishFileEvents(file, std::move(callback), kinds);
}

void CallCountingProvider::stopPublishingFileEvents(provider::StorageIRI const& file) {
  counted(Operation::StopPublishingFileEvents);
  ForwardingProvider::stopPublishingFileEvents(file);
}

void CallCountingProvider::publishFolderEvents(provider::StorageIRI const& folder, provider::ChangeCallback callback, std::vector<events::Kind> const& kinds, provider::RecursiveWatching recursive) {
  counted(Operation::PublishFolderEvents);
  ForwardingProvider::publishFolderEvents(folder, std::move(callback), kinds, recursive);
}

void CallCountingProvider::stopPublishingFolderEvents(provider::StorageIRI const& folder) {
  counted(Operation::StopPublishingFolderEvents);
  ForwardingProvider::stopPublishingFolderEvents(folder);
}

void CallCountingProvider::startChangePollingMechanism(provider::StorageIRI const& folder, provider::ChangeCallback callback, std::vector<events::Kind> const& kinds, std::chrono::milliseconds interval, provider::RecursivePolling recursive) {
  counted(Operation::StartChangePollingMechanism);
  ForwardingProvider::startChangePollingMechanism(folder, std::move(callback), kinds, interval, recursive);
}

void CallCountingProvider::stopChangePollingMechanism(provider::StorageIRI const& folder) {
  counted(Operation::StopChangePollingMechanism);
  ForwardingProvider::stopChangePollingMechanism(folder);
}

} // namespace foundation::storage::providers::wrappers
