#include "open_file.hpp"

#include <vfs/exceptions.hpp>
#include <vfs/provider_administration.hpp>

#include <algorithm>
#include <vector>

namespace vfs_tool::mount {

namespace {

constexpr std::uint64_t ChunkSize = 1 << 16; // bytes moved at a time when a transaction is resized

provider::ByteStreamOpenOptions writeOptions(bool truncate) {
  return {provider::ByteStreamAccess::ReadWrite, provider::ByteStreamCreate::MustExist,
          truncate ? provider::ByteStreamTruncate::Truncate : provider::ByteStreamTruncate::Keep,
          provider::ByteStreamAppend::AtPosition};
}

} // namespace

OpenFile::OpenFile(vfs::File file, bool writing, bool truncate) : file_(std::move(file)) {
  if (!writing) {
    stream_.emplace(file_.openReadOnly());
    return;
  }
  try {
    stream_.emplace(file_.open(writeOptions(truncate)));
    inPlace_ = true;
  } catch (vfs::Exception const& e) {
    if (e.getErrorCode() != vfs::ErrorCode::UnsupportedOperation) throw;
    // An all-or-nothing store: opening the transaction now reports a refusal at open time.
    transaction_.emplace(file_.openTransactionalStream(writeOptions(truncate)));
    dirty_ = truncate;
    if (!truncate) transactionSize_ = file_.getAttributes().getSize();
  }
}

template <class Device>
void OpenFile::seekTo(Device& device, std::uint64_t offset) {
  if (position_ == offset) return;
  device.seek(static_cast<std::streamoff>(offset), std::ios_base::beg);
  position_ = offset;
}

provider::ByteStreamDevice& OpenFile::reader() {
  if (!stream_) {
    stream_.emplace(file_.openReadOnly());
    position_ = 0;
  }
  return *stream_;
}

std::size_t OpenFile::read(char* data, std::size_t size, std::uint64_t offset) {
  std::lock_guard lock(mutex_);
  auto readFrom = [&](auto& device) {
    seekTo(device, offset);
    std::size_t done = 0;
    while (done < size) {
      auto const n = device.stream().read(data + done, static_cast<std::streamsize>(size - done));
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    position_ += done;
    return done;
  };
  if (transaction_) return readFrom(*transaction_);
  return readFrom(reader());
}

void OpenFile::write(char const* data, std::size_t size, std::uint64_t offset) {
  std::lock_guard lock(mutex_);
  if (inPlace_) {
    seekTo(*stream_, offset);
    stream_->write(data, static_cast<std::streamsize>(size));
    position_ += size;
    return;
  }
  if (!transaction_) {
    // A write after a commit starts the next transaction from what was committed.
    stream_.reset();
    transaction_.emplace(file_.openTransactionalStream(writeOptions(false)));
    transactionSize_ = file_.getAttributes().getSize();
    position_ = 0;
  }
  seekTo(*transaction_, offset);
  transaction_->write(data, static_cast<std::streamsize>(size));
  position_ += size;
  dirty_ = true;
  transactionSize_ = std::max(transactionSize_, offset + size);
}

void OpenFile::flush() {
  std::lock_guard lock(mutex_);
  if (!transaction_) return;
  // Reset first: a failed commit is reported once and the next write starts afresh.
  auto transaction = std::move(*transaction_);
  transaction_.reset();
  position_ = 0;
  transaction.close(dirty_ ? provider::StreamClosePolicy::Commit : provider::StreamClosePolicy::Discard);
  dirty_ = false;
}

void OpenFile::sync() {
  flush();
  vfs::extensions::flushFilesystem(file_.getLocation(), file_.getStorageSystem());
}

void OpenFile::truncate(std::uint64_t size) {
  std::lock_guard lock(mutex_);
  if (!resizeTransaction(size)) file_.truncateToSize(size);
}

void OpenFile::truncateTransaction(std::uint64_t size) {
  std::lock_guard lock(mutex_);
  resizeTransaction(size);
}

bool OpenFile::resizeTransaction(std::uint64_t size) {
  if (!transaction_) return false;
  std::vector<char> chunk(ChunkSize);
  if (size < transactionSize_) {
    // A transaction cannot shrink: its first `size` bytes go into a new one, which takes the
    // old one's place only once they are all there (the old one discards itself as it goes).
    provider::TransactionalStreamDevice shorter(file_.openTransactionalStream(writeOptions(true)));
    seekTo(*transaction_, 0);
    std::uint64_t copied = 0;
    while (copied < size) {
      auto const n =
          transaction_->stream().read(chunk.data(), static_cast<std::streamsize>(std::min(size - copied, ChunkSize)));
      if (n <= 0) break;
      position_ += static_cast<std::uint64_t>(n);
      shorter.write(chunk.data(), n);
      copied += static_cast<std::uint64_t>(n);
    }
    *transaction_ = std::move(shorter);
    position_ = transactionSize_ = copied;
  }
  // Growth reads as zeros, as it would from a file.
  std::fill(chunk.begin(), chunk.end(), '\0');
  seekTo(*transaction_, transactionSize_);
  while (transactionSize_ < size) {
    auto const n = std::min(size - transactionSize_, ChunkSize);
    transaction_->write(chunk.data(), static_cast<std::streamsize>(n));
    position_ += n;
    transactionSize_ += n;
  }
  dirty_ = true;
  return true;
}

std::optional<std::uint64_t> OpenFile::pendingSize() const {
  std::lock_guard lock(mutex_);
  if (!transaction_ || !dirty_) return std::nullopt;
  return transactionSize_;
}

void OpenFile::close() {
  flush();
  std::lock_guard lock(mutex_);
  if (stream_) {
    auto stream = std::move(*stream_);
    stream_.reset();
    stream.close();
  }
}

} // namespace vfs_tool::mount
