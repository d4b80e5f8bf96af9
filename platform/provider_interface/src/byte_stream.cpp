#include <foundation/storage/provider/byte_stream.hpp>
#include <foundation/storage/provider/exceptions.hpp>

#include <cstdint>

namespace foundation::storage::provider {

ByteStream::~ByteStream() = default;

std::streamsize ByteStream::read(char* s, std::streamsize n) {
  if (closed_) raise(ByteStreamReadFailure("read on a closed stream", ErrorCode::InvalidLocation));
  if (n < 0) raise(ByteStreamReadFailure("negative read size", ErrorCode::InvalidLocation));
  return n == 0 ? 0 : doRead(s, n);
}

std::streamsize ByteStream::write(char const* s, std::streamsize n) {
  if (closed_) raise(ByteStreamWriteFailure("write on a closed stream", ErrorCode::InvalidLocation));
  if (n < 0) raise(ByteStreamWriteFailure("negative write size", ErrorCode::InvalidLocation));
  return n == 0 ? 0 : doWrite(s, n);
}

std::streampos ByteStream::seek(std::streamoff off, std::ios_base::seekdir way) {
  if (closed_) raise(ByteStreamSeekFailure("seek on a closed stream", ErrorCode::InvalidLocation));
  return doSeek(off, way);
}

void ByteStream::close() {
  if (closed_) return;
  doClose();
  closed_ = true;
}

void TransactionalStream::close(StreamClosePolicy const& policy) {
  if (isClosed()) return;
  if (static_cast<std::uint32_t>(policy) > static_cast<std::uint32_t>(StreamClosePolicy::CommitWithoutReplacing))
    raise(ByteStreamCloseFailure("unknown close policy", ErrorCode::InvalidLocation));
  doClose(policy);
  markClosed();
}

std::uint64_t seekTarget(std::uint64_t position, std::uint64_t size, std::streamoff off, std::ios_base::seekdir way) {
  std::int64_t base = 0;
  if (way == std::ios_base::cur)
    base = static_cast<std::int64_t>(position);
  else if (way == std::ios_base::end)
    base = static_cast<std::int64_t>(size);
  else if (way != std::ios_base::beg)
    raise(ByteStreamSeekFailure("unknown seek direction", ErrorCode::InvalidLocation));
  if ((off < 0 && -off > base) || (off > 0 && off > INT64_MAX - base))
    raise(ByteStreamSeekFailure("seek outside the file", ErrorCode::InvalidLocation));
  return static_cast<std::uint64_t>(base + off);
}

} // namespace foundation::storage::provider
