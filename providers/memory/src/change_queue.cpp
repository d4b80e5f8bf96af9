#include "change_queue.hpp"

#include <algorithm>

namespace foundation::storage::providers::memory::detail {

std::uint64_t ChangeQueue::enqueue(std::vector<Change>&& changes) {
  std::lock_guard lock(mutex_);
  for (auto& change : changes) pending_.push_back(std::move(change));
  queued_ += changes.size();
  return queued_;
}

void ChangeQueue::deliverThrough(std::uint64_t ticket, Deliver const& deliver) {
  std::unique_lock lock(mutex_);
  if (delivering_ && deliverer_ == std::this_thread::get_id()) {
    nestedThrough_ = std::max(nestedThrough_, ticket);
    return;
  }
  progressed_.wait(lock, [&] { return delivered_ >= ticket || !delivering_; });
  if (delivered_ >= ticket) return;
  delivering_ = true;
  deliverer_ = std::this_thread::get_id();
  // Through its own changes and those its callbacks made; later ones are their owners' to deliver.
  while (delivered_ < std::max(ticket, nestedThrough_)) {
    Change change = std::move(pending_.front());
    pending_.pop_front();
    lock.unlock();
    try {
      deliver(change);
    } catch (...) {
      // A change is reported at most once; a failure to report it must not stop the others.
    }
    lock.lock();
    ++delivered_;
    progressed_.notify_all();
  }
  delivering_ = false;
  deliverer_ = {};
  lock.unlock();
  progressed_.notify_all();
}

} // namespace foundation::storage::providers::memory::detail
