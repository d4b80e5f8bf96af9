#pragma once

#include <foundation/storage/provider/provider.hpp>

#include <memory>
#include <string>
#include <vector>

namespace foundation::storage::providers::local::detail {

/// Reports changes of local files and folders with inotify, on one thread of its own.
///
/// Folders are watched directly; a file is watched through its folder, so that a file
/// replaced by a rename (a transactional commit) stays watched. Recursive subscriptions add
/// watches for subfolders as they appear and report what was created in them before the
/// watch was in place. Moves within watched folders are Renamed (old location under
/// "renamedFrom"); the provider's own temporary files are not reported, their commit shows
/// as the target's Created or Modified. When the kernel queue overflows, every subscription
/// is rescanned and the differences from what it last knew are reported, so no change is
/// lost silently. Callbacks run on the watcher's thread, in the order of the changes, with
/// no lock held; they may unsubscribe. Elsewhere than Linux, subscribing throws
/// ChangeEventsNotSupportedException.
class InotifyWatcher {
public:
  InotifyWatcher();
  ~InotifyWatcher();
  InotifyWatcher(InotifyWatcher const&) = delete;
  InotifyWatcher& operator=(InotifyWatcher const&) = delete;

  /// Starts (or replaces) the subscription for `location` (the local `path`).
  void watch(provider::StorageIRI const& location, std::string const& path, bool folder, bool recursive,
             provider::ChangeCallback callback, std::vector<events::Kind> kinds);
  /// Ends the subscription; no callback of it starts once this returns.
  void unwatch(provider::StorageIRI const& location);

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

} // namespace foundation::storage::providers::local::detail
