#include "local_streams.hpp"

#include "posix_calls.hpp"

#include <foundation/storage/provider/posix_errors.hpp>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <system_error>

namespace foundation::storage::providers::local::detail {

namespace {

template <class Failure>
[[noreturn]] void streamFailure(int error) {
  throw Failure(std::generic_category().message(error), p::errorCodeFromErrno(error));
}

} // namespace

LocalByteStream::LocalByteStream(UniqueFd fd, bool canRead, bool canWrite)
    : fd_(std::move(fd)), canRead_(canRead), canWrite_(canWrite) {}

std::streamsize LocalByteStream::doRead(char* s, std::streamsize n) {
  if (!canRead_)
    p::raise(p::ByteStreamReadFailure("the stream is not open for reading", p::ErrorCode::PermissionDenied));
  for (;;) {
    ssize_t got = ::read(fd_.get(), s, static_cast<std::size_t>(n));
    if (got >= 0) return got;
    if (errno != EINTR) streamFailure<p::ByteStreamReadFailure>(errno);
  }
}

std::streamsize LocalByteStream::doWrite(char const* s, std::streamsize n) {
  if (!canWrite_)
    p::raise(p::ByteStreamWriteFailure("the stream is not open for writing", p::ErrorCode::PermissionDenied));
  if (int error = writeAll(fd_.get(), s, static_cast<std::size_t>(n))) streamFailure<p::ByteStreamWriteFailure>(error);
  return n;
}

std::streampos LocalByteStream::doSeek(std::streamoff off, std::ios_base::seekdir way) {
  int whence = way == std::ios_base::beg ? SEEK_SET : way == std::ios_base::cur ? SEEK_CUR : SEEK_END;
  off_t position = ::lseek(fd_.get(), static_cast<off_t>(off), whence);
  if (position < 0) streamFailure<p::ByteStreamSeekFailure>(errno);
  return static_cast<std::streamoff>(position);
}

void LocalByteStream::doClose() {
  if (!fd_) return;
  if (::close(fd_.release()) != 0 && errno != EINTR) streamFailure<p::ByteStreamCloseFailure>(errno);
}

LocalTransactionalStream::LocalTransactionalStream(UniqueFd folder, std::string targetName, UniqueFd temporary,
                                                   std::string temporaryName, p::StorageIRI location, SyncCall sync,
                                                   bool canRead, bool mustExist)
    : folder_(std::move(folder)), targetName_(std::move(targetName)), temporary_(std::move(temporary), canRead, true),
      temporaryName_(std::move(temporaryName)), location_(std::move(location)), sync_(std::move(sync)),
      mustExist_(mustExist) {}

LocalTransactionalStream::~LocalTransactionalStream() {
  if (!isClosed()) discard();
}

std::streamsize LocalTransactionalStream::doRead(char* s, std::streamsize n) { return temporary_.read(s, n); }
std::streamsize LocalTransactionalStream::doWrite(char const* s, std::streamsize n) { return temporary_.write(s, n); }
std::streampos LocalTransactionalStream::doSeek(std::streamoff off, std::ios_base::seekdir way) {
  return temporary_.seek(off, way);
}

void LocalTransactionalStream::doClose(p::StreamClosePolicy const& policy) {
  if (policy == p::StreamClosePolicy::Discard) {
    discard();
    return;
  }
  try {
    commit(policy == p::StreamClosePolicy::Commit);
  } catch (p::Exception const& e) {
    p::raise(p::ByteStreamCloseFailure(e.what(), e.getErrorCode()));
  }
}

void LocalTransactionalStream::commit(bool replace) {
  // Committing completes what openTransactionalStream began, so it fails in that name.
  auto const op = p::Operation::OpenTransactionalStream;
  int const fd = temporary_.descriptor();
  struct stat target {};
  int const missing = statAt(folder_.get(), targetName_.c_str(), target, true);
  if (missing == 0 && S_ISDIR(target.st_mode))
    refuse(p::ErrorCode::ResourceAlreadyExists, location_, op, "a folder is in the way");
  if (missing != 0 && mustExist_) failErrno(missing, location_, op);
  if (missing == 0) {
    // The new contents keep the old file's permissions (and owner, where we may set it).
    if (::fchmod(fd, target.st_mode & 07777) != 0) failErrno(errno, location_, op);
    if (::fchown(fd, target.st_uid, target.st_gid) != 0) { /* only the superuser may; not an error */
    }
  }
  if (int error = commitTemporaryFile(fd, folder_.get(), temporaryName_, targetName_.c_str(), replace, sync_)) {
    discard();
    failErrno(error, location_, op);
  }
  temporary_.close();
}

void LocalTransactionalStream::discard() noexcept {
  if (!temporaryName_.empty()) {
    ::unlinkat(folder_.get(), temporaryName_.c_str(), 0);
    temporaryName_.clear();
  }
  try {
    temporary_.close();
  } catch (...) {
    // Discarding drops the data anyway.
  }
}

} // namespace foundation::storage::providers::local::detail
