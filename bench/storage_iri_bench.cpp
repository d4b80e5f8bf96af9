// Costs on the hot paths every listing and handle goes through: parsing, child locations,
// copies, ordering, printing, and a memory provider listing.

#include <foundation/storage/providers/memory/memory_provider.hpp>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>

namespace p = foundation::storage::provider;

static void ParseIRI(benchmark::State& state) {
  std::u16string const text = u"file:///home/user/projects/storage/src/provider/storage_iri.cpp";
  for (auto _ : state) benchmark::DoNotOptimize(p::StorageIRI(text));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ParseIRI);

static void ParseEscapedIRI(benchmark::State& state) {
  std::u16string const text = u"mem:///Gr%C3%BC%C3%9Fe/100%25%20done/%E6%97%A5%E6%9C%AC/file%23%3F.txt";
  for (auto _ : state) benchmark::DoNotOptimize(p::StorageIRI(text));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ParseEscapedIRI);

static void ChildIRI(benchmark::State& state) {
  p::StorageIRI const folder(u"file:///home/user/projects/storage/src/provider");
  std::u16string const name = u"storage_iri.cpp";
  for (auto _ : state) benchmark::DoNotOptimize(p::StorageIRI(folder, name));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ChildIRI);

static void CopyIRI(benchmark::State& state) {
  p::StorageIRI const iri(u"file:///home/user/projects/storage/src/provider/storage_iri.cpp");
  for (auto _ : state) {
    p::StorageIRI copy = iri;
    benchmark::DoNotOptimize(copy);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(CopyIRI);

static void SortIRIs(benchmark::State& state) {
  std::vector<p::StorageIRI> iris;
  std::mt19937 random(42);
  for (int i = 0; i < state.range(0); ++i)
    iris.emplace_back(u"mem:///d" + std::u16string(1, char16_t(u'a' + random() % 26)) + u"/f" +
                      std::u16string(1, char16_t(u'a' + random() % 26)) + std::u16string(1, char16_t(u'a' + i % 26)));
  for (auto _ : state) {
    auto copy = iris;
    std::sort(copy.begin(), copy.end());
    benchmark::DoNotOptimize(copy);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(SortIRIs)->Arg(10000);

static void PrintIRI(benchmark::State& state) {
  p::StorageIRI const iri(p::StorageIRI(u"mem:///"), u"Grüße/100% done/日本/file#?.txt"); // raw names
  for (auto _ : state) benchmark::DoNotOptimize(iri.toString());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(PrintIRI);

static void ListMemoryFolder(benchmark::State& state) {
  auto provider = std::make_shared<foundation::storage::providers::memory::MemoryProvider>();
  p::StorageItem folder(provider, p::StorageIRI(u"mem:///big"));
  folder.createFolder();
  for (int i = 0; i < state.range(0); ++i)
    p::StorageItem(folder, u"file" + fl::i18n::to_ustring(std::to_string(i))).createFile();
  bool const withAttributes = state.range(1) != 0;
  for (auto _ : state) {
    auto cursor = withAttributes ? folder.listAll(u"") : folder.listAllNamesOnly(u"");
    while (cursor->hasNext()) cursor->next();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ListMemoryFolder)->Args({10000, 0})->Args({10000, 1});
