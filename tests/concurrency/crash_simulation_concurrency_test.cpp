// The crash simulation's bookkeeping under threads that batch, commit, write in place and
// flush at once: each thread's batch covers its own files, and a crash afterwards keeps
// exactly what was made durable.

#include <foundation/storage/providers/memory/memory_provider.hpp>
#include <foundation/storage/providers/wrappers/fault_injecting_provider.hpp>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace p = foundation::storage::provider;
using foundation::storage::providers::memory::MemoryProvider;
using foundation::storage::providers::wrappers::FaultInjectingProvider;

namespace {

p::ByteStreamOpenOptions const replaceAll{p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::CreateIfMissing,
                                          p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition};

void commit(p::IProvider& provider, p::StorageIRI const& file, std::string const& bytes) {
  auto stream = provider.openTransactionalStream(file, replaceAll);
  stream->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  stream->close(p::StreamClosePolicy::Commit);
}

} // namespace

TEST(CrashSimulationConcurrency, BatchesOfManyThreadsEachCoverTheirOwnFiles) {
  auto memory = std::make_shared<MemoryProvider>();
  auto storage = std::make_shared<FaultInjectingProvider>(memory);
  storage->trackDurability();
  p::StorageIRI const root(u"mem:///");
  auto file = [&](int thread, int i) {
    return p::StorageIRI(root, u"t" + std::u16string(1, u'0' + thread) + u"-" + std::u16string(1, u'a' + i));
  };

  constexpr int threads = 4, files = 20;
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back([&, t] {
      storage->beginDurabilityBatch();
      for (int i = 0; i < files; ++i) commit(*storage, file(t, i), "data");
      if (t % 2 == 0) {
        storage->endDurabilityBatch(root);
      } else {
        storage->abandonDurabilityBatch();
      }
      auto plain = storage->openStream(p::StorageIRI(root, u"plain" + std::u16string(1, u'0' + t)), replaceAll);
      plain->write("x", 1);
      plain->close();
    });
  for (auto& worker : workers) worker.join();

  storage->simulateCrash();
  for (int t = 0; t < threads; ++t) {
    for (int i = 0; i < files; ++i)
      EXPECT_EQ(memory->fileExists(file(t, i)), t % 2 == 0) << "thread " << t << ", file " << i;
    EXPECT_FALSE(memory->fileExists(p::StorageIRI(root, u"plain" + std::u16string(1, u'0' + t))));
  }
}
