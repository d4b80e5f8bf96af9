#include "spilled_content.hpp"

#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/posix_errors.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace foundation::storage::providers::archive::detail {

namespace p = foundation::storage::provider;

namespace {

template <class Failure>
[[noreturn]] void failErrno(int error, std::string const& what) {
  p::raise(Failure(what + ": " + std::strerror(error), p::errorCodeFromErrno(error)));
}

/// A temporary file nobody else can open, gone when closed: unnamed where the file system
/// allows, else named and unlinked at once.
int openUnnamedFile() {
  std::error_code ignored;
  std::string const folder = std::filesystem::temp_directory_path(ignored).string();
  std::string const where = folder.empty() ? "/tmp" : folder;
#if defined(O_TMPFILE)
  int const unnamed = ::open(where.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (unnamed >= 0) return unnamed;
#endif
  std::string pattern = where + "/vfs-archive-XXXXXX";
  int const named = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (named < 0) failErrno<p::ByteStreamWriteFailure>(errno, "cannot make a temporary file in " + where);
  ::unlink(pattern.c_str());
  return named;
}

/// Frees the disk space of a range so that it reads as zeros; false where the file system
/// cannot.
bool punchHole(int fd, std::uint64_t at, std::uint64_t length) noexcept {
#if defined(FALLOC_FL_PUNCH_HOLE)
  return ::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(at),
                     static_cast<off_t>(length)) == 0;
#else
  (void)fd, (void)at, (void)length;
  return false;
#endif
}

} // namespace

// --- SpillFile ----------------------------------------------------------------------------

SpillFile::~SpillFile() {
  if (fd_ >= 0) ::close(fd_);
}

int SpillFile::descriptor() {
  if (fd_ < 0) fd_ = openUnnamedFile();
  return fd_;
}

std::uint64_t SpillFile::take() {
  std::lock_guard lock(mutex_);
  descriptor();
  if (!free_.empty()) {
    std::uint64_t const slot = free_.back();
    free_.pop_back();
    return slot;
  }
  std::uint64_t const slot = end_;
  end_ += SlotSize;
  return slot;
}

void SpillFile::give(std::uint64_t slot) noexcept {
  std::lock_guard lock(mutex_);
  // A slot that still holds data is not handed out again: a new slot must read as zeros.
  if (punchHole(fd_, slot, SlotSize)) free_.push_back(slot);
}

void SpillFile::write(std::uint64_t at, char const* s, std::size_t n) {
  int const fd = [&] {
    std::lock_guard lock(mutex_);
    return descriptor();
  }();
  while (n > 0) {
    auto const done = ::pwrite(fd, s, n, static_cast<off_t>(at));
    if (done < 0) {
      if (errno == EINTR) continue;
      failErrno<p::ByteStreamWriteFailure>(errno, "cannot keep the written data in a temporary file");
    }
    s += done;
    n -= static_cast<std::size_t>(done);
    at += static_cast<std::uint64_t>(done);
  }
}

void SpillFile::read(std::uint64_t at, char* s, std::size_t n) {
  int const fd = [&] {
    std::lock_guard lock(mutex_);
    return descriptor();
  }();
  while (n > 0) {
    auto const done = ::pread(fd, s, n, static_cast<off_t>(at));
    if (done < 0) {
      if (errno == EINTR) continue;
      failErrno<p::ByteStreamReadFailure>(errno, "cannot read the written data back from its temporary file");
    }
    if (done == 0) { // never written up to here
      std::memset(s, 0, n);
      return;
    }
    s += done;
    n -= static_cast<std::size_t>(done);
    at += static_cast<std::uint64_t>(done);
  }
}

// --- Content ------------------------------------------------------------------------------

Content::~Content() {
  for (std::uint64_t slot : slots_)
    if (slot != None) spill_->give(slot);
}

std::size_t Content::read(std::uint64_t at, char* s, std::size_t n) const {
  if (at >= size_) return 0;
  std::size_t const total = static_cast<std::size_t>(std::min<std::uint64_t>(n, size_ - at));
  for (std::size_t done = 0; done < total;) {
    std::uint64_t const position = at + done;
    std::uint64_t const slot = slots_[position / SpillFile::SlotSize];
    std::uint64_t const within = position % SpillFile::SlotSize;
    std::size_t const step =
        static_cast<std::size_t>(std::min<std::uint64_t>(total - done, SpillFile::SlotSize - within));
    if (slot == None)
      std::memset(s + done, 0, step);
    else
      spill_->read(slot + within, s + done, step);
    done += step;
  }
  return total;
}

void Content::write(std::uint64_t at, char const* s, std::size_t n) {
  if (n == 0) return;
  std::uint64_t const end = at + n;
  if (end > size_) resize(end);
  for (std::size_t done = 0; done < n;) {
    std::uint64_t const position = at + done;
    std::uint64_t& slot = slots_[position / SpillFile::SlotSize];
    std::uint64_t const within = position % SpillFile::SlotSize;
    std::size_t const step = static_cast<std::size_t>(std::min<std::uint64_t>(n - done, SpillFile::SlotSize - within));
    if (slot == None) slot = spill_->take();
    spill_->write(slot + within, s + done, step);
    done += step;
  }
}

void Content::resize(std::uint64_t size) {
  if (size < size_) {
    // What lies beyond the new end must read as zeros if the content grows again.
    std::uint64_t const within = size % SpillFile::SlotSize;
    std::size_t const kept = static_cast<std::size_t>((size + SpillFile::SlotSize - 1) / SpillFile::SlotSize);
    if (within != 0 && slots_[kept - 1] != None) {
      std::uint64_t const dirtyEnd =
          std::min<std::uint64_t>(SpillFile::SlotSize, size_ - (kept - 1) * SpillFile::SlotSize);
      std::vector<char> const zeros(static_cast<std::size_t>(dirtyEnd - within));
      spill_->write(slots_[kept - 1] + within, zeros.data(), zeros.size());
    }
    for (std::size_t i = kept; i < slots_.size(); ++i)
      if (slots_[i] != None) spill_->give(slots_[i]);
    slots_.resize(kept);
  } else {
    slots_.resize(static_cast<std::size_t>((size + SpillFile::SlotSize - 1) / SpillFile::SlotSize), None);
  }
  size_ = size;
}

std::shared_ptr<Content> Content::copy() const {
  auto copied = std::make_shared<Content>(spill_);
  copied->resize(size_);
  std::vector<char> buffer(static_cast<std::size_t>(SpillFile::SlotSize));
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    if (slots_[i] == None) continue;
    std::uint64_t const at = i * SpillFile::SlotSize;
    std::size_t const n = read(at, buffer.data(), buffer.size());
    copied->write(at, buffer.data(), n);
  }
  return copied;
}

} // namespace foundation::storage::providers::archive::detail
