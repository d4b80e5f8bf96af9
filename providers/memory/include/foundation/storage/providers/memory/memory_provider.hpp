#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/provider_base.hpp>

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
class FOUNDATION_API MemoryProvider final : public provider::ProviderBase {
public:
  explicit MemoryProvider(provider::FilenameSensitivity sensitivity = provider::FilenameSensitivity::CaseSensitive,
                          std::u16string authority = u"", std::u16string scheme = u"mem");
  ~MemoryProvider() override;

  provider::StorageIRI getCanonicalLocation(provider::StorageIRI const& location) override;
  provider::ExistsResult exists(provider::StorageIRI const& location) override;
  provider::FileAttributes getFileAttributes(provider::StorageIRI const& file) override;
  provider::FolderAttributes getFolderAttributes(provider::StorageIRI const& folder) override;
  provider::ExtendedAttributes getExtendedAttributes(provider::StorageIRI const& location) override;
  void setLastModified(provider::StorageIRI const& location, boost::posix_time::ptime const& time) override;
  void setWritable(provider::StorageIRI const& location, bool writable) override;
  void createFile(provider::StorageIRI const& file) override;
  void removeFile(provider::StorageIRI const& file) override;
  void truncateToSize(provider::StorageIRI const& file, std::uint64_t size) override;
  std::unique_ptr<provider::ByteStream> openReadOnlyStream(provider::StorageIRI const& file) override;
  void createFolder(provider::StorageIRI const& folder) override;
  /// Every missing level at once, under one lock.
  void createFolderRecursive(provider::StorageIRI const& folder) override;
  void removeFolder(provider::StorageIRI const& folder) override;
  /// All or nothing: a read-only folder anywhere below refuses before anything goes.
  void removeFolderRecursively(provider::StorageIRI const& folder) override;
  void configure(provider::StorageIRI const& location, boost::property_tree::ptree settings) override;
  /// Stops every poll and ends every subscription.
  void shutdownProvider(provider::StorageIRI const& location) override;
  provider::StorageInfo getProviderStorageInfo(provider::StorageIRI const& location) override;
  void publishFileEvents(provider::StorageIRI const& file, provider::ChangeCallback callback,
                         std::vector<events::Kind> const& kinds) override;
  void stopPublishingFileEvents(provider::StorageIRI const& file) override;
  void publishFolderEvents(provider::StorageIRI const& folder, provider::ChangeCallback callback,
                           std::vector<events::Kind> const& kinds, provider::RecursiveWatching recursive) override;
  void stopPublishingFolderEvents(provider::StorageIRI const& folder) override;

protected:
  /// A snapshot taken under the lock, filtered and recursive natively.
  std::unique_ptr<provider::IFolderEntryIterator> list(provider::StorageIRI const& folder,
                                                       provider::ListingRequest const& request) override;
  std::unique_ptr<provider::ByteStream> doOpenStream(provider::StorageIRI const& file,
                                                     provider::ByteStreamOpenOptions const& options) override;
  std::unique_ptr<provider::TransactionalStream>
  doOpenTransactionalStream(provider::StorageIRI const& file, provider::ByteStreamOpenOptions const& options) override;
  void doMoveFile(provider::StorageIRI const& source, provider::StorageIRI const& destination,
                  provider::ReplacementPolicy policy) override;
  /// Within this provider, a copy shares nothing but is made under one lock.
  provider::CopyResult doCopyFile(provider::StorageIRI const& source, provider::StorageItem const& destination,
                                  provider::CopyFileOptions const& options) override;
  void doMoveFolder(provider::StorageIRI const& source, provider::StorageIRI const& destination,
                    provider::ReplacementPolicy policy) override;

private:
  std::shared_ptr<detail::Tree> tree_;
};

} // namespace foundation::storage::providers::memory
