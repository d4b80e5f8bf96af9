#include <foundation/storage/provider/change_polling_watcher.hpp>
#include <foundation/storage/provider/exceptions.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace foundation::storage::provider {

namespace {

using Clock = std::chrono::steady_clock;

struct ItemState {
  bool isFile = false;
  std::uint64_t size = 0;
  boost::posix_time::ptime lastModified;
  bool writable = false;
};

/// Relative path below the polled folder to what was seen there.
using Snapshot = std::map<std::u16string, ItemState>;

struct Change {
  events::Kind kind;
  std::u16string relativePath;
  bool isFile;
};

ItemState stateOf(FolderEntry const& e) {
  if (e.isFile()) {
    auto const& a = *e.getFileAttributes();
    return {true, a.getSize(), a.getLastModified(), a.isWritable()};
  }
  auto const& a = *e.getFolderAttributes();
  return {false, 0, a.getLastModified(), a.isWritable()};
}

void addListing(IProvider& provider, StorageIRI const& folder, std::u16string const& prefix, bool recursive,
                Snapshot& into) {
  auto cursor = provider.listAll(folder, u"");
  std::vector<std::u16string> subfolders;
  while (cursor->hasNext()) {
    cursor->next();
    FolderEntry entry = cursor->current();
    std::u16string path = prefix.empty() ? entry.getName() : prefix + u"/" + entry.getName();
    if (recursive && !entry.isFile()) subfolders.push_back(entry.getName());
    into.emplace(std::move(path), stateOf(entry));
  }
  for (auto const& name : subfolders) {
    try {
      addListing(provider, StorageIRI(folder, name), prefix.empty() ? name : prefix + u"/" + name, true, into);
    } catch (Exception const& e) {
      // A subfolder removed or locked meanwhile: its contents count as gone this round.
      if (e.getErrorCode() != ErrorCode::ResourceNotFound && e.getErrorCode() != ErrorCode::PermissionDenied) throw;
    }
  }
}

Snapshot takeSnapshot(IProvider& provider, StorageIRI const& folder, bool recursive) {
  Snapshot snapshot;
  if (recursive && provider.hasFeature(ExtendedFeature::RecursiveListing)) {
    auto cursor = provider.listAllRecursive(folder, u"");
    while (cursor->hasNext()) {
      cursor->next();
      FolderEntry entry = cursor->current();
      snapshot.emplace(entry.getName(), stateOf(entry));
    }
  } else {
    addListing(provider, folder, u"", recursive, snapshot);
  }
  return snapshot;
}

std::vector<Change> diff(Snapshot const& before, Snapshot const& after) {
  std::vector<Change> created, removed, changed;
  for (auto const& [path, now] : after) {
    auto it = before.find(path);
    if (it == before.end()) {
      created.push_back({events::Kind::Created, path, now.isFile});
      continue;
    }
    ItemState const& then = it->second;
    if (then.isFile != now.isFile) {
      removed.push_back({events::Kind::Removed, path, then.isFile});
      created.push_back({events::Kind::Created, path, now.isFile});
      continue;
    }
    if (now.isFile && (then.size != now.size || then.lastModified != now.lastModified))
      changed.push_back({events::Kind::Modified, path, true});
    if (then.writable != now.writable) changed.push_back({events::Kind::AttributesChanged, path, now.isFile});
  }
  for (auto it = before.rbegin(); it != before.rend(); ++it) {
    if (!after.contains(it->first)) removed.push_back({events::Kind::Removed, it->first, it->second.isFile});
  }
  std::vector<Change> all = std::move(removed);
  all.insert(all.end(), created.begin(), created.end());
  all.insert(all.end(), changed.begin(), changed.end());
  return all;
}

} // namespace

struct ChangePollingWatcher::Impl {
  struct Subscription {
    StorageIRI folder;
    ChangeCallback callback;
    std::vector<events::Kind> kinds;
    std::chrono::milliseconds interval;
    bool recursive;
    Snapshot snapshot;
    Clock::time_point due;
    std::atomic<bool> active{true};

    bool wants(events::Kind k) const { return kinds.empty() || std::ranges::find(kinds, k) != kinds.end(); }
  };

  IProvider& provider;
  std::mutex mutex;
  std::condition_variable wake;
  std::condition_variable idle; ///< signalled when a poll round ends
  std::map<StorageIRI, std::shared_ptr<Subscription>> subscriptions;
  std::shared_ptr<Subscription> polling; ///< the subscription whose callback may be running
  std::thread thread;
  bool stopping = false;
  /// Which thread is current: one stopped from its own callback is detached and must end
  /// even if polling starts again meanwhile.
  std::uint64_t generation = 0;

  explicit Impl(IProvider& p) : provider(p) {}

  void run(std::uint64_t mine) {
    std::unique_lock lock(mutex);
    while (!stopping && generation == mine) {
      auto next = Clock::time_point::max();
      std::shared_ptr<Subscription> due;
      for (auto const& [folder, s] : subscriptions) {
        if (s->due < next) {
          next = s->due;
          due = s;
        }
      }
      if (!due || next > Clock::now()) {
        if (due) {
          wake.wait_until(lock, next);
        } else {
          wake.wait(lock);
        }
        continue;
      }
      polling = due;
      lock.unlock();
      pollOnce(*due, lock);
      polling.reset();
      idle.notify_all();
    }
  }

  /// Lists outside the lock, then delivers under the rule that a stopped subscription gets
  /// no further callback. `lock` is unlocked on entry and locked on return.
  void pollOnce(Subscription& s, std::unique_lock<std::mutex>& lock) {
    Snapshot now;
    bool listed = true;
    try {
      now = takeSnapshot(provider, s.folder, s.recursive);
    } catch (Exception const& e) {
      // The folder itself is gone: everything in it is reported removed. Other failures
      // (for example a busy server) are retried at the next interval.
      listed = e.getErrorCode() == ErrorCode::ResourceNotFound;
    } catch (...) {
      listed = false;
    }
    std::vector<Change> changes;
    if (listed) changes = diff(s.snapshot, now);
    for (auto const& change : changes) {
      if (!s.active) break;
      if (!s.wants(change.kind)) continue;
      try {
        s.callback(change.kind, s.folder, StorageIRI(s.folder, change.relativePath),
                   change.isFile ? events::EntryType::File : events::EntryType::Folder, {});
      } catch (...) {
        // A callback must not end polling for everyone.
      }
    }
    lock.lock();
    if (listed) s.snapshot = std::move(now);
    s.due = Clock::now() + s.interval;
  }
};

ChangePollingWatcher::ChangePollingWatcher(IProvider& provider) : impl_(std::make_unique<Impl>(provider)) {}

ChangePollingWatcher::~ChangePollingWatcher() { stopAll(); }

void ChangePollingWatcher::start(StorageIRI const& folder, ChangeCallback callback, std::vector<events::Kind> kinds,
                                 std::chrono::milliseconds interval, RecursivePolling recursive) {
  if (!callback) raise(ChangeEventsSubscriptionException(folder, "no callback"));
  auto s = std::make_shared<Impl::Subscription>();
  s->folder = folder;
  s->callback = std::move(callback);
  s->kinds = std::move(kinds);
  s->interval = std::max(interval, std::chrono::milliseconds(1));
  s->recursive = recursive == RecursivePolling::Yes;
  try {
    s->snapshot = takeSnapshot(impl_->provider, folder, s->recursive);
  } catch (Exception const& e) {
    raise(ChangeEventsSubscriptionException(folder, e.what()));
  }
  s->due = Clock::now() + s->interval;
  std::unique_lock lock(impl_->mutex);
  if (auto it = impl_->subscriptions.find(folder); it != impl_->subscriptions.end()) it->second->active = false;
  impl_->subscriptions[folder] = s;
  impl_->stopping = false;
  if (!impl_->thread.joinable()) {
    auto const generation = ++impl_->generation;
    impl_->thread = std::thread([this, generation] { impl_->run(generation); });
  }
  impl_->wake.notify_all();
}

void ChangePollingWatcher::stop(StorageIRI const& folder) {
  std::unique_lock lock(impl_->mutex);
  auto it = impl_->subscriptions.find(folder);
  if (it == impl_->subscriptions.end()) return;
  auto s = it->second;
  s->active = false;
  impl_->subscriptions.erase(it);
  // Wait for a running round of this subscription, unless we are inside its callback.
  if (std::this_thread::get_id() != impl_->thread.get_id()) impl_->idle.wait(lock, [&] { return impl_->polling != s; });
}

void ChangePollingWatcher::stopAll() {
  std::thread thread;
  {
    std::unique_lock lock(impl_->mutex);
    for (auto& [folder, s] : impl_->subscriptions) s->active = false;
    impl_->subscriptions.clear();
    impl_->stopping = true;
    impl_->wake.notify_all();
    thread = std::move(impl_->thread);
  }
  if (thread.joinable()) {
    if (thread.get_id() == std::this_thread::get_id()) {
      thread.detach(); // stopped from its own callback: the loop ends by itself
    } else {
      thread.join();
    }
  }
}

} // namespace foundation::storage::provider
