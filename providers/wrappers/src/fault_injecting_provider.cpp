#include <foundation/storage/providers/wrappers/fault_injecting_provider.hpp>

#include "crash_aware_streams.hpp"
#include "durability_ledger.hpp"
#include "listing_without_contents.hpp"

#include <fl/i18n/i18n.hpp>

#include <algorithm>
#include <iterator>

namespace foundation::storage::providers::wrappers {

namespace p = foundation::storage::provider;

namespace {

/// Decides, per call, whether a stream fault strikes: reads and writes pass until the
/// byte budget before the fault is spent; the bytes before the fault do go through.
class FaultGate {
public:
  explicit FaultGate(FaultInjectingProvider::StreamFault fault) : fault_(std::move(fault)) {}

  template <class Stream>
  std::streamsize read(Stream& inner, char* s, std::streamsize n) {
    if (fault_.op == StreamOperation::Read) n = budget<p::ByteStreamReadFailure>(n);
    std::streamsize got = inner.read(s, n);
    passed_ += static_cast<std::uint64_t>(got);
    return got;
  }
  template <class Stream>
  std::streamsize write(Stream& inner, char const* s, std::streamsize n) {
    std::streamsize allowed = fault_.op == StreamOperation::Write ? budget<p::ByteStreamWriteFailure>(n) : n;
    inner.write(s, allowed);
    passed_ += static_cast<std::uint64_t>(allowed);
    if (allowed < n) p::raise(p::ByteStreamWriteFailure(fault_.message, fault_.code));
    return n;
  }
  template <class Stream>
  std::streampos seek(Stream& inner, std::streamoff off, std::ios_base::seekdir way) {
    if (fault_.op == StreamOperation::Seek) p::raise(p::ByteStreamSeekFailure(fault_.message, fault_.code));
    return inner.seek(off, way);
  }
  void beforeClose() const {
    if (fault_.op == StreamOperation::Close) p::raise(p::ByteStreamCloseFailure(fault_.message, fault_.code));
  }

private:
  /// How many of `n` bytes may pass before the fault; throws when none may.
  template <class Failure>
  std::streamsize budget(std::streamsize n) {
    std::uint64_t left = fault_.afterBytes > passed_ ? fault_.afterBytes - passed_ : 0;
    if (left == 0) p::raise(Failure(fault_.message, fault_.code));
    return static_cast<std::streamsize>(std::min<std::uint64_t>(left, static_cast<std::uint64_t>(n)));
  }

  FaultInjectingProvider::StreamFault fault_;
  std::uint64_t passed_ = 0;
};

class FaultyStream final : public p::ByteStream {
public:
  FaultyStream(std::unique_ptr<p::ByteStream> inner, FaultInjectingProvider::StreamFault fault)
      : inner_(std::move(inner)), gate_(std::move(fault)) {}

protected:
  std::streamsize doRead(char* s, std::streamsize n) override { return gate_.read(*inner_, s, n); }
  std::streamsize doWrite(char const* s, std::streamsize n) override { return gate_.write(*inner_, s, n); }
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override {
    return gate_.seek(*inner_, off, way);
  }
  void doClose() override {
    gate_.beforeClose();
    inner_->close();
  }

private:
  std::unique_ptr<p::ByteStream> inner_;
  FaultGate gate_;
};

class FaultyTransactionalStream final : public p::TransactionalStream {
public:
  FaultyTransactionalStream(std::unique_ptr<p::TransactionalStream> inner, FaultInjectingProvider::StreamFault fault)
      : inner_(std::move(inner)), gate_(std::move(fault)) {}

protected:
  std::streamsize doRead(char* s, std::streamsize n) override { return gate_.read(*inner_, s, n); }
  std::streamsize doWrite(char const* s, std::streamsize n) override { return gate_.write(*inner_, s, n); }
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override {
    return gate_.seek(*inner_, off, way);
  }
  void doClose(p::StreamClosePolicy const& policy) override {
    gate_.beforeClose();
    inner_->close(policy);
  }

private:
  std::unique_ptr<p::TransactionalStream> inner_; ///< discards when destroyed unclosed
  FaultGate gate_;
};

bool atOrBelow(p::StorageIRI const& folder, p::StorageIRI const& location) {
  return folder == location || folder.isAncestorOf(location);
}

} // namespace

FaultInjectingProvider::FaultInjectingProvider(std::shared_ptr<p::IProvider> inner)
    : ForwardingProvider(std::move(inner)), ledger_(std::make_shared<detail::DurabilityLedger>(getInner())) {}

FaultInjectingProvider::~FaultInjectingProvider() = default;

void FaultInjectingProvider::failOn(Operation op, p::StorageIRI location, p::ErrorCode code,
                                    std::deque<p::ExceptionContext> contexts, int times) {
  std::lock_guard lock(mutex_);
  faults_.push_back({op, std::move(location), code, std::move(contexts), times});
}

void FaultInjectingProvider::failStream(p::StorageIRI file, StreamOperation op, p::ErrorCode code, std::string message,
                                        std::uint64_t afterBytes) {
  std::lock_guard lock(mutex_);
  streamFaults_.emplace_back(std::move(file), StreamFault{op, code, std::move(message), afterBytes});
}

void FaultInjectingProvider::failChangeEvents(p::StorageIRI location, ChangeEventsFailure failure) {
  std::lock_guard lock(mutex_);
  changeEventFaults_.emplace_back(std::move(location), failure);
}

void FaultInjectingProvider::vanishAfterListing(p::StorageIRI folder) {
  std::lock_guard lock(mutex_);
  armedVanishing_.push_back(std::move(folder));
}

void FaultInjectingProvider::denyListing(p::StorageIRI folder, p::ErrorCode code) {
  for (Operation op : {Operation::ListAllNamesOnly, Operation::ListFilesNamesOnly, Operation::ListFoldersNamesOnly,
                       Operation::ListAll, Operation::ListFiles, Operation::ListFolders,
                       Operation::ListAllRecursiveNamesOnly, Operation::ListAllRecursive})
    failOn(op, folder, code, {p::ExceptionContext(u"fault.denyListing", "listing denied")});
  std::lock_guard lock(mutex_);
  denied_.push_back(std::move(folder));
}

void FaultInjectingProvider::clear() {
  std::lock_guard lock(mutex_);
  faults_.clear();
  streamFaults_.clear();
  changeEventFaults_.clear();
  armedVanishing_.clear();
  vanished_.clear();
  denied_.clear();
}

void FaultInjectingProvider::trackDurability() { ledger_->start(); }

void FaultInjectingProvider::simulateCrash() { ledger_->crash(); }

void FaultInjectingProvider::beginDurabilityBatch() {
  if (auto* batching = dynamic_cast<p::extensions::IDurabilityBatching*>(&inner())) batching->beginDurabilityBatch();
  ledger_->beginBatch();
}

void FaultInjectingProvider::endDurabilityBatch(p::StorageIRI const& location) {
  if (auto* batching = dynamic_cast<p::extensions::IDurabilityBatching*>(&inner())) {
    try {
      batching->endDurabilityBatch(location);
    } catch (...) {
      ledger_->endBatch(false); // the flush failed: nothing it covered is durable
      throw;
    }
  }
  ledger_->endBatch(true);
}

void FaultInjectingProvider::abandonDurabilityBatch() noexcept {
  if (auto* batching = dynamic_cast<p::extensions::IDurabilityBatching*>(&inner())) batching->abandonDurabilityBatch();
  ledger_->endBatch(false);
}

void FaultInjectingProvider::flushFilesystem() {
  ForwardingProvider::flushFilesystem();
  ledger_->flushed();
}

// One file system behind the wrapper as far as crashes go: flushing it flushes everything.
void FaultInjectingProvider::flushFilesystem(p::StorageIRI const& location) {
  ForwardingProvider::flushFilesystem(location);
  ledger_->flushed();
}

void FaultInjectingProvider::check(Operation op, p::StorageIRI const& location) {
  std::unique_lock lock(mutex_);
  for (auto it = faults_.begin(); it != faults_.end(); ++it) {
    if (it->op != op || !(it->location.empty() || it->location == location)) continue;
    p::Exception failure(it->code, location);
    for (auto const& context : it->contexts) failure.addExceptionContext(context);
    if (it->remaining > 0 && --it->remaining == 0) faults_.erase(it);
    lock.unlock();
    p::raise(failure);
  }
}

bool FaultInjectingProvider::isVanished(p::StorageIRI const& location) {
  std::lock_guard lock(mutex_);
  return std::ranges::any_of(vanished_, [&](p::StorageIRI const& f) { return atOrBelow(f, location); });
}

void FaultInjectingProvider::checkPresent(p::StorageIRI const& location, char const* op) {
  if (isVanished(location))
    p::fail(p::ErrorCode::ResourceNotFound, location, u"fault." + fl::i18n::to_ustring(op), "the folder vanished");
}

void FaultInjectingProvider::checkChangeEvents(p::StorageIRI const& location) {
  std::lock_guard lock(mutex_);
  for (auto const& [where, failure] : changeEventFaults_) {
    if (!(where.empty() || where == location)) continue;
    if (failure == ChangeEventsFailure::NotSupported)
      p::raise(p::ChangeEventsNotSupportedException(location, "injected"));
    p::raise(p::ChangeEventsSubscriptionException(location, "injected"));
  }
}

void FaultInjectingProvider::listed(p::StorageIRI const& folder) {
  std::lock_guard lock(mutex_);
  for (auto it = armedVanishing_.begin(); it != armedVanishing_.end();) {
    if (it->hasParent() && it->getParent() == folder) {
      vanished_.push_back(*it);
      it = armedVanishing_.erase(it);
    } else {
      ++it;
    }
  }
}

std::unique_ptr<p::IFolderEntryIterator>
FaultInjectingProvider::withoutDeniedContents(p::StorageIRI const& folder,
                                              std::unique_ptr<p::IFolderEntryIterator> listing) {
  std::vector<p::StorageIRI> below;
  {
    std::lock_guard lock(mutex_);
    std::ranges::copy_if(denied_, std::back_inserter(below),
                         [&](p::StorageIRI const& d) { return folder.isAncestorOf(d); });
  }
  if (below.empty()) return listing;
  return std::make_unique<detail::ListingWithoutContents>(std::move(listing), folder, std::move(below));
}

boost::optional<FaultInjectingProvider::StreamFault> FaultInjectingProvider::streamFaultFor(p::StorageIRI const& file) {
  std::lock_guard lock(mutex_);
  for (auto const& [where, fault] : streamFaults_)
    if (where == file) return fault;
  return boost::none;
}

std::unique_ptr<p::ByteStream> FaultInjectingProvider::faulty(p::StorageIRI const& file,
                                                              std::unique_ptr<p::ByteStream> stream) {
  auto fault = streamFaultFor(file);
  if (!fault) return stream;
  return std::make_unique<FaultyStream>(std::move(stream), *fault);
}

std::unique_ptr<p::TransactionalStream> FaultInjectingProvider::faulty(p::StorageIRI const& file,
                                                                       std::unique_ptr<p::TransactionalStream> stream) {
  auto fault = streamFaultFor(file);
  if (!fault) return stream;
  return std::make_unique<FaultyTransactionalStream>(std::move(stream), *fault);
}

void FaultInjectingProvider::beforeCall(Operation op, p::StorageIRI const& location) {
  check(op, location);
  checkPresent(location, toString(op));
  if (op == Operation::OpenStream || op == Operation::CreateFile || op == Operation::TruncateToSize)
    ledger_->changingInPlace(location);
}

// Existence questions answer "missing" for a vanished folder instead of failing.
p::ExistsResult FaultInjectingProvider::exists(p::StorageIRI const& location) {
  check(Operation::Exists, location);
  return isVanished(location) ? p::ExistsResult::NotFound : inner().exists(location);
}
p::ExtendedExistsResult FaultInjectingProvider::existsExtended(p::StorageIRI const& location) {
  check(Operation::ExistsExtended, location);
  return isVanished(location) ? p::ExtendedExistsResult::NotFound : inner().existsExtended(location);
}
bool FaultInjectingProvider::fileExists(p::StorageIRI const& location) {
  check(Operation::FileExists, location);
  return !isVanished(location) && inner().fileExists(location);
}
bool FaultInjectingProvider::folderExists(p::StorageIRI const& location) {
  check(Operation::FolderExists, location);
  return !isVanished(location) && inner().folderExists(location);
}

std::unique_ptr<p::ByteStream> FaultInjectingProvider::openStream(p::StorageIRI const& file,
                                                                  p::ByteStreamOpenOptions const& options) {
  auto stream = ForwardingProvider::openStream(file, options);
  if (ledger_->tracking()) stream = std::make_unique<detail::CrashAwareStream>(std::move(stream), ledger_);
  return faulty(file, std::move(stream));
}
std::unique_ptr<p::ByteStream> FaultInjectingProvider::openReadOnlyStream(p::StorageIRI const& file) {
  return faulty(file, ForwardingProvider::openReadOnlyStream(file));
}
std::unique_ptr<p::TransactionalStream>
FaultInjectingProvider::openTransactionalStream(p::StorageIRI const& file, p::ByteStreamOpenOptions const& options) {
  auto stream = ForwardingProvider::openTransactionalStream(file, options);
  if (ledger_->tracking())
    stream = std::make_unique<detail::CrashAwareTransactionalStream>(std::move(stream), ledger_, getInner(), file);
  return faulty(file, std::move(stream));
}

// What is removed or moved away takes its pending changes with it.
void FaultInjectingProvider::removeFile(p::StorageIRI const& file) {
  ForwardingProvider::removeFile(file);
  ledger_->forget(file);
}
void FaultInjectingProvider::removeFolder(p::StorageIRI const& folder) {
  ForwardingProvider::removeFolder(folder);
  ledger_->forget(folder);
}
void FaultInjectingProvider::removeFolderRecursively(p::StorageIRI const& folder) {
  ForwardingProvider::removeFolderRecursively(folder);
  ledger_->forget(folder);
}

// Operations on two locations: the hook sees the first, the second is checked here.
void FaultInjectingProvider::moveFile(p::StorageIRI const& source, p::StorageIRI const& destination,
                                      p::ReplacementPolicy policy) {
  checkPresent(destination, "moveFile");
  ForwardingProvider::moveFile(source, destination, policy);
  ledger_->forget(source);
  ledger_->forget(destination);
}
p::CopyResult FaultInjectingProvider::copyFile(p::StorageIRI const& source, p::StorageItem const& destination,
                                               p::CopyFileOptions const& options) {
  checkPresent(destination.getLocation(), "copyFile");
  // A copy onto storage of this wrapper lands a file here.
  bool const landsHere = ledger_->tracking() && destination.getProvider().get() == this;
  bool const replacesAFile = landsHere && inner().fileExists(destination.getLocation());
  auto const result = ForwardingProvider::copyFile(source, destination, options);
  if (landsHere && result == p::CopyResult::Copied) ledger_->landed(destination.getLocation(), replacesAFile);
  return result;
}
void FaultInjectingProvider::moveFolder(p::StorageIRI const& source, p::StorageIRI const& destination,
                                        p::ReplacementPolicy policy) {
  checkPresent(destination, "moveFolder");
  ForwardingProvider::moveFolder(source, destination, policy);
  ledger_->forget(source);
  ledger_->forget(destination);
}

// Listings arm the folders that vanish once their parent was listed.
#define FAULT_INJECTING_LISTING(name)                                                                                  \
  std::unique_ptr<p::IFolderEntryIterator> FaultInjectingProvider::name(p::StorageIRI const& folder,                   \
                                                                        std::u16string const& pattern) {               \
    auto cursor = ForwardingProvider::name(folder, pattern);                                                           \
    listed(folder);                                                                                                    \
    return cursor;                                                                                                     \
  }
FAULT_INJECTING_LISTING(listAllNamesOnly)
FAULT_INJECTING_LISTING(listFilesNamesOnly)
FAULT_INJECTING_LISTING(listFoldersNamesOnly)
FAULT_INJECTING_LISTING(listAll)
FAULT_INJECTING_LISTING(listFiles)
FAULT_INJECTING_LISTING(listFolders)
#undef FAULT_INJECTING_LISTING

// The wrapped provider's recursive listing enters every folder, the denied ones too.
std::unique_ptr<p::IFolderEntryIterator>
FaultInjectingProvider::listAllRecursiveNamesOnly(p::StorageIRI const& folder, std::u16string const& pattern) {
  auto cursor = ForwardingProvider::listAllRecursiveNamesOnly(folder, pattern);
  listed(folder);
  return withoutDeniedContents(folder, std::move(cursor));
}
std::unique_ptr<p::IFolderEntryIterator> FaultInjectingProvider::listAllRecursive(p::StorageIRI const& folder,
                                                                                  std::u16string const& pattern) {
  auto cursor = ForwardingProvider::listAllRecursive(folder, pattern);
  listed(folder);
  return withoutDeniedContents(folder, std::move(cursor));
}

void FaultInjectingProvider::publishFileEvents(p::StorageIRI const& file, p::ChangeCallback callback,
                                               std::vector<events::Kind> const& kinds) {
  checkChangeEvents(file);
  ForwardingProvider::publishFileEvents(file, std::move(callback), kinds);
}
void FaultInjectingProvider::publishFolderEvents(p::StorageIRI const& folder, p::ChangeCallback callback,
                                                 std::vector<events::Kind> const& kinds,
                                                 p::RecursiveWatching recursive) {
  checkChangeEvents(folder);
  ForwardingProvider::publishFolderEvents(folder, std::move(callback), kinds, recursive);
}
void FaultInjectingProvider::startChangePollingMechanism(p::StorageIRI const& folder, p::ChangeCallback callback,
                                                         std::vector<events::Kind> const& kinds,
                                                         std::chrono::milliseconds interval,
                                                         p::RecursivePolling recursive) {
  checkChangeEvents(folder);
  ForwardingProvider::startChangePollingMechanism(folder, std::move(callback), kinds, interval, recursive);
}

} // namespace foundation::storage::providers::wrappers
