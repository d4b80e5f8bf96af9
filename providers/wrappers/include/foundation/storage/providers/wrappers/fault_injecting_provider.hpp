#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/forwarding_provider.hpp>

#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace foundation::storage::providers::wrappers {

namespace detail {
class DurabilityLedger;
}

using provider::Operation;

/// Which byte stream operation a stream fault breaks.
enum class StreamOperation { Read, Write, Seek, Close };

/// Which change-event failure a subscription meets.
enum class ChangeEventsFailure { NotSupported, Subscription };

/// Makes chosen calls of any provider fail, for testing error paths on real providers:
/// - `failOn`: an operation on a location (or on every location) throws the provider
///   Exception with a chosen code (any value, also beyond the known ones) and contexts;
/// - `failStream`: streams opened on a file afterwards fail on read, write, seek or close,
///   optionally after some bytes went through;
/// - `failChangeEvents`: subscriptions on a location throw a change-event failure;
/// - `vanishAfterListing`: a folder disappears (answers as missing, with everything below
///   it) as soon as its parent has been listed, as if removed concurrently;
/// - `denyListing`: a folder cannot be listed (PermissionDenied unless told otherwise); a
///   recursive listing above it names the folder but none of its contents, as storage that
///   cannot read a sub-folder does.
/// The faults are checked before the call reaches the wrapped provider, which therefore
/// sees no call and changes nothing.
///
/// Crashes, after `trackDurability()`: the wrapper records what reached the wrapped provider
/// without being durable, and `simulateCrash()` drops it, so the wrapped provider holds what
/// storage would after a power loss. Each path counts as durable at the least its contract
/// promises:
/// - a file landed by a transactional commit or a copy: when the call returns; but while a
///   durability batch is open on the calling thread, a file that replaced no file is durable
///   only once the thread's outermost batch ended (`endDurabilityBatch` returned; an
///   abandoned batch leaves it pending until a flush). A file replacing another in a batch
///   is durable on return, as outside one;
/// - changes in place (a plain stream from its opening on, `createFile`, `truncateToSize`):
///   at the next `flushFilesystem`, not when the stream closes, which syncs nothing;
/// - folders, removals, moves and attributes: when the call returns; what a removal or move
///   takes away counts as durable with it.
/// A crash removes the files that never were durable and gives the others their last
/// durable contents (contents only). Streams opened before it fail every later call (IOError),
/// so a transaction open across a crash never commits; batches open then are forgotten. The
/// wrapper batches durability itself, forwarding batches to a wrapped provider that has them.
/// Thread-safe; `simulateCrash` expects no other call in flight, and concurrent writers of one
/// file race with the bookkeeping of which of them replaced a file.
class FOUNDATION_API FaultInjectingProvider final : public provider::ForwardingProvider,
                                                    public provider::extensions::IDurabilityBatching {
public:
  explicit FaultInjectingProvider(std::shared_ptr<provider::IProvider> inner);
  ~FaultInjectingProvider() override;

  /// `op` on `location` fails `times` times (negative: every time). An empty location
  /// matches every location. Operations with two locations match their first.
  void failOn(Operation op, provider::StorageIRI location, provider::ErrorCode code,
              std::deque<provider::ExceptionContext> contexts = {}, int times = -1);
  /// Streams opened on `file` from now on fail on `op` once `afterBytes` bytes were read or
  /// written through them (0: at once).
  void failStream(provider::StorageIRI file, StreamOperation op, provider::ErrorCode code,
                  std::string message = "injected stream failure", std::uint64_t afterBytes = 0);
  void failChangeEvents(provider::StorageIRI location, ChangeEventsFailure failure);
  void vanishAfterListing(provider::StorageIRI folder);
  void denyListing(provider::StorageIRI folder, provider::ErrorCode code = provider::ErrorCode::PermissionDenied);
  /// Removes every fault and brings vanished folders back.
  void clear();
  /// Starts recording what is not durable yet (before, everything counts as durable).
  void trackDurability();
  /// Drops from the wrapped provider what was not durable, as a power loss would.
  void simulateCrash();

  void beginDurabilityBatch() override;
  void endDurabilityBatch(provider::StorageIRI const& location) override;
  void abandonDurabilityBatch() noexcept override;
  void flushFilesystem() override;
  void flushFilesystem(provider::StorageIRI const& location) override;

  provider::ExistsResult exists(provider::StorageIRI const& location) override;
  provider::ExtendedExistsResult existsExtended(provider::StorageIRI const& location) override;
  bool fileExists(provider::StorageIRI const& location) override;
  bool folderExists(provider::StorageIRI const& location) override;
  std::unique_ptr<provider::ByteStream> openStream(provider::StorageIRI const& file,
                                                   provider::ByteStreamOpenOptions const& options) override;
  std::unique_ptr<provider::ByteStream> openReadOnlyStream(provider::StorageIRI const& file) override;
  std::unique_ptr<provider::TransactionalStream>
  openTransactionalStream(provider::StorageIRI const& file, provider::ByteStreamOpenOptions const& options) override;
  void removeFile(provider::StorageIRI const& file) override;
  void moveFile(provider::StorageIRI const& source, provider::StorageIRI const& destination,
                provider::ReplacementPolicy policy) override;
  provider::CopyResult copyFile(provider::StorageIRI const& source, provider::StorageItem const& destination,
                                provider::CopyFileOptions const& options) override;
  void removeFolder(provider::StorageIRI const& folder) override;
  void removeFolderRecursively(provider::StorageIRI const& folder) override;
  void moveFolder(provider::StorageIRI const& source, provider::StorageIRI const& destination,
                  provider::ReplacementPolicy policy) override;
  std::unique_ptr<provider::IFolderEntryIterator> listAllNamesOnly(provider::StorageIRI const& folder,
                                                                   std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listFilesNamesOnly(provider::StorageIRI const& folder,
                                                                     std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listFoldersNamesOnly(provider::StorageIRI const& folder,
                                                                       std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listAll(provider::StorageIRI const& folder,
                                                          std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listFiles(provider::StorageIRI const& folder,
                                                            std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listFolders(provider::StorageIRI const& folder,
                                                              std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listAllRecursiveNamesOnly(provider::StorageIRI const& folder,
                                                                            std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listAllRecursive(provider::StorageIRI const& folder,
                                                                   std::u16string const& pattern) override;
  void publishFileEvents(provider::StorageIRI const& file, provider::ChangeCallback callback,
                         std::vector<events::Kind> const& kinds) override;
  void publishFolderEvents(provider::StorageIRI const& folder, provider::ChangeCallback callback,
                           std::vector<events::Kind> const& kinds, provider::RecursiveWatching recursive) override;
  void startChangePollingMechanism(provider::StorageIRI const& folder, provider::ChangeCallback callback,
                                   std::vector<events::Kind> const& kinds, std::chrono::milliseconds interval,
                                   provider::RecursivePolling recursive) override;

  struct StreamFault {
    StreamOperation op;
    provider::ErrorCode code;
    std::string message;
    std::uint64_t afterBytes;
  };

protected:
  /// Injected operation faults first, then the vanished folders; then what changes a file
  /// in place is recorded.
  void beforeCall(Operation op, provider::StorageIRI const& location) override;

private:
  struct Fault {
    Operation op;
    provider::StorageIRI location;
    provider::ErrorCode code;
    std::deque<provider::ExceptionContext> contexts;
    int remaining;
  };

  void check(Operation op, provider::StorageIRI const& location);
  void checkPresent(provider::StorageIRI const& location, char const* op);
  void checkChangeEvents(provider::StorageIRI const& location);
  bool isVanished(provider::StorageIRI const& location);
  void listed(provider::StorageIRI const& folder);
  /// `listing`, a recursive one of `folder`, without the contents of denied folders below it.
  std::unique_ptr<provider::IFolderEntryIterator>
  withoutDeniedContents(provider::StorageIRI const& folder, std::unique_ptr<provider::IFolderEntryIterator> listing);
  std::unique_ptr<provider::ByteStream> faulty(provider::StorageIRI const& file,
                                               std::unique_ptr<provider::ByteStream> stream);
  std::unique_ptr<provider::TransactionalStream> faulty(provider::StorageIRI const& file,
                                                        std::unique_ptr<provider::TransactionalStream> stream);
  boost::optional<StreamFault> streamFaultFor(provider::StorageIRI const& file);

  std::shared_ptr<detail::DurabilityLedger> ledger_;
  std::mutex mutex_;
  std::vector<Fault> faults_;
  std::vector<std::pair<provider::StorageIRI, StreamFault>> streamFaults_;
  std::vector<std::pair<provider::StorageIRI, ChangeEventsFailure>> changeEventFaults_;
  std::vector<provider::StorageIRI> armedVanishing_;
  std::vector<provider::StorageIRI> vanished_;
  std::vector<provider::StorageIRI> denied_;
};

} // namespace foundation::storage::providers::wrappers
