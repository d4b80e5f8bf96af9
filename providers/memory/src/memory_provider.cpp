#include <foundation/storage/providers/memory/memory_provider.hpp>

#include "memory_streams.hpp"
#include "memory_tree.hpp"

#include <foundation/storage/provider/stream_copy.hpp>
#include <foundation/storage/provider/wildcard.hpp>

#include <fl/i18n/i18n.hpp>

namespace foundation::storage::providers::memory {

using namespace detail;
using p::ErrorCode;

namespace {

using ReadLock = std::shared_lock<WriterPreferringMutex>;
using WriteLock = std::unique_lock<WriterPreferringMutex>;

bool isHidden(std::u16string const& name) { return !name.empty() && name[0] == u'.'; }

events::EntryType typeOf(Node const& node) { return node.isFolder ? events::EntryType::Folder : events::EntryType::File; }

NodePtr existing(Tree const& tree, Names const& names, p::StorageIRI const& location, char16_t const* op) {
  NodePtr node = tree.find(names);
  if (!node) refuse(ErrorCode::ResourceNotFound, location, op, "no such file or folder");
  return node;
}

NodePtr existingFile(Tree const& tree, Names const& names, p::StorageIRI const& location, char16_t const* op) {
  NodePtr node = tree.find(names);
  if (!node || node->isFolder) refuse(ErrorCode::ResourceNotFound, location, op, "no such file");
  return node;
}

NodePtr existingFolder(Tree const& tree, Names const& names, p::StorageIRI const& location, char16_t const* op) {
  NodePtr node = tree.find(names);
  if (!node || !node->isFolder) refuse(ErrorCode::ResourceNotFound, location, op, "no such folder");
  return node;
}

/// The folder that will hold a new or removed child; it must exist and be writable.
NodePtr writableParent(Tree const& tree, Names const& names, p::StorageIRI const& location, char16_t const* op) {
  if (names.empty()) refuse(ErrorCode::InvalidLocation, location, op, "the root folder has no parent");
  NodePtr parent = tree.findParent(names);
  if (!parent) refuse(ErrorCode::ResourceNotFound, location, op, "the parent folder is missing");
  if (!parent->writable) refuse(ErrorCode::PermissionDenied, location, op, "the parent folder is read-only");
  return parent;
}

void checkPolicy(p::ReplacementPolicy policy, p::StorageIRI const& location, char16_t const* op) {
  if (!p::isValid(policy))
    refuse(ErrorCode::InvalidLocation, location, op, "unknown replacement policy");
}

void checkOptions(p::ByteStreamOpenOptions const& options, p::StorageIRI const& location, char16_t const* op) {
  if (!p::isValid(options)) refuse(ErrorCode::InvalidLocation, location, op, "unknown open options");
}

bool everyFolderWritable(Node const& top) {
  std::vector<Node const*> folders{&top};
  while (!folders.empty()) {
    Node const& node = *folders.back();
    folders.pop_back();
    if (!node.isFolder) continue;
    if (!node.writable) return false;
    for (auto const& [k, child] : node.children) folders.push_back(child.get());
  }
  return true;
}

/// Moves `node` from `from` to `to` under `name`; the caller checked everything.
void relink(Tree& tree, Node& from, Names const& source, Node& to, Names const& destination, NodePtr node) {
  from.children.erase(tree.key(source.back()));
  node->name = destination.back();
  to.children[tree.key(destination.back())] = std::move(node);
  from.modified = to.modified = Tree::now();
}

p::FolderEntry entryOf(Node const& node, std::u16string name, bool withAttributes) {
  if (!withAttributes) return p::FolderEntry(std::move(name), !node.isFolder);
  bool const hidden = isHidden(node.name);
  if (node.isFolder) return p::FolderEntry(std::move(name), p::FolderAttributes(node.modified, node.writable, hidden, false));
  return p::FolderEntry(std::move(name),
                        p::FileAttributes(node.content->size(), node.modified, node.writable, hidden, false));
}

enum class Kinds { All, Files, Folders };

/// Depth first, a folder before its contents, with one stack entry per level open.
void listInto(Node const& top, Kinds kinds, bool withAttributes, std::u16string const& pattern, bool recursive,
              std::vector<p::FolderEntry>& out) {
  struct Level {
    Node const* folder;
    std::u16string prefix;
    std::map<std::u16string, NodePtr>::const_iterator next;
  };
  std::vector<Level> stack{{&top, u"", top.children.begin()}};
  while (!stack.empty()) {
    Level& level = stack.back();
    if (level.next == level.folder->children.end()) {
      stack.pop_back();
      continue;
    }
    Node const& child = *(level.next++)->second;
    bool const kindWanted = kinds == Kinds::All || (kinds == Kinds::Files) == !child.isFolder;
    std::u16string name = level.prefix.empty() ? child.name : level.prefix + u"/" + child.name;
    if (kindWanted && (pattern.empty() || p::matchesWildcard(pattern, child.name))) out.push_back(entryOf(child, name, withAttributes));
    if (recursive && child.isFolder) stack.push_back({&child, std::move(name), child.children.begin()});
  }
}

} // namespace

MemoryProvider::MemoryProvider(p::FilenameSensitivity sensitivity, std::u16string authority, std::u16string scheme)
    : tree_(std::make_shared<Tree>(std::move(scheme), std::move(authority), sensitivity)), poller_(*this) {}

MemoryProvider::~MemoryProvider() { poller_.stopAll(); }

p::StorageIRI MemoryProvider::getCanonicalLocation(p::StorageIRI const& location) {
  Names names = tree_->namesOf(location, u"canonical");
  ReadLock lock(tree_->mutex);
  existing(*tree_, names, location, u"canonical");
  return tree_->canonical(names);
}

p::ExistsResult MemoryProvider::exists(p::StorageIRI const& location) {
  Names names = tree_->namesOf(location, u"exists");
  ReadLock lock(tree_->mutex);
  NodePtr node = tree_->find(names);
  if (!node) return p::ExistsResult::NotFound;
  return node->isFolder ? p::ExistsResult::Folder : p::ExistsResult::File;
}

p::ExtendedExistsResult MemoryProvider::existsExtended(p::StorageIRI const& location) {
  switch (exists(location)) {
  case p::ExistsResult::File: return p::ExtendedExistsResult::File;
  case p::ExistsResult::Folder: return p::ExtendedExistsResult::Folder;
  case p::ExistsResult::NotFound: break;
  }
  return p::ExtendedExistsResult::NotFound;
}

bool MemoryProvider::fileExists(p::StorageIRI const& location) { return exists(location) == p::ExistsResult::File; }

bool MemoryProvider::folderExists(p::StorageIRI const& location) { return exists(location) == p::ExistsResult::Folder; }

p::FileAttributes MemoryProvider::getFileAttributes(p::StorageIRI const& file) {
  Names names = tree_->namesOf(file, u"getFileAttributes");
  ReadLock lock(tree_->mutex);
  NodePtr node = existingFile(*tree_, names, file, u"getFileAttributes");
  return p::FileAttributes(node->content->size(), node->modified, node->writable, isHidden(node->name), false);
}

p::FolderAttributes MemoryProvider::getFolderAttributes(p::StorageIRI const& folder) {
  Names names = tree_->namesOf(folder, u"getFolderAttributes");
  ReadLock lock(tree_->mutex);
  NodePtr node = existingFolder(*tree_, names, folder, u"getFolderAttributes");
  return p::FolderAttributes(node->modified, node->writable, isHidden(node->name), false);
}

p::ExtendedAttributes MemoryProvider::getExtendedAttributes(p::StorageIRI const& location) {
  Names names = tree_->namesOf(location, u"getExtendedAttributes");
  ReadLock lock(tree_->mutex);
  NodePtr node = existing(*tree_, names, location, u"getExtendedAttributes");
  p::ExtendedAttributes attributes;
  attributes.put("memory.kind", node->isFolder ? "folder" : "file");
  if (node->isFolder) {
    attributes.put("memory.children", node->children.size());
  } else {
    attributes.put("memory.size", node->content->size());
  }
  attributes.put("memory.name", fl::i18n::to_utf8(node->name));
  return attributes;
}

void MemoryProvider::setLastModified(p::StorageIRI const& location, boost::posix_time::ptime const& time) {
  if (time.is_special()) refuse(ErrorCode::InvalidLocation, location, u"setLastModified", "not a point in time");
  Names names = tree_->namesOf(location, u"setLastModified");
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    NodePtr node = existing(*tree_, names, location, u"setLastModified");
    node->modified = time;
    changes.push_back({events::Kind::AttributesChanged, tree_->canonical(names), typeOf(*node), {}});
  }
}

void MemoryProvider::setWritable(p::StorageIRI const& location, bool writable) {
  Names names = tree_->namesOf(location, u"setWritable");
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    NodePtr node = existing(*tree_, names, location, u"setWritable");
    if (node->writable == writable) return;
    node->writable = writable;
    changes.push_back({events::Kind::AttributesChanged, tree_->canonical(names), typeOf(*node), {}});
  }
}

void MemoryProvider::createFile(p::StorageIRI const& file) {
  Names names = tree_->namesOf(file, u"createFile");
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    if (tree_->find(names)) refuse(ErrorCode::ResourceAlreadyExists, file, u"createFile", "it exists already");
    NodePtr parent = writableParent(*tree_, names, file, u"createFile");
    parent->children.emplace(tree_->key(names.back()), std::make_shared<Node>(false, names.back()));
    parent->modified = Tree::now();
    changes.push_back({events::Kind::Created, tree_->canonical(names), events::EntryType::File, {}});
  }
}

void MemoryProvider::removeFile(p::StorageIRI const& file) {
  Names names = tree_->namesOf(file, u"removeFile");
  {
    WriteScope scope(*tree_);
    NodePtr node = existingFile(*tree_, names, file, u"removeFile");
    NodePtr parent = writableParent(*tree_, names, file, u"removeFile");
    p::StorageIRI location = tree_->canonical(names);
    parent->children.erase(tree_->key(names.back()));
    parent->modified = Tree::now();
    tree_->detach(*node, location, scope.changesIfWatched());
  }
}

void MemoryProvider::truncateToSize(p::StorageIRI const& file, std::uint64_t size) {
  Names names = tree_->namesOf(file, u"truncateToSize");
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    NodePtr node = existingFile(*tree_, names, file, u"truncateToSize");
    if (!node->writable) refuse(ErrorCode::PermissionDenied, file, u"truncateToSize", "the file is read-only");
    tree_->resize(*node, size, file);
    node->modified = Tree::now();
    changes.push_back({events::Kind::Modified, tree_->canonical(names), events::EntryType::File, {}});
  }
}

std::unique_ptr<p::ByteStream> MemoryProvider::openStream(p::StorageIRI const& file, p::ByteStreamOpenOptions const& options) {
  checkOptions(options, file, u"openStream");
  Names names = tree_->namesOf(file, u"openStream");
  NodePtr node;
  bool truncated = false;
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    node = tree_->find(names);
    if (!node) {
      if (options.create == p::ByteStreamCreate::MustExist)
        refuse(ErrorCode::ResourceNotFound, file, u"openStream", "no such file");
      NodePtr parent = writableParent(*tree_, names, file, u"openStream");
      node = std::make_shared<Node>(false, names.back());
      parent->children.emplace(tree_->key(names.back()), node);
      parent->modified = Tree::now();
      changes.push_back({events::Kind::Created, tree_->canonical(names), events::EntryType::File, {}});
    } else if (node->isFolder) {
      refuse(ErrorCode::ResourceNotFound, file, u"openStream", "a folder, not a file");
    } else if (!node->writable) {
      refuse(ErrorCode::PermissionDenied, file, u"openStream", "the file is read-only");
    }
    // A truncation is reported with the stream's other changes, as one Modified on close.
    if (options.truncate == p::ByteStreamTruncate::Truncate && !node->content->empty() && changes.empty()) {
      tree_->resize(*node, 0, file);
      node->modified = Tree::now();
      truncated = true;
    }
  }
  StreamMode mode{options.access == p::ByteStreamAccess::ReadWrite, true, options.append == p::ByteStreamAppend::Append};
  return std::make_unique<MemoryByteStream>(tree_, std::move(node), file, mode, truncated);
}

std::unique_ptr<p::ByteStream> MemoryProvider::openReadOnlyStream(p::StorageIRI const& file) {
  Names names = tree_->namesOf(file, u"openReadOnlyStream");
  NodePtr node;
  {
    ReadLock lock(tree_->mutex);
    node = existingFile(*tree_, names, file, u"openReadOnlyStream");
  }
  return std::make_unique<MemoryByteStream>(tree_, std::move(node), file, StreamMode{true, false, false});
}

std::unique_ptr<p::TransactionalStream> MemoryProvider::openTransactionalStream(p::StorageIRI const& file,
                                                                                p::ByteStreamOpenOptions const& options) {
  checkOptions(options, file, u"openTransactionalStream");
  Names names = tree_->namesOf(file, u"openTransactionalStream");
  std::vector<char> initial;
  {
    ReadLock lock(tree_->mutex);
    NodePtr node = tree_->find(names);
    if (node && node->isFolder) refuse(ErrorCode::ResourceNotFound, file, u"openTransactionalStream", "a folder, not a file");
    if (!node) {
      if (options.create == p::ByteStreamCreate::MustExist)
        refuse(ErrorCode::ResourceNotFound, file, u"openTransactionalStream", "no such file");
      writableParent(*tree_, names, file, u"openTransactionalStream");
    } else {
      if (!node->writable) refuse(ErrorCode::PermissionDenied, file, u"openTransactionalStream", "the file is read-only");
      if (options.truncate == p::ByteStreamTruncate::Keep) initial = *node->content;
    }
  }
  StreamMode mode{options.access == p::ByteStreamAccess::ReadWrite, true, options.append == p::ByteStreamAppend::Append};
  return std::make_unique<MemoryTransactionalStream>(tree_, file, std::move(initial), mode,
                                                     options.create == p::ByteStreamCreate::MustExist);
}

void MemoryProvider::moveFile(p::StorageIRI const& source, p::StorageIRI const& destination, p::ReplacementPolicy policy) {
  checkPolicy(policy, destination, u"moveFile");
  if (!tree_->serves(destination))
    refuse(ErrorCode::UnsupportedOperation, destination, u"moveFile", "the destination is not in this memory provider");
  Names from = tree_->namesOf(source, u"moveFile");
  Names to = tree_->namesOf(destination, u"moveFile");
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    NodePtr node = existingFile(*tree_, from, source, u"moveFile");
    NodePtr target = tree_->find(to);
    if (target == node && node->name == to.back()) return;
    NodePtr fromParent = writableParent(*tree_, from, source, u"moveFile");
    NodePtr toParent = writableParent(*tree_, to, destination, u"moveFile");
    if (target == node) target = nullptr; // a case-only rename of the same file
    if (target) {
      if (policy == p::ReplacementPolicy::KeepExisting) return;
      if (policy == p::ReplacementPolicy::FailIfExists || target->isFolder)
        refuse(ErrorCode::ResourceAlreadyExists, destination, u"moveFile", "the destination exists");
      tree_->detach(*target, destination, nullptr); // reported through the rename
    }
    p::StorageIRI oldLocation = tree_->canonical(from);
    relink(*tree_, *fromParent, from, *toParent, to, node);
    boost::property_tree::ptree extra;
    extra.put("renamedFrom", oldLocation.toIRI());
    changes.push_back({events::Kind::Renamed, tree_->canonical(to), events::EntryType::File, extra});
  }
}

p::CopyResult MemoryProvider::copyFile(p::StorageIRI const& source, p::StorageItem const& destination,
                                       p::CopyFileOptions const& options) {
  p::StorageIRI const& target = destination.getLocation();
  if (destination.getProvider().get() != this) return p::copyFileThroughStreams(*this, source, destination, options);
  checkPolicy(options.policy, target, u"copyFile");
  Names from = tree_->namesOf(source, u"copyFile");
  Names to = tree_->namesOf(target, u"copyFile");
  std::uint64_t size = 0;
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    NodePtr node = existingFile(*tree_, from, source, u"copyFile");
    size = node->content->size();
    NodePtr existingTarget = tree_->find(to);
    if (existingTarget) {
      if (options.policy == p::ReplacementPolicy::KeepExisting) return p::CopyResult::Skipped;
      if (options.policy == p::ReplacementPolicy::FailIfExists || existingTarget->isFolder)
        refuse(ErrorCode::ResourceAlreadyExists, target, u"copyFile", "the destination exists");
      if (existingTarget == node)
        refuse(ErrorCode::InvalidLocation, target, u"copyFile", "source and destination are the same file");
      if (!existingTarget->writable) refuse(ErrorCode::PermissionDenied, target, u"copyFile", "the destination is read-only");
      tree_->account(*existingTarget, existingTarget->content->size(), size, target);
      existingTarget->content = std::make_shared<std::vector<char>>(*node->content);
      existingTarget->modified = Tree::now();
      changes.push_back({events::Kind::Modified, tree_->canonical(to), events::EntryType::File, {}});
    } else {
      NodePtr parent = writableParent(*tree_, to, target, u"copyFile");
      auto copy = std::make_shared<Node>(false, to.back());
      tree_->account(*copy, 0, size, target);
      copy->content = std::make_shared<std::vector<char>>(*node->content);
      parent->children.emplace(tree_->key(to.back()), copy);
      parent->modified = Tree::now();
      changes.push_back({events::Kind::Created, tree_->canonical(to), events::EntryType::File, {}});
    }
  }
  if (options.progress) options.progress(size, size);
  return p::CopyResult::Copied;
}

void MemoryProvider::createFolder(p::StorageIRI const& folder) {
  Names names = tree_->namesOf(folder, u"createFolder");
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    if (tree_->find(names)) refuse(ErrorCode::ResourceAlreadyExists, folder, u"createFolder", "it exists already");
    NodePtr parent = writableParent(*tree_, names, folder, u"createFolder");
    parent->children.emplace(tree_->key(names.back()), std::make_shared<Node>(true, names.back()));
    parent->modified = Tree::now();
    changes.push_back({events::Kind::Created, tree_->canonical(names), events::EntryType::Folder, {}});
  }
}

void MemoryProvider::createFolderRecursive(p::StorageIRI const& folder) {
  Names names = tree_->namesOf(folder, u"createFolderRecursive");
  WriteScope scope(*tree_);
  NodePtr node = tree_->root;
  std::size_t level = 0;
  for (; level < names.size(); ++level) {
    auto it = node->children.find(tree_->key(names[level]));
    if (it == node->children.end()) break;
    if (!it->second->isFolder) refuse(ErrorCode::ResourceAlreadyExists, folder, u"createFolderRecursive", "a file is in the way");
    node = it->second;
  }
  if (level == names.size()) return;
  if (!node->writable) refuse(ErrorCode::PermissionDenied, folder, u"createFolderRecursive", "a folder is read-only");
  // Each level's location grows from its parent's: asking the tree for every level afresh
  // would walk the chain once per level.
  p::StorageIRI location = scope.watched ? tree_->canonical(Names(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(level))) : p::StorageIRI();
  node->modified = Tree::now();
  for (; level < names.size(); ++level) {
    auto created = std::make_shared<Node>(true, names[level]);
    node->children.emplace(tree_->key(names[level]), created);
    node = std::move(created);
    if (scope.watched) {
      location = p::StorageIRI(location, names[level]);
      scope.changes.push_back({events::Kind::Created, location, events::EntryType::Folder, {}});
    }
  }
}

void MemoryProvider::removeFolder(p::StorageIRI const& folder) {
  Names names = tree_->namesOf(folder, u"removeFolder");
  {
    WriteScope scope(*tree_);
    NodePtr node = existingFolder(*tree_, names, folder, u"removeFolder");
    if (!node->children.empty()) refuse(ErrorCode::FolderNotEmpty, folder, u"removeFolder", "the folder is not empty");
    NodePtr parent = writableParent(*tree_, names, folder, u"removeFolder");
    p::StorageIRI location = tree_->canonical(names);
    parent->children.erase(tree_->key(names.back()));
    parent->modified = Tree::now();
    tree_->detach(*node, location, scope.changesIfWatched());
  }
}

void MemoryProvider::removeFolderRecursively(p::StorageIRI const& folder) {
  Names names = tree_->namesOf(folder, u"removeFolderRecursively");
  {
    WriteScope scope(*tree_);
    NodePtr node = existingFolder(*tree_, names, folder, u"removeFolderRecursively");
    NodePtr parent = writableParent(*tree_, names, folder, u"removeFolderRecursively");
    // All or nothing: a read-only folder anywhere below refuses before anything is removed.
    if (!everyFolderWritable(*node))
      refuse(ErrorCode::PermissionDenied, folder, u"removeFolderRecursively", "a folder below is read-only");
    p::StorageIRI location = tree_->canonical(names);
    parent->children.erase(tree_->key(names.back()));
    parent->modified = Tree::now();
    tree_->detach(*node, location, scope.changesIfWatched());
  }
}

void MemoryProvider::moveFolder(p::StorageIRI const& source, p::StorageIRI const& destination, p::ReplacementPolicy policy) {
  checkPolicy(policy, destination, u"moveFolder");
  if (!tree_->serves(destination))
    refuse(ErrorCode::UnsupportedOperation, destination, u"moveFolder", "the destination is not in this memory provider");
  Names from = tree_->namesOf(source, u"moveFolder");
  Names to = tree_->namesOf(destination, u"moveFolder");
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    NodePtr node = existingFolder(*tree_, from, source, u"moveFolder");
    if (from.empty()) refuse(ErrorCode::InvalidLocation, source, u"moveFolder", "the root folder cannot be moved");
    NodePtr target = tree_->find(to);
    if (target == node && node->name == to.back()) return;
    bool inside = to.size() > from.size();
    for (std::size_t i = 0; inside && i < from.size(); ++i) inside = tree_->key(from[i]) == tree_->key(to[i]);
    if (inside) refuse(ErrorCode::InvalidLocation, destination, u"moveFolder", "a folder cannot move into itself");
    NodePtr fromParent = writableParent(*tree_, from, source, u"moveFolder");
    NodePtr toParent = writableParent(*tree_, to, destination, u"moveFolder");
    if (target == node) target = nullptr; // a case-only rename of the same folder
    if (target) {
      bool const replaceable = policy == p::ReplacementPolicy::Overwrite || policy == p::ReplacementPolicy::ForceOverwrite ||
                               policy == p::ReplacementPolicy::OverwriteDeferringPermissionErrors;
      if (!target->isFolder || !replaceable)
        refuse(ErrorCode::ResourceAlreadyExists, destination, u"moveFolder", "the destination exists");
      if (!target->children.empty())
        refuse(ErrorCode::FolderNotEmpty, destination, u"moveFolder", "the destination folder is not empty");
      tree_->detach(*target, destination, nullptr); // reported through the rename
    }
    p::StorageIRI oldLocation = tree_->canonical(from);
    relink(*tree_, *fromParent, from, *toParent, to, node);
    boost::property_tree::ptree extra;
    extra.put("renamedFrom", oldLocation.toIRI());
    changes.push_back({events::Kind::Renamed, tree_->canonical(to), events::EntryType::Folder, extra});
  }
}

p::FilenameSensitivity MemoryProvider::getFilenameSensitivity(p::StorageIRI const&) { return tree_->sensitivity; }

p::PathComparatorFunction MemoryProvider::getPathComparator(p::StorageIRI const&) {
  return p::makePathComparator(tree_->sensitivity);
}

namespace {
std::unique_ptr<p::IFolderEntryIterator> listing(Tree const& tree, p::StorageIRI const& folder, Kinds kinds,
                                                 bool withAttributes, std::u16string const& pattern, bool recursive,
                                                 char16_t const* op) {
  Names names = tree.namesOf(folder, op);
  std::vector<p::FolderEntry> entries;
  {
    ReadLock lock(tree.mutex);
    NodePtr node = existingFolder(tree, names, folder, op);
    listInto(*node, kinds, withAttributes, pattern, recursive, entries);
  }
  return std::make_unique<p::SnapshotFolderEntryIterator>(std::move(entries));
}
} // namespace

std::unique_ptr<p::IFolderEntryIterator> MemoryProvider::listAllNamesOnly(p::StorageIRI const& folder, std::u16string const& pattern) {
  return listing(*tree_, folder, Kinds::All, false, pattern, false, u"listAllNamesOnly");
}
std::unique_ptr<p::IFolderEntryIterator> MemoryProvider::listFilesNamesOnly(p::StorageIRI const& folder, std::u16string const& pattern) {
  return listing(*tree_, folder, Kinds::Files, false, pattern, false, u"listFilesNamesOnly");
}
std::unique_ptr<p::IFolderEntryIterator> MemoryProvider::listFoldersNamesOnly(p::StorageIRI const& folder, std::u16string const& pattern) {
  return listing(*tree_, folder, Kinds::Folders, false, pattern, false, u"listFoldersNamesOnly");
}
std::unique_ptr<p::IFolderEntryIterator> MemoryProvider::listAll(p::StorageIRI const& folder, std::u16string const& pattern) {
  return listing(*tree_, folder, Kinds::All, true, pattern, false, u"listAll");
}
std::unique_ptr<p::IFolderEntryIterator> MemoryProvider::listFiles(p::StorageIRI const& folder, std::u16string const& pattern) {
  return listing(*tree_, folder, Kinds::Files, true, pattern, false, u"listFiles");
}
std::unique_ptr<p::IFolderEntryIterator> MemoryProvider::listFolders(p::StorageIRI const& folder, std::u16string const& pattern) {
  return listing(*tree_, folder, Kinds::Folders, true, pattern, false, u"listFolders");
}
std::unique_ptr<p::IFolderEntryIterator> MemoryProvider::listAllRecursiveNamesOnly(p::StorageIRI const& folder,
                                                                                   std::u16string const& pattern) {
  return listing(*tree_, folder, Kinds::All, false, pattern, true, u"listAllRecursiveNamesOnly");
}
std::unique_ptr<p::IFolderEntryIterator> MemoryProvider::listAllRecursive(p::StorageIRI const& folder, std::u16string const& pattern) {
  return listing(*tree_, folder, Kinds::All, true, pattern, true, u"listAllRecursive");
}

bool MemoryProvider::hasFeature(p::ExtendedFeature feature) {
  return static_cast<std::uint32_t>(feature) <= static_cast<std::uint32_t>(p::ExtendedFeature::RecursiveWildcardListing);
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
      refuse(ErrorCode::InvalidLocation, location, u"configure", "\"" + key + "\" needs a number of bytes");
    if (key == "capacity") {
      capacity = *number;
    } else if (key == "maxFileSize") {
      maxFileSize = *number;
    } else {
      refuse(ErrorCode::InvalidLocation, location, u"configure", "unknown setting \"" + key + "\"");
    }
  }
  WriteLock lock(tree_->mutex);
  tree_->capacity = capacity;
  tree_->maxFileSize = maxFileSize;
}

void MemoryProvider::shutdownProvider(p::StorageIRI const&) {
  poller_.stopAll();
  tree_->watches.clear();
}

p::StorageInfo MemoryProvider::getProviderStorageInfo(p::StorageIRI const& location) {
  tree_->namesOf(location, u"getProviderStorageInfo");
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
  Names names = tree_->namesOf(file, u"publishFileEvents");
  p::StorageIRI location;
  {
    ReadLock lock(tree_->mutex);
    NodePtr node = tree_->find(names);
    if (!node || node->isFolder) p::raise(p::ChangeEventsSubscriptionException(file, "no such file"));
    location = tree_->canonical(names);
  }
  tree_->watches.add(tree_->pathKey(location), file, false, false, kinds, std::move(callback));
}

void MemoryProvider::stopPublishingFileEvents(p::StorageIRI const& file) {
  tree_->namesOf(file, u"stopPublishingFileEvents");
  tree_->watches.remove(tree_->pathKey(file), false);
}

void MemoryProvider::publishFolderEvents(p::StorageIRI const& folder, p::ChangeCallback callback,
                                         std::vector<events::Kind> const& kinds, p::RecursiveWatching recursive) {
  Names names = tree_->namesOf(folder, u"publishFolderEvents");
  p::StorageIRI location;
  {
    ReadLock lock(tree_->mutex);
    NodePtr node = tree_->find(names);
    if (!node || !node->isFolder) p::raise(p::ChangeEventsSubscriptionException(folder, "no such folder"));
    location = tree_->canonical(names);
  }
  tree_->watches.add(tree_->pathKey(location), folder, true, recursive == p::RecursiveWatching::Yes, kinds,
                     std::move(callback));
}

void MemoryProvider::stopPublishingFolderEvents(p::StorageIRI const& folder) {
  tree_->namesOf(folder, u"stopPublishingFolderEvents");
  tree_->watches.remove(tree_->pathKey(folder), true);
}

void MemoryProvider::startChangePollingMechanism(p::StorageIRI const& folder, p::ChangeCallback callback,
                                                 std::vector<events::Kind> const& kinds,
                                                 std::chrono::milliseconds interval, p::RecursivePolling recursive) {
  tree_->namesOf(folder, u"startChangePollingMechanism");
  poller_.start(folder, std::move(callback), kinds, interval, recursive);
}

void MemoryProvider::stopChangePollingMechanism(p::StorageIRI const& folder) { poller_.stop(folder); }

} // namespace foundation::storage::providers::memory
