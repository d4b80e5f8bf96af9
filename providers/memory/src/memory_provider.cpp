#include <foundation/storage/providers/memory/memory_provider.hpp>

#include "memory_streams.hpp"
#include "memory_tree.hpp"

#include <fl/i18n/i18n.hpp>

namespace foundation::storage::providers::memory {

using namespace detail;
using p::ErrorCode;
using p::Operation;

namespace {

using ReadLock = std::shared_lock<WriterPreferringMutex>;
using WriteLock = std::unique_lock<WriterPreferringMutex>;

events::EntryType typeOf(Node const& node) { return node.folder ? events::EntryType::Folder : events::EntryType::File; }

NodePtr existing(Tree const& tree, Names const& names, p::StorageIRI const& location, p::Operation op) {
  NodePtr node = tree.find(names);
  if (!node) refuse(ErrorCode::ResourceNotFound, location, op, "no such file or folder");
  return node;
}

NodePtr existingFile(Tree const& tree, Names const& names, p::StorageIRI const& location, p::Operation op) {
  NodePtr node = tree.find(names);
  if (!node || node->folder) refuse(ErrorCode::ResourceNotFound, location, op, "no such file");
  return node;
}

NodePtr existingFolder(Tree const& tree, Names const& names, p::StorageIRI const& location, p::Operation op) {
  NodePtr node = tree.find(names);
  if (!node || !node->folder) refuse(ErrorCode::ResourceNotFound, location, op, "no such folder");
  return node;
}

/// The folder that will hold a new or removed child; it must exist and be writable.
NodePtr writableParent(Tree const& tree, Names const& names, p::StorageIRI const& location, p::Operation op) {
  if (names.empty()) refuse(ErrorCode::InvalidLocation, location, op, "the root folder has no parent");
  NodePtr parent = tree.findParent(names);
  if (!parent) refuse(ErrorCode::ResourceNotFound, location, op, "the parent folder is missing");
  if (!parent->writable) refuse(ErrorCode::PermissionDenied, location, op, "the parent folder is read-only");
  return parent;
}

/// Moves `node` from `from` to `to` under `name`; the caller checked everything.
void relink(Tree& tree, Node& from, Names const& source, Node& to, Names const& destination, NodePtr node) {
  from.children.erase(tree.key(source.back()));
  node->name = destination.back();
  to.children[tree.key(destination.back())] = std::move(node);
  from.modified = to.modified = Tree::now();
}

} // namespace

MemoryProvider::MemoryProvider(p::FilenameSensitivity sensitivity, std::u16string authority, std::u16string scheme)
    : ProviderBase(u"memory", {.sensitivity = sensitivity,
                               .filtersNames = true,
                               .listsRecursively = true,
                               .removesRecursively = true,
                               .reportsRecursiveChanges = true}),
      tree_(std::make_shared<Tree>(std::move(scheme), std::move(authority), sensitivity)) {}

MemoryProvider::~MemoryProvider() { stopChangePolling(); }

p::StorageIRI MemoryProvider::getCanonicalLocation(p::StorageIRI const& location) {
  Names names = tree_->namesOf(location, Operation::GetCanonicalLocation);
  ReadLock lock(tree_->mutex);
  existing(*tree_, names, location, Operation::GetCanonicalLocation);
  return tree_->canonical(names);
}

p::ExistsResult MemoryProvider::exists(p::StorageIRI const& location) {
  Names names = tree_->namesOf(location, Operation::Exists);
  ReadLock lock(tree_->mutex);
  NodePtr node = tree_->find(names);
  if (!node) return p::ExistsResult::NotFound;
  return node->folder ? p::ExistsResult::Folder : p::ExistsResult::File;
}

p::FileAttributes MemoryProvider::getFileAttributes(p::StorageIRI const& file) {
  Names names = tree_->namesOf(file, Operation::GetFileAttributes);
  ReadLock lock(tree_->mutex);
  NodePtr node = existingFile(*tree_, names, file, Operation::GetFileAttributes);
  return common::fileAttributesOf(*node);
}

p::FolderAttributes MemoryProvider::getFolderAttributes(p::StorageIRI const& folder) {
  Names names = tree_->namesOf(folder, Operation::GetFolderAttributes);
  ReadLock lock(tree_->mutex);
  NodePtr node = existingFolder(*tree_, names, folder, Operation::GetFolderAttributes);
  return common::folderAttributesOf(*node);
}

p::ExtendedAttributes MemoryProvider::getExtendedAttributes(p::StorageIRI const& location) {
  Names names = tree_->namesOf(location, Operation::GetExtendedAttributes);
  ReadLock lock(tree_->mutex);
  NodePtr node = existing(*tree_, names, location, Operation::GetExtendedAttributes);
  p::ExtendedAttributes attributes;
  attributes.put("memory.kind", node->folder ? "folder" : "file");
  if (node->folder) {
    attributes.put("memory.children", node->children.size());
  } else {
    attributes.put("memory.size", node->content->size());
  }
  attributes.put("memory.name", fl::i18n::to_utf8(node->name));
  return attributes;
}

void MemoryProvider::setLastModified(p::StorageIRI const& location, boost::posix_time::ptime const& time) {
  if (time.is_special()) fail(ErrorCode::InvalidLocation, location, Operation::SetLastModified, "not a point in time");
  Names names = tree_->namesOf(location, Operation::SetLastModified);
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    NodePtr node = existing(*tree_, names, location, Operation::SetLastModified);
    node->modified = time;
    changes.push_back({events::Kind::AttributesChanged, tree_->canonical(names), typeOf(*node)});
  }
}

void MemoryProvider::setWritable(p::StorageIRI const& location, bool writable) {
  Names names = tree_->namesOf(location, Operation::SetWritable);
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    NodePtr node = existing(*tree_, names, location, Operation::SetWritable);
    if (node->writable == writable) return;
    node->writable = writable;
    changes.push_back({events::Kind::AttributesChanged, tree_->canonical(names), typeOf(*node)});
  }
}

void MemoryProvider::createFile(p::StorageIRI const& file) {
  Names names = tree_->namesOf(file, Operation::CreateFile);
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    if (tree_->find(names)) fail(ErrorCode::ResourceAlreadyExists, file, Operation::CreateFile, "it exists already");
    NodePtr parent = writableParent(*tree_, names, file, Operation::CreateFile);
    parent->children.emplace(tree_->key(names.back()), std::make_shared<Node>(false, names.back()));
    parent->modified = Tree::now();
    changes.push_back({events::Kind::Created, tree_->canonical(names), events::EntryType::File});
  }
}

void MemoryProvider::removeFile(p::StorageIRI const& file) {
  Names names = tree_->namesOf(file, Operation::RemoveFile);
  {
    WriteScope scope(*tree_);
    NodePtr node = existingFile(*tree_, names, file, Operation::RemoveFile);
    NodePtr parent = writableParent(*tree_, names, file, Operation::RemoveFile);
    p::StorageIRI location = tree_->canonical(names);
    parent->children.erase(tree_->key(names.back()));
    parent->modified = Tree::now();
    tree_->detach(*node, location, scope.changesIfWatched());
  }
}

void MemoryProvider::truncateToSize(p::StorageIRI const& file, std::uint64_t size) {
  Names names = tree_->namesOf(file, Operation::TruncateToSize);
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    NodePtr node = existingFile(*tree_, names, file, Operation::TruncateToSize);
    if (!node->writable) fail(ErrorCode::PermissionDenied, file, Operation::TruncateToSize, "the file is read-only");
    tree_->resize(*node, size, file);
    node->modified = Tree::now();
    changes.push_back({events::Kind::Modified, tree_->canonical(names), events::EntryType::File});
  }
}

std::unique_ptr<p::ByteStream> MemoryProvider::doOpenStream(p::StorageIRI const& file,
                                                            p::ByteStreamOpenOptions const& options) {
  Names names = tree_->namesOf(file, Operation::OpenStream);
  NodePtr node;
  bool truncated = false;
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    node = tree_->find(names);
    if (!node) {
      if (options.create == p::ByteStreamCreate::MustExist)
        fail(ErrorCode::ResourceNotFound, file, Operation::OpenStream, "no such file");
      NodePtr parent = writableParent(*tree_, names, file, Operation::OpenStream);
      node = std::make_shared<Node>(false, names.back());
      parent->children.emplace(tree_->key(names.back()), node);
      parent->modified = Tree::now();
      changes.push_back({events::Kind::Created, tree_->canonical(names), events::EntryType::File});
    } else if (node->folder) {
      fail(ErrorCode::ResourceNotFound, file, Operation::OpenStream, "a folder, not a file");
    } else if (!node->writable) {
      fail(ErrorCode::PermissionDenied, file, Operation::OpenStream, "the file is read-only");
    }
    // A truncation is reported with the stream's other changes, as one Modified on close.
    if (options.truncate == p::ByteStreamTruncate::Truncate && !node->content->empty() && changes.empty()) {
      tree_->resize(*node, 0, file);
      node->modified = Tree::now();
      truncated = true;
    }
  }
  StreamMode mode{options.access == p::ByteStreamAccess::ReadWrite, true,
                  options.append == p::ByteStreamAppend::Append};
  return std::make_unique<MemoryByteStream>(tree_, std::move(node), file, mode, truncated);
}

std::unique_ptr<p::ByteStream> MemoryProvider::openReadOnlyStream(p::StorageIRI const& file) {
  Names names = tree_->namesOf(file, Operation::OpenReadOnlyStream);
  NodePtr node;
  {
    ReadLock lock(tree_->mutex);
    node = existingFile(*tree_, names, file, Operation::OpenReadOnlyStream);
  }
  return std::make_unique<MemoryByteStream>(tree_, std::move(node), file, StreamMode{true, false, false});
}

std::unique_ptr<p::TransactionalStream>
MemoryProvider::doOpenTransactionalStream(p::StorageIRI const& file, p::ByteStreamOpenOptions const& options) {
  Names names = tree_->namesOf(file, Operation::OpenTransactionalStream);
  std::vector<char> initial;
  {
    ReadLock lock(tree_->mutex);
    NodePtr node = tree_->find(names);
    if (node && node->folder)
      fail(ErrorCode::ResourceNotFound, file, Operation::OpenTransactionalStream, "a folder, not a file");
    if (!node) {
      if (options.create == p::ByteStreamCreate::MustExist)
        fail(ErrorCode::ResourceNotFound, file, Operation::OpenTransactionalStream, "no such file");
      writableParent(*tree_, names, file, Operation::OpenTransactionalStream);
    } else {
      if (!node->writable)
        fail(ErrorCode::PermissionDenied, file, Operation::OpenTransactionalStream, "the file is read-only");
      if (options.truncate == p::ByteStreamTruncate::Keep) initial = *node->content;
    }
  }
  StreamMode mode{options.access == p::ByteStreamAccess::ReadWrite, true,
                  options.append == p::ByteStreamAppend::Append};
  return std::make_unique<MemoryTransactionalStream>(tree_, file, std::move(initial), mode,
                                                     options.create == p::ByteStreamCreate::MustExist);
}

void MemoryProvider::doMoveFile(p::StorageIRI const& source, p::StorageIRI const& destination,
                                p::ReplacementPolicy policy) {
  if (!tree_->serves(destination))
    fail(ErrorCode::UnsupportedOperation, destination, Operation::MoveFile,
         "the destination is not in this memory provider");
  Names from = tree_->namesOf(source, Operation::MoveFile);
  Names to = tree_->namesOf(destination, Operation::MoveFile);
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    NodePtr node = existingFile(*tree_, from, source, Operation::MoveFile);
    NodePtr target = tree_->find(to);
    if (target == node && node->name == to.back()) return;
    NodePtr fromParent = writableParent(*tree_, from, source, Operation::MoveFile);
    NodePtr toParent = writableParent(*tree_, to, destination, Operation::MoveFile);
    if (target == node) target = nullptr; // a case-only rename of the same file
    if (target) {
      if (policy == p::ReplacementPolicy::KeepExisting) return;
      if (policy == p::ReplacementPolicy::FailIfExists || target->folder)
        fail(ErrorCode::ResourceAlreadyExists, destination, Operation::MoveFile, "the destination exists");
      tree_->detach(*target, destination, nullptr); // reported through the rename
    }
    p::StorageIRI oldLocation = tree_->canonical(from);
    relink(*tree_, *fromParent, from, *toParent, to, node);
    changes.push_back({events::Kind::Renamed, tree_->canonical(to), events::EntryType::File, std::move(oldLocation)});
  }
}

p::CopyResult MemoryProvider::doCopyFile(p::StorageIRI const& source, p::StorageItem const& destination,
                                         p::CopyFileOptions const& options) {
  p::StorageIRI const& target = destination.getLocation();
  if (destination.getProvider().get() != this) return ProviderBase::doCopyFile(source, destination, options);
  Names from = tree_->namesOf(source, Operation::CopyFile);
  Names to = tree_->namesOf(target, Operation::CopyFile);
  std::uint64_t size = 0;
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    NodePtr node = existingFile(*tree_, from, source, Operation::CopyFile);
    size = node->content->size();
    NodePtr existingTarget = tree_->find(to);
    if (existingTarget) {
      if (options.policy == p::ReplacementPolicy::KeepExisting) return p::CopyResult::Skipped;
      if (options.policy == p::ReplacementPolicy::FailIfExists || existingTarget->folder)
        fail(ErrorCode::ResourceAlreadyExists, target, Operation::CopyFile, "the destination exists");
      if (existingTarget == node)
        fail(ErrorCode::InvalidLocation, target, Operation::CopyFile, "source and destination are the same file");
      if (!existingTarget->writable)
        fail(ErrorCode::PermissionDenied, target, Operation::CopyFile, "the destination is read-only");
      tree_->account(*existingTarget, existingTarget->content->size(), size, target);
      existingTarget->content = std::make_shared<std::vector<char>>(*node->content);
      existingTarget->modified = Tree::now();
      changes.push_back({events::Kind::Modified, tree_->canonical(to), events::EntryType::File});
    } else {
      NodePtr parent = writableParent(*tree_, to, target, Operation::CopyFile);
      auto copy = std::make_shared<Node>(false, to.back());
      tree_->account(*copy, 0, size, target);
      copy->content = std::make_shared<std::vector<char>>(*node->content);
      parent->children.emplace(tree_->key(to.back()), copy);
      parent->modified = Tree::now();
      changes.push_back({events::Kind::Created, tree_->canonical(to), events::EntryType::File});
    }
  }
  if (options.progress) options.progress(size, size);
  return p::CopyResult::Copied;
}

void MemoryProvider::createFolder(p::StorageIRI const& folder) {
  Names names = tree_->namesOf(folder, Operation::CreateFolder);
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    if (tree_->find(names))
      fail(ErrorCode::ResourceAlreadyExists, folder, Operation::CreateFolder, "it exists already");
    NodePtr parent = writableParent(*tree_, names, folder, Operation::CreateFolder);
    parent->children.emplace(tree_->key(names.back()), std::make_shared<Node>(true, names.back()));
    parent->modified = Tree::now();
    changes.push_back({events::Kind::Created, tree_->canonical(names), events::EntryType::Folder});
  }
}

void MemoryProvider::createFolderRecursive(p::StorageIRI const& folder) {
  Names names = tree_->namesOf(folder, Operation::CreateFolderRecursive);
  WriteScope scope(*tree_);
  NodePtr node = tree_->root;
  std::size_t level = 0;
  for (; level < names.size(); ++level) {
    auto it = node->children.find(tree_->key(names[level]));
    if (it == node->children.end()) break;
    if (!it->second->folder)
      fail(ErrorCode::ResourceAlreadyExists, folder, Operation::CreateFolderRecursive, "a file is in the way");
    node = it->second;
  }
  if (level == names.size()) return;
  if (!node->writable)
    fail(ErrorCode::PermissionDenied, folder, Operation::CreateFolderRecursive, "a folder is read-only");
  // Each level's location grows from its parent's: asking the tree for every level afresh
  // would walk the chain once per level.
  p::StorageIRI location =
      scope.watched ? tree_->canonical(Names(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(level)))
                    : p::StorageIRI();
  node->modified = Tree::now();
  for (; level < names.size(); ++level) {
    auto created = std::make_shared<Node>(true, names[level]);
    node->children.emplace(tree_->key(names[level]), created);
    node = std::move(created);
    if (scope.watched) {
      location = p::StorageIRI(location, names[level]);
      scope.changes.push_back({events::Kind::Created, location, events::EntryType::Folder});
    }
  }
}

void MemoryProvider::removeFolder(p::StorageIRI const& folder) {
  Names names = tree_->namesOf(folder, Operation::RemoveFolder);
  {
    WriteScope scope(*tree_);
    NodePtr node = existingFolder(*tree_, names, folder, Operation::RemoveFolder);
    if (!node->children.empty())
      fail(ErrorCode::FolderNotEmpty, folder, Operation::RemoveFolder, "the folder is not empty");
    NodePtr parent = writableParent(*tree_, names, folder, Operation::RemoveFolder);
    p::StorageIRI location = tree_->canonical(names);
    parent->children.erase(tree_->key(names.back()));
    parent->modified = Tree::now();
    tree_->detach(*node, location, scope.changesIfWatched());
  }
}

void MemoryProvider::removeFolderRecursively(p::StorageIRI const& folder) {
  Names names = tree_->namesOf(folder, Operation::RemoveFolderRecursively);
  {
    WriteScope scope(*tree_);
    NodePtr node = existingFolder(*tree_, names, folder, Operation::RemoveFolderRecursively);
    NodePtr parent = writableParent(*tree_, names, folder, Operation::RemoveFolderRecursively);
    // All or nothing: a read-only folder anywhere below refuses before anything is removed.
    if (!common::everyFolderWritable(*node))
      fail(ErrorCode::PermissionDenied, folder, Operation::RemoveFolderRecursively, "a folder below is read-only");
    p::StorageIRI location = tree_->canonical(names);
    parent->children.erase(tree_->key(names.back()));
    parent->modified = Tree::now();
    tree_->detach(*node, location, scope.changesIfWatched());
  }
}

void MemoryProvider::doMoveFolder(p::StorageIRI const& source, p::StorageIRI const& destination,
                                  p::ReplacementPolicy policy) {
  if (!tree_->serves(destination))
    fail(ErrorCode::UnsupportedOperation, destination, Operation::MoveFolder,
         "the destination is not in this memory provider");
  Names from = tree_->namesOf(source, Operation::MoveFolder);
  Names to = tree_->namesOf(destination, Operation::MoveFolder);
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    NodePtr node = existingFolder(*tree_, from, source, Operation::MoveFolder);
    if (from.empty())
      fail(ErrorCode::InvalidLocation, source, Operation::MoveFolder, "the root folder cannot be moved");
    NodePtr target = tree_->find(to);
    if (target == node && node->name == to.back()) return;
    bool inside = to.size() > from.size();
    for (std::size_t i = 0; inside && i < from.size(); ++i) inside = tree_->key(from[i]) == tree_->key(to[i]);
    if (inside)
      fail(ErrorCode::InvalidLocation, destination, Operation::MoveFolder, "a folder cannot move into itself");
    NodePtr fromParent = writableParent(*tree_, from, source, Operation::MoveFolder);
    NodePtr toParent = writableParent(*tree_, to, destination, Operation::MoveFolder);
    if (target == node) target = nullptr; // a case-only rename of the same folder
    if (target) {
      if (!target->folder || policy != p::ReplacementPolicy::Overwrite)
        fail(ErrorCode::ResourceAlreadyExists, destination, Operation::MoveFolder, "the destination exists");
      if (!target->children.empty())
        fail(ErrorCode::FolderNotEmpty, destination, Operation::MoveFolder, "the destination folder is not empty");
      tree_->detach(*target, destination, nullptr); // reported through the rename
    }
    p::StorageIRI oldLocation = tree_->canonical(from);
    relink(*tree_, *fromParent, from, *toParent, to, node);
    changes.push_back({events::Kind::Renamed, tree_->canonical(to), events::EntryType::Folder, std::move(oldLocation)});
  }
}

std::unique_ptr<p::IFolderEntryIterator> MemoryProvider::list(p::StorageIRI const& folder,
                                                              p::ListingRequest const& request) {
  Names names = tree_->namesOf(folder, request.operation);
  std::vector<p::FolderEntry> entries;
  {
    ReadLock lock(tree_->mutex);
    NodePtr node = existingFolder(*tree_, names, folder, request.operation);
    entries = common::listTree(*node, request, [](Node const& at) { return common::inKeyOrder(at); });
  }
  return std::make_unique<p::SnapshotFolderEntryIterator>(std::move(entries));
}

void MemoryProvider::configure(p::StorageIRI const& location, boost::property_tree::ptree settings) {
  std::uint64_t capacity = 0, maxFileSize = 0;
  {
    ReadLock lock(tree_->mutex);
    capacity = tree_->capacity;
    maxFileSize = tree_->maxFileSize;
  }
  for (auto const& [key, value] : settings) {
    auto number = value.get_value_optional<std::uint64_t>();
    if (!number || !value.empty())
      fail(ErrorCode::InvalidLocation, location, Operation::Configure, "\"" + key + "\" needs a number of bytes");
    if (key == "capacity") {
      capacity = *number;
    } else if (key == "maxFileSize") {
      maxFileSize = *number;
    } else {
      fail(ErrorCode::InvalidLocation, location, Operation::Configure, "unknown setting \"" + key + "\"");
    }
  }
  WriteLock lock(tree_->mutex);
  tree_->capacity = capacity;
  tree_->maxFileSize = maxFileSize;
}

void MemoryProvider::shutdownProvider(p::StorageIRI const& location) {
  ProviderBase::shutdownProvider(location);
  tree_->subscriptions.clear();
}

p::StorageInfo MemoryProvider::getProviderStorageInfo(p::StorageIRI const& location) {
  tree_->namesOf(location, Operation::GetProviderStorageInfo);
  p::StorageInfo info;
  ReadLock lock(tree_->mutex);
  bool const limited = tree_->capacity != UINT64_MAX;
  info.totalBytes = limited ? tree_->capacity : 0;
  info.freeBytes = info.availableBytes = limited ? tree_->capacity - std::min(tree_->capacity, tree_->used) : 0;
  info.details.put("memory.usedBytes", tree_->used);
  info.details.put("memory.maxFileSize", tree_->maxFileSize);
  return info;
}

void MemoryProvider::publishFileEvents(p::StorageIRI const& file, p::ChangeCallback callback,
                                       std::vector<events::Kind> const& kinds) {
  Names names = tree_->namesOf(file, Operation::PublishFileEvents);
  {
    ReadLock lock(tree_->mutex);
    NodePtr node = tree_->find(names);
    if (!node || node->folder) p::raise(p::ChangeEventsSubscriptionException(file, "no such file"));
  }
  tree_->subscriptions.subscribeFile(file, std::move(callback), kinds);
}

void MemoryProvider::stopPublishingFileEvents(p::StorageIRI const& file) {
  tree_->namesOf(file, Operation::StopPublishingFileEvents);
  tree_->subscriptions.unsubscribeFile(file);
}

void MemoryProvider::publishFolderEvents(p::StorageIRI const& folder, p::ChangeCallback callback,
                                         std::vector<events::Kind> const& kinds, p::RecursiveWatching recursive) {
  Names names = tree_->namesOf(folder, Operation::PublishFolderEvents);
  {
    ReadLock lock(tree_->mutex);
    NodePtr node = tree_->find(names);
    if (!node || !node->folder) p::raise(p::ChangeEventsSubscriptionException(folder, "no such folder"));
  }
  tree_->subscriptions.subscribeFolder(folder, std::move(callback), kinds, recursive == p::RecursiveWatching::Yes);
}

void MemoryProvider::stopPublishingFolderEvents(p::StorageIRI const& folder) {
  tree_->namesOf(folder, Operation::StopPublishingFolderEvents);
  tree_->subscriptions.unsubscribeFolder(folder);
}

} // namespace foundation::storage::providers::memory
