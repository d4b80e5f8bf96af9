// Entries are handed between threads (the parallel walk does): concurrent readers of one
// entry must see one handle and cause one provider query.

#include <foundation/storage/providers/memory/memory_provider.hpp>
#include <foundation/storage/providers/wrappers/call_counting_provider.hpp>
#include <foundation/storage/systems/standard_storage_system.hpp>

#include <vfs/vfs.hpp>

#include <gtest/gtest.h>

#include <latch>
#include <thread>
#include <vector>

namespace {

namespace vfs = foundation::storage::vfs;
namespace p = foundation::storage::provider;
using foundation::storage::providers::memory::MemoryProvider;
using foundation::storage::providers::wrappers::CallCountingProvider;

TEST(EntriesConcurrency, ConcurrentReadersBuildEachHandleAndFetchEachAttributeOnce) {
  auto system = std::make_shared<foundation::storage::systems::StandardStorageSystem>();
  auto counts = std::make_shared<CallCountingProvider>(std::make_shared<MemoryProvider>());
  system->registerProvider(u"mem", [counts](p::StorageIRI const&) { return counts; });
  vfs::StorageSystemReference reference{std::weak_ptr<vfs::StorageSystem>(system)};
  vfs::Folder root(vfs::AbsoluteIRI(u"mem:///"), reference);

  constexpr int entriesCount = 64, threads = 6;
  std::vector<vfs::FileEntry> files;
  std::vector<vfs::FolderEntry> folders;
  for (int i = 0; i < entriesCount; ++i) {
    auto name = u"item" + fl::i18n::to_ustring(std::to_string(i));
    vfs::File(root, name).createFile();
    vfs::Folder(root, name + u"d").createFolder();
    files.emplace_back(root, name);
    folders.emplace_back(root, name + u"d");
  }
  counts->reset();

  std::vector<std::vector<void const*>> seen(threads);
  std::latch start(threads);
  std::vector<std::thread> readers;
  for (int t = 0; t < threads; ++t) {
    readers.emplace_back([&, t] {
      start.arrive_and_wait();
      for (int i = 0; i < entriesCount; ++i) {
        auto copy = files[(i + t) % entriesCount]; // copies share what any copy computed
        copy.getAttributes();
        folders[i].getAttributes();
      }
      for (int i = 0; i < entriesCount; ++i) {
        seen[t].push_back(&files[i].getFile());
        seen[t].push_back(&folders[i].getFolder());
      }
    });
  }
  for (auto& reader : readers) reader.join();

  for (int t = 1; t < threads; ++t) EXPECT_EQ(seen[t], seen[0]);
  EXPECT_EQ(counts->count(p::Operation::GetFileAttributes), std::size_t(entriesCount));
  EXPECT_EQ(counts->count(p::Operation::GetFolderAttributes), std::size_t(entriesCount));
}

} // namespace
