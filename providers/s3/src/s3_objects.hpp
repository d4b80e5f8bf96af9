#pragma once

// Object-level requests: the few S3 calls the provider is built from.

#include "s3_client.hpp"
#include "s3_xml.hpp"

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace foundation::storage::providers::s3::detail {

/// Most keys one listing page or one batch delete carries.
inline constexpr std::size_t keysPerRequest = 1000;
/// Largest object a single server-side copy may make.
inline constexpr std::uint64_t largestSingleCopy = 5ull << 30;

/// The metadata header keeping an object's modification time.
inline constexpr char const* mtimeHeader = "x-amz-meta-mtime";

struct ObjectInfo {
  std::uint64_t size = 0;
  /// The kept modification time (ours, else s3cmd's), else the store's.
  boost::posix_time::ptime modified;
  std::string etag;
  std::string contentType;
  /// User metadata, names without "x-amz-meta-".
  std::map<std::string, std::string> metadata;
};

/// "seconds.micros" since the epoch, and back (nullopt when malformed).
std::string formatMtime(boost::posix_time::ptime const& time);
std::optional<boost::posix_time::ptime> parseMtime(std::string const& text);
/// The modification time s3cmd keeps in its "s3cmd-attrs" metadata.
std::optional<boost::posix_time::ptime> s3cmdMtime(std::string const& attributes);
/// ListObjects' ISO 8601 time.
boost::posix_time::ptime parseIsoTime(std::string const& text);
/// Unknown times (folders without a marker).
boost::posix_time::ptime unknownTime();

/// The object at `key`; nullopt when there is none.
std::optional<ObjectInfo> headObject(S3Client& client, std::string const& key, Site const& site);
/// Whether any key starts with `prefix`.
bool anyKeyWithPrefix(S3Client& client, std::string const& prefix, Site const& site);
/// How a folder (not the bucket's root) exists: not at all, through the keys below it
/// alone, or with its own "key/" marker (which lists first when there is one).
enum class FolderPresence { Missing, Implied, Marked };
FolderPresence folderPresence(S3Client& client, std::string const& folderKey, Site const& site);
/// Removes the marker of a folder that now has an item below it. A marker that stays only
/// costs a key, so a failure here does not fail the write that made it redundant.
void dropRedundantMarker(S3Client& client, std::string const& markerKey, Site const& site) noexcept;
/// One page of keys under `prefix`; with `delimited`, grouped at the next "/".
ListPage listPage(S3Client& client, std::string const& prefix, bool delimited, std::string const& token,
                  std::size_t maxKeys, Site const& site);
/// Every page, handed to `visit` in key order.
void forEachPage(S3Client& client, std::string const& prefix, bool delimited,
                 std::function<void(ListPage const&)> const& visit, Site const& site);
/// `length` bytes from `offset` of the object whose ETag is `etag`; when the object was
/// replaced meanwhile, IOError saying so.
std::string getRange(S3Client& client, std::string const& key, std::string const& etag, std::uint64_t offset,
                     std::uint64_t length, Site const& site);
void putObject(S3Client& client, std::string const& key, std::string_view body,
               std::vector<std::pair<std::string, std::string>> headers, Site const& site);
/// A server-side copy of `source` (as `headObject` told); `replaceMetadata` sets the
/// destination's metadata to those headers instead of copying the source's.
void copyObject(S3Client& client, std::string const& from, ObjectInfo const& source, std::string const& to,
                std::optional<std::vector<std::pair<std::string, std::string>>> const& replaceMetadata,
                Site const& site, std::function<void(std::uint64_t)> const& progress = {});
/// Takes `key` only if nothing is there, with an empty object carrying `token`; fails
/// with ResourceAlreadyExists otherwise. The gateway honours If-None-Match on PUT but not
/// on copies or on completing a multipart upload, so those land over a claim: nothing that
/// was there or appears meanwhile is replaced, but readers see an empty object until they
/// land, and a process killed in between leaves it.
void claimKey(S3Client& client, std::string const& key, std::string const& token, Site const& site);
/// Removes the claim `token` made, unless something replaced it meanwhile.
void releaseClaim(S3Client& client, std::string const& key, std::string const& token, Site const& site) noexcept;
/// A token no other claim carries.
std::string newClaimToken();
void deleteObject(S3Client& client, std::string const& key, Site const& site);
/// Deletes in batches of 1,000 keys; the first key that could not go fails the call.
void deleteObjects(S3Client& client, std::vector<std::string> const& keys, Site const& site);

} // namespace foundation::storage::providers::s3::detail
