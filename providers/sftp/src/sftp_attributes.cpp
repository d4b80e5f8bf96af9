#include "sftp_attributes.hpp"

#include <boost/date_time/posix_time/conversion.hpp>

#include <sys/stat.h>

namespace foundation::storage::providers::sftp::detail {

namespace {

boost::posix_time::ptime modified(sftp_attributes_struct const& attributes) {
  return boost::posix_time::from_time_t(static_cast<std::time_t>(attributes.mtime));
}

bool ownerMayWrite(sftp_attributes_struct const& attributes) { return (attributes.permissions & S_IWUSR) != 0; }

bool hiddenName(std::string_view name) { return !name.empty() && name.front() == '.'; }

} // namespace

bool isFolder(sftp_attributes_struct const& attributes) noexcept {
  return attributes.type == SSH_FILEXFER_TYPE_DIRECTORY;
}

bool isSymlink(sftp_attributes_struct const& attributes) noexcept {
  return attributes.type == SSH_FILEXFER_TYPE_SYMLINK;
}

provider::FileAttributes fileAttributes(std::string_view name, sftp_attributes_struct const& attributes,
                                        sftp_attributes_struct const* linkTarget) {
  auto const& data = linkTarget ? *linkTarget : attributes;
  return {data.size, modified(data), ownerMayWrite(data), hiddenName(name), isSymlink(attributes)};
}

provider::FolderAttributes folderAttributes(std::string_view name, sftp_attributes_struct const& attributes,
                                            sftp_attributes_struct const* linkTarget) {
  auto const& data = linkTarget ? *linkTarget : attributes;
  return {modified(data), ownerMayWrite(data), hiddenName(name), isSymlink(attributes)};
}

provider::ExtendedAttributes extendedAttributes(sftp_attributes_struct const& attributes) {
  provider::ExtendedAttributes tree;
  tree.put("posix.mode", attributes.permissions);
  tree.put("posix.uid", attributes.uid);
  tree.put("posix.gid", attributes.gid);
  return tree;
}

} // namespace foundation::storage::providers::sftp::detail
