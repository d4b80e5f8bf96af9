#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/byte_stream.hpp>

#include <vfs/file.hpp>

#include <ios>
#include <memory>

namespace foundation::storage::vfs {

/// An unbuffered Boost.Iostreams seekable device over a provider byte stream of a `File`.
/// Provider failures arrive as the IO exceptions; any operation on a closed device (close
/// included) is `std::logic_error` "Cannot operate on a closed IODevice.". Copies share the
/// provider stream: closing one copy closes the stream and empties that copy only. Used by
/// one thread at a time.
class FOUNDATION_API IODevice {
public:
  using char_type = char;
  struct category : boost::iostreams::seekable_device_tag, boost::iostreams::closable_tag {};

  /// Opens `file` read-only.
  explicit IODevice(File file);
  /// Opens `file` with `options` (see `OpenMode`).
  IODevice(File file, provider::ByteStreamOpenOptions const& options);

  /// The provider's answer as it is: a short count, or -1 at end of data.
  std::streamsize read(char* s, std::streamsize n) const;
  std::streamsize write(char const* s, std::streamsize n) const;
  std::streampos seek(std::streamoff off, std::ios_base::seekdir way) const;
  std::streampos tell() const;
  /// Closes the provider stream; a failed close leaves the device open.
  void close();
  bool is_open() const noexcept { return device_ != nullptr; }

private:
  File file_;
  std::shared_ptr<provider::GenericByteStreamDevice<provider::ByteStream>> device_;
};

/// A device over a provider transactional stream, always started empty: the old contents
/// survive unless the stream is closed with Commit. Dropped unclosed, it discards. Failures
/// as for `IODevice`; a closed device reports "Cannot operate on a closed
/// TransactionalIODevice.". Not shared: move it.
class FOUNDATION_API TransactionalIODevice {
public:
  using char_type = char;
  using category = boost::iostreams::seekable_device_tag;

  /// Creates `file` when missing; the contents start empty.
  TransactionalIODevice(File file, provider::ByteStreamAccess access);
  TransactionalIODevice(TransactionalIODevice&&) noexcept;
  TransactionalIODevice& operator=(TransactionalIODevice&&) noexcept;
  ~TransactionalIODevice();

  std::streamsize read(char* s, std::streamsize n) const;
  std::streamsize write(char const* s, std::streamsize n) const;
  std::streampos seek(std::streamoff off, std::ios_base::seekdir way) const;
  std::streampos tell() const;
  /// Commits or discards; a failed close leaves the device open (a Discard may follow).
  void close(provider::StreamClosePolicy policy);
  bool is_open() const noexcept { return device_ != nullptr; }

private:
  std::unique_ptr<provider::GenericByteStreamDevice<provider::TransactionalStream>> device_;
};

} // namespace foundation::storage::vfs
