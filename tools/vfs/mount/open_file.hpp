#pragma once

// One open of a file through the mount: the byte streams behind a kernel file handle.
// Writes go straight into the file where the provider can write in place; where it cannot
// (all-or-nothing stores), into a transaction that the next flush, fsync or the last close
// commits, so that other programs see the whole new contents or the old ones.

#include <vfs/file.hpp>

#include <cstdint>
#include <mutex>
#include <optional>

namespace vfs_tool::mount {

namespace vfs = foundation::storage::vfs;
namespace provider = foundation::storage::provider;

class OpenFile {
public:
  /// Opens `file` for reading, or for reading and writing; `truncate` empties it first.
  OpenFile(vfs::File file, bool writing, bool truncate);

  /// Up to `size` bytes from `offset`; fewer only at the end of the data.
  std::size_t read(char* data, std::size_t size, std::uint64_t offset);
  void write(char const* data, std::size_t size, std::uint64_t offset);
  /// Commits what was written through a transaction; nothing for in-place writes.
  void flush();
  /// `flush`, then asks the provider to make the file system durable.
  void sync();
  /// Cuts or extends to `size` bytes what this open file writes to: its open transaction,
  /// which others see with the commit, or else the file itself.
  void truncate(std::uint64_t size);
  /// Cuts or extends the open transaction, if there is one, so that its commit keeps a
  /// truncation made through another handle or by name.
  void truncateTransaction(std::uint64_t size);
  /// The size the open transaction has reached, while one is open.
  std::optional<std::uint64_t> pendingSize() const;
  /// Commits and closes every stream; the last word of the handle.
  void close();

private:
  template <class Device>
  void seekTo(Device& device, std::uint64_t offset);
  provider::ByteStreamDevice& reader();
  /// `truncateTransaction` with the lock held; false when no transaction is open.
  bool resizeTransaction(std::uint64_t size);

  mutable std::mutex mutex_;
  vfs::File file_;
  std::optional<provider::ByteStreamDevice> stream_;
  std::optional<provider::TransactionalStreamDevice> transaction_;
  bool inPlace_ = false;       ///< stream_ is open for writing in place
  bool dirty_ = false;         ///< the transaction holds writes not yet committed
  std::uint64_t position_ = 0; ///< of the stream in use
  std::uint64_t transactionSize_ = 0;
};

} // namespace vfs_tool::mount
