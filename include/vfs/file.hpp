#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/events/kinds.hpp>
#include <foundation/storage/provider/byte_stream.hpp>
#include <foundation/storage/provider/storage_item.hpp>

#include <vfs/absolute_iri.hpp>
#include <vfs/storage_system.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <iosfwd>
#include <string>
#include <vector>

namespace foundation::storage::vfs {

class Folder;
class EventPublisher;
class RecursiveEventPublisher;

/// A value handle to a file location (the file need not exist). Every operation forwards
/// to the provider built for the location when the handle was made, failures translated
/// to the library's exceptions. Immutable apart from assignment and `swap`; copies share
/// the provider.
class FOUNDATION_API File : public Resource {
public:
  File(AbsoluteIRI const& location, StorageSystemReference system);
  /// The same, for a location known to be canonical: `getCanonicalLocation` asks nobody.
  File(CanonicalAbsoluteIRI const& location, StorageSystemReference system);
  /// The file `name` in `parent`.
  File(Folder const& parent, std::u16string const& name);
  File(provider::StorageItem item, StorageSystemReference system);
  File(File const&) = default;
  File(File&&) noexcept = default;
  File& operator=(File const&) = default;
  File& operator=(File&&) noexcept = default;
  ~File() override;

  /// Exchanges the locations (provider items) only; storage systems and canonical flags
  /// stay. Meant for two handles of the same storage system.
  void swap(File& other) noexcept;

  AbsoluteIRI getLocation() const override;
  AbsoluteIRI getCanonicalLocation() const;
  Folder getParent() const;
  std::u16string getName() const;
  /// From the last "." of the name on ("a.tar.gz": ".gz", ".profile": ".profile"); empty
  /// without a dot.
  std::u16string getExtension() const;
  StorageSystemReference getStorageSystem() const;
  provider::FileAttributes getAttributes() const;
  provider::ExtendedAttributes getExtendedAttributes() const;
  /// False when the provider says the file is not found; other failures are thrown.
  bool fileExists() const;

  void createFile() const;
  void removeFile() const;
  void setLastModified(boost::posix_time::ptime const& time) const;
  void setWritable(bool writable) const;
  void truncateToSize(unsigned long long size) const;
  /// Moves within the provider, or copies and removes across schemes or where the provider
  /// cannot move. With KeepExisting onto an existing file nothing moves: this file stays.
  void moveFile(File const& destination, provider::ReplacementPolicy const& policy) const;
  provider::CopyResult copyFile(File const& destination, provider::ReplacementPolicy const& policy) const;
  provider::CopyResult copyFile(File const& destination, provider::CopyFileOptions const& options) const;

  provider::GenericByteStreamDevice<provider::ByteStream> open(provider::ByteStreamOpenOptions const& options) const;
  provider::GenericByteStreamDevice<provider::ByteStream> openReadOnly() const;
  provider::GenericByteStreamDevice<provider::TransactionalStream>
  openTransactionalStream(provider::ByteStreamOpenOptions const& options) const;

  /// The move and copy algorithms, unguarded (moveFile and copyFile guard them).
  void doMoveFile(File const& destination, provider::ReplacementPolicy const& policy) const;
  provider::CopyResult doCopyFile(File const& destination, provider::CopyFileOptions const& options) const;

  /// Asks the provider to report changes of the file (`kinds`; empty: every kind) to
  /// `publisher` until stopPublishingEvents. Subscribing again replaces the publisher.
  void publishEvents(EventPublisher const& publisher, std::vector<events::Kind> const& kinds) const;
  /// Always Exception InvalidLocation: a file has nothing below it.
  void publishEventsRecursively(RecursiveEventPublisher const& publisher, std::vector<events::Kind> const& kinds) const;
  void stopPublishingEvents() const;

  friend FOUNDATION_API bool operator==(File const& a, File const& b);
  friend FOUNDATION_API bool operator!=(File const& a, File const& b);
  friend FOUNDATION_API bool operator<(File const& a, File const& b);

private:
  friend class Folder;

  provider::StorageItem item_;
  StorageSystemReference system_;
  bool canonical_;
};

FOUNDATION_API std::ostream& operator<<(std::ostream& os, File const& file);

} // namespace foundation::storage::vfs
