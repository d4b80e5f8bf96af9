#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/storage_item.hpp>

namespace foundation::storage::provider {

IProvider::~IProvider() = default;
extensions::IInvalidatable::~IInvalidatable() = default;
extensions::IFlushableFilesystem::~IFlushableFilesystem() = default;
extensions::IDurabilityBatching::~IDurabilityBatching() = default;
void extensions::IFlushableFilesystem::flushFilesystem(StorageIRI const&) { flushFilesystem(); }

StorageItem::StorageItem(std::shared_ptr<IProvider> provider, StorageIRI location)
    : provider_(std::move(provider)), location_(std::move(location)) {
  if (!provider_) fail(ErrorCode::InvalidLocation, location_, u"item", "no provider for the location");
}

StorageItem::StorageItem(StorageItem const& parent, std::u16string name)
    : provider_(parent.provider_), location_(parent.location_, name) {}

StorageIRI StorageItem::getCanonicalLocation() const { return provider_->getCanonicalLocation(location_); }
StorageItem StorageItem::getParent() const { return StorageItem(provider_, location_.getParent()); }

ExistsResult StorageItem::exists() const { return provider_->exists(location_); }
ExtendedExistsResult StorageItem::existsExtended() const { return provider_->existsExtended(location_); }
bool StorageItem::fileExists() const { return provider_->fileExists(location_); }
bool StorageItem::folderExists() const { return provider_->folderExists(location_); }
FileAttributes StorageItem::getFileAttributes() const { return provider_->getFileAttributes(location_); }
FolderAttributes StorageItem::getFolderAttributes() const { return provider_->getFolderAttributes(location_); }
ExtendedAttributes StorageItem::getExtendedAttributes() const { return provider_->getExtendedAttributes(location_); }
void StorageItem::setLastModified(boost::posix_time::ptime const& time) const {
  provider_->setLastModified(location_, time);
}
void StorageItem::setWritable(bool writable) const { provider_->setWritable(location_, writable); }

void StorageItem::createFile() const { provider_->createFile(location_); }
void StorageItem::removeFile() const { provider_->removeFile(location_); }
void StorageItem::truncateToSize(std::uint64_t size) const { provider_->truncateToSize(location_, size); }
std::unique_ptr<ByteStream> StorageItem::openStream(ByteStreamOpenOptions const& options) const {
  return provider_->openStream(location_, options);
}
std::unique_ptr<ByteStream> StorageItem::openReadOnlyStream() const { return provider_->openReadOnlyStream(location_); }
std::unique_ptr<TransactionalStream> StorageItem::openTransactionalStream(ByteStreamOpenOptions const& options) const {
  return provider_->openTransactionalStream(location_, options);
}
void StorageItem::moveFile(StorageIRI const& destination, ReplacementPolicy policy) const {
  provider_->moveFile(location_, destination, policy);
}
CopyResult StorageItem::copyFile(StorageItem const& destination, CopyFileOptions const& options) const {
  return provider_->copyFile(location_, destination, options);
}

void StorageItem::createFolder() const { provider_->createFolder(location_); }
void StorageItem::createFolderRecursive() const { provider_->createFolderRecursive(location_); }
void StorageItem::removeFolder() const { provider_->removeFolder(location_); }
void StorageItem::removeFolderRecursively() const { provider_->removeFolderRecursively(location_); }
void StorageItem::moveFolder(StorageIRI const& destination, ReplacementPolicy policy) const {
  provider_->moveFolder(location_, destination, policy);
}
FilenameSensitivity StorageItem::getFilenameSensitivity() const { return provider_->getFilenameSensitivity(location_); }
PathComparatorFunction StorageItem::getPathComparator() const { return provider_->getPathComparator(location_); }

std::unique_ptr<IFolderEntryIterator> StorageItem::listAllNamesOnly(std::u16string const& pattern) const {
  return provider_->listAllNamesOnly(location_, pattern);
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listFilesNamesOnly(std::u16string const& pattern) const {
  return provider_->listFilesNamesOnly(location_, pattern);
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listFoldersNamesOnly(std::u16string const& pattern) const {
  return provider_->listFoldersNamesOnly(location_, pattern);
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listAll(std::u16string const& pattern) const {
  return provider_->listAll(location_, pattern);
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listFiles(std::u16string const& pattern) const {
  return provider_->listFiles(location_, pattern);
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listFolders(std::u16string const& pattern) const {
  return provider_->listFolders(location_, pattern);
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listAllRecursiveNamesOnly(std::u16string const& pattern) const {
  return provider_->listAllRecursiveNamesOnly(location_, pattern);
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listAllRecursive(std::u16string const& pattern) const {
  return provider_->listAllRecursive(location_, pattern);
}

bool StorageItem::hasFeature(ExtendedFeature feature) const {
  try {
    return provider_->hasFeature(feature);
  } catch (Exception const& failure) {
    if (failure.getStorageIRI().hasPath()) throw;
    // The question names no location; the failure is reported for the item that asked.
    Exception named(failure.getErrorCode(), location_);
    for (auto const& context : failure.getAllExceptionContexts()) named.addExceptionContext(context);
    raise(named);
  }
}
void StorageItem::configure(boost::property_tree::ptree settings) const {
  provider_->configure(location_, std::move(settings));
}
void StorageItem::shutdownProvider() const { provider_->shutdownProvider(location_); }
StorageInfo StorageItem::getProviderStorageInfo() const { return provider_->getProviderStorageInfo(location_); }
void StorageItem::flushFilesystem() const {
  if (auto* flushable = dynamic_cast<extensions::IFlushableFilesystem*>(provider_.get()))
    flushable->flushFilesystem(location_);
}

void StorageItem::publishFileEvents(ChangeCallback callback, std::vector<events::Kind> const& kinds) const {
  provider_->publishFileEvents(location_, std::move(callback), kinds);
}
void StorageItem::stopPublishingFileEvents() const { provider_->stopPublishingFileEvents(location_); }
void StorageItem::publishFolderEvents(ChangeCallback callback, std::vector<events::Kind> const& kinds,
                                      RecursiveWatching recursive) const {
  provider_->publishFolderEvents(location_, std::move(callback), kinds, recursive);
}
void StorageItem::stopPublishingFolderEvents() const { provider_->stopPublishingFolderEvents(location_); }
void StorageItem::startChangePollingMechanism(ChangeCallback callback, std::vector<events::Kind> const& kinds,
                                              std::chrono::milliseconds interval, RecursivePolling recursive) const {
  provider_->startChangePollingMechanism(location_, std::move(callback), kinds, interval, recursive);
}
void StorageItem::stopChangePollingMechanism() const { provider_->stopChangePollingMechanism(location_); }

} // namespace foundation::storage::provider
