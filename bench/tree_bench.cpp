// Walking, copying and removing trees on the local file system with the library, against
// the commands and the bare system calls a user would otherwise reach for:
// - Walk*: walkFolderParallel counting files and summing sizes vs fdfind, du -s and a bare
//   two-thread getdents64 + fstatat walk; walkFolder counting files vs a bare serial
//   getdents64 walk (with and without fstatat) and find. The 200,000-file tree, warm cache.
// - CopyTree*: copyFolder of a 20,000-file tree vs cp -r, each copy into a fresh folder.
// - RemoveTree*: removing those copies (the library's walk, the provider's own removal) vs
//   rm -rf.
// The disk creates files slowly right after deleting many, so copies are only ever made into
// fresh folders, and removal consumes the copies that the copy benchmarks left: run the
// three groups in that order as separate runs (bench/tree_bench.sh does).

#include "bench_tree.hpp"

#include <foundation/storage/systems/standard_storage_system.hpp>

#include <vfs/vfs.hpp>

#include <oneapi/tbb/task_arena.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace fs = std::filesystem;
namespace vfs = foundation::storage::vfs;
using foundation::storage::systems::StandardStorageSystem;

namespace {

using benchtree::benchRoot;
using benchtree::reportEntries;
using benchtree::tree;

/// 20,000 files in 1,000 folders.
fs::path const& smallTree() {
  static fs::path const root = benchtree::makeTree("tree-20k", 1000);
  return root;
}

fs::path copiesFolder() { return benchRoot() / "copies"; }

/// A fresh, never used name for a copy.
fs::path freshCopy(char const* contender) {
  fs::create_directories(copiesFolder());
  static int counter = 0;
  return copiesFolder() / (std::string(contender) + "-" + std::to_string(::getpid()) + "-" + std::to_string(++counter));
}

/// A copy left by the copy benchmarks, taken out of the pool; empty when none is left.
fs::path takeCopy() {
  if (!fs::exists(copiesFolder())) return {};
  for (auto const& entry : fs::directory_iterator(copiesFolder())) {
    fs::path victim = benchRoot() / ("removing-" + entry.path().filename().string());
    fs::rename(entry.path(), victim);
    return victim;
  }
  return {};
}

struct Library {
  std::shared_ptr<StandardStorageSystem> system = std::make_shared<StandardStorageSystem>();
  vfs::StorageSystemReference reference{std::weak_ptr<vfs::StorageSystem>(system)};
  vfs::Folder folder(fs::path const& path) const {
    return vfs::Folder(vfs::toAbsoluteIRI(u"file", fl::filesystem::path(path)), reference);
  }
};

void run(benchmark::State& state, std::string const& command) {
  if (std::system((command + " >/dev/null").c_str()) != 0) state.SkipWithError(("failed: " + command).c_str());
}

/// The bare two-thread walk: a shared queue of open folders; each thread reads one folder
/// with getdents64, stats every entry and queues the sub-folders.
std::size_t bareParallelWalk(fs::path const& root, int threads) {
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<int> folders{::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  int busy = 0;
  std::atomic<std::size_t> entries{0};
  auto worker = [&] {
    std::size_t mine = 0;
    for (;;) {
      int dirfd;
      {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return !folders.empty() || busy == 0; });
        if (folders.empty()) break;
        dirfd = folders.front();
        folders.pop_front();
        ++busy;
      }
      std::vector<int> found;
      mine += benchtree::readFolder(dirfd, [&](char const* name, bool isFolder) {
        benchtree::statEntry(dirfd, name, isFolder);
        if (isFolder) found.push_back(::openat(dirfd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      });
      ::close(dirfd);
      {
        std::lock_guard lock(mutex);
        folders.insert(folders.end(), found.begin(), found.end());
        --busy;
      }
      changed.notify_all();
    }
    entries += mine;
  };
  std::vector<std::thread> pool;
  for (int i = 0; i < threads; ++i) pool.emplace_back(worker);
  for (auto& thread : pool) thread.join();
  return entries;
}

/// A visitor that needs no folder handles: the folder callbacks build none.
struct FilesOnly : vfs::FolderVisitor {
  vfs::FolderVisitResult visitEntryBefore(vfs::FolderEntry const&) override { return vfs::FolderVisitResult::Continue; }
  vfs::FolderVisitResult visitEntryAfter(vfs::FolderEntry const&) override { return vfs::FolderVisitResult::Continue; }
};

/// Counts files and sums their sizes from the attributes the listings delivered.
struct SizeSummer final : FilesOnly {
  std::atomic<std::size_t> files{0};
  std::atomic<std::uint64_t> bytes{0};
  vfs::FolderVisitResult visitEntry(vfs::FileEntry const& entry) override {
    files.fetch_add(1, std::memory_order_relaxed);
    bytes.fetch_add(entry.getAttributes().getSize(), std::memory_order_relaxed);
    return vfs::FolderVisitResult::Continue;
  }
};

struct FileCounter final : FilesOnly {
  std::size_t files = 0;
  vfs::FolderVisitResult visitEntry(vfs::FileEntry const&) override {
    return ++files, vfs::FolderVisitResult::Continue;
  }
};

} // namespace

static void WalkParallel_Library(benchmark::State& state) {
  Library library;
  auto const root = library.folder(tree());
  std::size_t files = 0;
  for (auto _ : state) {
    SizeSummer summer;
    vfs::walkFolderParallel(root, summer);
    files = summer.files;
    benchmark::DoNotOptimize(summer.bytes.load());
  }
  state.counters["files"] = static_cast<double>(files);
  state.counters["threads"] = tbb::this_task_arena::max_concurrency();
}

static void WalkParallel_Fdfind(benchmark::State& state) {
  tree();
  for (auto _ : state) run(state, "fdfind --unrestricted --type f . " + tree().string());
}

static void WalkParallel_DuS(benchmark::State& state) {
  tree();
  for (auto _ : state) run(state, "du -s " + tree().string());
}

static void WalkParallel_BareGetdents64FstatatTwoThreads(benchmark::State& state) {
  tree();
  std::size_t entries = 0;
  for (auto _ : state) entries = bareParallelWalk(tree(), 2);
  reportEntries(state, entries);
}

static void WalkSerial_Library(benchmark::State& state) {
  Library library;
  auto const root = library.folder(tree());
  std::size_t files = 0;
  for (auto _ : state) {
    FileCounter counter;
    vfs::walkFolder(root, counter);
    files = counter.files;
  }
  state.counters["files"] = static_cast<double>(files);
}

static void WalkSerial_BareGetdents64(benchmark::State& state) {
  benchtree::benchmarkBareWalk(state, benchtree::nameOnly);
}

static void WalkSerial_BareGetdents64Fstatat(benchmark::State& state) {
  benchtree::benchmarkBareWalk(state, benchtree::statEntry);
}

static void WalkSerial_Find(benchmark::State& state) {
  tree();
  for (auto _ : state) run(state, "find " + tree().string());
}

// Each copy starts with nothing left to write back (sync, untimed), so that one copy's
// writeback does not slow the next.
static void CopyTree_Library(benchmark::State& state) {
  Library library;
  auto const source = library.folder(smallTree());
  for (auto _ : state) {
    state.PauseTiming();
    ::sync();
    auto const destination = library.folder(freshCopy("library"));
    state.ResumeTiming();
    source.copyFolder(destination, foundation::storage::provider::ReplacementPolicy::FailIfExists);
  }
}

static void CopyTree_CpR(benchmark::State& state) {
  smallTree();
  for (auto _ : state) {
    state.PauseTiming();
    ::sync();
    auto const destination = freshCopy("cp");
    state.ResumeTiming();
    run(state, "cp -r " + smallTree().string() + " " + destination.string());
  }
}

template <class Remove>
void removeCopies(benchmark::State& state, Remove&& remove) {
  for (auto _ : state) {
    state.PauseTiming();
    fs::path const victim = takeCopy();
    if (victim.empty()) {
      state.SkipWithError("no copy left to remove: run the CopyTree benchmarks first");
      break;
    }
    ::sync();
    state.ResumeTiming();
    remove(victim);
  }
}

static void RemoveTree_LibraryWalk(benchmark::State& state) {
  Library library;
  removeCopies(state, [&](fs::path const& victim) { vfs::removeNonEmptyFolder(library.folder(victim)); });
}

static void RemoveTree_Provider(benchmark::State& state) {
  Library library;
  removeCopies(
      state, [&](fs::path const& victim) { library.folder(victim).removeFolder(vfs::FolderRemovalPolicy::Recursive); });
}

static void RemoveTree_RmRf(benchmark::State& state) {
  removeCopies(state, [&](fs::path const& victim) { run(state, "rm -rf " + victim.string()); });
}

BENCHMARK(WalkParallel_Library)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime()->MinTime(2);
BENCHMARK(WalkParallel_Fdfind)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(WalkParallel_DuS)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(WalkParallel_BareGetdents64FstatatTwoThreads)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->MinTime(2);
BENCHMARK(WalkSerial_Library)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(WalkSerial_BareGetdents64)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(WalkSerial_BareGetdents64Fstatat)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(WalkSerial_Find)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(CopyTree_Library)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(CopyTree_CpR)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(RemoveTree_LibraryWalk)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(RemoveTree_Provider)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(RemoveTree_RmRf)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
