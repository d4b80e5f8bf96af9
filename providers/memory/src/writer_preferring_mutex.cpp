#include "writer_preferring_mutex.hpp"

namespace foundation::storage::providers::memory::detail {

void WriterPreferringMutex::lock() {
  std::unique_lock guard(mutex_);
  ++waitingWriters_;
  writerMayEnter_.wait(guard, [this] { return !writing_ && readers_ == 0; });
  --waitingWriters_;
  writing_ = true;
}

bool WriterPreferringMutex::try_lock() {
  std::lock_guard guard(mutex_);
  if (writing_ || readers_ > 0) return false;
  writing_ = true;
  return true;
}

void WriterPreferringMutex::unlock() {
  {
    std::lock_guard guard(mutex_);
    writing_ = false;
  }
  // Another writer goes first when one waits; readers re-check and keep waiting meanwhile.
  writerMayEnter_.notify_one();
  readersMayEnter_.notify_all();
}

void WriterPreferringMutex::lock_shared() {
  std::unique_lock guard(mutex_);
  readersMayEnter_.wait(guard, [this] { return !writing_ && waitingWriters_ == 0; });
  ++readers_;
}

bool WriterPreferringMutex::try_lock_shared() {
  std::lock_guard guard(mutex_);
  if (writing_ || waitingWriters_ > 0) return false;
  ++readers_;
  return true;
}

void WriterPreferringMutex::unlock_shared() {
  bool last = false;
  {
    std::lock_guard guard(mutex_);
    last = --readers_ == 0;
  }
  if (last) writerMayEnter_.notify_one();
}

} // namespace foundation::storage::providers::memory::detail
