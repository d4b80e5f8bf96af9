// The memory provider under contention and with deep trees:
// - writes per second while 4 threads list the whole tree again and again (a writer must not
//   starve behind readers);
// - createFolderRecursive of one chain of folders, 10,000 and 40,000 levels deep (time must
//   grow linearly with the depth).

#include <foundation/storage/providers/memory/memory_provider.hpp>

#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>
#include <vector>

namespace p = foundation::storage::provider;
using foundation::storage::providers::memory::MemoryProvider;

namespace {

p::StorageIRI at(std::u16string const& path) { return p::StorageIRI(u"mem:///" + path); }

void BM_WritesBesideFourListings(benchmark::State& state) {
  auto provider = std::make_shared<MemoryProvider>();
  provider->createFolder(at(u"tree"));
  for (int f = 0; f < 20; ++f) {
    std::u16string folder = u"tree/d" + std::u16string(1, char16_t(u'a' + f));
    provider->createFolder(at(folder));
    for (int i = 0; i < 100; ++i)
      provider->createFile(
          at(folder + u"/f" + std::u16string(1, char16_t(u'0' + i % 10)) + std::u16string(1, char16_t(u'0' + i / 10))));
  }
  std::atomic<bool> done{false};
  std::vector<std::thread> listers;
  for (int t = 0; t < 4; ++t)
    listers.emplace_back([&] {
      while (!done)
        for (auto listing = provider->listAllRecursive(at(u"tree"), u""); listing->hasNext();) listing->next();
    });
  p::StorageIRI const target = at(u"tree/written");
  provider->createFile(target);
  std::uint64_t size = 0;
  for (auto _ : state) provider->truncateToSize(target, ++size % 4096);
  done = true;
  for (auto& t : listers) t.join();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_WritesBesideFourListings)->UseRealTime()->MinTime(2.0)->Unit(benchmark::kMicrosecond);

void BM_CreateFolderRecursive(benchmark::State& state) {
  std::u16string path = u"deep";
  for (int i = 1; i < state.range(0); ++i) path += u"/d";
  p::StorageIRI const deepest = at(path);
  for (auto _ : state) {
    state.PauseTiming();
    auto provider = std::make_shared<MemoryProvider>();
    state.ResumeTiming();
    provider->createFolderRecursive(deepest);
    state.PauseTiming();
    provider->removeFolderRecursively(at(u"deep"));
    provider.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CreateFolderRecursive)
    ->Arg(10000)
    ->Arg(40000)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
