// The s3 provider against s3cmd on the same gateway, side by side in one run: a large
// object up and down (copyFile and streams, from and to the local file system), and a
// recursive listing of 10,000 keys. Needs the AWS_* variables of
// `eval "$(scripts/ceph-s3.sh start)"`; VFS_S3_BENCH_MIB sets the object size (1024).

#include <foundation/storage/provider/storage_item.hpp>
#include <foundation/storage/providers/local/local_provider.hpp>
#include <foundation/storage/providers/s3/s3_provider.hpp>

#include <fl/i18n/i18n.hpp>

#include <boost/iostreams/stream.hpp>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>

namespace p = foundation::storage::provider;
namespace s3 = foundation::storage::providers::s3;

namespace {

p::ByteStreamOpenOptions const replaceAll{p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::CreateIfMissing,
                                          p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition};
constexpr int listedKeys = 10000;

/// Everything the contenders share, made once.
struct Setup {
  std::filesystem::path scratch = std::filesystem::temp_directory_path() / "vfs-s3-bench";
  std::filesystem::path source = scratch / "source.bin";
  std::filesystem::path target = scratch / "target.bin";
  std::filesystem::path s3cmdConfig = scratch / "s3cmd.cfg";
  std::uint64_t bytes = 0;
  std::shared_ptr<s3::S3Provider> bucket;
  std::shared_ptr<p::IProvider> local = std::make_shared<foundation::storage::providers::local::LocalProvider>();
  std::string s3cmd;

  p::StorageItem object(std::u16string const& key) const {
    return p::StorageItem(bucket, p::StorageIRI(u"s3://vfs-bench/" + key));
  }
  p::StorageItem file(std::filesystem::path const& path) const {
    return p::StorageItem(local, p::toStorageIRI(u"file", path));
  }

  Setup() {
    auto settings = s3::S3Settings::fromEnvironment();
    if (settings.endpoint.empty()) {
      std::cerr << "no S3 endpoint: eval \"$(scripts/ceph-s3.sh start)\" first\n";
      std::exit(1);
    }
    char const* mib = std::getenv("VFS_S3_BENCH_MIB");
    bytes = static_cast<std::uint64_t>(mib ? std::atoll(mib) : 1024) << 20;
    std::filesystem::create_directories(scratch);
    {
      std::ofstream out(source, std::ios::binary);
      std::string block(1 << 20, '\0');
      for (std::uint64_t done = 0; done < bytes; done += block.size()) {
        for (std::size_t i = 0; i < block.size(); i += 512) block[i] = static_cast<char>(done / block.size() + i);
        out.write(block.data(), static_cast<std::streamsize>(block.size()));
      }
    }
    std::string const host = settings.endpoint.substr(settings.endpoint.find("://") + 3);
    std::ofstream(s3cmdConfig) << "[default]\naccess_key = " << settings.accessKeyId
                               << "\nsecret_key = " << settings.secretAccessKey << "\nhost_base = " << host
                               << "\nhost_bucket = " << host
                               << "\nuse_https = False\nsignature_v2 = False\nbucket_location = " << settings.region
                               << "\n";
    s3cmd = "s3cmd --no-progress -q -c " + s3cmdConfig.string() + " ";
    bucket = std::make_shared<s3::S3Provider>(u"vfs-bench", settings);
    bucket->createBucket();
    file(source).copyFile(object(u"download.bin"), {p::ReplacementPolicy::Overwrite, {}});
    if (!object(u"listing").folderExists()) writeListingKeys();
  }

  void writeListingKeys() {
    for (int d = 0; d < 100; ++d) object(u"listing/" + fl::i18n::to_ustring(std::to_string(d))).createFolderRecursive();
    std::vector<std::thread> writers;
    for (int w = 0; w < 16; ++w)
      writers.emplace_back([this, w] {
        for (int i = w; i < listedKeys - 100; i += 16)
          object(fl::i18n::to_ustring("listing/" + std::to_string(i % 100) + "/" + std::to_string(i)))
              .openStream(replaceAll)
              ->close();
      });
    for (auto& writer : writers) writer.join();
  }

  void run(std::string const& arguments) const {
    if (std::system((s3cmd + arguments).c_str()) != 0) throw std::runtime_error("s3cmd failed: " + arguments);
  }
};

Setup& setup() {
  static Setup instance;
  return instance;
}

/// The shared data is made before any measurement starts.
int const madeBeforeMeasuring = (setup(), 0);

/// Makes the shared data before the first measurement, and removes the last upload so
/// that every upload writes a new object (and the store holds one at a time).
void prepare(benchmark::State& state) {
  state.PauseTiming();
  if (setup().object(u"upload.bin").fileExists()) setup().object(u"upload.bin").removeFile();
  state.ResumeTiming();
}

void reportBytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * setup().bytes));
}

void Upload_CopyFile(benchmark::State& state) {
  for (auto _ : state) {
    prepare(state);
    setup().file(setup().source).copyFile(setup().object(u"upload.bin"), {p::ReplacementPolicy::Overwrite, {}});
  }
  reportBytes(state);
}

void Upload_Stream(benchmark::State& state) {
  for (auto _ : state) {
    prepare(state);
    std::ifstream in(setup().source, std::ios::binary);
    boost::iostreams::stream<p::TransactionalStreamDevice> out(
        p::TransactionalStreamDevice(setup().object(u"upload.bin").openTransactionalStream(replaceAll)));
    out << in.rdbuf();
    out.close();
  }
  reportBytes(state);
}

void Upload_S3cmd(benchmark::State& state) {
  for (auto _ : state) {
    prepare(state);
    setup().run("put " + setup().source.string() + " s3://vfs-bench/upload.bin");
  }
  reportBytes(state);
}

void Download_CopyFile(benchmark::State& state) {
  for (auto _ : state)
    setup().object(u"download.bin").copyFile(setup().file(setup().target), {p::ReplacementPolicy::Overwrite, {}});
  reportBytes(state);
}

void Download_Stream(benchmark::State& state) {
  for (auto _ : state) {
    boost::iostreams::stream<p::ByteStreamDevice> in(
        p::ByteStreamDevice(setup().object(u"download.bin").openReadOnlyStream()));
    std::ofstream out(setup().target, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
  }
  reportBytes(state);
}

void Download_S3cmd(benchmark::State& state) {
  for (auto _ : state) setup().run("get --force s3://vfs-bench/download.bin " + setup().target.string());
  reportBytes(state);
}

void ListRecursive_S3Provider(benchmark::State& state) {
  std::size_t entries = 0;
  for (auto _ : state) {
    entries = 0;
    for (auto cursor = setup().object(u"listing").listAllRecursive(u""); cursor->hasNext(); ++entries) cursor->next();
  }
  state.counters["entries"] = static_cast<double>(entries);
}

void ListRecursive_S3cmd(benchmark::State& state) {
  for (auto _ : state) setup().run("ls -r s3://vfs-bench/listing/ > /dev/null");
}

void ListRecursiveRequests_S3ProviderNamesOnly(benchmark::State& state) {
  std::uint64_t requests = 0;
  for (auto _ : state) {
    auto const before = setup().bucket->requestCount();
    setup().object(u"listing").listAllRecursiveNamesOnly(u"");
    requests = setup().bucket->requestCount() - before;
  }
  state.counters["requests"] = static_cast<double>(requests);
}

} // namespace

#define S3_BENCH(name) BENCHMARK(name)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1)
S3_BENCH(Upload_CopyFile);
S3_BENCH(Upload_Stream);
S3_BENCH(Upload_S3cmd);
S3_BENCH(Download_CopyFile);
S3_BENCH(Download_Stream);
S3_BENCH(Download_S3cmd);
S3_BENCH(ListRecursive_S3Provider);
S3_BENCH(ListRecursive_S3cmd);
S3_BENCH(ListRecursiveRequests_S3ProviderNamesOnly);
