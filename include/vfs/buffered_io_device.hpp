#pragma once

#include <foundation/core/visibility.hpp>

#include <vfs/io_device.hpp>
#include <vfs/stream_buffer.hpp>

namespace foundation::storage::vfs {

/// An `IODevice` behind one 128 KiB buffer (Boost.Iostreams' seekable filtering stream
/// buffer): small reads come from the buffer, writes wait in it until it is full or until
/// `flush`, `seek` or `close`. Every failure is an IO exception: translated provider
/// failures keep their message and code, anything else becomes the operation's exception
/// with `ErrorCode::IOError` (a failed flush is a write failure). After `close`, reads
/// report end of data and writes and seeks fail. Used by one thread at a time.
class FOUNDATION_API BufferedIODevice {
public:
  /// Opens `file` read-only.
  explicit BufferedIODevice(File file);
  BufferedIODevice(File file, provider::ByteStreamOpenOptions const& options);
  /// Buffers `device` (sharing its provider stream).
  explicit BufferedIODevice(IODevice device);
  BufferedIODevice(BufferedIODevice const&) = delete;
  BufferedIODevice& operator=(BufferedIODevice const&) = delete;
  /// Closes, writing what is pending; failures are swallowed.
  ~BufferedIODevice();

  /// Up to `n` bytes, short only at the end of the data; -1 when there are none left.
  std::streamsize read(char* s, std::streamsize n) const;
  /// Takes all `n` bytes or throws.
  std::streamsize write(char const* s, std::streamsize n) const;
  std::streampos seek(std::streamoff off, std::ios_base::seekdir way) const;
  std::streampos tell() const;
  /// Writes what is pending to the device.
  void flush() const;
  /// Writes what is pending and closes the device; a failure of either is IOCloseException
  /// and leaves the device open, with its output still pending. Closing a closed device
  /// does nothing.
  void close();
  bool is_open() const noexcept { return !closed_; }

private:
  detail::OwnedStreamBuffer buffer_;
  bool closed_ = false;
};

} // namespace foundation::storage::vfs
