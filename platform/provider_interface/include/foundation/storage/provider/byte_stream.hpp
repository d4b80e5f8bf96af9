#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/types.hpp>

#include <boost/iostreams/categories.hpp>
#include <boost/iostreams/positioning.hpp>

#include <concepts>
#include <cstdint>
#include <ios>
#include <memory>

namespace foundation::storage::provider {

/// An open file's bytes. Public operations are non-virtual and check the state; providers
/// implement the protected `do*` hooks. Failures are the ByteStream*Failure types. Used by
/// one thread at a time.
class FOUNDATION_API ByteStream {
public:
  virtual ~ByteStream();
  ByteStream(ByteStream const&) = delete;
  ByteStream& operator=(ByteStream const&) = delete;

  /// Reads up to `n` bytes; the count read, 0 at end of data.
  std::streamsize read(char* s, std::streamsize n);
  /// Writes `n` bytes (all of them, or fails); returns `n`.
  std::streamsize write(char const* s, std::streamsize n);
  /// Moves the position; returns the new one. A negative result position fails.
  std::streampos seek(std::streamoff off, std::ios_base::seekdir way);
  /// Flushes and releases the stream. A second close does nothing; a failed close may be
  /// retried.
  void close();
  bool isClosed() const noexcept { return closed_; }

protected:
  ByteStream() = default;
  virtual std::streamsize doRead(char* s, std::streamsize n) = 0;
  virtual std::streamsize doWrite(char const* s, std::streamsize n) = 0;
  virtual std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) = 0;
  virtual void doClose() = 0;
  void markClosed() noexcept { closed_ = true; }

private:
  bool closed_ = false;
};

/// A stream whose writes become visible only when it is closed with Commit, all at once;
/// Discard leaves the old contents. A plain `close()` commits. Implementations discard when
/// destroyed unclosed.
class FOUNDATION_API TransactionalStream : public ByteStream {
public:
  using ByteStream::close;
  void close(StreamClosePolicy const& policy);

protected:
  virtual void doClose(StreamClosePolicy const& policy) = 0;

private:
  void doClose() final { doClose(StreamClosePolicy::Commit); }
};

/// The absolute position a seek of `off` from `way` asks for, in a stream at `position` whose
/// data ends at `size`. A position before the start or past the largest offset, or an unknown
/// direction, is a ByteStreamSeekFailure (InvalidLocation). Streams over their own buffers share it.
FOUNDATION_API std::uint64_t seekTarget(std::uint64_t position, std::uint64_t size, std::streamoff off,
                                        std::ios_base::seekdir way);

/// A copyable Boost.Iostreams seekable, closable device over a shared stream. `read`
/// returns -1 at end of data, as Boost expects.
template <class S>
class GenericByteStreamDevice {
public:
  using char_type = char;
  struct category : boost::iostreams::seekable_device_tag, boost::iostreams::closable_tag {};

  explicit GenericByteStreamDevice(std::unique_ptr<S> stream) : stream_(std::move(stream)) {}
  explicit GenericByteStreamDevice(std::shared_ptr<S> stream) : stream_(std::move(stream)) {}

  std::streamsize read(char* s, std::streamsize n) {
    if (n <= 0) return 0;
    std::streamsize got = stream_->read(s, n);
    return got == 0 ? -1 : got;
  }
  std::streamsize write(char const* s, std::streamsize n) { return stream_->write(s, n); }
  std::streampos seek(boost::iostreams::stream_offset off, std::ios_base::seekdir way) {
    return stream_->seek(static_cast<std::streamoff>(off), way);
  }
  void close() { stream_->close(); }
  /// Ends a transaction with the given policy.
  void close(StreamClosePolicy const& policy) requires std::derived_from<S, TransactionalStream> {
    stream_->close(policy);
  }

  S& stream() const noexcept { return *stream_; }

private:
  std::shared_ptr<S> stream_;
};

using ByteStreamDevice = GenericByteStreamDevice<ByteStream>;
using TransactionalStreamDevice = GenericByteStreamDevice<TransactionalStream>;

} // namespace foundation::storage::provider
