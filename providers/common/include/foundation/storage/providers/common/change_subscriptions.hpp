#pragma once

// Native change reporting shared by the memory and archive providers: who subscribed to
// which file or folder, and the delivery of each change to them.

#include <foundation/storage/provider/provider.hpp>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::storage::providers::common {

namespace p = foundation::storage::provider;

/// One change to report.
struct Change {
  events::Kind kind;
  p::StorageIRI item;
  events::EntryType type;
  p::StorageIRI renamedFrom = {}; ///< where a Renamed item was
};

/// The subscriptions of one storage and the delivery of its changes.
///
/// A file's subscription hears of changes to the file, a renamed one under its old name
/// too; a folder's of changes to the folder and its children, or everything below it when
/// recursive. Subscribing again to the same item replaces the subscription.
///
/// Changes are delivered in the order they were queued, one at a time, by one thread at a
/// time, with no lock held. The storage queues its changes while it still holds the lock
/// under which it made them, so the queue's order is the order of the changes, and calls
/// `deliverPending` once it released that lock. A thread that finds another one delivering
/// leaves its changes to it, which delivers everything queued before it stops, and returns
/// at once: nobody waits for callbacks it does not run, so a callback may change the
/// storage itself, or wait for a thread that changes it, without deadlock. A callback's
/// exception is swallowed: the change stands and the other subscribers still hear of it.
/// Thread-safe.
class ChangeSubscriptions {
public:
  /// The text under which a location is compared: its resolved path as the storage
  /// compares names (case folded where it ignores case), prefixed by whatever else tells
  /// two stores apart. A child's key is its folder's key, '/' (unless that ends with one)
  /// and its name.
  using KeyOf = std::function<std::u16string(p::StorageIRI const&)>;

  explicit ChangeSubscriptions(KeyOf keyOf);

  void subscribeFile(p::StorageIRI const& file, p::ChangeCallback callback, std::vector<events::Kind> kinds);
  void subscribeFolder(p::StorageIRI const& folder, p::ChangeCallback callback, std::vector<events::Kind> kinds,
                       bool recursive);
  void unsubscribeFile(p::StorageIRI const& file);
  void unsubscribeFolder(p::StorageIRI const& folder);
  void clear();
  /// Whether anyone listens: changes are worth describing only then.
  bool any() const noexcept { return count_.load(std::memory_order_acquire) != 0; }

  /// Queues changes for delivery; see the class comment for when to call it.
  void enqueue(std::vector<Change>&& changes);
  /// Delivers every queued change, unless another thread is at it (see the class comment).
  void deliverPending();

private:
  struct Subscription {
    p::StorageIRI location; ///< as the subscriber named it, handed back with each change
    std::vector<events::Kind> kinds;
    bool recursive = false;
    p::ChangeCallback callback;
  };

  void deliver(Change const& change) const;
  void recount();

  KeyOf const keyOf_;
  mutable std::mutex subscriptionsMutex_;
  std::map<std::u16string, Subscription> files_;
  std::map<std::u16string, Subscription> folders_;
  std::atomic<std::size_t> count_{0};

  std::mutex queueMutex_;
  std::deque<Change> pending_;
  bool delivering_ = false;
};

} // namespace foundation::storage::providers::common
