#pragma once

#include <foundation/storage/provider/provider.hpp>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace foundation::storage::providers::memory::detail {

namespace p = foundation::storage::provider;

/// One change to report.
struct Change {
  events::Kind kind;
  p::StorageIRI item;
  events::EntryType type;
  boost::property_tree::ptree extra;
};

/// Changes in the order they were made, delivered in that order by one thread at a time.
/// Writers queue their changes while they hold the tree's write lock, so the queue's order
/// is the order of the changes; they deliver after releasing it, so callbacks run with no
/// tree lock held and may change the tree again.
class ChangeQueue {
public:
  using Deliver = std::function<void(Change const&)>;

  /// Appends `changes`; returns the ticket that `deliverThrough` waits for.
  std::uint64_t enqueue(std::vector<Change>&& changes);
  /// Returns once every change up to `ticket` has been delivered: delivers them itself
  /// unless another thread is at it. Called from a callback, it returns at once; the
  /// delivery under way delivers those changes too before it ends.
  void deliverThrough(std::uint64_t ticket, Deliver const& deliver);

private:
  std::mutex mutex_;
  std::condition_variable progressed_;
  std::deque<Change> pending_;
  std::uint64_t queued_ = 0;
  std::uint64_t delivered_ = 0;
  std::uint64_t nestedThrough_ = 0; ///< changes queued by callbacks of the delivery under way
  bool delivering_ = false;
  std::thread::id deliverer_;
};

} // namespace foundation::storage::providers::memory::detail
