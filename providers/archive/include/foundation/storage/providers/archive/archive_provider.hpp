#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/provider_base.hpp>

#include <functional>
#include <memory>

namespace foundation::storage::providers::archive {

/// The provider serving a location of any scheme; an archive provider reaches the archive
/// file through it (a storage system's `buildProvider`, for instance).
using OuterProviderResolver = std::function<std::shared_ptr<provider::IProvider>(provider::StorageIRI const&)>;

namespace detail {
struct ProviderCore;
}

/// Archives as folders: locations `<scheme>:<outer IRI>!/path`, such as
/// `zip:file:///data/a.zip!/dir/x.txt`. The archive is read and written only through the
/// outer provider's byte streams, so an archive may lie on any provider, inside another
/// archive too (`zip:zip:mem:///o.zip!/inner.zip!/x`).
///
/// Each archive's entry index is read once and kept; it is read again when the outer
/// file's size or modification time changed and nothing is pending. Folders that exist
/// only in entry paths are listed as folders; listings follow archive order, so that a walk
/// reads a compressed archive front to back, in one pass. Zip names are UTF-8 where the
/// entry says so or its bytes are valid UTF-8, code page 437 (the format's own) otherwise;
/// zip folders are marked by a trailing slash, a Unix folder mode or the DOS folder
/// attribute. Entries that cannot be shown are skipped, logged as warnings, listed in the
/// root's extended attributes ("<scheme>.skipped") and named in the error of an access to
/// them: names that are absolute, contain `..` segments, backslashes or NUL, are empty, or
/// are not UTF-8 in a tar (which declares no encoding); devices, pipes and sockets; hard
/// links to no earlier file; a zip entry repeating an earlier name (the first wins) and a
/// tar entry that a later one of the same name replaces (the last wins, as tar extracts).
/// A damaged tar header ends the listing there, with a note: what comes before it stays
/// readable. Symbolic links are files flagged as links whose size is their target's length;
/// the target is the extended attribute "<scheme>.linkTarget", and `existsExtended` tells
/// where it leads inside the archive (links are never followed out of it). A link holds no
/// data: reading or editing it is InvalidLocation (so a tree copy skips it); writing a new
/// file over it replaces it. Reading streams; an entry holding more or less data than it
/// declares fails the read, as does a damaged one (IOError) or one encrypted or compressed
/// in a way that cannot be decoded (UnsupportedOperation). Sparse tar entries read with
/// their holes as zeros.
///
/// Writable formats keep a change set per archive until it is committed; new contents wait
/// in an unnamed temporary file (in $TMPDIR), so memory does not grow with what is written.
/// A commit happens only on `flushFilesystem()` (every archive, innermost first; the first
/// failure is thrown), `flushFilesystem(location)` (that archive and the archives around
/// it), `shutdownProvider`, and when the provider is destroyed, where a failure can only be
/// logged: call `flushFilesystem` to learn whether changes reached the archive. A commit
/// writes a whole new archive through the outer provider's transactional stream, so the
/// outer file changes all at once or not at all. Entries the change set leaves alone, those
/// reading skips included, are copied as they lie (headers, extra fields, comments,
/// attributes, data), as is the archive's comment; a renamed or retimed entry keeps its data
/// and extra fields. An entry the directory names but whose header is not where it says
/// fails the commit (IOError). A change inside an archive that lies in a read-only archive
/// (a zip in a tar) is ReadOnlyProvider when it is made. A commit never overwrites another
/// writer's file: it fails with ResourceInUse when the archive file changed (or appeared)
/// since it was read, or with ResourceAlreadyExists when a file lands where a new archive
/// goes while it is written (the changes stay pending). New names that reading the archive back would skip, or longer
/// than an entry header holds, are InvalidLocation. `invalidate` drops an archive's
/// state, uncommitted changes included. Creating the root folder of a missing archive
/// creates an empty archive. Settings (`configure`): "maxEditSize" (bytes; an entry larger
/// than this is FileTooLarge when opened for in-place writing; default 256 MiB).
/// Changes are reported natively; polling is available too. Thread-safe.
class FOUNDATION_API ArchiveProvider : public provider::ProviderBase,
                                       public provider::extensions::IFlushableFilesystem,
                                       public provider::extensions::IInvalidatable {
public:
  ~ArchiveProvider() override;

  /// A missing entry's error names why reading skipped it, when it did.
  provider::StorageIRI getCanonicalLocation(provider::StorageIRI const& location) override;
  provider::ExistsResult exists(provider::StorageIRI const& location) override;
  /// Tells where a symbolic link leads inside the archive.
  provider::ExtendedExistsResult existsExtended(provider::StorageIRI const& location) override;
  provider::FileAttributes getFileAttributes(provider::StorageIRI const& file) override;
  provider::FolderAttributes getFolderAttributes(provider::StorageIRI const& folder) override;
  provider::ExtendedAttributes getExtendedAttributes(provider::StorageIRI const& location) override;
  void setLastModified(provider::StorageIRI const& location, boost::posix_time::ptime const& time) override;
  void setWritable(provider::StorageIRI const& location, bool writable) override;
  void createFile(provider::StorageIRI const& file) override;
  void removeFile(provider::StorageIRI const& file) override;
  void truncateToSize(provider::StorageIRI const& file, std::uint64_t size) override;
  std::unique_ptr<provider::ByteStream> openReadOnlyStream(provider::StorageIRI const& file) override;
  /// Creating the root folder of a missing archive creates an empty archive.
  void createFolder(provider::StorageIRI const& folder) override;
  /// Every missing level at once, under the archive's lock; creates the archive if missing.
  void createFolderRecursive(provider::StorageIRI const& folder) override;
  void removeFolder(provider::StorageIRI const& folder) override;
  /// All or nothing, under the archive's lock.
  void removeFolderRecursively(provider::StorageIRI const& folder) override;
  void configure(provider::StorageIRI const& location, boost::property_tree::ptree settings) override;
  /// Stops every poll and subscription, then commits every pending change set.
  void shutdownProvider(provider::StorageIRI const& location) override;
  /// That of the folder holding the archive file.
  provider::StorageInfo getProviderStorageInfo(provider::StorageIRI const& location) override;
  void publishFileEvents(provider::StorageIRI const& file, provider::ChangeCallback callback,
                         std::vector<events::Kind> const& kinds) override;
  void stopPublishingFileEvents(provider::StorageIRI const& file) override;
  void publishFolderEvents(provider::StorageIRI const& folder, provider::ChangeCallback callback,
                           std::vector<events::Kind> const& kinds, provider::RecursiveWatching recursive) override;
  void stopPublishingFolderEvents(provider::StorageIRI const& folder) override;

  /// Commits every pending change set, innermost archives first.
  void flushFilesystem() override;
  /// Commits the change set of the archive holding `location`, then those of the archives
  /// around it.
  void flushFilesystem(provider::StorageIRI const& location) override;
  /// Forgets the archive holding `location`, its uncommitted changes included.
  void invalidate(provider::StorageIRI const& location) override;

protected:
  explicit ArchiveProvider(std::shared_ptr<detail::ProviderCore> core);

  /// A snapshot in archive order taken under the archive's lock, filtered and recursive natively.
  std::unique_ptr<provider::IFolderEntryIterator> list(provider::StorageIRI const& folder,
                                                       provider::ListingRequest const& request) override;
  std::unique_ptr<provider::ByteStream> doOpenStream(provider::StorageIRI const& file,
                                                     provider::ByteStreamOpenOptions const& options) override;
  std::unique_ptr<provider::TransactionalStream>
  doOpenTransactionalStream(provider::StorageIRI const& file, provider::ByteStreamOpenOptions const& options) override;
  /// Within one archive only (UnsupportedOperation otherwise).
  void doMoveFile(provider::StorageIRI const& source, provider::StorageIRI const& destination,
                  provider::ReplacementPolicy policy) override;
  /// Within one archive only (UnsupportedOperation otherwise).
  void doMoveFolder(provider::StorageIRI const& source, provider::StorageIRI const& destination,
                    provider::ReplacementPolicy policy) override;

private:
  friend struct detail::ProviderCore;          // asks the archives around its own whether they can be written
  std::shared_ptr<detail::ProviderCore> core_; ///< shared with open write streams
};

/// Zip archives, read and written (libzip), scheme "zip".
class FOUNDATION_API ZipProvider final : public ArchiveProvider {
public:
  explicit ZipProvider(OuterProviderResolver resolver, std::u16string scheme = u"zip");
};

/// Tar archives, plain or compressed with gzip, bzip2, xz or zstd, read only (libarchive),
/// scheme "tar". Every change is ReadOnlyProvider. Reading an entry of an uncompressed
/// archive seeks straight to its data.
class FOUNDATION_API TarProvider final : public ArchiveProvider {
public:
  explicit TarProvider(OuterProviderResolver resolver, std::u16string scheme = u"tar");
};

} // namespace foundation::storage::providers::archive
