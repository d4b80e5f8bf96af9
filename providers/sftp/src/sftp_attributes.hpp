#pragma once

#include "sftp_session.hpp"

#include <foundation/storage/provider/attributes.hpp>

#include <string_view>

namespace foundation::storage::providers::sftp::detail {

bool isFolder(sftp_attributes_struct const& attributes) noexcept;
bool isSymlink(sftp_attributes_struct const& attributes) noexcept;

/// The item's attributes; `linkTarget` are those the link points to when `attributes` are
/// a link's own (size, time and kind come from the target, the link flag from the link).
provider::FileAttributes fileAttributes(std::string_view name, sftp_attributes_struct const& attributes,
                                        sftp_attributes_struct const* linkTarget = nullptr);
provider::FolderAttributes folderAttributes(std::string_view name, sftp_attributes_struct const& attributes,
                                            sftp_attributes_struct const* linkTarget = nullptr);

/// The server's reading of the item: "posix.mode", "posix.uid", "posix.gid".
provider::ExtendedAttributes extendedAttributes(sftp_attributes_struct const& attributes);

} // namespace foundation::storage::providers::sftp::detail
