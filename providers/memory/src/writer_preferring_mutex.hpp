#pragma once

#include <condition_variable>
#include <mutex>

namespace foundation::storage::providers::memory::detail {

/// A shared mutex that lets no new reader in while a writer waits, so that a writer makes
/// progress however many threads keep reading (std::shared_mutex on glibc prefers readers:
/// a writer beside a few listing threads may wait for seconds). Usable with std::shared_lock
/// and std::unique_lock; not recursive in either mode.
class WriterPreferringMutex {
public:
  void lock();
  bool try_lock();
  void unlock();
  void lock_shared();
  bool try_lock_shared();
  void unlock_shared();

private:
  std::mutex mutex_;
  std::condition_variable readersMayEnter_;
  std::condition_variable writerMayEnter_;
  unsigned readers_ = 0;
  unsigned waitingWriters_ = 0;
  bool writing_ = false;
};

} // namespace foundation::storage::providers::memory::detail
