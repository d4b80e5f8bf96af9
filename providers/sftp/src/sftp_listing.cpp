#include "sftp_listing.hpp"

#include "sftp_attributes.hpp"

#include <fl/i18n/i18n.hpp>

namespace foundation::storage::providers::sftp::detail {

namespace {

struct DirCloser {
  void operator()(sftp_dir dir) const noexcept { sftp_closedir(dir); }
};

std::string childPath(std::string const& folder, std::string_view name) {
  std::string path = folder;
  if (path.empty() || path.back() != '/') path += '/';
  path += name;
  return path;
}

} // namespace

std::vector<provider::FolderEntry> readFolder(SftpSession& session, std::string const& path,
                                              provider::ListingRequest const& request) {
  std::unique_ptr<sftp_dir_struct, DirCloser> dir(sftp_opendir(session.sftp(), path.c_str()));
  if (!dir) {
    auto failed = session.failure("cannot list the folder");
    if (failed.connectionLost) throw failed;
    auto found = session.stat(path);
    if (!found) throw SftpFailure(provider::ErrorCode::ResourceNotFound, "no such folder");
    if (!isFolder(**found)) throw SftpFailure(provider::ErrorCode::ResourceNotFound, "a file, not a folder");
    throw failed;
  }
  std::vector<provider::FolderEntry> entries;
  while (Attributes child{sftp_readdir(session.sftp(), dir.get())}) {
    std::string_view const name = child->name ? child->name : "";
    if (name.empty() || name == "." || name == "..") continue;
    std::optional<Attributes> target;
    if (isSymlink(*child)) target = session.stat(childPath(path, name)); // a dangling link lists as a file
    bool const folder = isFolder(target && *target ? **target : *child);
    if (request.kinds != provider::EntryKinds::All && folder != (request.kinds == provider::EntryKinds::Folders))
      continue;
    auto const* linked = target && *target ? target->get() : nullptr;
    provider::FolderEntry entry(fl::i18n::to_ustring(name), !folder);
    if (request.withAttributes && folder) entry = {entry.getName(), folderAttributes(name, *child, linked)};
    if (request.withAttributes && !folder) entry = {entry.getName(), fileAttributes(name, *child, linked)};
    entries.push_back(std::move(entry));
  }
  if (!sftp_dir_eof(dir.get())) throw session.failure("cannot read the folder to its end");
  return entries;
}

bool hasChildren(SftpSession& session, std::string const& path) {
  std::unique_ptr<sftp_dir_struct, DirCloser> dir(sftp_opendir(session.sftp(), path.c_str()));
  if (!dir) throw session.failure("cannot list the folder");
  while (Attributes child{sftp_readdir(session.sftp(), dir.get())}) {
    std::string_view const name = child->name ? child->name : "";
    if (!name.empty() && name != "." && name != "..") return true;
  }
  return false;
}

} // namespace foundation::storage::providers::sftp::detail
