#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/operation.hpp>
#include <foundation/storage/provider/storage_item.hpp>

#include <memory>

namespace foundation::storage::provider {

/// Passes every operation to a wrapped provider, so that a wrapper overrides only what it
/// changes. Every call first passes `beforeCall`, the one place to count, check or fail calls. The optional extensions
/// are forwarded when the wrapped provider has them and do nothing otherwise. A copy whose destination is served by
/// this wrapper reaches the wrapped provider with the destination unwrapped, so native copies stay native.
class FOUNDATION_API ForwardingProvider : public IProvider,
                                          public extensions::IInvalidatable,
                                          public extensions::IFlushableFilesystem {
public:
  explicit ForwardingProvider(std::shared_ptr<IProvider> inner);
  ~ForwardingProvider() override;

  std::shared_ptr<IProvider> const& getInner() const noexcept { return inner_; }

  StorageIRI getCanonicalLocation(StorageIRI const& location) override;
  ExistsResult exists(StorageIRI const& location) override;
  ExtendedExistsResult existsExtended(StorageIRI const& location) override;
  bool fileExists(StorageIRI const& location) override;
  bool folderExists(StorageIRI const& location) override;
  FileAttributes getFileAttributes(StorageIRI const& file) override;
  FolderAttributes getFolderAttributes(StorageIRI const& folder) override;
  ExtendedAttributes getExtendedAttributes(StorageIRI const& location) override;
  void setLastModified(StorageIRI const& location, boost::posix_time::ptime const& time) override;
  void setWritable(StorageIRI const& location, bool writable) override;
  void createFile(StorageIRI const& file) override;
  void removeFile(StorageIRI const& file) override;
  void truncateToSize(StorageIRI const& file, std::uint64_t size) override;
  std::unique_ptr<ByteStream> openStream(StorageIRI const& file, ByteStreamOpenOptions const& options) override;
  std::unique_ptr<ByteStream> openReadOnlyStream(StorageIRI const& file) override;
  std::unique_ptr<TransactionalStream> openTransactionalStream(StorageIRI const& file,
                                                               ByteStreamOpenOptions const& options) override;
  void moveFile(StorageIRI const& source, StorageIRI const& destination, ReplacementPolicy policy) override;
  CopyResult copyFile(StorageIRI const& source, StorageItem const& destination,
                      CopyFileOptions const& options) override;
  void createFolder(StorageIRI const& folder) override;
  void createFolderRecursive(StorageIRI const& folder) override;
  void removeFolder(StorageIRI const& folder) override;
  void removeFolderRecursively(StorageIRI const& folder) override;
  void moveFolder(StorageIRI const& source, StorageIRI const& destination, ReplacementPolicy policy) override;
  FilenameSensitivity getFilenameSensitivity(StorageIRI const& location) override;
  PathComparatorFunction getPathComparator(StorageIRI const& location) override;
  std::unique_ptr<IFolderEntryIterator> listAllNamesOnly(StorageIRI const& folder,
                                                         std::u16string const& pattern) override;
  std::unique_ptr<IFolderEntryIterator> listFilesNamesOnly(StorageIRI const& folder,
                                                           std::u16string const& pattern) override;
  std::unique_ptr<IFolderEntryIterator> listFoldersNamesOnly(StorageIRI const& folder,
                                                             std::u16string const& pattern) override;
  std::unique_ptr<IFolderEntryIterator> listAll(StorageIRI const& folder, std::u16string const& pattern) override;
  std::unique_ptr<IFolderEntryIterator> listFiles(StorageIRI const& folder, std::u16string const& pattern) override;
  std::unique_ptr<IFolderEntryIterator> listFolders(StorageIRI const& folder, std::u16string const& pattern) override;
  std::unique_ptr<IFolderEntryIterator> listAllRecursiveNamesOnly(StorageIRI const& folder,
                                                                  std::u16string const& pattern) override;
  std::unique_ptr<IFolderEntryIterator> listAllRecursive(StorageIRI const& folder,
                                                         std::u16string const& pattern) override;
  bool hasFeature(ExtendedFeature feature) override;
  void configure(StorageIRI const& location, boost::property_tree::ptree settings) override;
  void shutdownProvider(StorageIRI const& location) override;
  StorageInfo getProviderStorageInfo(StorageIRI const& location) override;
  void publishFileEvents(StorageIRI const& file, ChangeCallback callback,
                         std::vector<events::Kind> const& kinds) override;
  void stopPublishingFileEvents(StorageIRI const& file) override;
  void publishFolderEvents(StorageIRI const& folder, ChangeCallback callback, std::vector<events::Kind> const& kinds,
                           RecursiveWatching recursive) override;
  void stopPublishingFolderEvents(StorageIRI const& folder) override;
  void startChangePollingMechanism(StorageIRI const& folder, ChangeCallback callback,
                                   std::vector<events::Kind> const& kinds, std::chrono::milliseconds interval,
                                   RecursivePolling recursive) override;
  void stopChangePollingMechanism(StorageIRI const& folder) override;

  void invalidate(StorageIRI const& location) override;
  void flushFilesystem() override;
  void flushFilesystem(StorageIRI const& location) override;

protected:
  /// Runs before every forwarded call with the operation and its (first) location; the
  /// location is empty for `hasFeature`. Throwing here fails the call before the wrapped
  /// provider sees it. Does nothing by default.
  virtual void beforeCall(Operation op, StorageIRI const& location);

  IProvider& inner() const noexcept { return *inner_; }
  /// `item` with this wrapper replaced by the wrapped provider, when it is served by this.
  StorageItem unwrap(StorageItem const& item) const;

private:
  std::shared_ptr<IProvider> inner_;
};

} // namespace foundation::storage::provider
