// The local provider against what a user would otherwise write, in one run:
// - recursive names-only listing vs a bare getdents64 loop and
//   std::filesystem::recursive_directory_iterator;
// - recursive listing with size and modification time vs getdents64 + fstatat and
//   std::filesystem with file_size + last_write_time;
// - the library's tree listings (Folder::listAllRecursive, listAllEntriesRecursive) over
//   the local provider vs the same references and `find` as a whole command;
// - copying a 1 GiB file vs cp.
// The tree (200,000 files in 10,000 folders) is generated once under $VFS_BENCH_DIR
// (default /tmp/vfs-bench) and kept: this disk creates files slowly right after deleting
// many, so the benchmark never deletes and re-creates it.

#include "bench_tree.hpp"

#include <foundation/storage/providers/local/local_provider.hpp>
#include <foundation/storage/providers/wrappers/feature_switching_provider.hpp>
#include <foundation/storage/systems/standard_storage_system.hpp>

#include <vfs/vfs.hpp>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace p = foundation::storage::provider;
namespace vfs = foundation::storage::vfs;
namespace fs = std::filesystem;
using foundation::storage::providers::local::LocalProvider;

namespace {

using benchtree::benchRoot;
using benchtree::reportEntries;
using benchtree::tree;

/// The 1 GiB source, read once so that both contenders copy from the page cache.
fs::path const& bigFile() {
  static fs::path const file = [] {
    fs::path file = benchRoot() / "big.bin";
    std::string chunk(1 << 20, '\0');
    if (!fs::exists(file) || fs::file_size(file) != (std::uintmax_t{1} << 30)) {
      std::ofstream out(file, std::ios::binary);
      for (std::size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>(i * 7);
      for (int i = 0; i < 1024; ++i) out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    }
    std::ifstream in(file, std::ios::binary);
    while (in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()))) {
    }
    return file;
  }();
  return file;
}

} // namespace

static void ListNamesOnly_Getdents64(benchmark::State& state) {
  benchtree::benchmarkBareWalk(state, benchtree::nameOnly);
}

static void ListNamesOnly_StdFilesystem(benchmark::State& state) {
  tree();
  std::size_t entries = 0;
  for (auto _ : state) {
    entries = 0;
    for (auto it = fs::recursive_directory_iterator(tree()); it != fs::recursive_directory_iterator(); ++it) {
      benchmark::DoNotOptimize(it->is_directory());
      ++entries;
    }
  }
  reportEntries(state, entries);
}

static void ListNamesOnly_LocalProvider(benchmark::State& state) {
  auto provider = std::make_shared<LocalProvider>();
  p::StorageItem root(provider, p::toStorageIRI(u"file", fl::filesystem::path(tree())));
  std::size_t entries = 0;
  for (auto _ : state) {
    entries = 0;
    for (auto cursor = root.listAllRecursiveNamesOnly(u""); cursor->hasNext(); ++entries) {
      cursor->next();
      benchmark::DoNotOptimize(cursor->current().isFile());
    }
  }
  reportEntries(state, entries);
}

static void ListWithAttributes_Getdents64Fstatat(benchmark::State& state) {
  benchtree::benchmarkBareWalk(state, benchtree::statEntry);
}

static void ListWithAttributes_StdFilesystem(benchmark::State& state) {
  tree();
  std::size_t entries = 0;
  for (auto _ : state) {
    entries = 0;
    for (auto it = fs::recursive_directory_iterator(tree()); it != fs::recursive_directory_iterator(); ++it) {
      if (it->is_regular_file()) benchmark::DoNotOptimize(it->file_size());
      benchmark::DoNotOptimize(it->last_write_time());
      ++entries;
    }
  }
  reportEntries(state, entries);
}

static void ListWithAttributes_LocalProvider(benchmark::State& state) {
  auto provider = std::make_shared<LocalProvider>();
  p::StorageItem root(provider, p::toStorageIRI(u"file", fl::filesystem::path(tree())));
  std::size_t entries = 0;
  for (auto _ : state) {
    entries = 0;
    for (auto cursor = root.listAllRecursive(u""); cursor->hasNext(); ++entries) {
      cursor->next();
      auto entry = cursor->current();
      benchmark::DoNotOptimize(entry.isFile() ? entry.getFileAttributes()->getSize() : 0);
    }
  }
  reportEntries(state, entries);
}

/// The tree's root as an application sees it, through a storage system; with
/// `libraryWalks` the provider cannot list trees, so the library walks them itself.
vfs::Folder libraryTree(bool libraryWalks = false) {
  static auto const system = std::make_shared<foundation::storage::systems::StandardStorageSystem>();
  static auto const walking = [] {
    auto system = std::make_shared<foundation::storage::systems::StandardStorageSystem>();
    auto features = std::make_shared<foundation::storage::providers::wrappers::FeatureSwitchingProvider>(
        std::make_shared<LocalProvider>());
    features->disable(p::ExtendedFeature::RecursiveListing);
    system->registerProvider(u"file", [features](p::StorageIRI const&) { return features; });
    return system;
  }();
  std::weak_ptr<vfs::StorageSystem> chosen = libraryWalks ? walking : system;
  return vfs::Folder(vfs::toAbsoluteIRI(u"file", fl::filesystem::path(tree())), vfs::StorageSystemReference(chosen));
}

static void ListNamesOnly_VfsFolder(benchmark::State& state) {
  vfs::Folder root = libraryTree();
  std::size_t entries = 0;
  for (auto _ : state) {
    entries = 0;
    auto listing = root.listAllRecursive();
    for (auto it = listing.begin(); !it.exhausted(); ++it, ++entries) benchmark::DoNotOptimize(it->getName().size());
  }
  reportEntries(state, entries);
}

static void ListWithAttributes_VfsFolder(benchmark::State& state) {
  vfs::Folder root = libraryTree(state.range(0) != 0);
  std::size_t entries = 0;
  for (auto _ : state) {
    entries = 0;
    auto listing = root.listAllEntriesRecursive();
    for (auto it = listing.begin(); !it.exhausted(); ++it, ++entries) {
      if (auto const* file = boost::get<vfs::FileEntry>(&*it)) {
        benchmark::DoNotOptimize(file->getAttributes().getSize());
        benchmark::DoNotOptimize(file->getAttributes().getLastModified());
      } else {
        benchmark::DoNotOptimize(boost::get<vfs::FolderEntry>(*it).getAttributes().getLastModified());
      }
    }
  }
  reportEntries(state, entries);
}

/// `find` over the tree as a whole command, printing `format` per entry to /dev/null.
void runFind(benchmark::State& state, std::string const& format) {
  std::string const command = "find " + tree().string() + " -printf '" + format + "' > /dev/null";
  for (auto _ : state)
    if (std::system(command.c_str()) != 0) state.SkipWithError("find failed");
}

static void ListNamesOnly_FindCommand(benchmark::State& state) { runFind(state, ""); }
static void ListWithAttributes_FindCommand(benchmark::State& state) { runFind(state, "%s %T@\\n"); }

// Copies land in fresh names and are removed only at the end of each benchmark. Each copy
// starts with nothing left to write back (sync, untimed), so that one copy's writeback
// does not slow the next.
static void CopyOneGiB_Cp(benchmark::State& state) {
  bigFile();
  std::vector<fs::path> copies;
  for (auto _ : state) {
    state.PauseTiming();
    ::sync();
    state.ResumeTiming();
    copies.push_back(benchRoot() / ("cp-copy-" + std::to_string(copies.size())));
    std::string command = "cp " + bigFile().string() + " " + copies.back().string();
    if (std::system(command.c_str()) != 0) state.SkipWithError("cp failed");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) << 30);
  for (auto const& copy : copies) fs::remove(copy);
}

static void CopyOneGiB_LocalProvider(benchmark::State& state) {
  auto provider = std::make_shared<LocalProvider>();
  p::StorageItem source(provider, p::toStorageIRI(u"file", fl::filesystem::path(bigFile())));
  std::vector<fs::path> copies;
  for (auto _ : state) {
    state.PauseTiming();
    ::sync();
    state.ResumeTiming();
    copies.push_back(benchRoot() / ("vfs-copy-" + std::to_string(copies.size())));
    source.copyFile(p::StorageItem(provider, p::toStorageIRI(u"file", fl::filesystem::path(copies.back()))), {});
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) << 30);
  for (auto const& copy : copies) fs::remove(copy);
}

BENCHMARK(ListNamesOnly_Getdents64)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(ListNamesOnly_LocalProvider)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(ListNamesOnly_StdFilesystem)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(ListNamesOnly_VfsFolder)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(ListNamesOnly_FindCommand)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(ListWithAttributes_Getdents64Fstatat)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(ListWithAttributes_LocalProvider)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(ListWithAttributes_StdFilesystem)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(ListWithAttributes_VfsFolder)
    ->ArgName("libraryWalks")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(2);
BENCHMARK(ListWithAttributes_FindCommand)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);
BENCHMARK(CopyOneGiB_Cp)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(CopyOneGiB_LocalProvider)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
