#include "archive_streams.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <algorithm>
#include <climits>
#include <utility>

namespace foundation::storage::providers::archive::detail {

namespace {

using p::ErrorCode;

std::streamsize copyOut(Content const& content, std::uint64_t& position, char* s, std::streamsize n) {
  std::size_t const count = content.read(position, s, static_cast<std::size_t>(n));
  position += count;
  return static_cast<std::streamsize>(count);
}

void checkRead(StreamMode const& mode) {
  if (!mode.read) p::raise(p::ByteStreamReadFailure("the stream is not open for reading", ErrorCode::PermissionDenied));
}

void checkWrite(StreamMode const& mode) {
  if (!mode.write)
    p::raise(p::ByteStreamWriteFailure("the stream is not open for writing", ErrorCode::PermissionDenied));
}

} // namespace

// --- ContentStream ----------------------------------------------------------------------

ContentStream::ContentStream(std::shared_ptr<Content> content, std::shared_ptr<std::mutex> lock, StreamMode mode,
                             std::function<void(bool)> closed)
    : content_(std::move(content)), lock_(std::move(lock)), mode_(mode), closed_(std::move(closed)) {}

ContentStream::~ContentStream() {
  if (!isClosed() && closed_) closed_(wrote_);
}

std::streamsize ContentStream::doRead(char* s, std::streamsize n) {
  checkRead(mode_);
  std::lock_guard lock(*lock_);
  return copyOut(*content_, position_, s, n);
}

std::streamsize ContentStream::doWrite(char const* s, std::streamsize n) {
  checkWrite(mode_);
  std::lock_guard lock(*lock_);
  std::uint64_t const at = mode_.append ? content_->size() : position_;
  content_->write(at, s, static_cast<std::size_t>(n));
  position_ = at + static_cast<std::uint64_t>(n);
  wrote_ = true;
  return n;
}

std::streampos ContentStream::doSeek(std::streamoff off, std::ios_base::seekdir way) {
  std::lock_guard lock(*lock_);
  position_ = p::seekTarget(position_, content_->size(), off, way);
  return static_cast<std::streamoff>(position_);
}

void ContentStream::doClose() {
  markClosed();
  if (closed_) std::exchange(closed_, nullptr)(wrote_);
}

// --- TransactionalContentStream ---------------------------------------------------------

TransactionalContentStream::TransactionalContentStream(std::shared_ptr<Content> initial, StreamMode mode, Commit commit)
    : content_(std::move(initial)), mode_(mode), commit_(std::move(commit)) {}

std::streamsize TransactionalContentStream::doRead(char* s, std::streamsize n) {
  checkRead(mode_);
  return copyOut(*content_, position_, s, n);
}

std::streamsize TransactionalContentStream::doWrite(char const* s, std::streamsize n) {
  checkWrite(mode_);
  std::uint64_t const at = mode_.append ? content_->size() : position_;
  content_->write(at, s, static_cast<std::size_t>(n));
  position_ = at + static_cast<std::uint64_t>(n);
  return n;
}

std::streampos TransactionalContentStream::doSeek(std::streamoff off, std::ios_base::seekdir way) {
  position_ = p::seekTarget(position_, content_->size(), off, way);
  return static_cast<std::streamoff>(position_);
}

void TransactionalContentStream::doClose(p::StreamClosePolicy const& policy) {
  if (policy != p::StreamClosePolicy::Discard) {
    try {
      commit_(content_, policy == p::StreamClosePolicy::Commit);
    } catch (p::Exception const& e) {
      p::raise(p::ByteStreamCloseFailure(e.what(), e.getErrorCode()));
    }
  }
  markClosed();
  content_.reset();
}

// --- EntryStream ------------------------------------------------------------------------

EntryStream::EntryStream(std::function<std::unique_ptr<EntryDecoder>()> open, std::uint64_t declaredSize)
    : open_(std::move(open)), declaredSize_(declaredSize) {}

void EntryStream::moveTo(std::uint64_t target) {
  if (decoder_ && decoded_ == target) return;
  if (decoder_ && decoder_->seekTo(target)) {
    decoded_ = target;
    return;
  }
  if (!decoder_ || target < decoded_) {
    decoder_ = open_();
    decoded_ = 0;
    if (target > 0 && decoder_->seekTo(target)) {
      decoded_ = target;
      return;
    }
  }
  char scratch[16384];
  while (decoded_ < target) {
    auto const want = static_cast<std::size_t>(std::min<std::uint64_t>(sizeof scratch, target - decoded_));
    std::size_t const got = decoder_->read(scratch, want);
    if (got == 0) p::raise(p::ByteStreamReadFailure("the entry ends before its declared size", ErrorCode::IOError));
    decoded_ += got;
  }
}

std::streamsize EntryStream::doRead(char* s, std::streamsize n) {
  if (n <= 0 || position_ >= declaredSize_) {
    if (n > 0 && position_ == declaredSize_ && decoder_ && decoded_ == declaredSize_) {
      char extra;
      if (decoder_->read(&extra, 1) != 0)
        p::raise(p::ByteStreamReadFailure("the entry holds more data than its declared size", ErrorCode::IOError));
    }
    return 0;
  }
  moveTo(position_);
  auto const want =
      static_cast<std::size_t>(std::min<std::uint64_t>(static_cast<std::uint64_t>(n), declaredSize_ - position_));
  std::size_t got = 0;
  while (got < want) {
    std::size_t const step = decoder_->read(s + got, want - got);
    if (step == 0) p::raise(p::ByteStreamReadFailure("the entry ends before its declared size", ErrorCode::IOError));
    got += step;
  }
  decoded_ += got;
  position_ += got;
  return static_cast<std::streamsize>(got);
}

std::streamsize EntryStream::doWrite(char const*, std::streamsize) {
  p::raise(p::ByteStreamWriteFailure("the stream is open for reading only", ErrorCode::PermissionDenied));
}

std::streampos EntryStream::doSeek(std::streamoff off, std::ios_base::seekdir way) {
  position_ = p::seekTarget(position_, declaredSize_, off, way);
  return static_cast<std::streamoff>(position_);
}

void EntryStream::doClose() {
  markClosed();
  decoder_.reset();
}

} // namespace foundation::storage::providers::archive::detail
