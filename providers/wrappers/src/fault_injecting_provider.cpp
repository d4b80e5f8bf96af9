#include <foundation/storage/providers/wrappers/fault_injecting_provider.hpp>

#include <algorithm>

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
    if (allowed < n) throw p::ByteStreamWriteFailure(fault_.message, fault_.code);
    return n;
  }
  template <class Stream>
  std::streampos seek(Stream& inner, std::streamoff off, std::ios_base::seekdir way) {
    if (fault_.op == StreamOperation::Seek) throw p::ByteStreamSeekFailure(fault_.message, fault_.code);
    return inner.seek(off, way);
  }
  void beforeClose() const {
    if (fault_.op == StreamOperation::Close) throw p::ByteStreamCloseFailure(fault_.message, fault_.code);
  }

private:
  /// How many of `n` bytes may pass before the fault; throws when none may.
  template <class Failure>
  std::streamsize budget(std::streamsize n) {
    std::uint64_t left = fault_.afterBytes > passed_ ? fault_.afterBytes - passed_ : 0;
    if (left == 0) throw Failure(fault_.message, fault_.code);
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
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override { return gate_.seek(*inner_, off, way); }
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
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override { return gate_.seek(*inner_, off, way); }
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
}

void FaultInjectingProvider::clear() {
  std::lock_guard lock(mutex_);
  faults_.clear();
  streamFaults_.clear();
  changeEventFaults_.clear();
  armedVanishing_.clear();
  vanished_.clear();
}

void FaultInjectingProvider::check(Operation op, p::StorageIRI const& location) {
  std::unique_lock lock(mutex_);
  for (auto it = faults_.begin(); it != faults_.end(); ++it) {
    if (it->op != op || !(it->location.empty() || it->location == location)) continue;
    p::Exception failure(it->code, location);
    for (auto const& context : it->contexts) failure.addExceptionContext(context);
    if (it->remaining > 0 && --it->remaining == 0) faults_.erase(it);
    lock.unlock();
    throw failure;
  }
}

bool FaultInjectingProvider::isVanished(p::StorageIRI const& location) {
  std::lock_guard lock(mutex_);
  return std::ranges::any_of(vanished_, [&](p::StorageIRI const& f) { return atOrBelow(f, location); });
}

void FaultInjectingProvider::checkPresent(p::StorageIRI const& location, char16_t const* op) {
  if (isVanished(location))
    p::fail(p::ErrorCode::ResourceNotFound, location, std::u16string(u"fault.") + op, "the folder vanished");
}

void FaultInjectingProvider::checkChangeEvents(p::StorageIRI const& location) {
  std::lock_guard lock(mutex_);
  for (auto const& [where, failure] : changeEventFaults_) {
    if (!(where.empty() || where == location)) continue;
    if (failure == ChangeEventsFailure::NotSupported)
      throw p::ChangeEventsNotSupportedException(location, "injected");
    throw p::ChangeEventsSubscriptionException(location, "injected");
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

boost::optional<FaultInjectingProvider::StreamFault> FaultInjectingProvider::streamFaultFor(p::StorageIRI const& file) {
  std::lock_guard lock(mutex_);
  for (auto const& [where, fault] : streamFaults_)
    if (where == file) return fault;
  return boost::none;
}

std::unique_ptr<p::ByteStream> FaultInjectingProvider::faulty(p::StorageIRI const& file, std::unique_ptr<p::ByteStream> stream) {
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

provider::StorageIRI FaultInjectingProvider::getCanonicalLocation(provider::StorageIRI const& location) {
  check(Operation::GetCanonicalLocation, location);
  checkPresent(location, u"getCanonicalLocation");
  return ForwardingProvider::getCanonicalLocation(location);
}

provider::ExistsResult FaultInjectingProvider::exists(provider::StorageIRI const& location) {
  check(Operation::Exists, location);
  if (isVanished(location)) return provider::ExistsResult::NotFound;
  return ForwardingProvider::exists(location);
}

provider::ExtendedExistsResult FaultInjectingProvider::existsExtended(provider::StorageIRI const& location) {
  check(Operation::ExistsExtended, location);
  if (isVanished(location)) return provider::ExtendedExistsResult::NotFound;
  return ForwardingProvider::existsExtended(location);
}

bool FaultInjectingProvider::fileExists(provider::StorageIRI const& location) {
  check(Operation::FileExists, location);
  if (isVanished(location)) return false;
  return ForwardingProvider::fileExists(location);
}

bool FaultInjectingProvider::folderExists(provider::StorageIRI const& location) {
  check(Operation::FolderExists, location);
  if (isVanished(location)) return false;
  return ForwardingProvider::folderExists(location);
}

provider::FileAttributes FaultInjectingProvider::getFileAttributes(provider::StorageIRI const& file) {
  check(Operation::GetFileAttributes, file);
  checkPresent(file, u"getFileAttributes");
  return ForwardingProvider::getFileAttributes(file);
}

provider::FolderAttributes FaultInjectingProvider::getFolderAttributes(provider::StorageIRI const& folder) {
  check(Operation::GetFolderAttributes, folder);
  checkPresent(folder, u"getFolderAttributes");
  return ForwardingProvider::getFolderAttributes(folder);
}

provider::ExtendedAttributes FaultInjectingProvider::getExtendedAttributes(provider::StorageIRI const& location) {
  check(Operation::GetExtendedAttributes, location);
  checkPresent(location, u"getExtendedAttributes");
  return ForwardingProvider::getExtendedAttributes(location);
}

void FaultInjectingProvider::setLastModified(provider::StorageIRI const& location, boost::posix_time::ptime const& time) {
  check(Operation::SetLastModified, location);
  checkPresent(location, u"setLastModified");
  ForwardingProvider::setLastModified(location, time);
}

void FaultInjectingProvider::setWritable(provider::StorageIRI const& location, bool writable) {
  check(Operation::SetWritable, location);
  checkPresent(location, u"setWritable");
  ForwardingProvider::setWritable(location, writable);
}

void FaultInjectingProvider::createFile(provider::StorageIRI const& file) {
  check(Operation::CreateFile, file);
  checkPresent(file, u"createFile");
  ForwardingProvider::createFile(file);
}

void FaultInjectingProvider::removeFile(provider::StorageIRI const& file) {
  check(Operation::RemoveFile, file);
  checkPresent(file, u"removeFile");
  ForwardingProvider::removeFile(file);
}

void FaultInjectingProvider::truncateToSize(provider::StorageIRI const& file, std::uint64_t size) {
  check(Operation::TruncateToSize, file);
  checkPresent(file, u"truncateToSize");
  ForwardingProvider::truncateToSize(file, size);
}

std::unique_ptr<provider::ByteStream> FaultInjectingProvider::openStream(provider::StorageIRI const& file, provider::ByteStreamOpenOptions const& options) {
  check(Operation::OpenStream, file);
  checkPresent(file, u"openStream");
  return faulty(file, ForwardingProvider::openStream(file, options));
}

std::unique_ptr<provider::ByteStream> FaultInjectingProvider::openReadOnlyStream(provider::StorageIRI const& file) {
  check(Operation::OpenReadOnlyStream, file);
  checkPresent(file, u"openReadOnlyStream");
  return faulty(file, ForwardingProvider::openReadOnlyStream(file));
}

std::unique_ptr<provider::TransactionalStream> FaultInjectingProvider::openTransactionalStream(provider::StorageIRI const& file, provider::ByteStreamOpenOptions const& options) {
  check(Operation::OpenTransactionalStream, file);
  checkPresent(file, u"openTransactionalStream");
  return faulty(file, ForwardingProvider::openTransactionalStream(file, options));
}

void FaultInjectingProvider::moveFile(provider::StorageIRI const& source, provider::StorageIRI const& destination, provider::ReplacementPolicy policy) {
  check(Operation::MoveFile, source);
  checkPresent(source, u"moveFile");
  checkPresent(destination, u"moveFile");
  ForwardingProvider::moveFile(source, destination, policy);
}

provider::CopyResult FaultInjectingProvider::copyFile(provider::StorageIRI const& source, provider::StorageItem const& destination, provider::CopyFileOptions const& options) {
  check(Operation::CopyFile, source);
  checkPresent(source, u"copyFile");
  checkPresent(destination.getLocation(), u"copyFile");
  return ForwardingProvider::copyFile(source, destination, options);
}

void FaultInjectingProvider::createFolder(provider::StorageIRI const& folder) {
  check(Operation::CreateFolder, folder);
  checkPresent(folder, u"createFolder");
  ForwardingProvider::createFolder(folder);
}

void FaultInjectingProvider::createFolderRecursive(provider::StorageIRI const& folder) {
  check(Operation::CreateFolderRecursive, folder);
  checkPresent(folder, u"createFolderRecursive");
  ForwardingProvider::createFolderRecursive(folder);
}

void FaultInjectingProvider::removeFolder(provider::StorageIRI const& folder) {
  check(Operation::RemoveFolder, folder);
  checkPresent(folder, u"removeFolder");
  ForwardingProvider::removeFolder(folder);
}

void FaultInjectingProvider::removeFolderRecursively(provider::StorageIRI const& folder) {
  check(Operation::RemoveFolderRecursively, folder);
  checkPresent(folder, u"removeFolderRecursively");
  ForwardingProvider::removeFolderRecursively(folder);
}

void FaultInjectingProvider::moveFolder(provider::StorageIRI const& source, provider::StorageIRI const& destination, provider::ReplacementPolicy policy) {
  check(Operation::MoveFolder, source);
  checkPresent(source, u"moveFolder");
  checkPresent(destination, u"moveFolder");
  ForwardingProvider::moveFolder(source, destination, policy);
}

provider::FilenameSensitivity FaultInjectingProvider::getFilenameSensitivity(provider::StorageIRI const& location) {
  check(Operation::GetFilenameSensitivity, location);
  checkPresent(location, u"getFilenameSensitivity");
  return ForwardingProvider::getFilenameSensitivity(location);
}

provider::PathComparatorFunction FaultInjectingProvider::getPathComparator(provider::StorageIRI const& location) {
  check(Operation::GetPathComparator, location);
  checkPresent(location, u"getPathComparator");
  return ForwardingProvider::getPathComparator(location);
}

std::unique_ptr<provider::IFolderEntryIterator> FaultInjectingProvider::listAllNamesOnly(provider::StorageIRI const& folder, std::u16string const& pattern) {
  check(Operation::ListAllNamesOnly, folder);
  checkPresent(folder, u"listAllNamesOnly");
  auto cursor = ForwardingProvider::listAllNamesOnly(folder, pattern);
  listed(folder);
  return cursor;
}

std::unique_ptr<provider::IFolderEntryIterator> FaultInjectingProvider::listFilesNamesOnly(provider::StorageIRI const& folder, std::u16string const& pattern) {
  check(Operation::ListFilesNamesOnly, folder);
  checkPresent(folder, u"listFilesNamesOnly");
  auto cursor = ForwardingProvider::listFilesNamesOnly(folder, pattern);
  listed(folder);
  return cursor;
}

std::unique_ptr<provider::IFolderEntryIterator> FaultInjectingProvider::listFoldersNamesOnly(provider::StorageIRI const& folder, std::u16string const& pattern) {
  check(Operation::ListFoldersNamesOnly, folder);
  checkPresent(folder, u"listFoldersNamesOnly");
  auto cursor = ForwardingProvider::listFoldersNamesOnly(folder, pattern);
  listed(folder);
  return cursor;
}

std::unique_ptr<provider::IFolderEntryIterator> FaultInjectingProvider::listAll(provider::StorageIRI const& folder, std::u16string const& pattern) {
  check(Operation::ListAll, folder);
  checkPresent(folder, u"listAll");
  auto cursor = ForwardingProvider::listAll(folder, pattern);
  listed(folder);
  return cursor;
}

std::unique_ptr<provider::IFolderEntryIterator> FaultInjectingProvider::listFiles(provider::StorageIRI const& folder, std::u16string const& pattern) {
  check(Operation::ListFiles, folder);
  checkPresent(folder, u"listFiles");
  auto cursor = ForwardingProvider::listFiles(folder, pattern);
  listed(folder);
  return cursor;
}

std::unique_ptr<provider::IFolderEntryIterator> FaultInjectingProvider::listFolders(provider::StorageIRI const& folder, std::u16string const& pattern) {
  check(Operation::ListFolders, folder);
  checkPresent(folder, u"listFolders");
  auto cursor = ForwardingProvider::listFolders(folder, pattern);
  listed(folder);
  return cursor;
}

std::unique_ptr<provider::IFolderEntryIterator> FaultInjectingProvider::listAllRecursiveNamesOnly(provider::StorageIRI const& folder, std::u16string const& pattern) {
  check(Operation::ListAllRecursiveNamesOnly, folder);
  checkPresent(folder, u"listAllRecursiveNamesOnly");
  auto cursor = ForwardingProvider::listAllRecursiveNamesOnly(folder, pattern);
  listed(folder);
  return cursor;
}

std::unique_ptr<provider::IFolderEntryIterator> FaultInjectingProvider::listAllRecursive(provider::StorageIRI const& folder, std::u16string const& pattern) {
  check(Operation::ListAllRecursive, folder);
  checkPresent(folder, u"listAllRecursive");
  auto cursor = ForwardingProvider::listAllRecursive(folder, pattern);
  listed(folder);
  return cursor;
}

bool FaultInjectingProvider::hasFeature(provider::ExtendedFeature feature) {
  check(Operation::HasFeature, provider::StorageIRI());
  return ForwardingProvider::hasFeature(feature);
}

void FaultInjectingProvider::configure(provider::StorageIRI const& location, boost::property_tree::ptree settings) {
  check(Operation::Configure, location);
  checkPresent(location, u"configure");
  ForwardingProvider::configure(location, std::move(settings));
}

void FaultInjectingProvider::shutdownProvider(provider::StorageIRI const& location) {
  check(Operation::ShutdownProvider, location);
  checkPresent(location, u"shutdownProvider");
  ForwardingProvider::shutdownProvider(location);
}

provider::StorageInfo FaultInjectingProvider::getProviderStorageInfo(provider::StorageIRI const& location) {
  check(Operation::GetProviderStorageInfo, location);
  checkPresent(location, u"getProviderStorageInfo");
  return ForwardingProvider::getProviderStorageInfo(location);
}

void FaultInjectingProvider::publishFileEvents(provider::StorageIRI const& file, provider::ChangeCallback callback, std::vector<events::Kind> const& kinds) {
  check(Operation::PublishFileEvents, file);
  checkChangeEvents(file);
  checkPresent(file, u"publishFileEvents");
  ForwardingProvider::publishFileEvents(file, std::move(callback), kinds);
}

void FaultInjectingProvider::stopPublishingFileEvents(provider::StorageIRI const& file) {
  check(Operation::StopPublishingFileEvents, file);
  checkPresent(file, u"stopPublishingFileEvents");
  ForwardingProvider::stopPublishingFileEvents(file);
}

void FaultInjectingProvider::publishFolderEvents(provider::StorageIRI const& folder, provider::ChangeCallback callback, std::vector<events::Kind> const& kinds, provider::RecursiveWatching recursive) {
  check(Operation::PublishFolderEvents, folder);
  checkChangeEvents(folder);
  checkPresent(folder, u"publishFolderEvents");
  ForwardingProvider::publishFolderEvents(folder, std::move(callback), kinds, recursive);
}

void FaultInjectingProvider::stopPublishingFolderEvents(provider::StorageIRI const& folder) {
  check(Operation::StopPublishingFolderEvents, folder);
  checkPresent(folder, u"stopPublishingFolderEvents");
  ForwardingProvider::stopPublishingFolderEvents(folder);
}

void FaultInjectingProvider::startChangePollingMechanism(provider::StorageIRI const& folder, provider::ChangeCallback callback, std::vector<events::Kind> const& kinds, std::chrono::milliseconds interval, provider::RecursivePolling recursive) {
  check(Operation::StartChangePollingMechanism, folder);
  checkChangeEvents(folder);
  checkPresent(folder, u"startChangePollingMechanism");
  ForwardingProvider::startChangePollingMechanism(folder, std::move(callback), kinds, interval, recursive);
}

void FaultInjectingProvider::stopChangePollingMechanism(provider::StorageIRI const& folder) {
  check(Operation::StopChangePollingMechanism, folder);
  checkPresent(folder, u"stopChangePollingMechanism");
  ForwardingProvider::stopChangePollingMechanism(folder);
}

} // namespace foundation::storage::providers::wrappers
