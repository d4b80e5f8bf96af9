// The local provider's inotify watcher under a burst: 40,000 files of one watched folder are
// removed, and the benchmark waits until every removal has been delivered. The counter
// "subscribe_ms" is how long subscribing to an unrelated folder took right after the burst,
// while the watcher was still delivering it.
// Each repetition creates its files in a fresh folder under $VFS_BENCH_DIR (default
// /tmp/vfs-bench): this disk creates files slowly right after many were deleted.

#include <foundation/storage/providers/local/local_provider.hpp>

#include <benchmark/benchmark.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <unistd.h>

namespace p = foundation::storage::provider;
namespace events = foundation::storage::events;
namespace fs = std::filesystem;
using foundation::storage::providers::local::LocalProvider;
using Clock = std::chrono::steady_clock;

namespace {

fs::path freshFolder() {
  char const* dir = std::getenv("VFS_BENCH_DIR");
  fs::path base = fs::path(dir ? dir : "/tmp/vfs-bench") / "watcher";
  fs::create_directories(base);
  for (int i = 0;; ++i)
    if (fs::path folder = base / ("burst" + std::to_string(::getpid()) + "-" + std::to_string(i));
        fs::create_directory(folder))
      return folder;
}

p::StorageIRI iriOf(fs::path const& path) { return p::toStorageIRI(u"file", fl::filesystem::path(path)); }

void BM_DeliverRemovalBurst(benchmark::State& state) {
  int const files = static_cast<int>(state.range(0));
  LocalProvider provider;
  double subscribeMs = 0;
  for (auto _ : state) {
    fs::path const watched = freshFolder(), unrelated = freshFolder();
    for (int i = 0; i < files; ++i)
      ::close(::open((watched / ("f" + std::to_string(i))).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    std::mutex mutex;
    std::condition_variable delivered;
    int removed = 0;
    provider.publishFolderEvents(
        iriOf(watched),
        [&](events::Kind const& kind, auto const&, auto const&, auto const&, auto) {
          if (kind != events::Kind::Removed) return;
          std::lock_guard lock(mutex);
          if (++removed == files) delivered.notify_all();
        },
        {}, p::RecursiveWatching::No);

    auto const start = Clock::now();
    for (int i = 0; i < files; ++i) ::unlink((watched / ("f" + std::to_string(i))).c_str());
    auto const subscribing = Clock::now();
    provider.publishFolderEvents(
        iriOf(unrelated), [](auto const&, auto const&, auto const&, auto const&, auto) {}, {},
        p::RecursiveWatching::No);
    subscribeMs += std::chrono::duration<double, std::milli>(Clock::now() - subscribing).count();
    {
      std::unique_lock lock(mutex);
      delivered.wait(lock, [&] { return removed >= files; });
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());

    provider.stopPublishingFolderEvents(iriOf(watched));
    provider.stopPublishingFolderEvents(iriOf(unrelated));
    fs::remove(watched);
    fs::remove(unrelated);
  }
  state.counters["subscribe_ms"] = benchmark::Counter(subscribeMs, benchmark::Counter::kAvgIterations);
  state.SetItemsProcessed(state.iterations() * files);
}
BENCHMARK(BM_DeliverRemovalBurst)->Arg(40000)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
