#include "../support/archive_tools.hpp"
#include "../support/item_io.hpp"
#include "../support/temporary_folder.hpp"

#include <foundation/storage/providers/archive/archive_provider.hpp>
#include <foundation/storage/providers/memory/memory_provider.hpp>

#include <gtest/gtest.h>

#include <fl/i18n/i18n.hpp>

#include <atomic>
#include <mutex>
#include <thread>

namespace p = foundation::storage::provider;
using foundation::storage::providers::archive::TarProvider;
using foundation::storage::providers::archive::ZipProvider;
using foundation::storage::providers::memory::MemoryProvider;
using testsupport::readFile;
using testsupport::replaceAll;
using testsupport::writeFile;

namespace {

std::u16string name(int writer, int file) {
  return fl::i18n::to_ustring("w" + std::to_string(writer) + "/" + std::to_string(file) + ".txt");
}

std::string content(int writer, int file) { return std::to_string(writer) + ":" + std::to_string(file); }

} // namespace

// Writers (through in-place and transactional streams), a reader and commits in between:
// nothing written is lost, and what was committed last holds it all.
TEST(ArchiveConcurrency, WritersReadersAndCommitsInterleaveWithoutLosingWrites) {
  auto memory = std::make_shared<MemoryProvider>();
  auto zip = std::make_shared<ZipProvider>([memory](p::StorageIRI const&) { return memory; });
  p::StorageItem const root(zip, p::StorageIRI(u"zip:mem:///c.zip!/"));
  root.createFolder();
  constexpr int writers = 2, files = 40;
  for (int w = 0; w < writers; ++w) p::StorageItem(root, name(w, 0)).getParent().createFolder();

  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  for (int w = 0; w < writers; ++w)
    threads.emplace_back([&, w] {
      for (int f = 0; f < files; ++f) {
        p::StorageItem const file(root, name(w, f));
        if (f % 2) {
          writeFile(file, content(w, f));
        } else {
          auto stream = file.openTransactionalStream(replaceAll);
          stream->write(content(w, f).data(), static_cast<std::streamsize>(content(w, f).size()));
          stream->close();
        }
      }
      ++done;
    });
  threads.emplace_back([&] {
    while (done < writers) {
      for (auto cursor = root.listAllRecursive(u""); cursor->hasNext();) cursor->next();
      zip->flushFilesystem();
    }
  });
  for (auto& thread : threads) thread.join();
  zip->flushFilesystem();

  auto fresh = std::make_shared<ZipProvider>([memory](p::StorageIRI const&) { return memory; });
  for (int w = 0; w < writers; ++w)
    for (int f = 0; f < files; ++f)
      EXPECT_EQ(readFile(p::StorageItem(fresh, p::StorageIRI(root.getLocation(), name(w, f)))), content(w, f));
}

// Readers of one compressed tar at once, front to back and back to front: each gets every
// entry whole, whichever of them finds the decompressor another one left behind.
TEST(ArchiveConcurrency, ReadersOfACompressedTarShareItsDecompressorsSafely) {
  testsupport::TemporaryFolder folder("vfs-tar-readers");
  constexpr int files = 30;
  for (int f = 0; f < files; ++f)
    testsupport::writeLocal(folder.path() / "src" / (std::to_string(f) + ".txt"), std::string(3000 + f, 'a' + f % 26));
  testsupport::run("cd " + testsupport::quoted(folder.path() / "src") + " && tar -czf ../t.tgz *.txt");
  auto memory = std::make_shared<MemoryProvider>();
  writeFile(p::StorageItem(memory, p::StorageIRI(u"mem:///t.tgz")), testsupport::readLocal(folder.path() / "t.tgz"));
  auto tar = std::make_shared<TarProvider>([memory](p::StorageIRI const&) { return memory; });

  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int reader = 0; reader < 4; ++reader)
    threads.emplace_back([&, reader] {
      for (int step = 0; step < files; ++step) {
        int const f = reader % 2 ? files - 1 - step : step;
        auto const location = p::StorageIRI(u"tar:mem:///t.tgz!/" + fl::i18n::to_ustring(std::to_string(f) + ".txt"));
        if (readFile(p::StorageItem(tar, location)) != std::string(3000 + f, 'a' + f % 26)) ++wrong;
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

// Changes are reported once the archive's lock is released; two writers racing on one entry
// must still be heard in the order their changes were made.
TEST(ArchiveConcurrency, EventsOfRacingWritersFollowTheOrderOfTheirChanges) {
  auto memory = std::make_shared<MemoryProvider>();
  auto zip = std::make_shared<ZipProvider>([memory](p::StorageIRI const&) { return memory; });
  p::StorageItem const root(zip, p::StorageIRI(u"zip:mem:///events.zip!/"));
  root.createFolder();
  std::mutex mutex;
  std::vector<foundation::storage::events::Kind> kinds;
  root.publishFolderEvents(
      [&](auto const& kind, auto const&, auto const&, auto const&, auto) {
        std::lock_guard lock(mutex);
        kinds.push_back(kind);
      },
      {}, p::RecursiveWatching::No);
  p::StorageItem const file(root, u"contested");
  auto race = [&] {
    for (int i = 0; i < 2000; ++i) {
      try {
        if (i % 2 == 0)
          file.createFile();
        else
          file.removeFile();
      } catch (p::Exception const&) {
        // the other thread got there first
      }
    }
  };
  std::thread first(race), second(race);
  first.join();
  second.join();
  std::lock_guard lock(mutex);
  ASSERT_FALSE(kinds.empty());
  for (std::size_t i = 0; i < kinds.size(); ++i)
    ASSERT_EQ(kinds[i],
              i % 2 == 0 ? foundation::storage::events::Kind::Created : foundation::storage::events::Kind::Removed)
        << "event " << i << " of " << kinds.size();
  EXPECT_EQ(kinds.back() == foundation::storage::events::Kind::Created, file.exists() == p::ExistsResult::File);
}
