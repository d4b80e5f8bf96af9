#pragma once

// Listings of a folder's children (delimited) and of whole trees (flat, folders
// synthesised from the keys).

#include "s3_client.hpp"

#include <foundation/storage/provider/folder_entry.hpp>
#include <foundation/storage/provider/provider_base.hpp>

#include <string>
#include <vector>

namespace foundation::storage::providers::s3::detail {

/// The prefix under which a folder's children are: "" for the bucket, else "key/".
std::string childPrefix(std::string const& folderKey);

/// The children of the folder at `folderKey`; a folder that does not exist (or is a file)
/// is ResourceNotFound.
std::vector<provider::FolderEntry> listChildren(S3Client& client, std::string const& folderKey,
                                                provider::ListingRequest const& request, Site const& site);
/// Everything below the folder, a folder right before its contents, names relative; the
/// pattern tests the last segment.
std::vector<provider::FolderEntry> listTree(S3Client& client, std::string const& folderKey,
                                            provider::ListingRequest const& request, Site const& site);

} // namespace foundation::storage::providers::s3::detail
