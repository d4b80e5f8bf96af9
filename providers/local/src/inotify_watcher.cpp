#include "inotify_watcher.hpp"

#include "directory_reader.hpp"
#include "posix_calls.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#if defined(__linux__)

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <optional>
#include <poll.h>
#include <set>
#include <sys/inotify.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace foundation::storage::providers::local::detail {

namespace p = foundation::storage::provider;

namespace {

constexpr std::uint32_t folderMask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO |
                                     IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;

struct ItemState {
  bool folder = false;
  std::uint64_t size = 0;
  timespec modified{};
  mode_t mode = 0;
};

/// Absolute path to what was last seen there.
using Snapshot = std::map<std::string, ItemState>;

/// Forgets `path` and everything below it. The paths below one are a single range of the
/// ordered snapshot (those starting with "path/"), so a removal costs its own entries only.
void forget(Snapshot& snapshot, std::string const& path) {
  snapshot.erase(path);
  std::string const below = path == "/" ? path : path + "/";
  std::string pastBelow = below;
  pastBelow.back() = '/' + 1;
  snapshot.erase(snapshot.lower_bound(below), snapshot.lower_bound(pastBelow));
}

bool operator!=(timespec const& a, timespec const& b) { return a.tv_sec != b.tv_sec || a.tv_nsec != b.tv_nsec; }

std::string parentOf(std::string const& path) {
  auto slash = path.rfind('/');
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

bool isBelow(std::string const& path, std::string const& folder) {
  if (folder == "/") return path.size() > 1;
  return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 && path[folder.size()] == '/';
}

/// The provider's own temporary files, and unnamed ones (O_TMPFILE),
/// which the kernel reports as "#<inode>" though no such name exists.
bool isTemporaryName(std::string const& path) {
  std::string_view name(path);
  name = name.substr(name.rfind('/') + 1);
  if (isTemporaryFileName(name)) return true;
  bool const unnamedLike = name.size() > 1 && name[0] == '#' &&
                           std::all_of(name.begin() + 1, name.end(), [](char c) { return c >= '0' && c <= '9'; });
  struct stat st {};
  return unnamedLike && ::lstat(path.c_str(), &st) != 0;
}

bool stateOf(std::string const& path, ItemState& state) {
  struct stat st {};
  if (statAt(AT_FDCWD, path.c_str(), st, false) != 0) return false;
  state = {S_ISDIR(st.st_mode), static_cast<std::uint64_t>(st.st_size), modificationTime(st), st.st_mode};
  return true;
}

/// Adds everything below `folder` (not following links) to `snapshot` and its folders to
/// `folders`.
void scanBelow(std::string const& folder, bool recursive, Snapshot& snapshot, std::set<std::string>* folders) {
  int fd = openAt(AT_FDCWD, folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;
  UniqueFd dir(fd);
  std::vector<std::string> names;
  readDirectory(dir.get(), [&](std::string_view name, EntryKind) { names.emplace_back(name); });
  for (auto const& name : names) {
    std::string path = folder == "/" ? "/" + name : folder + "/" + name;
    ItemState state;
    if (!stateOf(path, state)) continue;
    snapshot[path] = state;
    if (state.folder && recursive) {
      if (folders) folders->insert(path);
      scanBelow(path, true, snapshot, folders);
    }
  }
}

struct Subscription {
  p::StorageIRI location;
  std::string path;
  bool folder;
  bool recursive;
  p::ChangeCallback callback;
  std::vector<events::Kind> kinds;
  std::set<std::string> folders; ///< the watched folders this subscription needs
  Snapshot snapshot;             ///< what it last knew, for rescans
  std::atomic<bool> active{true};

  bool covers(std::string const& item) const {
    if (!folder) return item == path;
    if (item == path) return true;
    return recursive ? isBelow(item, path) : parentOf(item) == path && item != "/";
  }
  bool wants(events::Kind k) const { return kinds.empty() || std::ranges::find(kinds, k) != kinds.end(); }

  Snapshot scan() const {
    Snapshot fresh;
    ItemState self;
    if (stateOf(path, self)) fresh[path] = self;
    if (folder) scanBelow(path, recursive, fresh, nullptr);
    return fresh;
  }
};
using SubscriptionPtr = std::shared_ptr<Subscription>;

struct Delivery {
  SubscriptionPtr subscription;
  events::Kind kind;
  p::StorageIRI item;
  events::EntryType type;
  boost::property_tree::ptree extra;
};

/// A MOVED_FROM waiting for its MOVED_TO.
struct PendingMove {
  std::uint32_t cookie;
  std::string path;
  bool folder;
};

} // namespace

struct InotifyWatcher::Impl {
  int fd = -1;
  int wake[2] = {-1, -1};
  std::mutex mutex;
  std::map<p::StorageIRI, SubscriptionPtr> subscriptions;
  std::map<int, std::string> folderOfWatch;
  std::map<std::string, int> watchOfFolder;
  std::thread thread;
  bool stopping = false;

  ~Impl() {
    {
      std::lock_guard lock(mutex);
      stopping = true;
    }
    if (thread.joinable()) {
      char byte = 0;
      [[maybe_unused]] auto ignored = ::write(wake[1], &byte, 1);
      thread.join();
    }
    for (int f : {fd, wake[0], wake[1]})
      if (f >= 0) ::close(f);
  }

  /// Starts inotify on first use; a failure is reported for the location being watched.
  void open(p::StorageIRI const& location) {
    if (fd >= 0) return;
    fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0)
      p::raise(
          p::ChangeEventsNotSupportedException(location, "inotify_init1: " + std::generic_category().message(errno)));
    if (::pipe2(wake, O_NONBLOCK | O_CLOEXEC) != 0)
      p::raise(p::ChangeEventsNotSupportedException(location, "pipe2: " + std::generic_category().message(errno)));
  }

  /// Watches a folder (once, however many subscriptions need it); 0 or errno.
  int addWatch(std::string const& folder) {
    if (watchOfFolder.contains(folder)) return 0;
    int wd = ::inotify_add_watch(fd, folder.c_str(), folderMask);
    if (wd < 0) return errno;
    folderOfWatch[wd] = folder;
    watchOfFolder[folder] = wd;
    return 0;
  }

  /// Watches `folder` and then reads it, level by level, so that nothing created meanwhile
  /// escapes both the watch and the reading. Adds what it finds to `snapshot`, and the
  /// folders to `folders`; 0 or the errno of the first watch that failed.
  int watchAndScan(std::string const& folder, Snapshot& snapshot, std::set<std::string>& folders) {
    if (int error = addWatch(folder)) return error;
    folders.insert(folder);
    Snapshot level;
    scanBelow(folder, false, level, nullptr);
    for (auto const& [path, state] : level) {
      snapshot[path] = state;
      if (state.folder)
        if (int error = watchAndScan(path, snapshot, folders)) return error;
    }
    return 0;
  }

  /// Drops watches no subscription needs any more.
  void pruneWatches() {
    std::set<std::string> needed;
    for (auto const& [location, s] : subscriptions) needed.insert(s->folders.begin(), s->folders.end());
    for (auto it = watchOfFolder.begin(); it != watchOfFolder.end();) {
      if (needed.contains(it->first)) {
        ++it;
        continue;
      }
      ::inotify_rm_watch(fd, it->second);
      folderOfWatch.erase(it->second);
      it = watchOfFolder.erase(it);
    }
  }

  void emit(std::vector<Delivery>& out, events::Kind kind, std::string const& path, bool folder,
            std::string const& renamedFrom = {}) {
    for (auto const& [location, s] : subscriptions) {
      bool const covered = s->covers(path) || (!renamedFrom.empty() && s->covers(renamedFrom));
      if (!covered) continue;
      // Already reported when its folder was taken in (the kernel may report it as well).
      if (kind == events::Kind::Created && s->snapshot.contains(path)) continue;
      // Keep what the subscription knows in step, for rescans after an overflow.
      if (!renamedFrom.empty()) forget(s->snapshot, renamedFrom);
      if (kind == events::Kind::Removed) {
        forget(s->snapshot, path);
      } else if (s->covers(path)) {
        // The event says the item is there; its size and time are read when still possible
        // (it may be gone again by the time the event is handled).
        ItemState state;
        state.folder = folder;
        stateOf(path, state);
        s->snapshot[path] = state;
      }
      if (!s->wants(kind)) continue;
      p::StorageIRI item;
      try {
        item = p::toStorageIRI(u"file", fl::filesystem::path(path));
      } catch (p::Exception const&) {
        continue; // a name that is not UTF-8 has no location
      }
      boost::property_tree::ptree extra;
      if (!renamedFrom.empty())
        extra.put("renamedFrom", p::toStorageIRI(u"file", fl::filesystem::path(renamedFrom)).toIRI());
      out.push_back(
          {s, kind, std::move(item), folder ? events::EntryType::Folder : events::EntryType::File, std::move(extra)});
    }
  }

  /// A folder that appeared below recursive subscriptions: watch it and everything in it.
  /// With `report`, what is already in it (created before the watch could see it) is
  /// reported as created; a folder that was only renamed is taken in quietly.
  void adoptFolder(std::string const& folder, std::vector<Delivery>& out, bool report) {
    for (auto const& [location, s] : subscriptions) {
      if (!s->recursive || !isBelow(folder, s->path)) continue;
      std::set<std::string> folders;
      Snapshot inside;
      watchAndScan(folder, inside, folders);
      s->folders.insert(folders.begin(), folders.end());
      for (auto const& [path, state] : inside) {
        if (isTemporaryName(path) || s->snapshot.contains(path)) continue;
        if (report) {
          emit(out, events::Kind::Created, path, state.folder);
        } else {
          s->snapshot[path] = state;
        }
      }
    }
  }

  /// A watched folder moved: the watches below it now name the new place.
  void renameFolders(std::string const& from, std::string const& to) {
    std::map<std::string, int> moved;
    for (auto it = watchOfFolder.begin(); it != watchOfFolder.end();) {
      if (it->first == from || isBelow(it->first, from)) {
        moved[to + it->first.substr(from.size())] = it->second;
        it = watchOfFolder.erase(it);
      } else {
        ++it;
      }
    }
    for (auto const& [path, wd] : moved) {
      watchOfFolder[path] = wd;
      folderOfWatch[wd] = path;
    }
    for (auto& [location, s] : subscriptions) {
      std::set<std::string> renamed;
      for (auto const& f : s->folders) renamed.insert(f == from || isBelow(f, from) ? to + f.substr(from.size()) : f);
      s->folders = std::move(renamed);
    }
  }

  void moved(PendingMove const& from, std::string const& to, bool folder, std::vector<Delivery>& out) {
    if (folder) renameFolders(from.path, to);
    if (isTemporaryName(from.path)) {
      // A commit (or copy) landing: the target was replaced or created.
      bool existed = false;
      for (auto const& [location, s] : subscriptions) existed = existed || s->snapshot.contains(to);
      emit(out, existed ? events::Kind::Modified : events::Kind::Created, to, folder);
      return;
    }
    emit(out, events::Kind::Renamed, to, folder, from.path);
    if (folder) adoptFolder(to, out, false);
  }

  void movedAway(PendingMove const& from, std::vector<Delivery>& out) {
    if (isTemporaryName(from.path)) return;
    if (from.folder) { // out of sight: its watches would report under a wrong name
      for (auto it = watchOfFolder.begin(); it != watchOfFolder.end();) {
        if (it->first == from.path || isBelow(it->first, from.path)) {
          ::inotify_rm_watch(fd, it->second);
          folderOfWatch.erase(it->second);
          it = watchOfFolder.erase(it);
        } else {
          ++it;
        }
      }
    }
    emit(out, events::Kind::Removed, from.path, from.folder);
  }

  /// After an overflow: what changed since each subscription last knew.
  void rescan(std::vector<Delivery>& out) {
    for (auto const& [location, s] : subscriptions) {
      if (s->recursive) {
        Snapshot ignored;
        watchAndScan(s->path, ignored, s->folders);
      }
      Snapshot fresh = s->scan();
      Snapshot before = s->snapshot;
      auto deliver = [&](events::Kind kind, std::string const& path, bool folder) {
        if (!s->wants(kind) || isTemporaryName(path)) return;
        try {
          out.push_back({s,
                         kind,
                         p::toStorageIRI(u"file", fl::filesystem::path(path)),
                         folder ? events::EntryType::Folder : events::EntryType::File,
                         {}});
        } catch (p::Exception const&) {
        }
      };
      for (auto it = before.rbegin(); it != before.rend(); ++it)
        if (!fresh.contains(it->first)) deliver(events::Kind::Removed, it->first, it->second.folder);
      for (auto const& [path, now] : fresh) {
        auto old = before.find(path);
        if (old == before.end()) {
          deliver(events::Kind::Created, path, now.folder);
        } else if (!now.folder && (old->second.size != now.size || old->second.modified != now.modified)) {
          deliver(events::Kind::Modified, path, false);
        } else if (old->second.mode != now.mode) {
          deliver(events::Kind::AttributesChanged, path, now.folder);
        }
      }
      s->snapshot = std::move(fresh);
    }
  }

  void handle(inotify_event const& event, std::optional<PendingMove>& pending, std::vector<Delivery>& out) {
    if (event.mask & IN_Q_OVERFLOW) {
      rescan(out);
      return;
    }
    auto where = folderOfWatch.find(event.wd);
    if (where == folderOfWatch.end()) return;
    std::string const folder = where->second;
    if (event.mask & IN_IGNORED) {
      watchOfFolder.erase(folder);
      folderOfWatch.erase(where);
      return;
    }
    bool const isFolder = (event.mask & IN_ISDIR) != 0;
    std::string const path = event.len > 0 ? (folder == "/" ? "/" : folder + "/") + event.name : folder;

    if (pending && !((event.mask & IN_MOVED_TO) && event.cookie == pending->cookie)) {
      movedAway(*pending, out);
      pending.reset();
    }
    if (event.mask & IN_MOVED_FROM) {
      pending = PendingMove{event.cookie, path, isFolder};
    } else if (event.mask & IN_MOVED_TO) {
      if (pending) {
        moved(*pending, path, isFolder, out);
        pending.reset();
      } else if (!isTemporaryName(path)) {
        emit(out, events::Kind::Created, path, isFolder); // moved in from outside
        if (isFolder) adoptFolder(path, out, true);
      }
    } else if (isTemporaryName(path)) {
      // The provider's own temporary files are an implementation detail.
    } else if (event.mask & IN_CREATE) {
      emit(out, events::Kind::Created, path, isFolder);
      if (isFolder) adoptFolder(path, out, true);
    } else if (event.mask & IN_DELETE) {
      emit(out, events::Kind::Removed, path, isFolder);
    } else if (event.mask & IN_MODIFY) {
      bool const repeat = !out.empty() && out.back().kind == events::Kind::Modified &&
                          out.back().item == p::toStorageIRI(u"file", fl::filesystem::path(path));
      if (!repeat) emit(out, events::Kind::Modified, path, false); // one per burst of writes
    } else if (event.mask & IN_ATTRIB) {
      emit(out, events::Kind::AttributesChanged, path, isFolder);
    } else if (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
      for (auto const& [location, s] : subscriptions)
        if (s->folder && s->path == path) emit(out, events::Kind::Removed, path, true);
    }
  }

  void run() {
    alignas(inotify_event) char buffer[64 * 1024];
    std::optional<PendingMove> pending;
    pollfd fds[2] = {{fd, POLLIN, 0}, {wake[0], POLLIN, 0}};
    for (;;) {
      // A MOVED_FROM whose MOVED_TO does not follow soon moved out of sight.
      int ready = ::poll(fds, 2, pending ? 20 : -1);
      if (ready < 0 && errno == EINTR) continue;
      std::vector<Delivery> deliveries;
      {
        std::lock_guard lock(mutex);
        if (stopping) return;
        if (ready == 0 && pending) {
          movedAway(*pending, deliveries);
          pending.reset();
        }
        if (fds[1].revents & POLLIN) {
          char drain[64];
          while (::read(wake[0], drain, sizeof drain) > 0) {
          }
        }
        // One buffer per turn: subscribing and unsubscribing get the lock between the turns
        // of a long burst, and its first changes are delivered while the rest is read.
        ssize_t got = ::read(fd, buffer, sizeof buffer);
        for (ssize_t offset = 0; offset < got;) {
          auto const* event = reinterpret_cast<inotify_event const*>(buffer + offset);
          handle(*event, pending, deliveries);
          offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
      }
      for (auto& d : deliveries) {
        if (!d.subscription->active) continue;
        try {
          d.subscription->callback(d.kind, d.subscription->location, d.item, d.type, std::move(d.extra));
        } catch (...) {
          // A subscriber's failure must not end watching for everyone.
        }
      }
    }
  }
};

InotifyWatcher::InotifyWatcher() : impl_(std::make_unique<Impl>()) {}

InotifyWatcher::~InotifyWatcher() = default;

void InotifyWatcher::watch(p::StorageIRI const& location, std::string const& path, bool folder, bool recursive,
                           p::ChangeCallback callback, std::vector<events::Kind> kinds) {
  auto s = std::make_shared<Subscription>();
  s->location = location;
  s->path = path;
  s->folder = folder;
  s->recursive = folder && recursive;
  s->callback = std::move(callback);
  s->kinds = std::move(kinds);
  // One lock scope: watches that no registered subscription needs yet would be pruned by a
  // concurrent unwatch.
  std::lock_guard lock(impl_->mutex);
  impl_->open(location);
  {
    int error = 0;
    if (s->recursive) {
      Snapshot ignored;
      error = impl_->watchAndScan(path, ignored, s->folders);
    } else {
      s->folders.insert(folder ? path : parentOf(path));
      error = impl_->addWatch(*s->folders.begin());
    }
    if (error != 0) {
      impl_->pruneWatches();
      p::raise(p::ChangeEventsSubscriptionException(location,
                                                    "inotify_add_watch: " + std::generic_category().message(error)));
    }
  }
  // Snapshot after the watches are in place: a change in between is seen by both.
  s->snapshot = s->scan();
  if (auto it = impl_->subscriptions.find(location); it != impl_->subscriptions.end()) it->second->active = false;
  impl_->subscriptions[location] = s;
  impl_->pruneWatches();
  if (!impl_->thread.joinable()) impl_->thread = std::thread([this] { impl_->run(); });
}

void InotifyWatcher::unwatch(p::StorageIRI const& location) {
  std::lock_guard lock(impl_->mutex);
  auto it = impl_->subscriptions.find(location);
  if (it == impl_->subscriptions.end()) return;
  it->second->active = false;
  impl_->subscriptions.erase(it);
  impl_->pruneWatches();
}

} // namespace foundation::storage::providers::local::detail

#else // no inotify: change events come from polling only

namespace foundation::storage::providers::local::detail {

struct InotifyWatcher::Impl {};

InotifyWatcher::InotifyWatcher() = default;
InotifyWatcher::~InotifyWatcher() = default;

void InotifyWatcher::watch(provider::StorageIRI const& location, std::string const&, bool, bool,
                           provider::ChangeCallback, std::vector<events::Kind>) {
  provider::raise(
      provider::ChangeEventsNotSupportedException(location, "native change events need inotify; poll instead"));
}

void InotifyWatcher::unwatch(provider::StorageIRI const&) {}

} // namespace foundation::storage::providers::local::detail

#endif
