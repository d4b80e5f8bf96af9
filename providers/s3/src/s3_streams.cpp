#include "s3_streams.hpp"

#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/posix_errors.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace foundation::storage::providers::s3::detail {

namespace p = foundation::storage::provider;

namespace {

/// Rethrows the exception being handled as the stream failure `Failure`.
template <class Failure>
[[noreturn]] void rethrowAs() {
  try {
    throw;
  } catch (p::ByteStreamFailure const&) {
    throw;
  } catch (p::Exception const& e) {
    throw Failure(e.what(), e.getErrorCode());
  } catch (std::exception const& e) {
    throw Failure(e.what(), p::ErrorCode::IOError);
  }
}

/// The most parts one multipart upload may have, and so the largest object it makes.
constexpr std::uint64_t maxParts = 10000;
constexpr char const* tooLargeMessage = "the object would need more than 10000 parts; a larger \"partSize\" allows it";
std::uint64_t largestUpload(std::uint64_t partSize) { return maxParts * partSize; }

/// Whether a committing close may replace an existing object; unknown policies fail.
bool replaces(p::StreamClosePolicy policy) {
  switch (policy) {
  case p::StreamClosePolicy::Commit: return true;
  case p::StreamClosePolicy::CommitWithoutReplacing: return false;
  case p::StreamClosePolicy::Discard: break;
  }
  throw p::ByteStreamCloseFailure("unknown close policy", p::ErrorCode::InvalidLocation);
}

[[noreturn]] void failErrno(char const* what) {
  throw p::ByteStreamFailure(std::string(what) + ": " + std::strerror(errno), p::errorCodeFromErrno(errno));
}

} // namespace

// --- reading ----------------------------------------------------------------------------

ReadStream::ReadStream(std::shared_ptr<S3Client> client, p::StorageIRI location, std::string key, ObjectInfo info)
    : client_(std::move(client)), location_(std::move(location)), key_(std::move(key)), info_(std::move(info)) {}

ReadStream::~ReadStream() = default;

std::future<std::string> ReadStream::fetch(std::uint64_t offset) const {
  std::uint64_t const length = std::min(client_->settings().partSize, info_.size - offset);
  return std::async(std::launch::async,
                    [client = client_, location = location_, key = key_, etag = info_.etag, offset, length] {
                      return getRange(*client, key, etag, offset, length, {location, u"s3.read"});
                    });
}

void ReadStream::load(std::uint64_t offset) {
  bool const sequential = !buffer_.empty() && offset == bufferStart_ + buffer_.size();
  while (!ahead_.empty() && ahead_.front().first != offset) ahead_.pop_front();
  std::future<std::string> next;
  if (!ahead_.empty()) {
    next = std::move(ahead_.front().second);
    ahead_.pop_front();
  } else {
    next = fetch(offset);
  }
  buffer_ = next.get();
  bufferStart_ = offset;
  if (!sequential) return;
  // A sequential reader gets the following ranges fetched while it consumes this one.
  std::uint64_t upcoming =
      ahead_.empty() ? offset + buffer_.size() : ahead_.back().first + client_->settings().partSize;
  while (ahead_.size() + 1 < std::max(1u, client_->settings().parallelism) && upcoming < info_.size) {
    ahead_.emplace_back(upcoming, fetch(upcoming));
    upcoming += client_->settings().partSize;
  }
}

std::streamsize ReadStream::doRead(char* s, std::streamsize n) {
  if (n <= 0 || position_ >= info_.size) return 0;
  try {
    if (position_ < bufferStart_ || position_ >= bufferStart_ + buffer_.size()) load(position_);
  } catch (...) {
    rethrowAs<p::ByteStreamReadFailure>();
  }
  std::size_t const from = static_cast<std::size_t>(position_ - bufferStart_);
  std::size_t const count = std::min<std::size_t>(static_cast<std::size_t>(n), buffer_.size() - from);
  std::memcpy(s, buffer_.data() + from, count);
  position_ += count;
  return static_cast<std::streamsize>(count);
}

std::streamsize ReadStream::doWrite(char const*, std::streamsize) {
  throw p::ByteStreamWriteFailure("the stream was opened for reading only", p::ErrorCode::PermissionDenied);
}

std::streampos ReadStream::doSeek(std::streamoff off, std::ios_base::seekdir way) {
  position_ = p::seekTarget(position_, info_.size, off, way);
  return static_cast<std::streamoff>(position_);
}

void ReadStream::doClose() {
  ahead_.clear();
  buffer_.clear();
  buffer_.shrink_to_fit();
  markClosed();
}

// --- uploading --------------------------------------------------------------------------

UploadStream::UploadStream(std::shared_ptr<S3Client> client, p::StorageIRI location, std::string key, bool append,
                           bool commitWhenDestroyed, std::optional<std::string> parentMarker)
    : client_(std::move(client)), location_(std::move(location)), key_(std::move(key)), append_(append),
      commitWhenDestroyed_(commitWhenDestroyed), parentMarker_(std::move(parentMarker)) {}

UploadStream::~UploadStream() {
  if (isClosed()) return;
  if (commitWhenDestroyed_) {
    try {
      commit(true);
      return;
    } catch (...) {
      // Nobody is left to tell; the old contents stay.
    }
  }
  abort();
}

std::streamsize UploadStream::doRead(char*, std::streamsize) {
  throw p::ByteStreamReadFailure("the stream was opened for writing only", p::ErrorCode::PermissionDenied);
}

std::streamsize UploadStream::doWrite(char const* s, std::streamsize n) {
  if (append_) position_ = end();
  if (position_ < sent_)
    throw p::ByteStreamWriteFailure("bytes already uploaded cannot be rewritten", p::ErrorCode::UnsupportedOperation);
  auto const count = static_cast<std::size_t>(n);
  std::uint64_t const partSize = client_->settings().partSize;
  if (position_ + count > largestUpload(partSize))
    throw p::ByteStreamWriteFailure(tooLargeMessage, p::ErrorCode::FileTooLarge);
  try {
    // Zeros before a write past the end go out part by part, never all held at once.
    while (end() < position_) {
      pending_.append(std::min(position_ - end(), partSize), '\0');
      sendFullParts();
    }
    std::size_t const at = static_cast<std::size_t>(position_ - sent_);
    if (pending_.size() < at + count) pending_.resize(at + count, '\0');
    std::memcpy(pending_.data() + at, s, count);
    position_ += count;
    sendFullParts();
  } catch (...) {
    abort();
    rethrowAs<p::ByteStreamWriteFailure>();
  }
  return n;
}

std::streampos UploadStream::doSeek(std::streamoff off, std::ios_base::seekdir way) {
  auto const target = p::seekTarget(position_, end(), off, way);
  if (target < sent_)
    throw p::ByteStreamSeekFailure("bytes already uploaded cannot be revisited", p::ErrorCode::UnsupportedOperation);
  position_ = target;
  return static_cast<std::streamoff>(position_);
}

void UploadStream::sendFullParts() {
  std::uint64_t const partSize = client_->settings().partSize;
  while (pending_.size() >= partSize && position_ >= sent_ + partSize) {
    std::string part = pending_.substr(0, partSize);
    pending_.erase(0, partSize);
    sendPart(std::move(part));
  }
}

void UploadStream::sendPart(std::string bytes) {
  Site const site{location_, u"s3.uploadPart"};
  if (uploadId_.empty())
    uploadId_ = client_->performAndRead({"POST", key_, {{"uploads", ""}}, {}, {}}, site, parseUploadId);
  while (inFlight_.size() >= std::max(1u, client_->settings().parallelism)) {
    etags_.push_back(inFlight_.front().get());
    inFlight_.pop_front();
  }
  sent_ += bytes.size();
  inFlight_.push_back(std::async(std::launch::async, [client = client_, location = location_, key = key_,
                                                      id = uploadId_, number = etags_.size() + inFlight_.size() + 1,
                                                      body = std::move(bytes)] {
    auto response = client->perform({"PUT", key, {{"partNumber", std::to_string(number)}, {"uploadId", id}}, {}, body},
                                    {location, u"s3.uploadPart"});
    return response.header("etag");
  }));
}

void UploadStream::commit(bool replace) {
  Site const site{location_, u"s3.commit"};
  if (uploadId_.empty()) {
    std::vector<std::pair<std::string, std::string>> headers;
    if (!replace) headers.emplace_back("if-none-match", "*");
    putObject(*client_, key_, pending_, std::move(headers), site);
  } else {
    if (!pending_.empty()) sendPart(std::move(pending_));
    while (!inFlight_.empty()) {
      etags_.push_back(inFlight_.front().get());
      inFlight_.pop_front();
    }
    if (!replace) claimKey(*client_, key_, uploadId_, site);
    try {
      auto response = client_->perform(
          {"POST", key_, {{"uploadId", uploadId_}}, {{"content-type", "application/xml"}}, completeUploadBody(etags_)},
          site);
      if (auto error = parseError(response.body))
        p::fail(p::ErrorCode::IOError, location_, site.call,
                "completing the upload failed: " + error->code + " " + error->message);
    } catch (...) {
      if (!replace) releaseClaim(*client_, key_, uploadId_, site);
      throw;
    }
    uploadId_.clear();
  }
  pending_.clear();
  markClosed();
  if (parentMarker_) dropRedundantMarker(*client_, *parentMarker_, site);
}

void UploadStream::abort() noexcept {
  for (auto& part : inFlight_) part.wait();
  inFlight_.clear();
  pending_.clear();
  if (!uploadId_.empty()) {
    try {
      client_->send({"DELETE", key_, {{"uploadId", uploadId_}}, {}, {}}, {location_, u"s3.abort"});
    } catch (...) {
      // An unfinished upload is never visible; the store's lifecycle rules reap it.
    }
    uploadId_.clear();
  }
  markClosed();
}

void UploadStream::doClose(p::StreamClosePolicy const& policy) {
  if (policy == p::StreamClosePolicy::Discard) {
    abort();
    return;
  }
  try {
    commit(replaces(policy));
  } catch (...) {
    abort();
    rethrowAs<p::ByteStreamCloseFailure>();
  }
}

// --- read-write through a temporary file ------------------------------------------------

TempFileStream::TempFileStream(std::shared_ptr<S3Client> client, p::StorageIRI location, std::string key,
                               p::ByteStreamOpenOptions options, std::optional<ObjectInfo> const& existing,
                               bool commitWhenDestroyed, std::optional<std::string> parentMarker)
    : client_(std::move(client)), location_(std::move(location)), key_(std::move(key)), options_(options),
      commitWhenDestroyed_(commitWhenDestroyed), parentMarker_(std::move(parentMarker)) {
  std::string pattern = (std::filesystem::temp_directory_path() / "vfs-s3-XXXXXX").string();
  fd_ = ::mkstemp(pattern.data());
  if (fd_ < 0) failErrno("cannot make a temporary file");
  ::unlink(pattern.c_str()); // gone with the stream, whatever happens
  if (!existing || options_.truncate == p::ByteStreamTruncate::Truncate) return;
  ReadStream source(client_, location_, key_, *existing);
  std::vector<char> buffer(1 << 20);
  for (std::streamsize got; (got = source.read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) > 0;) {
    if (::write(fd_, buffer.data(), static_cast<std::size_t>(got)) != got) {
      int const error = errno;
      release();
      errno = error;
      failErrno("cannot write the temporary copy");
    }
  }
}

TempFileStream::~TempFileStream() {
  if (!isClosed() && commitWhenDestroyed_) {
    try {
      upload(p::StreamClosePolicy::Commit);
    } catch (...) {
      // Nobody is left to tell; the old contents stay.
    }
  }
  release();
}

void TempFileStream::release() noexcept {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

std::uint64_t TempFileStream::size() const {
  struct stat st {};
  if (::fstat(fd_, &st) != 0) failErrno("cannot size the temporary copy");
  return static_cast<std::uint64_t>(st.st_size);
}

void TempFileStream::resize(std::uint64_t size) {
  if (::ftruncate(fd_, static_cast<off_t>(size)) != 0) failErrno("cannot resize the temporary copy");
}

std::streamsize TempFileStream::doRead(char* s, std::streamsize n) {
  if (options_.access == p::ByteStreamAccess::WriteOnly)
    throw p::ByteStreamReadFailure("the stream was opened for writing only", p::ErrorCode::PermissionDenied);
  ssize_t got = ::pread(fd_, s, static_cast<std::size_t>(n), static_cast<off_t>(position_));
  if (got < 0) throw p::ByteStreamReadFailure(std::strerror(errno), p::errorCodeFromErrno(errno));
  position_ += static_cast<std::uint64_t>(got);
  return got;
}

std::streamsize TempFileStream::doWrite(char const* s, std::streamsize n) {
  try {
    if (options_.append == p::ByteStreamAppend::Append) position_ = size();
  } catch (p::ByteStreamFailure const& e) {
    throw p::ByteStreamWriteFailure(e.what(), e.getErrorCode());
  }
  for (std::streamsize done = 0; done < n;) {
    ssize_t put = ::pwrite(fd_, s + done, static_cast<std::size_t>(n - done), static_cast<off_t>(position_));
    if (put < 0) throw p::ByteStreamWriteFailure(std::strerror(errno), p::errorCodeFromErrno(errno));
    done += put;
    position_ += static_cast<std::uint64_t>(put);
  }
  return n;
}

std::streampos TempFileStream::doSeek(std::streamoff off, std::ios_base::seekdir way) {
  try {
    position_ = p::seekTarget(position_, size(), off, way);
  } catch (p::ByteStreamSeekFailure const&) {
    throw;
  } catch (p::ByteStreamFailure const& e) {
    throw p::ByteStreamSeekFailure(e.what(), e.getErrorCode());
  }
  return static_cast<std::streamoff>(position_);
}

void TempFileStream::upload(p::StreamClosePolicy policy) {
  if (size() > largestUpload(client_->settings().partSize))
    throw p::ByteStreamCloseFailure(tooLargeMessage, p::ErrorCode::FileTooLarge);
  UploadStream out(client_, location_, key_, false, false, parentMarker_);
  std::vector<char> buffer(1 << 20);
  for (off_t at = 0;;) {
    ssize_t got = ::pread(fd_, buffer.data(), buffer.size(), at);
    if (got < 0) failErrno("cannot read the temporary copy");
    if (got == 0) break;
    out.write(buffer.data(), got);
    at += got;
  }
  out.close(policy);
}

void TempFileStream::doClose(p::StreamClosePolicy const& policy) {
  if (policy != p::StreamClosePolicy::Discard) {
    try {
      replaces(policy); // refuses policies it does not know before anything goes out
      upload(policy);
    } catch (...) {
      rethrowAs<p::ByteStreamCloseFailure>();
    }
  }
  release();
  markClosed();
}

} // namespace foundation::storage::providers::s3::detail
