#pragma once

#include "sftp_session.hpp"

#include <foundation/storage/provider/provider_base.hpp>

#include <vector>

namespace foundation::storage::providers::sftp::detail {

/// The children of the folder at `path` of the kinds `request` asks for, with attributes
/// when it asks, from one pass of READDIR: the server sends each child's attributes with
/// its name, so only links are looked at again (to learn what they point to). A missing
/// folder or a file in its place is an SftpFailure with ResourceNotFound.
std::vector<provider::FolderEntry> readFolder(SftpSession& session, std::string const& path,
                                              provider::ListingRequest const& request);

/// Whether the folder at `path` has any child; reads no further than the first.
bool hasChildren(SftpSession& session, std::string const& path);

} // namespace foundation::storage::providers::sftp::detail
