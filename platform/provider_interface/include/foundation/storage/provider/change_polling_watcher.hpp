#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/provider.hpp>

#include <chrono>
#include <memory>
#include <vector>

namespace foundation::storage::provider {

/// Gives any provider change reporting by polling: one thread per watcher lists each
/// subscribed folder at its interval and reports the differences from the previous
/// listing: Created and Removed items, Modified files (size or modification time),
/// AttributesChanged items (writable flag). A removal is reported children first.
///
/// The first listing is taken by `start`, so every change after `start` returns is seen.
/// Callbacks run on the watcher's thread without any lock held; they may call `stop`.
/// The provider must outlive the watcher (providers own theirs); a callback must not
/// destroy the watcher.
class FOUNDATION_API ChangePollingWatcher {
public:
  explicit ChangePollingWatcher(IProvider& provider);
  ~ChangePollingWatcher();
  ChangePollingWatcher(ChangePollingWatcher const&) = delete;
  ChangePollingWatcher& operator=(ChangePollingWatcher const&) = delete;

  /// Starts (or restarts) polling `folder`. An empty `kinds` reports every kind. A folder
  /// that cannot be listed is ChangeEventsSubscriptionException.
  void start(StorageIRI const& folder, ChangeCallback callback, std::vector<events::Kind> kinds,
             std::chrono::milliseconds interval, RecursivePolling recursive);
  /// Stops polling `folder`; nothing happens when it is not polled. Once `stop` returns,
  /// no callback of that subscription starts any more.
  void stop(StorageIRI const& folder);
  /// Stops every subscription and the thread.
  void stopAll();

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

} // namespace foundation::storage::provider
