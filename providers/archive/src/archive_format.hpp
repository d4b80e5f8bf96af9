#pragma once

// What the archive provider needs from a format: reading an archive's entries and data,
// and (for writable formats) writing a whole new archive.

#include "archive_tree.hpp"

#include <foundation/storage/provider/storage_item.hpp>

#include <memory>
#include <vector>

namespace foundation::storage::providers::archive::detail {

/// One version of an archive as read, giving access to its entries' data. Thread-safe.
class ArchiveReader {
public:
  virtual ~ArchiveReader() = default;
  /// A read-only stream over the entry's data, checked against its declared size.
  virtual std::unique_ptr<p::ByteStream> openEntry(EntryRef const& ref) = 0;
};

class ArchiveFormat {
public:
  virtual ~ArchiveFormat() = default;
  virtual bool writable() const = 0;
  /// Reads the archive's entries, in archive order, into `entries`.
  virtual std::shared_ptr<ArchiveReader> open(p::StorageItem const& archive, std::vector<RawEntry>& entries) = 0;
  /// Replaces the archive, all at once, with one holding `tree`. `previous` is the archive
  /// as read (null for a new one); the tree's entries refer to it. `landing` is how the new
  /// archive lands: CommitWithoutReplacing for an archive that did not exist.
  virtual void write(p::StorageItem const& archive, Tree const& tree, ArchiveReader* previous,
                     p::StreamClosePolicy landing) = 0;
};

std::unique_ptr<ArchiveFormat> makeZipFormat();
std::unique_ptr<ArchiveFormat> makeTarFormat();

} // namespace foundation::storage::providers::archive::detail
