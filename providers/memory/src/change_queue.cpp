#include "change_queue.hpp"

namespace foundation::storage::providers::memory::detail {

void ChangeQueue::enqueue(std::vector<Change>&& changes) {
  std::lock_guard lock(mutex_);
  for (auto& change : changes) pending_.push_back(std::move(change));
}

void ChangeQueue::deliverPending(std::function<void(Change const&)> const& deliver) {
  std::unique_lock lock(mutex_);
  if (delivering_) return;
  delivering_ = true;
  while (!pending_.empty()) {
    Change change = std::move(pending_.front());
    pending_.pop_front();
    lock.unlock();
    try {
      deliver(change);
    } catch (...) {
      // A change is reported at most once; a failure to report it must not stop the others.
    }
    lock.lock();
  }
  delivering_ = false;
}

} // namespace foundation::storage::providers::memory::detail
