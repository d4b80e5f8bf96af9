// Archive providers against the tools, side by side in one run:
//   listing a 100,000-entry zip (fresh provider, so the index is read each time) vs unzip -l;
//   extracting it to the local file system with the library's copyFolder vs unzip -q;
//   reading one small entry after a 2 GiB entry of an uncompressed tar (and of a 20 MiB one)
//     vs tar -xOf and bsdtar -xOf;
//   writing 10,000 small files into a new zip and committing vs zip -qr of the same files.
// Fixtures live in $VFS_BENCH_DIR/archive (default /tmp/vfs-bench/archive) and are made once.

#include <foundation/storage/providers/archive/archive_provider.hpp>
#include <foundation/storage/providers/local/local_provider.hpp>
#include <foundation/storage/systems/standard_storage_system.hpp>
#include <vfs/vfs.hpp>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include <unistd.h>

#include <fl/i18n/i18n.hpp>

namespace p = foundation::storage::provider;
namespace fs = std::filesystem;
namespace vfs = foundation::storage::vfs;
using foundation::storage::providers::archive::TarProvider;
using foundation::storage::providers::archive::ZipProvider;
using foundation::storage::providers::local::LocalProvider;

namespace {

fs::path benchRoot() {
  char const* dir = std::getenv("VFS_BENCH_DIR");
  return fs::path(dir ? dir : "/tmp/vfs-bench") / "archive";
}

std::u16string fileIri(fs::path const& path) { return p::toStorageIRI(u"file", fl::filesystem::path(path)).toString(); }

std::shared_ptr<LocalProvider> local() {
  static auto provider = std::make_shared<LocalProvider>();
  return provider;
}

template <class Provider>
std::shared_ptr<Provider> fresh() {
  return std::make_shared<Provider>([](p::StorageIRI const&) { return local(); });
}

void shell(benchmark::State& state, std::string const& command) {
  if (std::system(command.c_str()) != 0) state.SkipWithError(("failed: " + command).c_str());
}

std::string const smallContent = "a small file of a few bytes\n";

/// 100 folders of 1,000 small files, as files on disk (for zip -r) and as a zip we wrote.
fs::path const& manyFiles() {
  static fs::path const root = [] {
    fs::path root = benchRoot() / "many";
    if (fs::exists(benchRoot() / "many.complete")) return root;
    for (int d = 0; d < 100; ++d) {
      fs::create_directories(root / std::to_string(d));
      for (int f = 0; f < 1000; ++f)
        std::ofstream(root / std::to_string(d) / (std::to_string(f) + ".txt")) << smallContent;
    }
    std::ofstream(benchRoot() / "many.complete") << "done";
    return root;
  }();
  return root;
}

fs::path const& bigZip() {
  static fs::path const zip = [] {
    fs::path zip = benchRoot() / "many.zip";
    if (!fs::exists(zip))
      std::system(("cd '" + manyFiles().string() + "' && zip -qr '" + zip.string() + "' .").c_str());
    return zip;
  }();
  return zip;
}

/// Tars with one small entry after a large one: 2 GiB and 20 MiB.
fs::path const& tarWith(std::uint64_t bigSize) {
  static std::map<std::uint64_t, fs::path> made;
  auto& tar = made[bigSize];
  if (!tar.empty()) return tar;
  fs::path const dir = benchRoot() / ("tar" + std::to_string(bigSize));
  tar = benchRoot() / ("t" + std::to_string(bigSize) + ".tar");
  if (!fs::exists(tar)) {
    fs::create_directories(dir);
    std::ofstream(dir / "small.txt") << smallContent;
    fs::resize_file((std::ofstream(dir / "big.bin"), dir / "big.bin"), bigSize);
    std::system(("cd '" + dir.string() + "' && tar -cf '" + tar.string() + "' big.bin small.txt").c_str());
    fs::remove_all(dir);
  }
  return tar;
}

/// A new folder for every output, unique across runs too: unzip would ask before replacing.
fs::path freshFolder(std::string const& kind) {
  static int n = 0;
  fs::path folder = benchRoot() / "out" / (kind + "-" + std::to_string(::getpid()) + "-" + std::to_string(n++));
  fs::create_directories(folder);
  return folder;
}

// --- listing ------------------------------------------------------------------------------

static void ListZip100k_UnzipL(benchmark::State& state) {
  std::string const command = "unzip -l '" + bigZip().string() + "' > /dev/null";
  for (auto _ : state) shell(state, command);
}

static void ListZip100k_ZipProvider(benchmark::State& state) {
  p::StorageIRI const root(u"zip:" + fileIri(bigZip()) + u"!/");
  for (auto _ : state) {
    auto zip = fresh<ZipProvider>(); // the index is read every time
    std::size_t entries = 0;
    for (auto cursor = zip->listAllRecursive(root, u""); cursor->hasNext(); ++entries) cursor->next();
    benchmark::DoNotOptimize(entries);
  }
}

// --- extraction ---------------------------------------------------------------------------

static void ExtractZip100k_UnzipQ(benchmark::State& state) {
  for (auto _ : state) shell(state, "unzip -q '" + bigZip().string() + "' -d '" + freshFolder("unzip").string() + "'");
}

static void ExtractZip100k_CopyFolder(benchmark::State& state) {
  for (auto _ : state) {
    // A new storage system reads the archive's index anew, as unzip does.
    auto system = std::make_shared<foundation::storage::systems::StandardStorageSystem>();
    vfs::StorageSystemReference const reference{std::weak_ptr<vfs::StorageSystem>(system)};
    vfs::Folder const zip(vfs::AbsoluteIRI(u"zip:" + fileIri(bigZip()) + u"!/"), reference);
    zip.copyFolder(vfs::Folder(vfs::AbsoluteIRI(fileIri(freshFolder("ours"))), reference),
                   p::ReplacementPolicy::Overwrite);
  }
}

// --- one entry of a tar -------------------------------------------------------------------

static void ReadTarEntry_TarXO(benchmark::State& state) {
  std::string const command =
      "tar -xOf '" + tarWith(std::uint64_t(state.range(0)) << 20).string() + "' small.txt > /dev/null";
  for (auto _ : state) shell(state, command);
}

static void ReadTarEntry_BsdtarXO(benchmark::State& state) {
  std::string const command =
      "bsdtar -xOf '" + tarWith(std::uint64_t(state.range(0)) << 20).string() + "' small.txt > /dev/null";
  for (auto _ : state) shell(state, command);
}

static void ReadTarEntry_TarProvider(benchmark::State& state) {
  p::StorageIRI const entry(u"tar:" + fileIri(tarWith(std::uint64_t(state.range(0)) << 20)) + u"!/small.txt");
  for (auto _ : state) {
    auto tar = fresh<TarProvider>(); // the index is built every time
    char bytes[64];
    benchmark::DoNotOptimize(tar->openReadOnlyStream(entry)->read(bytes, sizeof bytes));
  }
}

static void ReadTarEntry_TarProviderIndexKept(benchmark::State& state) {
  p::StorageIRI const entry(u"tar:" + fileIri(tarWith(std::uint64_t(state.range(0)) << 20)) + u"!/small.txt");
  auto tar = fresh<TarProvider>();
  for (auto _ : state) {
    char bytes[64];
    benchmark::DoNotOptimize(tar->openReadOnlyStream(entry)->read(bytes, sizeof bytes));
  }
}

// --- writing ------------------------------------------------------------------------------

static void WriteZip10k_ZipR(benchmark::State& state) {
  manyFiles();
  for (auto _ : state)
    shell(state, "cd '" + manyFiles().string() + "' && zip -qr '" + (freshFolder("zipr") / "w.zip").string() +
                     "' 0 1 2 3 4 5 6 7 8 9");
}

static void WriteZip10k_ZipProvider(benchmark::State& state) {
  for (auto _ : state) {
    auto zip = fresh<ZipProvider>();
    p::StorageIRI const root(u"zip:" + fileIri(freshFolder("ourzip") / "w.zip") + u"!/");
    zip->createFolder(root);
    for (int d = 0; d < 10; ++d) {
      p::StorageIRI const folder(root, std::u16string(1, static_cast<char16_t>(u'0' + d)));
      zip->createFolder(folder);
      for (int f = 0; f < 1000; ++f) {
        auto stream = zip->openStream(p::StorageIRI(folder, fl::i18n::to_ustring(std::to_string(f) + ".txt")),
                                      {p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::CreateIfMissing,
                                       p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition});
        stream->write(smallContent.data(), static_cast<std::streamsize>(smallContent.size()));
        stream->close();
      }
    }
    zip->flushFilesystem();
  }
}

} // namespace

BENCHMARK(ListZip100k_UnzipL)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(ListZip100k_ZipProvider)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(ExtractZip100k_UnzipQ)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(ExtractZip100k_CopyFolder)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(ReadTarEntry_TarXO)->Arg(20)->Arg(2048)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(ReadTarEntry_BsdtarXO)->Arg(20)->Arg(2048)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(ReadTarEntry_TarProvider)->Arg(20)->Arg(2048)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(ReadTarEntry_TarProviderIndexKept)
    ->Arg(20)
    ->Arg(2048)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(20);
BENCHMARK(WriteZip10k_ZipR)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(WriteZip10k_ZipProvider)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
