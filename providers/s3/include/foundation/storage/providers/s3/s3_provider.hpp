#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/provider_base.hpp>
#include <foundation/storage/provider/storage_item.hpp>
#include <foundation/storage/providers/s3/s3_settings.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace foundation::storage::providers::s3 {

namespace detail {
class S3Client;
}

/// The provider of an S3 bucket: locations `s3://bucket/key/path`, spoken over HTTP with
/// AWS Signature Version 4 (any S3-compatible store: AWS, Ceph's gateway, ...).
///
/// - Folders are key prefixes: a folder exists when its empty "dir/" marker or any key
///   below it does. As other S3 tools expect, only empty folders have a marker:
///   `createFolder` writes one, the first item that lands below removes it (one request per
///   folder; the existence check every write makes tells whether there is one), and
///   removing a folder's last item writes one, so the folder stays. Markers beside items,
///   as other tools or `setLastModified` (a folder's time lives in its marker) leave them,
///   are read as they are. A folder whose marker goes while another client removes its
///   only item may vanish. Flat listings use the "/"
///   delimiter; recursive ones are flat listings of 1,000 keys per request, with the
///   folders in between synthesised from the keys. A pattern's literal head narrows the
///   request's prefix. Listed files carry the store's own modification time; folders
///   without a marker carry the Unix epoch.
/// - Reads are ranged GETs of `partSize` bytes, several fetched ahead in parallel while a
///   stream reads sequentially; each GET requires the object to be the one opened (If-Match),
///   so a reader never mixes two versions: it fails instead.
/// - Writes are all-or-nothing. Write-only streams keep up to `partSize` bytes in memory
///   (seekable within them); larger contents become multipart uploads, parts sent in
///   parallel, completed on commit and aborted on discard or when the stream is destroyed.
///   Bytes already sent cannot be rewritten: seeking before them fails. Read-write,
///   keeping and appending opens (and `truncateToSize`) copy the object into a local
///   temporary file first and upload it on close: they cost a download and an upload.
///   Non-transactional streams commit when closed or destroyed.
/// - `createFile` and `createFolder` are conditional writes (If-None-Match: *), so two
///   racing creators cannot both succeed. The store ignores conditions on a copy's
///   destination, so copies and moves that must not replace first claim it with a
///   conditional empty object and copy over that: a destination that appears before is
///   kept (ResourceAlreadyExists, or Skipped for KeepExisting); a failed copy removes its
///   claim. Until the copy lands readers see an empty file, a writer that replaces the
///   claim itself is overwritten, and a process killed in between leaves the claim.
/// - `copyFile` within the bucket is a server-side copy (multipart copy above 5 GiB);
///   moves are copy then delete, not atomic: a failed move leaves the source whole
///   (copies already made of a folder's items are removed again).
/// - Modification times are kept in the object's metadata ("x-amz-meta-mtime", seconds
///   since the epoch), so copies keep them; `setLastModified` rewrites the metadata with a
///   server-side copy. There are no read-only flags: `setWritable` is UnsupportedOperation.
/// - No native change events (ChangeEventsNotSupportedException); polling works.
/// - Errors: 404 ResourceNotFound, 403 PermissionDenied, quota NoSpaceLeft; throttling,
///   5xx and dropped connections are retried with bounded exponential backoff, then
///   IOError with the HTTP status and the request id in the context.
/// Thread-safe.
class FOUNDATION_API S3Provider final : public provider::ProviderBase {
public:
  /// Serves `bucket` (the locations' authority).
  S3Provider(std::u16string bucket, S3Settings settings);
  ~S3Provider() override;

  /// HTTP requests this provider sent (retries included), for tests and benchmarks.
  std::uint64_t requestCount() const;
  /// Creates the bucket; an existing bucket of the same owner is fine.
  void createBucket();

  provider::StorageIRI getCanonicalLocation(provider::StorageIRI const& location) override;
  provider::ExistsResult exists(provider::StorageIRI const& location) override;
  /// One request (HEAD), where `exists` may need a listing too.
  bool fileExists(provider::StorageIRI const& location) override;
  provider::FileAttributes getFileAttributes(provider::StorageIRI const& file) override;
  provider::FolderAttributes getFolderAttributes(provider::StorageIRI const& folder) override;
  /// "s3.key", "s3.etag", "s3.contentType", "s3.metadata.*"; "s3.implicitFolder" for a
  /// folder without a marker.
  provider::ExtendedAttributes getExtendedAttributes(provider::StorageIRI const& location) override;
  void setLastModified(provider::StorageIRI const& location, boost::posix_time::ptime const& time) override;
  void setWritable(provider::StorageIRI const& location, bool writable) override;
  void createFile(provider::StorageIRI const& file) override;
  void removeFile(provider::StorageIRI const& file) override;
  void truncateToSize(provider::StorageIRI const& file, std::uint64_t size) override;
  std::unique_ptr<provider::ByteStream> openReadOnlyStream(provider::StorageIRI const& file) override;
  void createFolder(provider::StorageIRI const& folder) override;
  /// One marker for the folder asked for: the missing ones between exist through it.
  void createFolderRecursive(provider::StorageIRI const& folder) override;
  void removeFolder(provider::StorageIRI const& folder) override;
  /// Lists the keys by prefix and deletes them in batches.
  void removeFolderRecursively(provider::StorageIRI const& folder) override;
  /// The keys of S3Settings::apply; they take effect for operations started afterwards.
  void configure(provider::StorageIRI const& location, boost::property_tree::ptree settings) override;
  /// "s3.bucket" and "s3.endpoint"; no capacity.
  provider::StorageInfo getProviderStorageInfo(provider::StorageIRI const& location) override;

protected:
  /// Flat listings by delimiter, recursive ones by prefix, filtered here.
  std::unique_ptr<provider::IFolderEntryIterator> list(provider::StorageIRI const& folder,
                                                       provider::ListingRequest const& request) override;
  std::unique_ptr<provider::ByteStream> doOpenStream(provider::StorageIRI const& file,
                                                     provider::ByteStreamOpenOptions const& options) override;
  std::unique_ptr<provider::TransactionalStream>
  doOpenTransactionalStream(provider::StorageIRI const& file, provider::ByteStreamOpenOptions const& options) override;
  void doMoveFile(provider::StorageIRI const& source, provider::StorageIRI const& destination,
                  provider::ReplacementPolicy policy) override;
  /// Within the bucket: a server-side copy; elsewhere through streams.
  provider::CopyResult doCopyFile(provider::StorageIRI const& source, provider::StorageItem const& destination,
                                  provider::CopyFileOptions const& options) override;
  void doMoveFolder(provider::StorageIRI const& source, provider::StorageIRI const& destination,
                    provider::ReplacementPolicy policy) override;

private:
  std::shared_ptr<detail::S3Client> client() const;

  std::u16string const bucket_;
  mutable std::mutex mutex_;
  S3Settings settings_;
  std::shared_ptr<detail::S3Client> client_;
  std::shared_ptr<std::atomic<std::uint64_t>> requests_; ///< shared by every client made
};

} // namespace foundation::storage::providers::s3
