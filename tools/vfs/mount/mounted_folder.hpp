#pragma once

// A folder of any provider served to the kernel through FUSE's low-level interface: each
// request becomes the library operation it stands for.

#define FUSE_USE_VERSION 314
#include <fuse_lowlevel.h>

#include "inode_table.hpp"
#include "open_file.hpp"

#include <vfs/folder.hpp>

#include <sys/stat.h>

#include <memory>
#include <mutex>
#include <unordered_map>

namespace vfs_tool::mount {

struct MountOptions {
  bool readOnly = false;
  /// How long the kernel may trust names and attributes it was told, in seconds.
  double cacheTimeout = 1.0;
};

class MountedFolder {
public:
  MountedFolder(vfs::Folder root, MountOptions options);
  /// Commits and closes the files the kernel never released (the server stopped first).
  ~MountedFolder();

  /// The request handlers; each expects this object as the session's user data.
  static fuse_lowlevel_ops const& operations();

  // One member per request, named as the request.
  void init(fuse_conn_info* connection);
  void lookup(fuse_req_t request, NodeId parent, char const* name);
  void forget(NodeId node, std::uint64_t count);
  void getattr(fuse_req_t request, NodeId node, fuse_file_info* info);
  void setattr(fuse_req_t request, NodeId node, struct stat* attributes, int toSet, fuse_file_info* info);
  void mkdir(fuse_req_t request, NodeId parent, char const* name);
  void unlink(fuse_req_t request, NodeId parent, char const* name);
  void rmdir(fuse_req_t request, NodeId parent, char const* name);
  void rename(fuse_req_t request, NodeId parent, char const* name, NodeId newParent, char const* newName,
              unsigned flags);
  void open(fuse_req_t request, NodeId node, fuse_file_info* info);
  void create(fuse_req_t request, NodeId parent, char const* name, mode_t mode, fuse_file_info* info);
  void read(fuse_req_t request, std::size_t size, off_t offset, fuse_file_info* info);
  void write(fuse_req_t request, char const* data, std::size_t size, off_t offset, fuse_file_info* info);
  void flush(fuse_req_t request, fuse_file_info* info);
  void fsync(fuse_req_t request, fuse_file_info* info);
  void release(fuse_req_t request, fuse_file_info* info);
  void opendir(fuse_req_t request, NodeId node, fuse_file_info* info);
  void readdir(fuse_req_t request, NodeId node, std::size_t size, off_t offset, fuse_file_info* info, bool plus);
  void releasedir(fuse_req_t request, fuse_file_info* info);
  void statfs(fuse_req_t request);

private:
  struct Listing;
  struct Handle;

  vfs::AbsoluteIRI where(NodeId node) const;
  vfs::AbsoluteIRI whereChild(NodeId parent, char const* name) const;
  /// The attributes of what stands at `location`, `hint` tried first; its kind in `kind`.
  struct stat attributesOf(vfs::AbsoluteIRI const& location, NodeKind hint, NodeKind& kind) const;
  struct stat fileAttributes(provider::FileAttributes const& attributes) const;
  struct stat folderAttributes(provider::FolderAttributes const& attributes) const;
  /// What the kernel is told about `name` in `parent`: one more reference to its node.
  fuse_entry_param entryFor(NodeId parent, std::string const& name, NodeKind kind, struct stat const& attributes);
  void replyEntry(fuse_req_t request, NodeId parent, std::string const& name, NodeKind kind,
                  struct stat const& attributes);
  void refuseWhenReadOnly() const;
  /// The size a transaction open on `node` has reached, in place of the stored one.
  void showPendingSize(NodeId node, struct stat& attributes) const;
  /// Sets the length of the file at `node`: through the handle in `info` when the program
  /// truncates an open file, and in every transaction open on it.
  void truncate(NodeId node, vfs::AbsoluteIRI const& location, fuse_file_info const* info, std::uint64_t size);
  /// Opens a file for `flags`, registered as a writer of `node` when it writes.
  Handle* openHandle(NodeId node, vfs::AbsoluteIRI const& location, int flags);
  /// Commits, closes and forgets a handle.
  void closeHandle(Handle* handle);
  static Handle& handleOf(fuse_file_info const* info);

  vfs::Folder root_;
  MountOptions options_;
  InodeTable nodes_;
  uid_t owner_;
  gid_t group_;
  /// Sizes of files whose writes wait in a transaction, so that stat shows what was written.
  mutable std::mutex pendingMutex_;
  std::unordered_multimap<NodeId, OpenFile*> writers_;
  /// Every open file, owned here until its release.
  std::mutex handlesMutex_;
  std::unordered_map<Handle const*, std::unique_ptr<Handle>> handles_;
};

} // namespace vfs_tool::mount
