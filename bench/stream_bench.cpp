// The library's byte streams against what a user would otherwise write, side by side in one
// run, each reading or writing the whole of one 1 GiB file per iteration (warm cache):
// - bulk reads in 128 KiB requests: read(), std::ifstream, fread; vfs::ifstream,
//   BufferedIODevice, the stdio adapter;
// - line reads of a 1 GiB text: read() + memchr, std::ifstream + std::getline,
//   vfs::ifstream + std::getline;
// - bulk writes in 128 KiB requests over the existing file (in place, so that no run frees
//   and reallocates 1 GiB of disk): write(), std::ofstream, fwrite; vfs::ofstream,
//   BufferedIODevice, the stdio adapter;
// - the same library rows on the memory provider, against its bare provider stream, to
//   show the library's own cost without a kernel.
// Run with --benchmark_repetitions=N --benchmark_enable_random_interleaving=true and compare
// medians. $VFS_STREAM_BENCH_MIB sets the file size (default 1024); files live under
// $VFS_BENCH_DIR (default /tmp/vfs-bench) and are removed at the end.

#include <foundation/storage/systems/standard_storage_system.hpp>

#include <vfs/vfs.hpp>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace vfs = foundation::storage::vfs;
namespace p = foundation::storage::provider;
namespace fs = std::filesystem;

namespace {

constexpr std::size_t Chunk = 128 * 1024;

std::size_t fileSize() {
  char const* mib = std::getenv("VFS_STREAM_BENCH_MIB");
  return static_cast<std::size_t>(mib ? std::atol(mib) : 1024) << 20;
}

/// Lines of 0 to 120 characters and their newlines, `size` bytes in all.
std::string textChunk() {
  std::string text;
  for (int i = 0; text.size() < Chunk; ++i) text += "line " + std::to_string(i) + std::string(i % 116, 'x') + "\n";
  text.resize(Chunk);
  text.back() = '\n';
  return text;
}

/// The files every row reads or writes, made once, on both providers.
struct Files {
  std::shared_ptr<foundation::storage::systems::StandardStorageSystem> system =
      std::make_shared<foundation::storage::systems::StandardStorageSystem>();
  fs::path folder;
  vfs::File localBinary, localText, memoryBinary, memoryText;

  Files()
      : folder(fs::path(std::getenv("VFS_BENCH_DIR") ? std::getenv("VFS_BENCH_DIR") : "/tmp/vfs-bench") /
               ("streams-" + std::to_string(::getpid()))),
        localBinary(make(folder / "binary")), localText(make(folder / "text")),
        memoryBinary(vfs::AbsoluteIRI(u"mem:///binary"), reference()),
        memoryText(vfs::AbsoluteIRI(u"mem:///text"), reference()) {
    fs::create_directories(folder);
    std::string const binary(Chunk, '\x5a'), text = textChunk();
    for (auto [file, chunk] :
         {std::pair{&localBinary, &binary}, {&localText, &text}, {&memoryBinary, &binary}, {&memoryText, &text}}) {
      vfs::ofstream out(*file);
      for (std::size_t done = 0; done < fileSize(); done += Chunk) out.write(chunk->data(), Chunk);
    }
  }
  ~Files() { fs::remove_all(folder); }

  vfs::StorageSystemReference reference() const {
    return vfs::StorageSystemReference(std::weak_ptr<vfs::StorageSystem>(system));
  }
  vfs::File make(fs::path const& path) const { return vfs::File(vfs::toAbsoluteIRI(u"file", path), reference()); }
  static std::string path(vfs::File const& file) { return vfs::fromAbsoluteIRI(file.getLocation()).string(); }
};

Files& files() {
  static Files instance;
  return instance;
}

void bytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * fileSize()));
}

p::ByteStreamOpenOptions const inPlace{p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::MustExist,
                                       p::ByteStreamTruncate::Keep, p::ByteStreamAppend::AtPosition};

// ---- bulk reads

void ReadSyscall(benchmark::State& state) {
  std::vector<char> buffer(Chunk);
  std::string const path = Files::path(files().localBinary);
  for (auto _ : state) {
    int fd = ::open(path.c_str(), O_RDONLY);
    while (::read(fd, buffer.data(), Chunk) > 0) benchmark::DoNotOptimize(buffer.data());
    ::close(fd);
  }
  bytes(state);
}

void ReadStdIfstream(benchmark::State& state) {
  std::vector<char> buffer(Chunk);
  std::string const path = Files::path(files().localBinary);
  for (auto _ : state) {
    std::ifstream in(path, std::ios::binary);
    while (in.read(buffer.data(), Chunk)) benchmark::DoNotOptimize(buffer.data());
  }
  bytes(state);
}

void ReadCFread(benchmark::State& state) {
  std::vector<char> buffer(Chunk);
  std::string const path = Files::path(files().localBinary);
  for (auto _ : state) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    while (std::fread(buffer.data(), 1, Chunk, f) > 0) benchmark::DoNotOptimize(buffer.data());
    std::fclose(f);
  }
  bytes(state);
}

void ReadProviderStream(benchmark::State& state, vfs::File const& file) {
  std::vector<char> buffer(Chunk);
  for (auto _ : state) {
    auto device = file.openReadOnly();
    while (device.read(buffer.data(), Chunk) > 0) benchmark::DoNotOptimize(buffer.data());
  }
  bytes(state);
}

void ReadVfsIfstream(benchmark::State& state, vfs::File const& file) {
  std::vector<char> buffer(Chunk);
  for (auto _ : state) {
    vfs::ifstream in(file);
    while (in.read(buffer.data(), Chunk)) benchmark::DoNotOptimize(buffer.data());
  }
  bytes(state);
}

void ReadBufferedDevice(benchmark::State& state, vfs::File const& file) {
  std::vector<char> buffer(Chunk);
  for (auto _ : state) {
    vfs::BufferedIODevice device(file);
    while (device.read(buffer.data(), Chunk) > 0) benchmark::DoNotOptimize(buffer.data());
  }
  bytes(state);
}

void ReadPosixAdapter(benchmark::State& state, vfs::File const& file) {
  std::vector<char> buffer(Chunk);
  for (auto _ : state) {
    auto f = vfs::openPosixFile(file, "rb");
    while (f->fread(buffer.data(), 1, Chunk) > 0) benchmark::DoNotOptimize(buffer.data());
  }
  bytes(state);
}

// ---- line reads

void LinesSyscallMemchr(benchmark::State& state) {
  std::vector<char> buffer(Chunk);
  std::string const path = Files::path(files().localText);
  for (auto _ : state) {
    int fd = ::open(path.c_str(), O_RDONLY);
    std::size_t lines = 0;
    for (ssize_t got; (got = ::read(fd, buffer.data(), Chunk)) > 0;) {
      char const* at = buffer.data();
      char const* end = at + got;
      while ((at = static_cast<char const*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at))))) {
        ++lines;
        ++at;
      }
    }
    ::close(fd);
    benchmark::DoNotOptimize(lines);
  }
  bytes(state);
}

template <class Stream>
void countLines(Stream& in) {
  std::string line;
  std::size_t lines = 0;
  while (std::getline(in, line)) ++lines;
  benchmark::DoNotOptimize(lines);
}

void LinesStdIfstream(benchmark::State& state) {
  std::string const path = Files::path(files().localText);
  for (auto _ : state) {
    std::ifstream in(path);
    countLines(in);
  }
  bytes(state);
}

void LinesVfsIfstream(benchmark::State& state, vfs::File const& file) {
  for (auto _ : state) {
    vfs::ifstream in(file);
    countLines(in);
  }
  bytes(state);
}

// ---- bulk writes, in place

void WriteSyscall(benchmark::State& state) {
  std::vector<char> buffer(Chunk, 'w');
  std::string const path = Files::path(files().localBinary);
  for (auto _ : state) {
    int fd = ::open(path.c_str(), O_WRONLY);
    for (std::size_t done = 0; done < fileSize(); done += Chunk)
      benchmark::DoNotOptimize(::write(fd, buffer.data(), Chunk));
    ::close(fd);
  }
  bytes(state);
}

void WriteStdOfstream(benchmark::State& state) {
  std::vector<char> buffer(Chunk, 'w');
  std::string const path = Files::path(files().localBinary);
  for (auto _ : state) {
    std::ofstream out(path, std::ios::in | std::ios::binary);
    for (std::size_t done = 0; done < fileSize(); done += Chunk) out.write(buffer.data(), Chunk);
  }
  bytes(state);
}

void WriteCFwrite(benchmark::State& state) {
  std::vector<char> buffer(Chunk, 'w');
  std::string const path = Files::path(files().localBinary);
  for (auto _ : state) {
    std::FILE* f = std::fopen(path.c_str(), "r+b");
    for (std::size_t done = 0; done < fileSize(); done += Chunk) std::fwrite(buffer.data(), 1, Chunk, f);
    std::fclose(f);
  }
  bytes(state);
}

void WriteProviderStream(benchmark::State& state, vfs::File const& file) {
  std::vector<char> buffer(Chunk, 'w');
  for (auto _ : state) {
    auto device = file.open(inPlace);
    for (std::size_t done = 0; done < fileSize(); done += Chunk) device.write(buffer.data(), Chunk);
    device.close();
  }
  bytes(state);
}

void WriteVfsOfstream(benchmark::State& state, vfs::File const& file) {
  std::vector<char> buffer(Chunk, 'w');
  for (auto _ : state) {
    vfs::ofstream out(file, std::ios::in); // in+out: in place, no truncation
    for (std::size_t done = 0; done < fileSize(); done += Chunk) out.write(buffer.data(), Chunk);
    out.close();
  }
  bytes(state);
}

void WriteBufferedDevice(benchmark::State& state, vfs::File const& file) {
  std::vector<char> buffer(Chunk, 'w');
  for (auto _ : state) {
    vfs::BufferedIODevice device(file, inPlace);
    for (std::size_t done = 0; done < fileSize(); done += Chunk) device.write(buffer.data(), Chunk);
    device.close();
  }
  bytes(state);
}

void WritePosixAdapter(benchmark::State& state, vfs::File const& file) {
  std::vector<char> buffer(Chunk, 'w');
  for (auto _ : state) {
    auto f = vfs::openPosixFile(file, "r+b");
    for (std::size_t done = 0; done < fileSize(); done += Chunk) f->fwrite(buffer.data(), 1, Chunk);
    f->fclose();
  }
  bytes(state);
}

void configure(benchmark::internal::Benchmark* b) { b->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2); }

template <class Row>
void onBoth(char const* name, Row row, vfs::File Files::*local, vfs::File Files::*memory) {
  configure(benchmark::RegisterBenchmark((std::string("local/") + name).c_str(),
                                         [=](benchmark::State& s) { row(s, files().*local); }));
  configure(benchmark::RegisterBenchmark((std::string("memory/") + name).c_str(),
                                         [=](benchmark::State& s) { row(s, files().*memory); }));
}

int const registered = [] {
  configure(benchmark::RegisterBenchmark("local/read/syscall", ReadSyscall));
  configure(benchmark::RegisterBenchmark("local/read/std_ifstream", ReadStdIfstream));
  configure(benchmark::RegisterBenchmark("local/read/c_fread", ReadCFread));
  onBoth("read/provider_stream", ReadProviderStream, &Files::localBinary, &Files::memoryBinary);
  onBoth("read/vfs_ifstream", ReadVfsIfstream, &Files::localBinary, &Files::memoryBinary);
  onBoth("read/buffered_device", ReadBufferedDevice, &Files::localBinary, &Files::memoryBinary);
  onBoth("read/posix_adapter", ReadPosixAdapter, &Files::localBinary, &Files::memoryBinary);

  configure(benchmark::RegisterBenchmark("local/lines/syscall_memchr", LinesSyscallMemchr));
  configure(benchmark::RegisterBenchmark("local/lines/std_ifstream_getline", LinesStdIfstream));
  onBoth("lines/vfs_ifstream_getline", LinesVfsIfstream, &Files::localText, &Files::memoryText);

  configure(benchmark::RegisterBenchmark("local/write/syscall", WriteSyscall));
  configure(benchmark::RegisterBenchmark("local/write/std_ofstream", WriteStdOfstream));
  configure(benchmark::RegisterBenchmark("local/write/c_fwrite", WriteCFwrite));
  onBoth("write/provider_stream", WriteProviderStream, &Files::localBinary, &Files::memoryBinary);
  onBoth("write/vfs_ofstream", WriteVfsOfstream, &Files::localBinary, &Files::memoryBinary);
  onBoth("write/buffered_device", WriteBufferedDevice, &Files::localBinary, &Files::memoryBinary);
  onBoth("write/posix_adapter", WritePosixAdapter, &Files::localBinary, &Files::memoryBinary);
  return 0;
}();

} // namespace
