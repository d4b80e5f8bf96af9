#include <foundation/storage/provider/provider_base.hpp>

#include "derived_listings.hpp"

#include <foundation/storage/provider/stream_copy.hpp>

#include <fl/i18n/i18n.hpp>

#include <utility>
#include <vector>

namespace foundation::storage::provider {

namespace {

/// The policy a back end honours: the Overwrite kinds differ only in what the library does.
ReplacementPolicy backEndPolicy(ReplacementPolicy policy) {
  return replaces(policy) ? ReplacementPolicy::Overwrite : policy;
}

bool isRoot(StorageIRI const& location) {
  auto const path = location.getResolvedPath();
  return path.empty() || path == u"/";
}

} // namespace

ProviderBase::ProviderBase(std::u16string name, ProviderCapabilities capabilities)
    : name_(std::move(name)), capabilities_(capabilities) {}

ProviderBase::~ProviderBase() { stopChangePolling(); }

std::u16string contextKey(std::u16string_view provider, Operation operation) {
  std::u16string key(provider);
  key += u'.';
  key += fl::i18n::to_ustring(std::string_view(toString(operation)));
  return key;
}

std::u16string ProviderBase::contextKey(Operation operation) const { return provider::contextKey(name_, operation); }

void ProviderBase::fail(ErrorCode code, StorageIRI const& location, Operation operation, std::string message) const {
  provider::fail(code, location, contextKey(operation), std::move(message));
}

StorageIRI ProviderBase::getCanonicalLocation(StorageIRI const& location) {
  if (exists(location) == ExistsResult::NotFound)
    fail(ErrorCode::ResourceNotFound, location, Operation::GetCanonicalLocation, "no such file or folder");
  return location.withPath(location.getResolvedPath());
}

ExtendedExistsResult ProviderBase::existsExtended(StorageIRI const& location) {
  switch (exists(location)) {
  case ExistsResult::File: return ExtendedExistsResult::File;
  case ExistsResult::Folder: return ExtendedExistsResult::Folder;
  case ExistsResult::NotFound: break;
  }
  return ExtendedExistsResult::NotFound;
}

bool ProviderBase::fileExists(StorageIRI const& location) { return exists(location) == ExistsResult::File; }

bool ProviderBase::folderExists(StorageIRI const& location) { return exists(location) == ExistsResult::Folder; }

ExtendedAttributes ProviderBase::getExtendedAttributes(StorageIRI const& location) {
  if (exists(location) == ExistsResult::NotFound)
    fail(ErrorCode::ResourceNotFound, location, Operation::GetExtendedAttributes, "no such file or folder");
  return {};
}

std::unique_ptr<ByteStream> ProviderBase::openStream(StorageIRI const& file, ByteStreamOpenOptions const& options) {
  if (!isValid(options)) fail(ErrorCode::InvalidLocation, file, Operation::OpenStream, "invalid stream options");
  return doOpenStream(file, options);
}

std::unique_ptr<TransactionalStream> ProviderBase::openTransactionalStream(StorageIRI const& file,
                                                                           ByteStreamOpenOptions const& options) {
  if (!isValid(options))
    fail(ErrorCode::InvalidLocation, file, Operation::OpenTransactionalStream, "invalid stream options");
  return doOpenTransactionalStream(file, options);
}

void ProviderBase::moveFile(StorageIRI const& source, StorageIRI const& destination, ReplacementPolicy policy) {
  if (!isValid(policy))
    fail(ErrorCode::InvalidLocation, destination, Operation::MoveFile, "unknown replacement policy");
  doMoveFile(source, destination, backEndPolicy(policy));
}

CopyResult ProviderBase::copyFile(StorageIRI const& source, StorageItem const& destination,
                                  CopyFileOptions const& options) {
  if (!isValid(options.policy))
    fail(ErrorCode::InvalidLocation, destination.getLocation(), Operation::CopyFile, "unknown replacement policy");
  CopyFileOptions checked = options;
  checked.policy = backEndPolicy(options.policy);
  return doCopyFile(source, destination, checked);
}

CopyResult ProviderBase::doCopyFile(StorageIRI const& source, StorageItem const& destination,
                                    CopyFileOptions const& options) {
  return copyFileThroughStreams(*this, source, destination, options);
}

void ProviderBase::moveFolder(StorageIRI const& source, StorageIRI const& destination, ReplacementPolicy policy) {
  if (!isValid(policy))
    fail(ErrorCode::InvalidLocation, destination, Operation::MoveFolder, "unknown replacement policy");
  doMoveFolder(source, destination, backEndPolicy(policy));
}

void ProviderBase::createFolderRecursive(StorageIRI const& folder) {
  // The nearest existing ancestor first, so that a deep tree that mostly exists costs one
  // existence check per missing level.
  std::vector<StorageIRI> missing;
  StorageIRI at = folder.withPath(folder.getResolvedPath());
  while (!isRoot(at)) {
    auto const found = exists(at);
    if (found == ExistsResult::Folder) break;
    if (found == ExistsResult::File)
      fail(ErrorCode::ResourceAlreadyExists, folder, Operation::CreateFolderRecursive, "a file is in the way");
    missing.push_back(at);
    at = at.getParent();
  }
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    try {
      createFolder(*it);
    } catch (Exception const& e) {
      // Another caller made it meanwhile: just as good, if it is a folder.
      if (e.getErrorCode() != ErrorCode::ResourceAlreadyExists || !folderExists(*it)) throw;
    }
  }
}

void ProviderBase::removeFolderRecursively(StorageIRI const& folder) {
  if (isRoot(folder))
    fail(ErrorCode::InvalidLocation, folder, Operation::RemoveFolderRecursively, "the root folder cannot be removed");
  // A link to a folder is no folder to empty: emptying it would remove what it points at.
  if (!folderExists(folder) || getFolderAttributes(folder).isSymlink())
    fail(ErrorCode::ResourceNotFound, folder, Operation::RemoveFolderRecursively, "no such folder");
  // What someone else removes meanwhile needs no removing; only the folder itself must be
  // there until its own removal.
  auto const unlessGone = [](auto&& action) {
    try {
      action();
    } catch (Exception const& e) {
      if (e.getErrorCode() != ErrorCode::ResourceNotFound) throw;
    }
  };
  // Post-order without recursion: a folder is listed (its files removed, its subfolders
  // stacked) when first met, and removed when met again with its subfolders gone.
  struct Pending {
    StorageIRI folder;
    bool listed;
  };
  std::vector<Pending> stack{{folder, false}};
  while (!stack.empty()) {
    auto& top = stack.back();
    if (top.listed) {
      StorageIRI done = std::move(top.folder);
      stack.pop_back();
      if (stack.empty())
        removeFolder(done);
      else
        unlessGone([&] { removeFolder(done); });
      continue;
    }
    top.listed = true;
    StorageIRI const parent = top.folder;
    std::vector<StorageIRI> subfolders;
    auto const emptyParent = [&] {
      // With attributes, to tell links to folders apart: a link goes, never what it points at.
      auto cursor = listAll(parent, {});
      while (cursor->hasNext()) {
        cursor->next();
        auto const& entry = cursor->current();
        StorageIRI child(parent, entry.getName());
        if (entry.isFile() || detail::isLinkToFolder(entry))
          unlessGone([&] { removeFile(child); });
        else
          subfolders.push_back(std::move(child));
      }
    };
    if (stack.size() == 1)
      emptyParent();
    else
      unlessGone(emptyParent);
    for (auto& sub : subfolders) stack.push_back({std::move(sub), false});
  }
}

FilenameSensitivity ProviderBase::getFilenameSensitivity(StorageIRI const&) { return capabilities_.sensitivity; }

PathComparatorFunction ProviderBase::getPathComparator(StorageIRI const& location) {
  return makePathComparator(getFilenameSensitivity(location));
}

std::unique_ptr<IFolderEntryIterator> ProviderBase::dispatchListing(StorageIRI const& folder, ListingRequest request) {
  bool const filterHere = !request.pattern.empty() && !capabilities_.filtersNames;
  if (request.recursive && !capabilities_.listsRecursively) {
    ListingRequest flat{request.operation, EntryKinds::All, true, false, {}};
    auto walk = detail::listBelow(
        folder, [this, flat](StorageIRI const& at) { return list(at, flat); }, request.withAttributes);
    if (request.pattern.empty()) return walk;
    return detail::filterEntries(std::move(walk), request, true);
  }
  if (!filterHere) return list(folder, request);
  ListingRequest unfiltered = request;
  unfiltered.pattern.clear();
  return detail::filterEntries(list(folder, unfiltered), request, true);
}

std::unique_ptr<IFolderEntryIterator> ProviderBase::listAllNamesOnly(StorageIRI const& folder,
                                                                     std::u16string const& pattern) {
  return dispatchListing(folder, {Operation::ListAllNamesOnly, EntryKinds::All, false, false, pattern});
}

std::unique_ptr<IFolderEntryIterator> ProviderBase::listFilesNamesOnly(StorageIRI const& folder,
                                                                       std::u16string const& pattern) {
  return dispatchListing(folder, {Operation::ListFilesNamesOnly, EntryKinds::Files, false, false, pattern});
}

std::unique_ptr<IFolderEntryIterator> ProviderBase::listFoldersNamesOnly(StorageIRI const& folder,
                                                                         std::u16string const& pattern) {
  return dispatchListing(folder, {Operation::ListFoldersNamesOnly, EntryKinds::Folders, false, false, pattern});
}

std::unique_ptr<IFolderEntryIterator> ProviderBase::listAll(StorageIRI const& folder, std::u16string const& pattern) {
  return dispatchListing(folder, {Operation::ListAll, EntryKinds::All, true, false, pattern});
}

std::unique_ptr<IFolderEntryIterator> ProviderBase::listFiles(StorageIRI const& folder, std::u16string const& pattern) {
  return dispatchListing(folder, {Operation::ListFiles, EntryKinds::Files, true, false, pattern});
}

std::unique_ptr<IFolderEntryIterator> ProviderBase::listFolders(StorageIRI const& folder,
                                                                std::u16string const& pattern) {
  return dispatchListing(folder, {Operation::ListFolders, EntryKinds::Folders, true, false, pattern});
}

std::unique_ptr<IFolderEntryIterator> ProviderBase::listAllRecursiveNamesOnly(StorageIRI const& folder,
                                                                              std::u16string const& pattern) {
  return dispatchListing(folder, {Operation::ListAllRecursiveNamesOnly, EntryKinds::All, false, true, pattern});
}

std::unique_ptr<IFolderEntryIterator> ProviderBase::listAllRecursive(StorageIRI const& folder,
                                                                     std::u16string const& pattern) {
  return dispatchListing(folder, {Operation::ListAllRecursive, EntryKinds::All, true, true, pattern});
}

bool ProviderBase::hasFeature(ExtendedFeature feature) {
  switch (feature) {
  case ExtendedFeature::NativeRecursiveRemoval: return capabilities_.removesRecursively;
  case ExtendedFeature::RecursiveChangeEvents: return capabilities_.reportsRecursiveChanges;
  case ExtendedFeature::RecursiveListing:
  case ExtendedFeature::FlatWildcardListing:
  case ExtendedFeature::RecursiveWildcardListing: return true;
  }
  return false;
}

void ProviderBase::configure(StorageIRI const& location, boost::property_tree::ptree settings) {
  if (!settings.empty())
    fail(ErrorCode::InvalidLocation, location, Operation::Configure,
         "unknown setting \"" + settings.begin()->first + "\"");
}

void ProviderBase::shutdownProvider(StorageIRI const&) { stopChangePolling(); }

StorageInfo ProviderBase::getProviderStorageInfo(StorageIRI const&) { return {}; }

void ProviderBase::publishFileEvents(StorageIRI const& file, ChangeCallback, std::vector<events::Kind> const&) {
  throw ChangeEventsNotSupportedException(file, fl::i18n::to_utf8(name_) + " reports no changes; use change polling");
}

void ProviderBase::stopPublishingFileEvents(StorageIRI const&) {}

void ProviderBase::publishFolderEvents(StorageIRI const& folder, ChangeCallback, std::vector<events::Kind> const&,
                                       RecursiveWatching) {
  throw ChangeEventsNotSupportedException(folder, fl::i18n::to_utf8(name_) + " reports no changes; use change polling");
}

void ProviderBase::stopPublishingFolderEvents(StorageIRI const&) {}

ChangePollingWatcher& ProviderBase::poller() {
  std::lock_guard lock(pollerMutex_);
  if (!poller_) poller_ = std::make_unique<ChangePollingWatcher>(*this);
  return *poller_;
}

void ProviderBase::startChangePollingMechanism(StorageIRI const& folder, ChangeCallback callback,
                                               std::vector<events::Kind> const& kinds,
                                               std::chrono::milliseconds interval, RecursivePolling recursive) {
  poller().start(folder, std::move(callback), kinds, interval, recursive);
}

ChangePollingWatcher* ProviderBase::existingPoller() {
  std::lock_guard lock(pollerMutex_);
  return poller_.get();
}

// Stopping waits for a poll in progress, whose callback may itself stop a poll: no lock
// is held meanwhile. The watcher, once made, lives as long as the provider.
void ProviderBase::stopChangePollingMechanism(StorageIRI const& folder) {
  if (auto* watcher = existingPoller()) watcher->stop(folder);
}

void ProviderBase::stopChangePolling() noexcept {
  if (auto* watcher = existingPoller()) watcher->stopAll();
}

} // namespace foundation::storage::provider
