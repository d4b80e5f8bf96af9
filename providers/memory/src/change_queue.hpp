#pragma once

#include <foundation/storage/provider/provider.hpp>

#include <deque>
#include <functional>
#include <mutex>
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

/// Changes in the order they were made, reported in that order by one thread at a time.
/// Writers queue their changes while they hold the tree's write lock, so the queue's order
/// is the order of the changes, and report them after releasing it, so callbacks run with
/// no tree lock held. A writer that finds another thread reporting leaves its changes to
/// that thread, which reports everything queued before it stops, and returns at once: no
/// writer waits for callbacks it does not run, so a callback may wait for a thread that
/// changes the same tree without deadlock, and may change the tree itself.
class ChangeQueue {
public:
  void enqueue(std::vector<Change>&& changes);
  /// Reports every queued change, unless another thread is at it (see above).
  void deliverPending(std::function<void(Change const&)> const& deliver);

private:
  std::mutex mutex_;
  std::deque<Change> pending_;
  bool delivering_ = false;
};

} // namespace foundation::storage::providers::memory::detail
