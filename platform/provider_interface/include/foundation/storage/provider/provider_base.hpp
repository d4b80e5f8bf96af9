#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/change_polling_watcher.hpp>
#include <foundation/storage/provider/operation.hpp>
#include <foundation/storage/provider/provider.hpp>
#include <foundation/storage/provider/storage_item.hpp>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace foundation::storage::provider {

/// Which children a listing asks for.
enum class EntryKinds : std::uint32_t { Files = 0, Folders = 1, All = 2 };

/// One listing: each of the eight listing members of IProvider is one such request.
struct ListingRequest {
  Operation operation = Operation::ListAll; ///< the member asked, for error contexts
  EntryKinds kinds = EntryKinds::All;
  bool withAttributes = false;
  /// Every item below the folder, depth first, a folder right before its contents, names
  /// as relative paths; only with EntryKinds::All.
  bool recursive = false;
  /// `*`/`?` pattern on the last name segment; empty: every name.
  std::u16string pattern;

  /// Whether an entry of this kind belongs in the listing.
  bool wantsKindOf(FolderEntry const& entry) const noexcept {
    return kinds == EntryKinds::All || (kinds == EntryKinds::Files) == entry.isFile();
  }
};

/// What a back end does natively. The base derives the rest from the provider's own
/// members, so a back end declares what it can do better and writes only that.
struct ProviderCapabilities {
  FilenameSensitivity sensitivity = FilenameSensitivity::CaseSensitive;
  /// `list` applies the request's pattern itself; otherwise the base filters.
  bool filtersNames = false;
  /// `list` answers recursive requests itself; otherwise the base walks the folders.
  bool listsRecursively = false;
  /// `removeFolderRecursively` is overridden by one native operation (NativeRecursiveRemoval).
  bool removesRecursively = false;
  /// The native change events cover whole subtrees (RecursiveChangeEvents).
  bool reportsRecursiveChanges = false;
};

/// "<provider>.<operation>" ("local.openStream"): the context key of a failure, for helper
/// layers of a back end that raise without the provider at hand.
FOUNDATION_API std::u16string contextKey(std::u16string_view provider, Operation operation);

/// The base a storage back end derives from. It implements every IProvider member that
/// can be derived from a few others, and checks arguments once before they reach the back
/// end:
/// - the existence family (`existsExtended`, `fileExists`, `folderExists`) from `exists`;
/// - the eight listings from one protected `list`, with wildcard filtering and recursion
///   done here for back ends that cannot do them natively;
/// - `createFolderRecursive` and `removeFolderRecursively` from the single-item members;
///   removal goes one folder level at a time without recursion, so any depth works, and a
///   link to a folder is removed as a link, never emptied;
/// - `copyFile` through byte streams; change polling by listing; change events that throw
///   ChangeEventsNotSupportedException for back ends without native ones;
/// - replacement policies and stream options validated (InvalidLocation) before dispatch,
///   and the policies a back end must honour reduced to FailIfExists, Overwrite and
///   KeepExisting.
///
/// Failures raised through `fail` carry the context key "<name>.<operation>", one
/// vocabulary across every back end ("memory.createFile", "local.openStream").
///
/// A derived class whose listings use its own members calls `stopChangePolling` first
/// thing in its destructor, so that the polling thread never lists a half-destroyed
/// provider. Thread safety: the base adds no locking of its own around the back end's
/// members; every member may be called from any thread as IProvider requires.
class FOUNDATION_API ProviderBase : public IProvider {
public:
  ~ProviderBase() override;

  /// The existing item's location with dot segments resolved.
  StorageIRI getCanonicalLocation(StorageIRI const& location) override;
  ExtendedExistsResult existsExtended(StorageIRI const& location) override;
  bool fileExists(StorageIRI const& location) override;
  bool folderExists(StorageIRI const& location) override;
  /// No keys of its own: an empty tree for an existing item.
  ExtendedAttributes getExtendedAttributes(StorageIRI const& location) override;

  std::unique_ptr<ByteStream> openStream(StorageIRI const& file, ByteStreamOpenOptions const& options) final;
  std::unique_ptr<TransactionalStream> openTransactionalStream(StorageIRI const& file,
                                                               ByteStreamOpenOptions const& options) final;
  void moveFile(StorageIRI const& source, StorageIRI const& destination, ReplacementPolicy policy) final;
  CopyResult copyFile(StorageIRI const& source, StorageItem const& destination, CopyFileOptions const& options) final;
  void moveFolder(StorageIRI const& source, StorageIRI const& destination, ReplacementPolicy policy) final;

  /// Creates each missing ancestor with `createFolder`, from the root down; a folder that
  /// another caller creates meanwhile is not an error.
  void createFolderRecursive(StorageIRI const& folder) override;
  /// Removes files and emptied folders with the single-item members, one folder level at a
  /// time without recursion, so any depth works.
  void removeFolderRecursively(StorageIRI const& folder) override;

  /// What the capabilities say.
  FilenameSensitivity getFilenameSensitivity(StorageIRI const& location) override;
  /// Compares as `getFilenameSensitivity` says for the location.
  PathComparatorFunction getPathComparator(StorageIRI const& location) override;

  std::unique_ptr<IFolderEntryIterator> listAllNamesOnly(StorageIRI const& folder, std::u16string const& pattern) final;
  std::unique_ptr<IFolderEntryIterator> listFilesNamesOnly(StorageIRI const& folder,
                                                           std::u16string const& pattern) final;
  std::unique_ptr<IFolderEntryIterator> listFoldersNamesOnly(StorageIRI const& folder,
                                                             std::u16string const& pattern) final;
  std::unique_ptr<IFolderEntryIterator> listAll(StorageIRI const& folder, std::u16string const& pattern) final;
  std::unique_ptr<IFolderEntryIterator> listFiles(StorageIRI const& folder, std::u16string const& pattern) final;
  std::unique_ptr<IFolderEntryIterator> listFolders(StorageIRI const& folder, std::u16string const& pattern) final;
  std::unique_ptr<IFolderEntryIterator> listAllRecursiveNamesOnly(StorageIRI const& folder,
                                                                  std::u16string const& pattern) final;
  std::unique_ptr<IFolderEntryIterator> listAllRecursive(StorageIRI const& folder, std::u16string const& pattern) final;

  /// Listings are recursive and filtered on every back end (here if not natively); native
  /// recursive removal and recursive change events are what the capabilities say.
  bool hasFeature(ExtendedFeature feature) override;
  /// Takes no settings: any key is InvalidLocation.
  void configure(StorageIRI const& location, boost::property_tree::ptree settings) override;
  /// Stops every poll.
  void shutdownProvider(StorageIRI const& location) override;
  /// Nothing known: every count 0.
  StorageInfo getProviderStorageInfo(StorageIRI const& location) override;

  /// Without native events: ChangeEventsNotSupportedException; stopping is a no-op.
  void publishFileEvents(StorageIRI const& file, ChangeCallback callback,
                         std::vector<events::Kind> const& kinds) override;
  void stopPublishingFileEvents(StorageIRI const& file) override;
  void publishFolderEvents(StorageIRI const& folder, ChangeCallback callback, std::vector<events::Kind> const& kinds,
                           RecursiveWatching recursive) override;
  void stopPublishingFolderEvents(StorageIRI const& folder) override;
  /// Compares listings at the interval (ChangePollingWatcher), on every back end.
  void startChangePollingMechanism(StorageIRI const& folder, ChangeCallback callback,
                                   std::vector<events::Kind> const& kinds, std::chrono::milliseconds interval,
                                   RecursivePolling recursive) override;
  void stopChangePollingMechanism(StorageIRI const& folder) override;

protected:
  /// `name` starts every context key ("memory", "local", "s3", "zip").
  ProviderBase(std::u16string name, ProviderCapabilities capabilities);

  /// The listing behind all eight listing members. The cursor delivers exactly the kinds
  /// asked, attributes when asked; it applies the pattern and recursion only where the
  /// capabilities say so (the base never hands it what it cannot do). A missing folder or a
  /// file in its place is ResourceNotFound.
  virtual std::unique_ptr<IFolderEntryIterator> list(StorageIRI const& folder, ListingRequest const& request) = 0;

  /// The members below receive validated arguments; `policy` is FailIfExists, Overwrite
  /// or KeepExisting (the Overwrite kinds arrive as Overwrite).
  virtual std::unique_ptr<ByteStream> doOpenStream(StorageIRI const& file, ByteStreamOpenOptions const& options) = 0;
  virtual std::unique_ptr<TransactionalStream> doOpenTransactionalStream(StorageIRI const& file,
                                                                         ByteStreamOpenOptions const& options) = 0;
  virtual void doMoveFile(StorageIRI const& source, StorageIRI const& destination, ReplacementPolicy policy) = 0;
  /// By default through byte streams (`copyFileThroughStreams`), to any provider.
  virtual CopyResult doCopyFile(StorageIRI const& source, StorageItem const& destination,
                                CopyFileOptions const& options);
  virtual void doMoveFolder(StorageIRI const& source, StorageIRI const& destination, ReplacementPolicy policy) = 0;

  /// "<name>.<operation>", the context key of every failure this provider raises.
  std::u16string contextKey(Operation operation) const;
  /// Throws `Exception(code, location)` with the context of `operation`.
  [[noreturn]] void fail(ErrorCode code, StorageIRI const& location, Operation operation, std::string message) const;

  ProviderCapabilities const& capabilities() const noexcept { return capabilities_; }
  std::u16string const& name() const noexcept { return name_; }

  /// Ends every poll and waits for a poll in progress; see the class comment.
  void stopChangePolling() noexcept;

private:
  std::unique_ptr<IFolderEntryIterator> dispatchListing(StorageIRI const& folder, ListingRequest request);
  ChangePollingWatcher& poller();
  ChangePollingWatcher* existingPoller();

  std::u16string name_;
  ProviderCapabilities capabilities_;
  std::mutex pollerMutex_;
  std::unique_ptr<ChangePollingWatcher> poller_; ///< made on first use
};

} // namespace foundation::storage::provider
