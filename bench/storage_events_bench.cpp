// Change events on the local provider, through the library to a listener of the storage
// system's event manager:
// - Latency: a file is created, the clock runs until the listener has its Created event;
//   1,000 creations, median and 99th percentile. Reference: the same creations read from a
//   bare inotify descriptor on a thread of its own, handed over the same way.
// - Burst: 10,000 files of one byte created as fast as possible in the 10 folders of a
//   recursively watched tree; how many events arrive and how many creations never do. The
//   "stalled" variant holds the watcher's thread until the burst is over, so the kernel
//   queue (fs.inotify.max_queued_events, 16,384 here, for 20,000 events) overflows and
//   the rescan must find the rest.
// - The same burst in one folder through change polling, at the interval given.
// Creations go to fresh folders that stay until the end: this disk slows down creating
// right after deleting.

#include <foundation/storage/systems/standard_storage_system.hpp>
#include <vfs/vfs.hpp>

#include "../tests/support/temporary_folder.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace vfs = foundation::storage::vfs;
namespace eventmgr = foundation::msg_svc::eventmgr;
namespace events = foundation::storage::events;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int latencyChanges = 1000;
constexpr int burstFolders = 10, burstFilesEach = 1000;

/// Fresh folders, kept until the process ends.
std::filesystem::path freshFolder() {
  static std::mutex mutex;
  static std::vector<testsupport::TemporaryFolder> kept;
  std::lock_guard lock(mutex);
  return kept.emplace_back("vfs-events-bench").path();
}

void createFile(std::string const& path, bool withData) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error("cannot create " + path);
  if (withData && ::write(fd, "x", 1) != 1) throw std::runtime_error("cannot write " + path);
  ::close(fd);
}

/// When each created name arrived, and how many events came in all.
class Arrivals {
public:
  void created(std::string const& name) {
    std::lock_guard lock(mutex_);
    ++events_;
    arrivedAt_.emplace(name, Clock::now());
    changed_.notify_all();
  }
  void other() {
    std::lock_guard lock(mutex_);
    ++events_;
  }
  /// When `name` arrived; waits at most `patience`.
  std::optional<Clock::time_point> waitFor(std::string const& name, std::chrono::seconds patience) {
    std::unique_lock lock(mutex_);
    decltype(arrivedAt_)::iterator found;
    if (!changed_.wait_for(lock, patience, [&] { return (found = arrivedAt_.find(name)) != arrivedAt_.end(); }))
      return std::nullopt;
    return found->second;
  }
  /// Waits until `count` names arrived or none arrived for `quiet`; the names arrived.
  std::size_t waitForCount(std::size_t count, std::chrono::milliseconds quiet) {
    std::unique_lock lock(mutex_);
    for (std::size_t seen = arrivedAt_.size(); seen < count; seen = arrivedAt_.size())
      if (!changed_.wait_for(lock, quiet, [&] { return arrivedAt_.size() != seen; })) break;
    return arrivedAt_.size();
  }
  std::size_t events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  Clock::time_point last() {
    std::lock_guard lock(mutex_);
    Clock::time_point latest{};
    for (auto const& [name, at] : arrivedAt_) latest = std::max(latest, at);
    return latest;
  }

private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::unordered_map<std::string, Clock::time_point> arrivedAt_;
  std::size_t events_ = 0;
};

/// The library's side: a storage system, and a listener that records Created files by name.
struct Library {
  std::shared_ptr<foundation::storage::systems::StandardStorageSystem> system =
      std::make_shared<foundation::storage::systems::StandardStorageSystem>();
  vfs::StorageSystemReference reference{std::weak_ptr<vfs::StorageSystem>(system)};
  Arrivals arrivals;
  std::unique_ptr<eventmgr::Connection> connection = system->getEventMgr()->subscribe(
      vfs::Event::EventType(),
      [this](boost::shared_ptr<eventmgr::BaseEvent> const& e) { record(static_cast<vfs::Event const&>(*e)); });

  ~Library() {
    connection->disconnect();
    system->shutdown();
  }
  vfs::Folder folder(std::filesystem::path const& path) const {
    return vfs::Folder(vfs::toAbsoluteIRI(u"file", fl::filesystem::path(path)), reference);
  }
  void record(vfs::Event const& event) {
    auto const data = event.getSimpleEventData();
    if (data.getKind() == events::Kind::Created && data.getEntryType() == events::EntryType::File)
      arrivals.created(fl::i18n::to_utf8(vfs::getName(event.getEventData().getFileOrFolder())));
    else
      arrivals.other();
  }
};

void reportLatencies(benchmark::State& state, std::vector<double> micros) {
  std::sort(micros.begin(), micros.end());
  state.counters["median_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[micros.size() * 99 / 100];
  state.counters["max_us"] = micros.back();
}

/// Creates `latencyChanges` files one after another, each once the previous one arrived.
std::vector<double> measureLatencies(std::filesystem::path const& folder, Arrivals& arrivals) {
  std::vector<double> micros;
  for (int i = 0; i < latencyChanges; ++i) {
    std::string const name = "f" + std::to_string(i);
    auto const start = Clock::now();
    createFile((folder / name).string(), false);
    auto arrived = arrivals.waitFor(name, std::chrono::seconds(10));
    if (!arrived) throw std::runtime_error("no event for " + name);
    micros.push_back(std::chrono::duration<double, std::micro>(*arrived - start).count());
  }
  return micros;
}

void Latency_Library(benchmark::State& state) {
  for (auto _ : state) {
    Library library;
    auto const path = freshFolder();
    vfs::detail::publishEventsFor(library.folder(path), {events::Kind::Created}, vfs::WithRecursiveChangeEvents::No);
    reportLatencies(state, measureLatencies(path, library.arrivals));
  }
}

/// The kernel's part alone: a bare inotify descriptor read on its own thread.
void Latency_BareInotify(benchmark::State& state) {
  for (auto _ : state) {
    auto const path = freshFolder();
    Arrivals arrivals;
    int fd = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ::inotify_add_watch(fd, path.c_str(), IN_CREATE);
    std::atomic<bool> done{false};
    std::thread reader([&] {
      alignas(inotify_event) char buffer[65536];
      pollfd waiting{fd, POLLIN, 0};
      while (!done) {
        if (::poll(&waiting, 1, 50) <= 0) continue;
        for (ssize_t n = ::read(fd, buffer, sizeof buffer), at = 0; n > 0 && at < n;) {
          auto const* event = reinterpret_cast<inotify_event const*>(buffer + at);
          arrivals.created(event->name);
          at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
      }
    });
    auto micros = measureLatencies(path, arrivals);
    done = true;
    reader.join();
    ::close(fd);
    reportLatencies(state, std::move(micros));
  }
}

/// The folders of a burst below `root` ("d0", "d1", ...); none: `root` itself.
std::vector<std::filesystem::path> burstFoldersIn(std::filesystem::path const& root, int folders) {
  std::vector<std::filesystem::path> made;
  for (int d = 0; d < folders; ++d) made.push_back(root / ("d" + std::to_string(d)));
  if (made.empty()) made.push_back(root);
  for (auto const& folder : made) std::filesystem::create_directories(folder);
  return made;
}

/// Creates `filesEach` files with one byte in each folder (an inotify event for the
/// creation and one for the write); their names.
std::vector<std::string> createBurst(std::vector<std::filesystem::path> const& folders, int filesEach) {
  std::vector<std::string> names;
  for (std::size_t d = 0; d < folders.size(); ++d) {
    for (int i = 0; i < filesEach; ++i) {
      std::string name = "d" + std::to_string(d) + "f" + std::to_string(i);
      createFile((folders[d] / name).string(), true);
      names.push_back(std::move(name));
    }
  }
  return names;
}

void reportBurst(benchmark::State& state, Arrivals& arrivals, std::size_t expected, std::size_t arrived,
                 Clock::time_point start, Clock::time_point created) {
  state.counters["created"] = static_cast<double>(expected);
  state.counters["creating_ms"] = std::chrono::duration<double, std::milli>(created - start).count();
  state.counters["arrived"] = static_cast<double>(arrived);
  state.counters["missing"] = static_cast<double>(expected - arrived);
  state.counters["events"] = static_cast<double>(arrivals.events());
  state.counters["last_arrival_ms"] = std::chrono::duration<double, std::milli>(arrivals.last() - start).count();
}

/// The burst in a recursively watched tree. Argument: 1 holds the watcher's thread until the
/// burst is over (kernel queue overflow), 0 lets it run.
void Burst_WatchedTree(benchmark::State& state) {
  bool const stall = state.range(0) != 0;
  for (auto _ : state) {
    Library library;
    auto const root = freshFolder();
    auto const folders = burstFoldersIn(root, burstFolders); // watched from the start, so a stall fills the queue
    std::mutex gate;
    std::unique_lock closed(gate, std::defer_lock);
    if (stall) closed.lock();
    // Synchronous delivery runs the listener on the watcher's thread, which the gate can hold.
    vfs::RecursiveEventPublisher const publisher(
        library.reference, library.system->getEventMgr(), library.folder(root).getLocation(),
        stall ? eventmgr::DeliverMode::Synchronous : eventmgr::DeliverMode::Asynchronous);
    auto held = library.system->getEventMgr()->subscribe(vfs::Event::EventType(),
                                                         [&](auto const&) { std::lock_guard wait(gate); });
    library.folder(root).publishEventsRecursively(publisher, {});
    auto const start = Clock::now();
    auto const names = createBurst(folders, burstFilesEach);
    auto const created = Clock::now();
    if (stall) closed.unlock();
    auto const arrived = library.arrivals.waitForCount(names.size(), std::chrono::seconds(10));
    held->disconnect();
    library.folder(root).stopPublishingEvents();
    reportBurst(state, library.arrivals, names.size(), arrived, start, created);
  }
}

/// The burst in one polled folder; argument: the interval in milliseconds.
void Burst_Polling(benchmark::State& state) {
  std::chrono::milliseconds const interval(state.range(0));
  for (auto _ : state) {
    Library library;
    auto const folder = freshFolder();
    vfs::detail::startChangePolling(library.folder(folder), {}, interval);
    auto const start = Clock::now();
    auto const names = createBurst(burstFoldersIn(folder, 0), burstFolders * burstFilesEach);
    auto const created = Clock::now();
    auto const arrived =
        library.arrivals.waitForCount(names.size(), std::max(std::chrono::milliseconds(10000), 20 * interval));
    library.folder(folder).stopChangePolling();
    reportBurst(state, library.arrivals, names.size(), arrived, start, created);
  }
}

} // namespace

BENCHMARK(Latency_Library)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Latency_BareInotify)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Burst_WatchedTree)
    ->ArgName("stalled")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(Burst_Polling)
    ->ArgName("interval_ms")
    ->Arg(100)
    ->Arg(1000)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
