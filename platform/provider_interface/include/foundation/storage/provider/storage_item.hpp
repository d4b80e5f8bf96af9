#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/provider.hpp>

#include <memory>

namespace foundation::storage::provider {

/// A provider together with one of its locations; every operation forwards to the
/// provider with that location. Cheap to copy (two reference counts).
class FOUNDATION_API StorageItem {
public:
  StorageItem(std::shared_ptr<IProvider> provider, StorageIRI location);
  /// The child `name` (one or more `/`-separated names) of `parent`, same provider.
  StorageItem(StorageItem const& parent, std::u16string name);

  std::shared_ptr<IProvider> const& getProvider() const noexcept { return provider_; }
  StorageIRI const& getLocation() const noexcept { return location_; }
  StorageIRI getCanonicalLocation() const;
  std::u16string getName() const { return location_.getName(); }
  std::u16string const& getScheme() const noexcept { return location_.getScheme(); }
  bool hasParent() const noexcept { return location_.hasParent(); }
  StorageItem getParent() const;

  ExistsResult exists() const;
  ExtendedExistsResult existsExtended() const;
  bool fileExists() const;
  bool folderExists() const;
  FileAttributes getFileAttributes() const;
  FolderAttributes getFolderAttributes() const;
  ExtendedAttributes getExtendedAttributes() const;
  void setLastModified(boost::posix_time::ptime const& time) const;
  void setWritable(bool writable) const;

  void createFile() const;
  void removeFile() const;
  void truncateToSize(std::uint64_t size) const;
  std::unique_ptr<ByteStream> openStream(ByteStreamOpenOptions const& options) const;
  std::unique_ptr<ByteStream> openReadOnlyStream() const;
  std::unique_ptr<TransactionalStream> openTransactionalStream(ByteStreamOpenOptions const& options) const;
  void moveFile(StorageIRI const& destination, ReplacementPolicy policy) const;
  CopyResult copyFile(StorageItem const& destination, CopyFileOptions const& options) const;

  void createFolder() const;
  void createFolderRecursive() const;
  void removeFolder() const;
  void removeFolderRecursively() const;
  void moveFolder(StorageIRI const& destination, ReplacementPolicy policy) const;
  FilenameSensitivity getFilenameSensitivity() const;
  PathComparatorFunction getPathComparator() const;

  std::unique_ptr<IFolderEntryIterator> listAllNamesOnly(std::u16string const& pattern) const;
  std::unique_ptr<IFolderEntryIterator> listFilesNamesOnly(std::u16string const& pattern) const;
  std::unique_ptr<IFolderEntryIterator> listFoldersNamesOnly(std::u16string const& pattern) const;
  std::unique_ptr<IFolderEntryIterator> listAll(std::u16string const& pattern) const;
  std::unique_ptr<IFolderEntryIterator> listFiles(std::u16string const& pattern) const;
  std::unique_ptr<IFolderEntryIterator> listFolders(std::u16string const& pattern) const;
  std::unique_ptr<IFolderEntryIterator> listAllRecursiveNamesOnly(std::u16string const& pattern) const;
  std::unique_ptr<IFolderEntryIterator> listAllRecursive(std::u16string const& pattern) const;

  bool hasFeature(ExtendedFeature feature) const;
  void configure(boost::property_tree::ptree settings) const;
  void shutdownProvider() const;
  StorageInfo getProviderStorageInfo() const;
  /// Flushes the file system when the provider can (IFlushableFilesystem); else nothing.
  void flushFilesystem() const;

  void publishFileEvents(ChangeCallback callback, std::vector<events::Kind> const& kinds) const;
  void stopPublishingFileEvents() const;
  void publishFolderEvents(ChangeCallback callback, std::vector<events::Kind> const& kinds,
                           RecursiveWatching recursive) const;
  void stopPublishingFolderEvents() const;
  void startChangePollingMechanism(ChangeCallback callback, std::vector<events::Kind> const& kinds,
                                   std::chrono::milliseconds interval, RecursivePolling recursive) const;
  void stopChangePollingMechanism() const;

private:
  std::shared_ptr<IProvider> provider_;
  StorageIRI location_;
};

} // namespace foundation::storage::provider
