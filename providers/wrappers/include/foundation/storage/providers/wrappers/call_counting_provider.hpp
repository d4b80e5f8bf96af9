#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/forwarding_provider.hpp>
#include <foundation/storage/providers/wrappers/operation.hpp>

#include <array>
#include <atomic>

namespace foundation::storage::providers::wrappers {

/// Counts every call per operation before passing it on (failed calls count too), so that
/// a test can prove that a path makes no extra round trip. Thread-safe.
class FOUNDATION_API CallCountingProvider final : public provider::ForwardingProvider {
public:
  using ForwardingProvider::ForwardingProvider;

  std::size_t count(Operation op) const noexcept;
  /// Calls of every operation together.
  std::size_t total() const noexcept;
  void reset() noexcept;

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
  void counted(Operation op) noexcept { counts_[static_cast<std::size_t>(op)].fetch_add(1, std::memory_order_relaxed); }

  std::array<std::atomic<std::size_t>, operationCount> counts_{};
};

} // namespace foundation::storage::providers::wrappers
