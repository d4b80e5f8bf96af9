#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/events/kinds.hpp>
#include <foundation/storage/provider/attributes.hpp>
#include <foundation/storage/provider/byte_stream.hpp>
#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/folder_entry.hpp>
#include <foundation/storage/provider/storage_iri.hpp>
#include <foundation/storage/provider/types.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/property_tree/ptree.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

namespace foundation::storage::provider {

class StorageItem;

/// Receives one change: what happened, the location that was subscribed, the item that
/// changed, its kind, and extra data ("renamedFrom" for renames). Called on the provider's
/// notifying thread; it must not throw (a provider swallows what it throws).
using ChangeCallback = std::function<void(events::Kind const&, StorageIRI const& subscription, StorageIRI const& item,
                                          events::EntryType const&, boost::property_tree::ptree)>;

/// The operations of one storage back end, each on a location of its scheme.
///
/// Error contract, common to every operation: failures are `Exception` with a code and the
/// location concerned (missing item or parent: ResourceNotFound; the item is of the other
/// kind than the operation needs: ResourceNotFound; exists already: ResourceAlreadyExists;
/// a read-only item or folder: PermissionDenied; bad arguments: InvalidLocation; a location
/// of another provider: UnsupportedOperation). A failed operation changes nothing: what can
/// be known to fail (a read-only parent, the root folder) is refused before anything is
/// changed.
///
/// Dot segments: every provider acts on the location's resolved path
/// (`StorageIRI::getResolvedPath`, by name, as RFC 3986 removes them), never on the text as
/// given; so `a/b/..` is `a` and `a/.` is `a` for every operation. Errors still name the
/// location as given.
/// Byte streams fail with the ByteStream*Failure types. Change subscriptions fail with
/// ChangeEventsNotSupportedException or ChangeEventsSubscriptionException.
///
/// Thread safety: every operation may be called from any thread at any time.
class FOUNDATION_API IProvider {
public:
  virtual ~IProvider();

  /// The location with dot segments, links and (for case-insensitive providers) letter
  /// case resolved; the item must exist.
  virtual StorageIRI getCanonicalLocation(StorageIRI const& location) = 0;

  virtual ExistsResult exists(StorageIRI const& location) = 0;
  virtual ExtendedExistsResult existsExtended(StorageIRI const& location) = 0;
  /// False when nothing or a folder is there.
  virtual bool fileExists(StorageIRI const& location) = 0;
  /// False when nothing or a file is there.
  virtual bool folderExists(StorageIRI const& location) = 0;

  virtual FileAttributes getFileAttributes(StorageIRI const& file) = 0;
  virtual FolderAttributes getFolderAttributes(StorageIRI const& folder) = 0;
  virtual ExtendedAttributes getExtendedAttributes(StorageIRI const& location) = 0;
  /// On files and folders.
  virtual void setLastModified(StorageIRI const& location, boost::posix_time::ptime const& time) = 0;
  /// On files and folders; a folder that is not writable refuses new and removed children.
  virtual void setWritable(StorageIRI const& location, bool writable) = 0;

  virtual void createFile(StorageIRI const& file) = 0;
  virtual void removeFile(StorageIRI const& file) = 0;
  /// Shrinks or zero-extends the file.
  virtual void truncateToSize(StorageIRI const& file, std::uint64_t size) = 0;
  /// A writable stream per `options`; invalid option values are InvalidLocation.
  virtual std::unique_ptr<ByteStream> openStream(StorageIRI const& file, ByteStreamOpenOptions const& options) = 0;
  virtual std::unique_ptr<ByteStream> openReadOnlyStream(StorageIRI const& file) = 0;
  /// A stream whose contents replace the file's atomically on commit. Checks made at open:
  /// parent folder, kind, writability, and existence for MustExist.
  virtual std::unique_ptr<TransactionalStream> openTransactionalStream(StorageIRI const& file,
                                                                       ByteStreamOpenOptions const& options) = 0;
  /// Renames within this provider; a destination of another provider is
  /// UnsupportedOperation, so that callers can fall back to copy and remove.
  virtual void moveFile(StorageIRI const& source, StorageIRI const& destination, ReplacementPolicy policy) = 0;
  /// Copies to a destination of any provider. Overwrite (and ForceOverwrite, which the
  /// library handles) replace the destination; KeepExisting keeps it and answers Skipped.
  /// A failed copy leaves the destination as it was.
  virtual CopyResult copyFile(StorageIRI const& source, StorageItem const& destination,
                              CopyFileOptions const& options) = 0;

  virtual void createFolder(StorageIRI const& folder) = 0;
  /// Creates missing ancestors too; an existing folder is not an error.
  virtual void createFolderRecursive(StorageIRI const& folder) = 0;
  /// Removes an empty folder; FolderNotEmpty otherwise.
  virtual void removeFolder(StorageIRI const& folder) = 0;
  /// Removes a folder and everything below it (NativeRecursiveRemoval).
  virtual void removeFolderRecursively(StorageIRI const& folder) = 0;
  /// Renames a folder within this provider. An existing empty destination folder is
  /// replaced under Overwrite-like policies; a non-empty one is FolderNotEmpty; otherwise
  /// an existing destination is ResourceAlreadyExists. Into its own subtree: InvalidLocation.
  virtual void moveFolder(StorageIRI const& source, StorageIRI const& destination, ReplacementPolicy policy) = 0;
  virtual FilenameSensitivity getFilenameSensitivity(StorageIRI const& location) = 0;
  virtual PathComparatorFunction getPathComparator(StorageIRI const& location) = 0;

  /// Listings of a folder's children, optionally filtered by a `*`/`?` pattern on names
  /// (FlatWildcardListing). Names-only listings carry no attributes.
  virtual std::unique_ptr<IFolderEntryIterator> listAllNamesOnly(StorageIRI const& folder,
                                                                 std::u16string const& pattern) = 0;
  virtual std::unique_ptr<IFolderEntryIterator> listFilesNamesOnly(StorageIRI const& folder,
                                                                   std::u16string const& pattern) = 0;
  virtual std::unique_ptr<IFolderEntryIterator> listFoldersNamesOnly(StorageIRI const& folder,
                                                                     std::u16string const& pattern) = 0;
  virtual std::unique_ptr<IFolderEntryIterator> listAll(StorageIRI const& folder, std::u16string const& pattern) = 0;
  virtual std::unique_ptr<IFolderEntryIterator> listFiles(StorageIRI const& folder, std::u16string const& pattern) = 0;
  virtual std::unique_ptr<IFolderEntryIterator> listFolders(StorageIRI const& folder,
                                                            std::u16string const& pattern) = 0;
  /// Every item below the folder, depth first, a folder right before its contents; names
  /// are relative paths ("sub/a.txt"). The pattern tests the last segment only and every
  /// folder is entered (RecursiveListing, RecursiveWildcardListing).
  virtual std::unique_ptr<IFolderEntryIterator> listAllRecursiveNamesOnly(StorageIRI const& folder,
                                                                          std::u16string const& pattern) = 0;
  virtual std::unique_ptr<IFolderEntryIterator> listAllRecursive(StorageIRI const& folder,
                                                                 std::u16string const& pattern) = 0;

  virtual bool hasFeature(ExtendedFeature feature) = 0;
  /// Applies provider-specific settings; unknown keys are InvalidLocation.
  virtual void configure(StorageIRI const& location, boost::property_tree::ptree settings) = 0;
  /// Stops every watch and poll and releases what the provider holds; stored data stays.
  virtual void shutdownProvider(StorageIRI const& location) = 0;
  virtual StorageInfo getProviderStorageInfo(StorageIRI const& location) = 0;

  /// Reports changes of one file until stopped. Subscribing again replaces the callback.
  virtual void publishFileEvents(StorageIRI const& file, ChangeCallback callback,
                                 std::vector<events::Kind> const& kinds) = 0;
  virtual void stopPublishingFileEvents(StorageIRI const& file) = 0;
  /// Reports changes of a folder and its children (and everything below with Yes).
  virtual void publishFolderEvents(StorageIRI const& folder, ChangeCallback callback,
                                   std::vector<events::Kind> const& kinds, RecursiveWatching recursive) = 0;
  virtual void stopPublishingFolderEvents(StorageIRI const& folder) = 0;
  /// Reports changes found by comparing listings at the interval.
  virtual void startChangePollingMechanism(StorageIRI const& folder, ChangeCallback callback,
                                           std::vector<events::Kind> const& kinds, std::chrono::milliseconds interval,
                                           RecursivePolling recursive) = 0;
  virtual void stopChangePollingMechanism(StorageIRI const& folder) = 0;
};

/// Optional interfaces a provider object may implement besides IProvider.
namespace extensions {

/// Drops what the provider caches for a location.
class FOUNDATION_API IInvalidatable {
public:
  virtual ~IInvalidatable();
  virtual void invalidate(StorageIRI const& location) = 0;
};

/// Flushes pending writes of the file systems behind the provider.
class FOUNDATION_API IFlushableFilesystem {
public:
  virtual ~IFlushableFilesystem();
  /// Every file system the provider writes to.
  virtual void flushFilesystem() = 0;
  /// The file system holding `location`; by default every one.
  virtual void flushFilesystem(StorageIRI const& location);
};

/// Lets a caller that lands many new files make them durable together, with one flush at
/// the end instead of one per file. While a batch is open on the calling thread, a file
/// that replaces nothing may land without its own flush; a file that replaces old contents
/// is flushed first as always, so a crash never costs old contents. Batches nest.
class FOUNDATION_API IDurabilityBatching {
public:
  virtual ~IDurabilityBatching();
  virtual void beginDurabilityBatch() = 0;
  /// Closes the batch; the outermost close makes everything landed in it durable before it
  /// returns. Failures name `location`.
  virtual void endDurabilityBatch(StorageIRI const& location) = 0;
  /// Closes the batch without flushing, for work that failed and that nothing will rely on.
  virtual void abandonDurabilityBatch() noexcept = 0;
};

} // namespace extensions
} // namespace foundation::storage::provider
