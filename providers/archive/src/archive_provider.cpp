#include <foundation/storage/providers/archive/archive_provider.hpp>

#include "archive_streams.hpp"
#include "provider_core.hpp"

#include <foundation/log/diagnostic_logger.hpp>

#include <fl/i18n/i18n.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

namespace foundation::storage::providers::archive {

using namespace detail;
using p::ErrorCode;
using p::Operation;

namespace {

using Lock = std::unique_lock<std::mutex>;

boost::posix_time::ptime now() { return boost::posix_time::microsec_clock::universal_time(); }

events::EntryType typeOf(Node const& node) { return node.folder ? events::EntryType::Folder : events::EntryType::File; }

bool startsWith(Segments const& path, Segments const& prefix) {
  return path.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), path.begin());
}

} // namespace

/// One operation on one archive under its lock; changes are reported once it is released.
class Session {
public:
  /// `context`: the key of every failure the session raises.
  Session(ProviderCore& core, p::StorageIRI const& location, std::u16string context,
          ErrorCode foreign = ErrorCode::InvalidLocation)
      : core_(core), context_(std::move(context)), place_(core.locate(location, context_, foreign)),
        lock_(*place_.archive->lock) {
    core_.refresh(archive(), context_);
  }
  Session(ProviderCore& core, p::StorageIRI const& location, Operation op,
          ErrorCode foreign = ErrorCode::InvalidLocation)
      : Session(core, location, core.key(op), foreign) {}
  ~Session() {
    // Queued under the archive's lock, so that they are delivered in the order they were made.
    bool const report = !changes_.empty() && core_.subscriptions.any();
    if (report) {
      try {
        core_.subscriptions.enqueue(std::move(changes_));
      } catch (...) {
        // Out of memory for the report: the change itself stands.
      }
    }
    lock_.unlock();
    if (report) core_.subscriptions.deliverPending();
  }
  Session(Session const&) = delete;
  Session& operator=(Session const&) = delete;

  Archive& archive() const { return *place_.archive; }
  Place const& place() const { return place_; }
  Segments const& path() const { return place_.path; }
  p::StorageIRI const& location() const { return place_.location; }
  p::StorageIRI locationOf(Segments const& path) const { return place_.location.withPath(pathOf(path)); }
  Node* node() const { return ProviderCore::find(archive(), path()); }
  [[noreturn]] void fail(ErrorCode code, std::string message) const {
    p::fail(code, location(), context_, std::move(message));
  }
  Node& file() const {
    Node* found = node();
    if (!found || found->folder) core_.missing(place_, context_, "file");
    return *found;
  }
  Node& folder() const {
    Node* found = node();
    if (!found || !found->folder) core_.missing(place_, context_, "folder");
    return *found;
  }
  Node& existing() const {
    Node* found = node();
    if (!found) core_.missing(place_, context_, "file or folder");
    return *found;
  }
  /// The folder that gets or loses the child at `path`: it must exist and be writable.
  Node& writableParent(Segments const& path) const {
    if (path.empty()) fail(ErrorCode::InvalidLocation, "the archive's root folder has no parent");
    if (auto const why = refusedName(path)) fail(ErrorCode::InvalidLocation, *why);
    Node* parent = archive().exists ? archive().tree->findParent(path) : nullptr;
    if (!parent) fail(ErrorCode::ResourceNotFound, "the parent folder is missing");
    if (!parent->writable) fail(ErrorCode::PermissionDenied, "the parent folder is read-only");
    return *parent;
  }
  void changed(events::Kind kind, Segments const& path, events::EntryType type, p::StorageIRI renamedFrom = {}) {
    archive().dirty = true;
    changes_.push_back({kind, locationOf(path), type, std::move(renamedFrom)});
  }
  /// Records new attributes of the node at this session's path; a folder only implied by
  /// entry paths gets an entry of its own to keep them.
  void attributesChanged(Node& node) {
    if (node.folder && !path().empty()) node.explicitEntry = true;
    changed(events::Kind::AttributesChanged, path(), typeOf(node));
  }
  /// Adds a new child at `path` in its writable parent.
  Node& add(Segments const& path, bool folder) {
    Node& parent = writableParent(path);
    auto& slot = parent.children[path.back()];
    slot = std::make_unique<Node>();
    slot->name = path.back();
    slot->folder = folder;
    slot->explicitEntry = true;
    slot->modified = parent.modified = now();
    if (!folder) slot->content = std::make_shared<Content>(core_.spill);
    changed(events::Kind::Created, path, folder ? events::EntryType::Folder : events::EntryType::File);
    return *slot;
  }
  /// Takes the node at `path` out of its writable parent.
  std::unique_ptr<Node> detach(Segments const& path) {
    Node& parent = writableParent(path);
    auto child = parent.children.find(path.back());
    std::unique_ptr<Node> node = std::move(child->second);
    parent.children.erase(child);
    parent.modified = now();
    return node;
  }
  /// Creates the empty archive if there is none.
  void createArchive() {
    if (archive().exists) return;
    archive().exists = true;
    archive().tree = std::make_unique<Tree>();
    changed(events::Kind::Created, {}, events::EntryType::Folder);
  }

private:
  ProviderCore& core_;
  std::u16string const context_;
  Place place_;
  Lock lock_;
  std::vector<common::Change> changes_;
};

namespace {

p::ProviderCapabilities capabilitiesOf(ProviderCore const& core) {
  return {.sensitivity = p::FilenameSensitivity::CaseSensitive,
          .filtersNames = true,
          .listsRecursively = true,
          .removesRecursively = core.format->writable(),
          .reportsRecursiveChanges = true};
}

} // namespace

ArchiveProvider::ArchiveProvider(std::shared_ptr<ProviderCore> core)
    : ProviderBase(core->scheme, capabilitiesOf(*core)), core_(std::move(core)) {
  core_->self = this;
}

ArchiveProvider::~ArchiveProvider() {
  stopChangePolling();
  core_->commitAllLoggingFailures();
  core_->close();
}

ZipProvider::ZipProvider(OuterProviderResolver resolver, std::u16string scheme)
    : ArchiveProvider(std::make_shared<ProviderCore>(std::move(scheme), makeZipFormat(), std::move(resolver))) {}

TarProvider::TarProvider(OuterProviderResolver resolver, std::u16string scheme)
    : ArchiveProvider(std::make_shared<ProviderCore>(std::move(scheme), makeTarFormat(), std::move(resolver))) {}

// --- existence and attributes ------------------------------------------------------------

p::StorageIRI ArchiveProvider::getCanonicalLocation(p::StorageIRI const& location) {
  Session session(*core_, location, Operation::GetCanonicalLocation);
  session.existing();
  return session.location();
}

p::ExistsResult ArchiveProvider::exists(p::StorageIRI const& location) {
  Session session(*core_, location, Operation::Exists);
  Node const* node = session.node();
  if (!node) return p::ExistsResult::NotFound;
  return node->folder ? p::ExistsResult::Folder : p::ExistsResult::File;
}

p::ExtendedExistsResult ArchiveProvider::existsExtended(p::StorageIRI const& location) {
  Session session(*core_, location, Operation::ExistsExtended);
  Node const* node = session.node();
  if (!node) return p::ExtendedExistsResult::NotFound;
  if (node->folder) return p::ExtendedExistsResult::Folder;
  if (!node->symlink) return p::ExtendedExistsResult::File;
  // Where the link leads inside the archive; it is never followed out of it.
  switch (session.archive().tree->resolveLink(session.path())) {
  case LinkEnd::File: return p::ExtendedExistsResult::SymlinkToFile;
  case LinkEnd::Folder: return p::ExtendedExistsResult::SymlinkToFolder;
  case LinkEnd::Nothing: break;
  }
  return p::ExtendedExistsResult::BrokenSymlink;
}

p::FileAttributes ArchiveProvider::getFileAttributes(p::StorageIRI const& file) {
  Session session(*core_, file, Operation::GetFileAttributes);
  return common::fileAttributesOf(session.file());
}

p::FolderAttributes ArchiveProvider::getFolderAttributes(p::StorageIRI const& folder) {
  Session session(*core_, folder, Operation::GetFolderAttributes);
  return common::folderAttributesOf(session.folder());
}

p::ExtendedAttributes ArchiveProvider::getExtendedAttributes(p::StorageIRI const& location) {
  Session session(*core_, location, Operation::GetExtendedAttributes);
  Node const& node = session.existing();
  std::string const prefix = fl::i18n::to_utf8(core_->scheme) + ".";
  p::ExtendedAttributes attributes;
  attributes.put(prefix + "kind", node.folder ? "folder" : node.symlink ? "symlink" : "file");
  if (node.symlink) attributes.put(prefix + "linkTarget", node.linkTarget);
  attributes.put(prefix + "explicit", node.folder ? node.explicitEntry : true);
  if (!node.folder) attributes.put(prefix + "pending", static_cast<bool>(node.content));
  if (session.path().empty()) {
    attributes.put(prefix + "entries", session.archive().tree->count());
    p::ExtendedAttributes skipped;
    for (auto const& entry : session.archive().tree->skipped()) {
      p::ExtendedAttributes one;
      one.put("name", entry.name);
      one.put("reason", entry.reason);
      skipped.push_back({"", one});
    }
    attributes.put(prefix + "skippedCount", session.archive().tree->skipped().size());
    attributes.add_child(prefix + "skipped", skipped);
  }
  return attributes;
}

void ArchiveProvider::setLastModified(p::StorageIRI const& location, boost::posix_time::ptime const& time) {
  core_->requireWritable(location, Operation::SetLastModified);
  if (time.is_special()) fail(ErrorCode::InvalidLocation, location, Operation::SetLastModified, "not a point in time");
  Session session(*core_, location, Operation::SetLastModified);
  Node& node = session.existing();
  node.modified = time;
  session.attributesChanged(node);
}

void ArchiveProvider::setWritable(p::StorageIRI const& location, bool writable) {
  core_->requireWritable(location, Operation::SetWritable);
  Session session(*core_, location, Operation::SetWritable);
  Node& node = session.existing();
  if (node.writable == writable) return;
  node.writable = writable;
  session.attributesChanged(node);
}

// --- files -------------------------------------------------------------------------------

void ArchiveProvider::createFile(p::StorageIRI const& file) {
  core_->requireWritable(file, Operation::CreateFile);
  Session session(*core_, file, Operation::CreateFile);
  if (session.node()) session.fail(ErrorCode::ResourceAlreadyExists, "it exists already");
  session.add(session.path(), false);
}

void ArchiveProvider::removeFile(p::StorageIRI const& file) {
  core_->requireWritable(file, Operation::RemoveFile);
  Session session(*core_, file, Operation::RemoveFile);
  session.file();
  session.detach(session.path());
  session.changed(events::Kind::Removed, session.path(), events::EntryType::File);
}

void ArchiveProvider::truncateToSize(p::StorageIRI const& file, std::uint64_t size) {
  core_->requireWritable(file, Operation::TruncateToSize);
  Session session(*core_, file, Operation::TruncateToSize);
  Node& node = session.file();
  if (!node.writable) session.fail(ErrorCode::PermissionDenied, "the file is read-only");
  if (size > core_->maxEditSize) session.fail(ErrorCode::FileTooLarge, "larger than the edit limit (maxEditSize)");
  auto const content = core_->materialize(session.archive(), node, file, contextKey(Operation::TruncateToSize));
  try {
    content->resize(size);
  } catch (p::ByteStreamFailure const& failure) {
    session.fail(failure.getErrorCode(), failure.what());
  }
  node.modified = now();
  session.changed(events::Kind::Modified, session.path(), events::EntryType::File);
}

std::unique_ptr<p::ByteStream> ArchiveProvider::doOpenStream(p::StorageIRI const& file,
                                                             p::ByteStreamOpenOptions const& options) {
  core_->requireWritable(file, Operation::OpenStream);
  std::shared_ptr<Content> content;
  std::shared_ptr<Archive> archive;
  Segments path;
  p::StorageIRI location;
  {
    Session session(*core_, file, Operation::OpenStream);
    Node* node = session.node();
    if (node && node->folder) session.file();
    if (!node) {
      if (options.create == p::ByteStreamCreate::MustExist) session.file();
      node = &session.add(session.path(), false);
    } else if (!node->writable) {
      session.fail(ErrorCode::PermissionDenied, "the file is read-only");
    }
    if (options.truncate == p::ByteStreamTruncate::Truncate) {
      node->content = std::make_shared<Content>(core_->spill);
      node->entry.reset();
    }
    content = core_->materialize(session.archive(), *node, file, contextKey(Operation::OpenStream));
    archive = session.place().archive;
    ++archive->openWriters;
    path = session.path();
    location = session.location();
  }
  StreamMode const mode{options.access == p::ByteStreamAccess::ReadWrite, true,
                        options.append == p::ByteStreamAppend::Append};
  std::shared_ptr<ProviderCore> core = core_;
  // Once written, the file is modified (if it is still the file the stream was opened on).
  auto closed = [core, archive, path, location, content](bool wrote) {
    {
      Lock lock(*archive->lock);
      --archive->openWriters;
      Node* node = ProviderCore::find(*archive, path);
      if (!wrote || !node || node->content != content) return;
      node->modified = now();
      archive->dirty = true;
      if (!core->subscriptions.any()) return;
      core->subscriptions.enqueue({{events::Kind::Modified, location, events::EntryType::File}});
    }
    core->subscriptions.deliverPending();
  };
  return std::make_unique<ContentStream>(content, archive->lock, mode, closed);
}

std::unique_ptr<p::ByteStream> ArchiveProvider::openReadOnlyStream(p::StorageIRI const& file) {
  Session session(*core_, file, Operation::OpenReadOnlyStream);
  Node const& node = session.file();
  if (node.symlink) session.fail(ErrorCode::InvalidLocation, ProviderCore::linkHasNoData(node));
  if (node.content)
    return std::make_unique<ContentStream>(node.content, session.archive().lock, StreamMode{true, false, false},
                                           nullptr);
  return session.archive().reader->openEntry(*node.entry);
}

std::unique_ptr<p::TransactionalStream>
ArchiveProvider::doOpenTransactionalStream(p::StorageIRI const& file, p::ByteStreamOpenOptions const& options) {
  core_->requireWritable(file, Operation::OpenTransactionalStream);
  auto initial = std::make_shared<Content>(core_->spill);
  {
    Session session(*core_, file, Operation::OpenTransactionalStream);
    Node* node = session.node();
    if ((node && node->folder) || (!node && options.create == p::ByteStreamCreate::MustExist)) session.file();
    if (!node) session.writableParent(session.path());
    if (node && !node->writable) session.fail(ErrorCode::PermissionDenied, "the file is read-only");
    if (node && options.truncate == p::ByteStreamTruncate::Keep) {
      if (node->content) {
        try {
          initial = node->content->copy();
        } catch (p::ByteStreamFailure const& failure) {
          session.fail(failure.getErrorCode(), failure.what());
        }
      } else if (node->symlink) {
        session.fail(ErrorCode::InvalidLocation, ProviderCore::linkHasNoData(*node));
      } else {
        // A copy of the entry's data, leaving the tree as it is.
        Node scratch;
        scratch.entry = node->entry;
        initial = core_->materialize(session.archive(), scratch, file, contextKey(Operation::OpenTransactionalStream));
      }
    }
  }
  StreamMode const mode{options.access == p::ByteStreamAccess::ReadWrite, true,
                        options.append == p::ByteStreamAppend::Append};
  std::shared_ptr<ProviderCore> core = core_;
  auto commit = [core, file](std::shared_ptr<Content> content, bool replace) {
    Session session(*core, file, core->key(u"commit"));
    Node* node = session.node();
    if (node && node->folder) session.file();
    if (node && !replace) session.fail(ErrorCode::ResourceAlreadyExists, "the file exists");
    if (!node)
      node = &session.add(session.path(), false);
    else
      session.changed(events::Kind::Modified, session.path(), events::EntryType::File);
    node->content = std::move(content);
    node->entry.reset();
    node->symlink = false; // new contents make a link a file
    node->modified = now();
  };
  return std::make_unique<TransactionalContentStream>(std::move(initial), mode, commit);
}

void ArchiveProvider::doMoveFile(p::StorageIRI const& source, p::StorageIRI const& destination,
                                 p::ReplacementPolicy policy) {
  core_->requireWritable(source, Operation::MoveFile);
  Session session(*core_, source, Operation::MoveFile);
  Place const to = core_->locate(destination, contextKey(Operation::MoveFile), ErrorCode::UnsupportedOperation);
  if (to.archive != session.place().archive)
    fail(ErrorCode::UnsupportedOperation, destination, Operation::MoveFile, "the destination is in another archive");
  session.file();
  if (to.path == session.path()) return;
  if (Node* target = ProviderCore::find(session.archive(), to.path)) {
    if (target->folder || policy == p::ReplacementPolicy::FailIfExists)
      fail(ErrorCode::ResourceAlreadyExists, destination, Operation::MoveFile, "the destination exists");
    if (policy == p::ReplacementPolicy::KeepExisting) return;
  }
  Node& toParent = session.writableParent(to.path);
  std::unique_ptr<Node> node = session.detach(session.path());
  node->name = to.path.back();
  node->moved = true;
  toParent.children[to.path.back()] = std::move(node);
  toParent.modified = now();
  session.changed(events::Kind::Renamed, to.path, events::EntryType::File, session.location());
}

// --- folders -----------------------------------------------------------------------------

void ArchiveProvider::createFolder(p::StorageIRI const& folder) {
  core_->requireWritable(folder, Operation::CreateFolder);
  Session session(*core_, folder, Operation::CreateFolder);
  if (session.path().empty() && !session.archive().exists) return session.createArchive();
  if (session.node()) session.fail(ErrorCode::ResourceAlreadyExists, "it exists already");
  session.add(session.path(), true);
}

void ArchiveProvider::createFolderRecursive(p::StorageIRI const& folder) {
  core_->requireWritable(folder, Operation::CreateFolderRecursive);
  Session session(*core_, folder, Operation::CreateFolderRecursive);
  session.createArchive();
  Segments path;
  for (auto const& segment : session.path()) {
    path.push_back(segment);
    Node* node = ProviderCore::find(session.archive(), path);
    if (!node) node = &session.add(path, true);
    if (!node->folder) session.fail(ErrorCode::ResourceAlreadyExists, "a file stands where a folder is needed");
  }
}

void ArchiveProvider::removeFolder(p::StorageIRI const& folder) {
  core_->requireWritable(folder, Operation::RemoveFolder);
  Session session(*core_, folder, Operation::RemoveFolder);
  Node const& node = session.folder();
  if (!node.children.empty()) session.fail(ErrorCode::FolderNotEmpty, "the folder is not empty");
  session.detach(session.path());
  session.changed(events::Kind::Removed, session.path(), events::EntryType::Folder);
}

void ArchiveProvider::removeFolderRecursively(p::StorageIRI const& folder) {
  core_->requireWritable(folder, Operation::RemoveFolderRecursively);
  Session session(*core_, folder, Operation::RemoveFolderRecursively);
  if (!common::everyFolderWritable(session.folder()))
    session.fail(ErrorCode::PermissionDenied, "a folder inside is read-only");
  session.detach(session.path());
  session.changed(events::Kind::Removed, session.path(), events::EntryType::Folder);
}

void ArchiveProvider::doMoveFolder(p::StorageIRI const& source, p::StorageIRI const& destination,
                                   p::ReplacementPolicy policy) {
  core_->requireWritable(source, Operation::MoveFolder);
  Session session(*core_, source, Operation::MoveFolder);
  Place const to = core_->locate(destination, contextKey(Operation::MoveFolder), ErrorCode::UnsupportedOperation);
  if (to.archive != session.place().archive)
    fail(ErrorCode::UnsupportedOperation, destination, Operation::MoveFolder, "the destination is in another archive");
  session.folder();
  if (session.path().empty()) session.fail(ErrorCode::InvalidLocation, "the archive's root folder cannot be moved");
  if (to.path == session.path()) return;
  if (startsWith(to.path, session.path()))
    fail(ErrorCode::InvalidLocation, destination, Operation::MoveFolder, "a folder cannot move into itself");
  Node& toParent = session.writableParent(to.path);
  if (Node* target = ProviderCore::find(session.archive(), to.path)) {
    if (!target->folder || !replaces(policy))
      fail(ErrorCode::ResourceAlreadyExists, destination, Operation::MoveFolder, "the destination exists");
    if (!target->children.empty())
      fail(ErrorCode::FolderNotEmpty, destination, Operation::MoveFolder, "the destination folder is not empty");
  }
  std::unique_ptr<Node> node = session.detach(session.path());
  node->name = to.path.back();
  node->moved = true;
  toParent.children[to.path.back()] = std::move(node);
  toParent.modified = now();
  session.changed(events::Kind::Renamed, to.path, events::EntryType::Folder, session.location());
}

// --- listings ----------------------------------------------------------------------------

std::unique_ptr<p::IFolderEntryIterator> ArchiveProvider::list(p::StorageIRI const& folder,
                                                               p::ListingRequest const& request) {
  Session session(*core_, folder, request.operation);
  return std::make_unique<p::SnapshotFolderEntryIterator>(common::listTree(session.folder(), request, inArchiveOrder));
}

// --- administration ----------------------------------------------------------------------

void ArchiveProvider::configure(p::StorageIRI const& location, boost::property_tree::ptree settings) {
  for (auto const& [name, value] : settings) {
    if (name != "maxEditSize")
      fail(ErrorCode::InvalidLocation, location, Operation::Configure, "unknown setting \"" + name + "\"");
    auto limit = value.get_value_optional<std::uint64_t>();
    if (!limit) fail(ErrorCode::InvalidLocation, location, Operation::Configure, "maxEditSize needs a byte count");
    core_->maxEditSize = *limit;
  }
}

void ArchiveProvider::shutdownProvider(p::StorageIRI const& location) {
  ProviderBase::shutdownProvider(location);
  core_->subscriptions.clear();
  core_->commitAll();
}

p::StorageInfo ArchiveProvider::getProviderStorageInfo(p::StorageIRI const& location) {
  // The folder holding the archive: the archive file itself may not be written yet.
  p::StorageItem const& file = core_->locate(location, contextKey(Operation::GetProviderStorageInfo)).archive->file;
  return (file.hasParent() ? file.getParent() : file).getProviderStorageInfo();
}

void ArchiveProvider::flushFilesystem() { core_->commitAll(); }

void ArchiveProvider::flushFilesystem(p::StorageIRI const& location) {
  Place const place = core_->locate(location, core_->key(u"flushFilesystem"));
  core_->commit(*place.archive);
  // The archive around this one holds the change just committed.
  p::StorageItem const& file = place.archive->file;
  if (auto* around = dynamic_cast<ArchiveProvider*>(file.getProvider().get()))
    around->flushFilesystem(file.getLocation());
}

void ArchiveProvider::invalidate(p::StorageIRI const& location) {
  Place const place = core_->locate(location, core_->key(u"invalidate"));
  Lock lock(*place.archive->lock);
  place.archive->dirty = false;
  place.archive->loaded = false;
}

// --- change reporting --------------------------------------------------------------------

void ArchiveProvider::publishFileEvents(p::StorageIRI const& file, p::ChangeCallback callback,
                                        std::vector<events::Kind> const& kinds) {
  p::StorageIRI watched;
  try {
    Session session(*core_, file, Operation::PublishFileEvents);
    session.file();
    watched = session.location();
  } catch (p::Exception const& failure) {
    p::raise(p::ChangeEventsSubscriptionException(file, failure.what()));
  }
  core_->subscriptions.subscribeFile(watched, std::move(callback), kinds);
}

void ArchiveProvider::stopPublishingFileEvents(p::StorageIRI const& file) {
  core_->subscriptions.unsubscribeFile(core_->locate(file, contextKey(Operation::StopPublishingFileEvents)).location);
}

void ArchiveProvider::publishFolderEvents(p::StorageIRI const& folder, p::ChangeCallback callback,
                                          std::vector<events::Kind> const& kinds, p::RecursiveWatching recursive) {
  p::StorageIRI watched;
  try {
    Session session(*core_, folder, Operation::PublishFolderEvents);
    session.folder();
    watched = session.location();
  } catch (p::Exception const& failure) {
    p::raise(p::ChangeEventsSubscriptionException(folder, failure.what()));
  }
  core_->subscriptions.subscribeFolder(watched, std::move(callback), kinds, recursive == p::RecursiveWatching::Yes);
}

void ArchiveProvider::stopPublishingFolderEvents(p::StorageIRI const& folder) {
  core_->subscriptions.unsubscribeFolder(
      core_->locate(folder, contextKey(Operation::StopPublishingFolderEvents)).location);
}

} // namespace foundation::storage::providers::archive
