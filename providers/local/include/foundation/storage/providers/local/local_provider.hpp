#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/provider_base.hpp>
#include <foundation/storage/provider/storage_item.hpp>

#include <functional>
#include <memory>
#include <mutex>

namespace foundation::storage::providers::local {

namespace detail {
class InotifyWatcher;
struct UserIdentity;
} // namespace detail

/// How the provider renames: `renameat` (with `noReplace`: fail with EEXIST rather than
/// replace); returns 0 or an errno value. A seam for tests, which simulate a move across
/// file systems (EXDEV) with it.
using RenameFunction = std::function<int(int fromDir, char const* from, int toDir, char const* to, bool noReplace)>;

/// How the provider makes an open file or folder durable (fsync); returns 0 or an errno
/// value. A seam for tests, which observe when data reaches the disk.
using SyncFunction = std::function<int(int fd)>;

struct LocalProviderOptions {
  /// Empty: the system's own rename.
  RenameFunction rename;
  /// Empty: the system's own fsync.
  SyncFunction sync;
};

/// The provider of the local file system: locations `file:///absolute/path`, POSIX calls.
///
/// - Listings read folders with getdents64 (readdir elsewhere) and take each entry's kind
///   from the folder itself; only listings with attributes (and entries of unknown kind)
///   cost a stat. Names that are not valid UTF-8 cannot be written as locations and are
///   left out.
/// - Symbolic links are followed for attributes and kinds, and reported with their symlink
///   flag; recursive listings and recursive removal never enter a linked folder, so links
///   cannot make them loop or reach outside the tree.
/// - Transactional streams write a temporary file in the target's folder and commit with
///   fsync, rename and an fsync of the folder, keeping the target's permissions. Copies land
///   the same way, so a failed copy leaves no partial destination and a finished one is on
///   disk before the call returns. Inside a durability batch (which the library opens for
///   tree copies) files that replace nothing skip their own syncs, and the batch's end
///   syncs their file systems once (syncfs): the whole tree is on disk when it returns. Copies use reflinks where the
///   file system shares extents, else copy_file_range, else read/write.
/// - FailIfExists and KeepExisting never replace a destination, even one that appears while
///   a copy or move runs: the check and the landing are one step (linkat of an unnamed
///   file, renameat2 with RENAME_NOREPLACE).
/// - Temporary files (".vfs-*.tmp") never appear in listings; a listing removes those that
///   no live writer holds (writers flock them), such as the ones a killed process left.
/// - Moves rename within one file system; across file systems (EXDEV) they fail with
///   UnsupportedOperation so that callers copy and remove instead.
/// - Changes are reported with inotify (recursive watches follow new subfolders; after a
///   kernel queue overflow the watched folders are rescanned and the differences
///   reported); polling uses the platform's watcher.
/// - "writable" means writable for the current user; the superuser can write anything.
/// Thread-safe.
class FOUNDATION_API LocalProvider final : public provider::ProviderBase,
                                           public provider::extensions::IFlushableFilesystem,
                                           public provider::extensions::IInvalidatable,
                                           public provider::extensions::IDurabilityBatching {
public:
  explicit LocalProvider(LocalProviderOptions options = {});
  ~LocalProvider() override;

  /// The path with symbolic links resolved.
  provider::StorageIRI getCanonicalLocation(provider::StorageIRI const& location) override;
  provider::ExistsResult exists(provider::StorageIRI const& location) override;
  /// Tells symbolic links (broken ones too) and special files apart.
  provider::ExtendedExistsResult existsExtended(provider::StorageIRI const& location) override;
  provider::FileAttributes getFileAttributes(provider::StorageIRI const& file) override;
  provider::FolderAttributes getFolderAttributes(provider::StorageIRI const& folder) override;
  /// "posix.*": mode, owner, inode, links, device, size, times.
  provider::ExtendedAttributes getExtendedAttributes(provider::StorageIRI const& location) override;
  void setLastModified(provider::StorageIRI const& location, boost::posix_time::ptime const& time) override;
  void setWritable(provider::StorageIRI const& location, bool writable) override;
  void createFile(provider::StorageIRI const& file) override;
  void removeFile(provider::StorageIRI const& file) override;
  void truncateToSize(provider::StorageIRI const& file, std::uint64_t size) override;
  std::unique_ptr<provider::ByteStream> openReadOnlyStream(provider::StorageIRI const& file) override;
  void createFolder(provider::StorageIRI const& folder) override;
  void removeFolder(provider::StorageIRI const& folder) override;
  /// One walk that never follows links; refuses mount points and what the sticky bit keeps.
  void removeFolderRecursively(provider::StorageIRI const& folder) override;
  /// Asks the file system where it can tell (case-insensitive volumes).
  provider::FilenameSensitivity getFilenameSensitivity(provider::StorageIRI const& location) override;
  /// Stops polling and every inotify watch.
  void shutdownProvider(provider::StorageIRI const& location) override;
  /// statvfs figures, with "posix.*" details.
  provider::StorageInfo getProviderStorageInfo(provider::StorageIRI const& location) override;
  void publishFileEvents(provider::StorageIRI const& file, provider::ChangeCallback callback,
                         std::vector<events::Kind> const& kinds) override;
  void stopPublishingFileEvents(provider::StorageIRI const& file) override;
  void publishFolderEvents(provider::StorageIRI const& folder, provider::ChangeCallback callback,
                           std::vector<events::Kind> const& kinds, provider::RecursiveWatching recursive) override;
  void stopPublishingFolderEvents(provider::StorageIRI const& folder) override;

  /// sync: every file system.
  void flushFilesystem() override;
  /// syncfs: the file system holding `location`.
  void flushFilesystem(provider::StorageIRI const& location) override;
  /// Nothing is cached: does nothing.
  void invalidate(provider::StorageIRI const& location) override;
  /// Batches are per thread and shared by every local provider of the thread.
  void beginDurabilityBatch() override;
  void endDurabilityBatch(provider::StorageIRI const& location) override;
  void abandonDurabilityBatch() noexcept override;

protected:
  /// getdents64 streaming, recursing and filtering natively.
  std::unique_ptr<provider::IFolderEntryIterator> list(provider::StorageIRI const& folder,
                                                       provider::ListingRequest const& request) override;
  std::unique_ptr<provider::ByteStream> doOpenStream(provider::StorageIRI const& file,
                                                     provider::ByteStreamOpenOptions const& options) override;
  std::unique_ptr<provider::TransactionalStream>
  doOpenTransactionalStream(provider::StorageIRI const& file, provider::ByteStreamOpenOptions const& options) override;
  void doMoveFile(provider::StorageIRI const& source, provider::StorageIRI const& destination,
                  provider::ReplacementPolicy policy) override;
  /// Within this provider: reflink, else copy_file_range, landing atomically; elsewhere
  /// through streams.
  provider::CopyResult doCopyFile(provider::StorageIRI const& source, provider::StorageItem const& destination,
                                  provider::CopyFileOptions const& options) override;
  void doMoveFolder(provider::StorageIRI const& source, provider::StorageIRI const& destination,
                    provider::ReplacementPolicy policy) override;

private:
  int rename(int fromDir, char const* from, int toDir, char const* to, bool noReplace) const;
  detail::InotifyWatcher& inotify();

  LocalProviderOptions options_;
  std::unique_ptr<detail::UserIdentity> user_;
  std::mutex inotifyMutex_;
  std::unique_ptr<detail::InotifyWatcher> inotify_;
};

} // namespace foundation::storage::providers::local
