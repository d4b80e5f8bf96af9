#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/change_polling_watcher.hpp>
#include <foundation/storage/provider/storage_item.hpp>

#include <memory>

namespace foundation::storage::providers::memory {

namespace detail {
struct Tree;
}

/// A complete provider that keeps files and folders in memory: locations
/// `<scheme>://<authority>/path` (by default `mem:///path`; one tree per instance).
///
/// Behaves as a file system would: a folder that is not writable refuses new and removed
/// children, a file that is not writable refuses writes; names are case-sensitive unless
/// built CaseInsensitive (then letter case is kept but ignored when looking names up).
/// Listings are snapshots taken under a lock, in name order. Streams keep working on a
/// file that is removed while open. Changes are reported natively once complete, one at a
/// time and in the order they were made, on the thread that made them; while another
/// thread is reporting changes of the same tree, that thread reports them after its own and
/// the call that made them returns without waiting. So a callback cannot deadlock, neither
/// by changing the tree nor by waiting for another thread that changes it. Settings
/// (`configure`): "capacity" (bytes; writes beyond it are NoSpaceLeft) and "maxFileSize"
/// (bytes; FileTooLarge). Thread-safe.
class FOUNDATION_API MemoryProvider final : public provider::IProvider {
public:
  explicit MemoryProvider(provider::FilenameSensitivity sensitivity = provider::FilenameSensitivity::CaseSensitive,
                          std::u16string authority = u"", std::u16string scheme = u"mem");
  ~MemoryProvider() override;

  provider::StorageIRI getCanonicalLocation(provider::StorageIRI const& location) override;
  provider::ExistsResult exists(provider::StorageIRI const& location) override;
  provider::ExtendedExistsResult existsExtended(provider::StorageIRI const& location) override;
  bool fileExists(provider::StorageIRI const& location) override;
  bool folderExists(provider::StorageIRI const& location) override;
  provider::FileAttributes getFileAttributes(provider::StorageIRI const& file) override;
  provider::FolderAttributes getFolderAttributes(provider::StorageIRI const& folder) override;
  provider::ExtendedAttributes getExtendedAttributes(provider::StorageIRI const& location) override;
  void setLastModified(provider::StorageIRI const& location, boost::posix_time::ptime const& time) override;
  void setWritable(provider::StorageIRI const& location, bool writable) override;
  void createFile(provider::StorageIRI const& file) override;
  void removeFile(provider::StorageIRI const& file) override;
  void truncateToSize(provider::StorageIRI const& file, std::uint64_t size) override;
  std::unique_ptr<provider::ByteStream> openStream(provider::StorageIRI const& file, provider::ByteStreamOpenOptions const& options) override;
  std::unique_ptr<provider::ByteStream> openReadOnlyStream(provider::StorageIRI const& file) override;
  std::unique_ptr<provider::TransactionalStream> openTransactionalStream(provider::StorageIRI const& file, provider::ByteStreamOpenOptions const& options) override;
  void moveFile(provider::StorageIRI const& source, provider::StorageIRI const& destination, provider::ReplacementPolicy policy) override;
  provider::CopyResult copyFile(provider::StorageIRI const& source, provider::StorageItem const& destination, provider::CopyFileOptions const& options) override;
  void createFolder(provider::StorageIRI const& folder) override;
  void createFolderRecursive(provider::StorageIRI const& folder) override;
  void removeFolder(provider::StorageIRI const& folder) override;
  void removeFolderRecursively(provider::StorageIRI const& folder) override;
  void moveFolder(provider::StorageIRI const& source, provider::StorageIRI const& destination, provider::ReplacementPolicy policy) override;
  provider::FilenameSensitivity getFilenameSensitivity(provider::StorageIRI const& location) override;
  provider::PathComparatorFunction getPathComparator(provider::StorageIRI const& location) override;
  std::unique_ptr<provider::IFolderEntryIterator> listAllNamesOnly(provider::StorageIRI const& folder, std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listFilesNamesOnly(provider::StorageIRI const& folder, std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listFoldersNamesOnly(provider::StorageIRI const& folder, std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listAll(provider::StorageIRI const& folder, std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listFiles(provider::StorageIRI const& folder, std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listFolders(provider::StorageIRI const& folder, std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listAllRecursiveNamesOnly(provider::StorageIRI const& folder, std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listAllRecursive(provider::StorageIRI const& folder, std::u16string const& pattern) override;
  bool hasFeature(provider::ExtendedFeature feature) override;
  void configure(provider::StorageIRI const& location, boost::property_tree::ptree settings) override;
  void shutdownProvider(provider::StorageIRI const& location) override;
  provider::StorageInfo getProviderStorageInfo(provider::StorageIRI const& location) override;
  void publishFileEvents(provider::StorageIRI const& file, provider::ChangeCallback callback, std::vector<events::Kind> const& kinds) override;
  void stopPublishingFileEvents(provider::StorageIRI const& file) override;
  void publishFolderEvents(provider::StorageIRI const& folder, provider::ChangeCallback callback, std::vector<events::Kind> const& kinds, provider::RecursiveWatching recursive) override;
  void stopPublishingFolderEvents(provider::StorageIRI const& folder) override;
  void startChangePollingMechanism(provider::StorageIRI const& folder, provider::ChangeCallback callback, std::vector<events::Kind> const& kinds, std::chrono::milliseconds interval, provider::RecursivePolling recursive) override;
  void stopChangePollingMechanism(provider::StorageIRI const& folder) override;

private:
  std::shared_ptr<detail::Tree> tree_;
  provider::ChangePollingWatcher poller_;
};

} // namespace foundation::storage::providers::memory
