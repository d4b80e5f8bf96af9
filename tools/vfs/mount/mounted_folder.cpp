#include "mounted_folder.hpp"

#include "errno_mapping.hpp"
#include "renaming.hpp"

#include <vfs/exceptions.hpp>
#include <vfs/provider_administration.hpp>

#include <fl/i18n/i18n.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <vector>

namespace vfs_tool::mount {

namespace {

namespace pt = boost::posix_time;

constexpr unsigned TransferSize = 1 << 20; // bytes a read or write request may carry
constexpr blksize_t BlockSize = 4096;

pt::ptime const Epoch(boost::gregorian::date(1970, 1, 1));

timespec toTimespec(pt::ptime const& time) {
  if (time.is_special()) return {0, 0};
  auto const microseconds = (time - Epoch).total_microseconds();
  auto seconds = microseconds / 1'000'000, rest = microseconds % 1'000'000;
  if (rest < 0) {
    --seconds;
    rest += 1'000'000;
  }
  return {static_cast<time_t>(seconds), static_cast<long>(rest * 1000)};
}

pt::ptime toTime(timespec const& time) {
  return Epoch + pt::seconds(time.tv_sec) + pt::microseconds(time.tv_nsec / 1000);
}

/// Runs a request's work; a failure becomes the errno the program sees. The work replies
/// itself, as its last step.
template <class Work>
void answer(fuse_req_t request, Work&& work, bool renaming = false) {
  try {
    work();
  } catch (...) {
    fuse_reply_err(request, currentErrno(renaming));
  }
}

bool isNotFound(vfs::Exception const& e) { return e.getErrorCode() == vfs::ErrorCode::ResourceNotFound; }

} // namespace

struct MountedFolder::Handle {
  NodeId node;
  bool writing;
  OpenFile file;
};

/// A folder's children as one provider listing delivered them, attributes included; read
/// again when the program starts from the beginning.
struct MountedFolder::Listing {
  struct Entry {
    std::string name;
    NodeKind kind;
    struct stat attributes;
  };
  std::mutex mutex;
  std::vector<Entry> entries;
};

MountedFolder::MountedFolder(vfs::Folder root, MountOptions options)
    : root_(std::move(root)), options_(options), nodes_(root_.getLocation()), owner_(::getuid()), group_(::getgid()) {}

MountedFolder::~MountedFolder() {
  while (!handles_.empty()) {
    try {
      closeHandle(handles_.begin()->second.get());
    } catch (std::exception const& e) {
      std::cerr << "vfs: a file open at unmount could not be committed: " << e.what() << "\n";
    }
  }
}

vfs::AbsoluteIRI MountedFolder::where(NodeId node) const {
  auto location = nodes_.location(node);
  if (!location) throw vfs::Exception(vfs::ErrorCode::ResourceNotFound, root_.getLocation());
  return *location;
}

vfs::AbsoluteIRI MountedFolder::whereChild(NodeId parent, char const* name) const {
  auto location = nodes_.childLocation(parent, name);
  if (!location) throw vfs::Exception(vfs::ErrorCode::ResourceNotFound, root_.getLocation());
  return *location;
}

void MountedFolder::refuseWhenReadOnly() const {
  if (options_.readOnly) throw vfs::Exception(vfs::ErrorCode::ReadOnlyProvider, root_.getLocation());
}

struct stat MountedFolder::fileAttributes(provider::FileAttributes const& attributes) const {
  struct stat st {};
  st.st_mode = S_IFREG | (attributes.isWritable() && !options_.readOnly ? 0644 : 0444);
  st.st_nlink = 1;
  st.st_size = static_cast<off_t>(attributes.getSize());
  st.st_blksize = BlockSize;
  st.st_blocks = static_cast<blkcnt_t>((attributes.getSize() + 511) / 512);
  st.st_uid = owner_;
  st.st_gid = group_;
  st.st_mtim = st.st_ctim = st.st_atim = toTimespec(attributes.getLastModified());
  return st;
}

struct stat MountedFolder::folderAttributes(provider::FolderAttributes const& attributes) const {
  struct stat st {};
  st.st_mode = S_IFDIR | (attributes.isWritable() && !options_.readOnly ? 0755 : 0555);
  // One link: programs that count sub-folders by links (find's leaf optimisation) do not.
  st.st_nlink = 1;
  st.st_blksize = BlockSize;
  st.st_uid = owner_;
  st.st_gid = group_;
  st.st_mtim = st.st_ctim = st.st_atim = toTimespec(attributes.getLastModified());
  return st;
}

struct stat MountedFolder::attributesOf(vfs::AbsoluteIRI const& location, NodeKind hint, NodeKind& kind) const {
  auto const system = root_.getStorageSystem();
  auto fetch = [&](NodeKind as) {
    kind = as;
    return as == NodeKind::File ? fileAttributes(vfs::File(location, system).getAttributes())
                                : folderAttributes(vfs::Folder(location, system).getAttributes());
  };
  try {
    return fetch(hint);
  } catch (vfs::Exception const& e) {
    if (!isNotFound(e)) throw;
  }
  return fetch(hint == NodeKind::File ? NodeKind::Folder : NodeKind::File);
}

fuse_entry_param MountedFolder::entryFor(NodeId parent, std::string const& name, NodeKind kind,
                                         struct stat const& attributes) {
  fuse_entry_param entry{};
  entry.ino = nodes_.remember(parent, name, kind);
  entry.attr = attributes;
  entry.attr.st_ino = entry.ino;
  entry.attr_timeout = entry.entry_timeout = options_.cacheTimeout;
  return entry;
}

void MountedFolder::replyEntry(fuse_req_t request, NodeId parent, std::string const& name, NodeKind kind,
                               struct stat const& attributes) {
  auto const entry = entryFor(parent, name, kind, attributes);
  if (fuse_reply_entry(request, &entry) != 0) nodes_.forget(entry.ino, 1); // the kernel never got it
}

void MountedFolder::init(fuse_conn_info* connection) {
  connection->max_write = TransferSize;
  connection->max_readahead = std::min(connection->max_readahead, TransferSize);
  // Where the kernel may trust what it was told, it may also gather writes in its page cache
  // and send them in large pieces; without caching every write waits for the provider.
  if (options_.cacheTimeout > 0 && (connection->capable & FUSE_CAP_WRITEBACK_CACHE))
    connection->want |= FUSE_CAP_WRITEBACK_CACHE;
}

void MountedFolder::lookup(fuse_req_t request, NodeId parent, char const* name) {
  answer(request, [&] {
    // A folder listed before is asked for as a folder first: a wrong guess costs a request.
    NodeKind kind = nodes_.childKind(parent, name).value_or(NodeKind::File);
    auto const attributes = attributesOf(whereChild(parent, name), kind, kind);
    replyEntry(request, parent, name, kind, attributes);
  });
}

void MountedFolder::forget(NodeId node, std::uint64_t count) { nodes_.forget(node, count); }

void MountedFolder::getattr(fuse_req_t request, NodeId node, fuse_file_info*) {
  answer(request, [&] {
    NodeKind kind = nodes_.kind(node).value_or(NodeKind::File);
    auto attributes = attributesOf(where(node), kind, kind);
    attributes.st_ino = node;
    showPendingSize(node, attributes);
    fuse_reply_attr(request, &attributes, options_.cacheTimeout);
  });
}

void MountedFolder::setattr(fuse_req_t request, NodeId node, struct stat* wanted, int toSet, fuse_file_info* info) {
  answer(request, [&] {
    if ((toSet & FUSE_SET_ATTR_UID && wanted->st_uid != owner_) ||
        (toSet & FUSE_SET_ATTR_GID && wanted->st_gid != group_))
      throw vfs::Exception(vfs::ErrorCode::PermissionDenied, root_.getLocation());
    bool const changes =
        toSet & (FUSE_SET_ATTR_SIZE | FUSE_SET_ATTR_MODE | FUSE_SET_ATTR_MTIME | FUSE_SET_ATTR_MTIME_NOW);
    if (changes) refuseWhenReadOnly();
    auto const location = where(node);
    NodeKind kind = nodes_.kind(node).value_or(NodeKind::File);
    auto const system = root_.getStorageSystem();
    vfs::FileOrFolder item = kind == NodeKind::File ? vfs::FileOrFolder(vfs::File(location, system))
                                                    : vfs::FileOrFolder(vfs::Folder(location, system));
    if (toSet & FUSE_SET_ATTR_SIZE) truncate(node, location, info, static_cast<std::uint64_t>(wanted->st_size));
    if (toSet & FUSE_SET_ATTR_MODE) vfs::setWritable(item, (wanted->st_mode & S_IWUSR) != 0);
    if (toSet & FUSE_SET_ATTR_MTIME_NOW) {
      vfs::setLastModified(item, pt::microsec_clock::universal_time());
    } else if (toSet & FUSE_SET_ATTR_MTIME) {
      vfs::setLastModified(item, toTime(wanted->st_mtim));
    }
    auto attributes = attributesOf(location, kind, kind);
    attributes.st_ino = node;
    showPendingSize(node, attributes);
    fuse_reply_attr(request, &attributes, options_.cacheTimeout);
  });
}

void MountedFolder::showPendingSize(NodeId node, struct stat& attributes) const {
  std::lock_guard lock(pendingMutex_);
  auto const [first, last] = writers_.equal_range(node);
  for (auto writer = first; writer != last; ++writer) {
    if (auto const size = writer->second->pendingSize()) attributes.st_size = static_cast<off_t>(*size);
  }
}

void MountedFolder::truncate(NodeId node, vfs::AbsoluteIRI const& location, fuse_file_info const* info,
                             std::uint64_t size) {
  OpenFile* const own = info ? &handleOf(info).file : nullptr;
  if (own) {
    own->truncate(size);
  } else {
    vfs::File(location, root_.getStorageSystem()).truncateToSize(size);
  }
  // The transactions open on the file would bring the old length back with their commits.
  std::lock_guard lock(pendingMutex_);
  auto const [first, last] = writers_.equal_range(node);
  for (auto writer = first; writer != last; ++writer) {
    if (writer->second != own) writer->second->truncateTransaction(size);
  }
}

void MountedFolder::mkdir(fuse_req_t request, NodeId parent, char const* name) {
  answer(request, [&] {
    refuseWhenReadOnly();
    auto const location = whereChild(parent, name);
    vfs::Folder(location, root_.getStorageSystem()).createFolder();
    NodeKind kind;
    auto const attributes = attributesOf(location, NodeKind::Folder, kind);
    replyEntry(request, parent, name, kind, attributes);
  });
}

void MountedFolder::unlink(fuse_req_t request, NodeId parent, char const* name) {
  answer(request, [&] {
    refuseWhenReadOnly();
    vfs::File(whereChild(parent, name), root_.getStorageSystem()).removeFile();
    nodes_.removed(parent, name);
    fuse_reply_err(request, 0);
  });
}

void MountedFolder::rmdir(fuse_req_t request, NodeId parent, char const* name) {
  answer(request, [&] {
    refuseWhenReadOnly();
    vfs::Folder(whereChild(parent, name), root_.getStorageSystem())
        .removeFolder(vfs::FolderRemovalPolicy::NonRecursive);
    nodes_.removed(parent, name);
    fuse_reply_err(request, 0);
  });
}

void MountedFolder::rename(fuse_req_t request, NodeId parent, char const* name, NodeId newParent, char const* newName,
                           unsigned flags) {
  answer(
      request,
      [&] {
        if (flags & RENAME_EXCHANGE) throw vfs::Exception(vfs::ErrorCode::InvalidLocation, root_.getLocation());
        refuseWhenReadOnly();
        renameItem(whereChild(parent, name), whereChild(newParent, newName), root_.getStorageSystem(),
                   (flags & RENAME_NOREPLACE) != 0);
        nodes_.renamed(parent, name, newParent, newName);
        fuse_reply_err(request, 0);
      },
      true);
}

MountedFolder::Handle* MountedFolder::openHandle(NodeId node, vfs::AbsoluteIRI const& location, int flags) {
  bool const writing = (flags & O_ACCMODE) != O_RDONLY;
  if (writing) refuseWhenReadOnly();
  std::unique_ptr<Handle> owned(new Handle{
      node, writing, OpenFile(vfs::File(location, root_.getStorageSystem()), writing, (flags & O_TRUNC) != 0)});
  auto* handle = owned.get();
  {
    std::lock_guard lock(handlesMutex_);
    handles_.emplace(handle, std::move(owned));
  }
  if (writing) {
    std::lock_guard lock(pendingMutex_);
    writers_.emplace(node, &handle->file);
  }
  return handle;
}

void MountedFolder::closeHandle(Handle* handle) {
  std::unique_ptr<Handle> owned;
  {
    std::lock_guard lock(handlesMutex_);
    auto const at = handles_.find(handle);
    owned = std::move(at->second);
    handles_.erase(at);
  }
  if (handle->writing) {
    std::lock_guard lock(pendingMutex_);
    for (auto [at, last] = writers_.equal_range(handle->node); at != last; ++at) {
      if (at->second == &handle->file) {
        writers_.erase(at);
        break;
      }
    }
  }
  handle->file.close();
}

MountedFolder::Handle& MountedFolder::handleOf(fuse_file_info const* info) {
  return *reinterpret_cast<Handle*>(info->fh);
}

void MountedFolder::open(fuse_req_t request, NodeId node, fuse_file_info* info) {
  answer(request, [&] {
    auto* handle = openHandle(node, where(node), info->flags);
    info->fh = reinterpret_cast<std::uint64_t>(handle);
    if (fuse_reply_open(request, info) != 0) closeHandle(handle); // the program went away meanwhile
  });
}

void MountedFolder::create(fuse_req_t request, NodeId parent, char const* name, mode_t, fuse_file_info* info) {
  answer(request, [&] {
    refuseWhenReadOnly();
    auto const location = whereChild(parent, name);
    try {
      vfs::File(location, root_.getStorageSystem()).createFile();
    } catch (vfs::Exception const& e) {
      if (e.getErrorCode() != vfs::ErrorCode::ResourceAlreadyExists || (info->flags & O_EXCL)) throw;
    }
    NodeKind kind;
    auto const attributes = attributesOf(location, NodeKind::File, kind);
    auto const entry = entryFor(parent, name, kind, attributes);
    Handle* handle;
    try {
      handle = openHandle(entry.ino, location, info->flags);
    } catch (...) {
      nodes_.forget(entry.ino, 1);
      throw;
    }
    info->fh = reinterpret_cast<std::uint64_t>(handle);
    if (fuse_reply_create(request, &entry, info) != 0) {
      nodes_.forget(entry.ino, 1);
      closeHandle(handle);
    }
  });
}

void MountedFolder::read(fuse_req_t request, std::size_t size, off_t offset, fuse_file_info* info) {
  answer(request, [&] {
    thread_local std::vector<char> buffer;
    buffer.resize(size);
    auto const n = handleOf(info).file.read(buffer.data(), size, static_cast<std::uint64_t>(offset));
    fuse_reply_buf(request, buffer.data(), n);
  });
}

void MountedFolder::write(fuse_req_t request, char const* data, std::size_t size, off_t offset, fuse_file_info* info) {
  answer(request, [&] {
    handleOf(info).file.write(data, size, static_cast<std::uint64_t>(offset));
    fuse_reply_write(request, size);
  });
}

void MountedFolder::flush(fuse_req_t request, fuse_file_info* info) {
  answer(request, [&] {
    handleOf(info).file.flush();
    fuse_reply_err(request, 0);
  });
}

void MountedFolder::fsync(fuse_req_t request, fuse_file_info* info) {
  answer(request, [&] {
    handleOf(info).file.sync();
    fuse_reply_err(request, 0);
  });
}

void MountedFolder::release(fuse_req_t request, fuse_file_info* info) {
  // The program has closed already and cannot hear of a failure here; flush told it.
  try {
    closeHandle(&handleOf(info));
  } catch (...) {
    std::fprintf(stderr, "vfs mount: closing a file failed (errno %d)\n", currentErrno());
  }
  fuse_reply_err(request, 0);
}

void MountedFolder::opendir(fuse_req_t request, NodeId node, fuse_file_info* info) {
  answer(request, [&] {
    where(node);
    info->fh = reinterpret_cast<std::uint64_t>(new Listing);
    if (fuse_reply_open(request, info) != 0) delete reinterpret_cast<Listing*>(info->fh);
  });
}

void MountedFolder::readdir(fuse_req_t request, NodeId node, std::size_t size, off_t offset, fuse_file_info* info,
                            bool plus) {
  answer(request, [&] {
    auto& listing = *reinterpret_cast<Listing*>(info->fh);
    // The reply lets the program close the folder, and the release may then run on another
    // thread at once: nothing of the listing is touched after it.
    std::unique_lock lock(listing.mutex);
    if (offset == 0) {
      // One provider listing with attributes per folder: no request per entry.
      listing.entries.clear();
      auto entries = vfs::Folder(where(node), root_.getStorageSystem()).listAllEntries();
      for (auto const& entry : entries) {
        if (auto const* file = boost::get<vfs::FileEntry>(&entry)) {
          listing.entries.push_back(
              {fl::i18n::to_utf8(file->getName()), NodeKind::File, fileAttributes(file->getAttributes())});
        } else {
          auto const& folder = boost::get<vfs::FolderEntry>(entry);
          listing.entries.push_back(
              {fl::i18n::to_utf8(folder.getName()), NodeKind::Folder, folderAttributes(folder.getAttributes())});
        }
      }
    }
    std::vector<char> buffer(size);
    std::size_t used = 0;
    for (auto index = static_cast<std::size_t>(offset); index < listing.entries.size(); ++index) {
      auto const& entry = listing.entries[index];
      char* const at = buffer.data() + used;
      std::size_t const room = size - used;
      auto const next = static_cast<off_t>(index + 1);
      std::size_t added;
      if (plus) {
        auto const param = entryFor(node, entry.name, entry.kind, entry.attributes);
        added = fuse_add_direntry_plus(request, at, room, entry.name.c_str(), &param, next);
        if (added > room) nodes_.forget(param.ino, 1); // not sent: the kernel holds no reference
      } else {
        struct stat attributes {};
        attributes.st_mode = entry.attributes.st_mode;
        attributes.st_ino = std::hash<std::string>{}(entry.name) | 1; // only for d_ino; a lookup gives the node
        added = fuse_add_direntry(request, at, room, entry.name.c_str(), &attributes, next);
      }
      if (added > room) break;
      used += added;
    }
    lock.unlock();
    fuse_reply_buf(request, buffer.data(), used);
  });
}

void MountedFolder::releasedir(fuse_req_t request, fuse_file_info* info) {
  delete reinterpret_cast<Listing*>(info->fh);
  fuse_reply_err(request, 0);
}

void MountedFolder::statfs(fuse_req_t request) {
  answer(request, [&] {
    auto const info = vfs::getStorageInfo(root_);
    struct statvfs st {};
    st.f_bsize = st.f_frsize = BlockSize;
    st.f_namemax = 255;
    // Unknown sizes (0) are shown as a large free disk: programs that check for room before
    // writing must not see a full one.
    constexpr std::uint64_t Unknown = std::uint64_t{1} << 40;
    st.f_blocks = (info.totalBytes ? info.totalBytes : Unknown) / BlockSize;
    st.f_bfree = (info.totalBytes ? info.freeBytes : Unknown) / BlockSize;
    st.f_bavail = (info.totalBytes ? info.availableBytes : Unknown) / BlockSize;
    fuse_reply_statfs(request, &st);
  });
}

namespace {

MountedFolder& self(fuse_req_t request) { return *static_cast<MountedFolder*>(fuse_req_userdata(request)); }

fuse_lowlevel_ops makeOperations() {
  fuse_lowlevel_ops ops{};
  ops.init = [](void* folder, fuse_conn_info* connection) { static_cast<MountedFolder*>(folder)->init(connection); };
  ops.lookup = [](fuse_req_t r, fuse_ino_t parent, char const* name) { self(r).lookup(r, parent, name); };
  ops.forget = [](fuse_req_t r, fuse_ino_t node, std::uint64_t count) {
    self(r).forget(node, count);
    fuse_reply_none(r);
  };
  ops.forget_multi = [](fuse_req_t r, std::size_t count, fuse_forget_data* forgets) {
    for (std::size_t i = 0; i < count; ++i) self(r).forget(forgets[i].ino, forgets[i].nlookup);
    fuse_reply_none(r);
  };
  ops.getattr = [](fuse_req_t r, fuse_ino_t node, fuse_file_info* fi) { self(r).getattr(r, node, fi); };
  ops.setattr = [](fuse_req_t r, fuse_ino_t node, struct stat* attr, int toSet, fuse_file_info* fi) {
    self(r).setattr(r, node, attr, toSet, fi);
  };
  ops.mkdir = [](fuse_req_t r, fuse_ino_t parent, char const* name, mode_t) { self(r).mkdir(r, parent, name); };
  ops.unlink = [](fuse_req_t r, fuse_ino_t parent, char const* name) { self(r).unlink(r, parent, name); };
  ops.rmdir = [](fuse_req_t r, fuse_ino_t parent, char const* name) { self(r).rmdir(r, parent, name); };
  ops.rename = [](fuse_req_t r, fuse_ino_t parent, char const* name, fuse_ino_t newParent, char const* newName,
                  unsigned flags) { self(r).rename(r, parent, name, newParent, newName, flags); };
  ops.open = [](fuse_req_t r, fuse_ino_t node, fuse_file_info* fi) { self(r).open(r, node, fi); };
  ops.create = [](fuse_req_t r, fuse_ino_t parent, char const* name, mode_t mode, fuse_file_info* fi) {
    self(r).create(r, parent, name, mode, fi);
  };
  ops.read = [](fuse_req_t r, fuse_ino_t, std::size_t size, off_t offset, fuse_file_info* fi) {
    self(r).read(r, size, offset, fi);
  };
  ops.write = [](fuse_req_t r, fuse_ino_t, char const* data, std::size_t size, off_t offset, fuse_file_info* fi) {
    self(r).write(r, data, size, offset, fi);
  };
  ops.flush = [](fuse_req_t r, fuse_ino_t, fuse_file_info* fi) { self(r).flush(r, fi); };
  ops.fsync = [](fuse_req_t r, fuse_ino_t, int, fuse_file_info* fi) { self(r).fsync(r, fi); };
  ops.release = [](fuse_req_t r, fuse_ino_t, fuse_file_info* fi) { self(r).release(r, fi); };
  ops.opendir = [](fuse_req_t r, fuse_ino_t node, fuse_file_info* fi) { self(r).opendir(r, node, fi); };
  ops.readdir = [](fuse_req_t r, fuse_ino_t node, std::size_t size, off_t offset, fuse_file_info* fi) {
    self(r).readdir(r, node, size, offset, fi, false);
  };
  ops.readdirplus = [](fuse_req_t r, fuse_ino_t node, std::size_t size, off_t offset, fuse_file_info* fi) {
    self(r).readdir(r, node, size, offset, fi, true);
  };
  ops.releasedir = [](fuse_req_t r, fuse_ino_t, fuse_file_info* fi) { self(r).releasedir(r, fi); };
  ops.fsyncdir = [](fuse_req_t r, fuse_ino_t, int, fuse_file_info*) { fuse_reply_err(r, 0); };
  ops.statfs = [](fuse_req_t r, fuse_ino_t) { self(r).statfs(r); };
  return ops;
}

} // namespace

fuse_lowlevel_ops const& MountedFolder::operations() {
  static fuse_lowlevel_ops const ops = makeOperations();
  return ops;
}

} // namespace vfs_tool::mount
