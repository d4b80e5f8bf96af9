#include "../support/item_io.hpp"
#include <foundation/storage/provider/change_polling_watcher.hpp>
#include <foundation/storage/providers/memory/memory_provider.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <set>
#include <thread>

namespace p = foundation::storage::provider;
namespace events = foundation::storage::events;
using foundation::storage::providers::memory::MemoryProvider;

using testsupport::readFile;
using testsupport::replaceAll;
using testsupport::writeFile;

namespace {

p::StorageItem at(std::shared_ptr<p::IProvider> const& provider, std::u16string const& path) {
  return p::StorageItem(provider, p::StorageIRI(u"mem:///" + path));
}

} // namespace

TEST(MemoryConcurrency, ThreadsWorkingOnOneTreeLoseNothing) {
  std::shared_ptr<p::IProvider> provider = std::make_shared<MemoryProvider>();
  at(provider, u"shared").createFolder();
  std::atomic<int> changes{0};
  at(provider, u"shared")
      .publishFolderEvents([&](auto const&, auto const&, auto const&, auto const&, auto) { ++changes; }, {},
                           p::RecursiveWatching::Yes);
  constexpr int threads = 4, filesEach = 50;
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      auto folder = at(provider, u"shared/t" + std::u16string(1, char16_t(u'0' + t)));
      folder.createFolder();
      for (int i = 0; i < filesEach; ++i) {
        p::StorageItem file(folder, u"f" + std::u16string(1, char16_t(u'A' + i % 26)) +
                                        std::u16string(1, char16_t(u'0' + i / 26)));
        auto stream = file.openStream(replaceAll);
        std::string payload(100 + i, static_cast<char>('a' + t));
        stream->write(payload.data(), static_cast<std::streamsize>(payload.size()));
        stream->close();
        EXPECT_EQ(readFile(file), payload);
        auto listing = at(provider, u"shared").listAllRecursive(u""); // readers alongside writers
        while (listing->hasNext()) listing->next();
        if (i % 5 == 0) file.removeFile();
      }
    });
  }
  for (auto& w : workers) w.join();
  std::size_t files = 0;
  for (auto cursor = at(provider, u"shared").listAllRecursiveNamesOnly(u""); cursor->hasNext();) {
    cursor->next();
    files += cursor->current().isFile() ? 1 : 0;
  }
  EXPECT_EQ(files, static_cast<std::size_t>(threads * (filesEach - filesEach / 5)));
  EXPECT_GT(changes.load(), threads * filesEach);
}

TEST(MemoryConcurrency, EventsOfRacingWritersFollowTheOrderOfTheirChanges) {
  std::shared_ptr<p::IProvider> provider = std::make_shared<MemoryProvider>();
  std::mutex mutex;
  std::vector<events::Kind> kinds;
  at(provider, u"")
      .publishFolderEvents(
          [&](events::Kind const& kind, auto const&, auto const&, auto const&, auto) {
            std::lock_guard lock(mutex);
            kinds.push_back(kind);
          },
          {}, p::RecursiveWatching::No);
  auto file = at(provider, u"contested");
  auto race = [&] {
    for (int i = 0; i < 5000; ++i) {
      try {
        if (i % 2 == 0) {
          file.createFile();
        } else {
          file.removeFile();
        }
      } catch (p::Exception const&) {
        // the other thread got there first
      }
    }
  };
  std::thread first(race), second(race);
  first.join();
  second.join();
  // Rebuilt from the events, the file's state must alternate and end as the tree does.
  std::lock_guard lock(mutex);
  ASSERT_FALSE(kinds.empty());
  for (std::size_t i = 0; i < kinds.size(); ++i)
    ASSERT_EQ(kinds[i], i % 2 == 0 ? events::Kind::Created : events::Kind::Removed)
        << "event " << i << " of " << kinds.size();
  EXPECT_EQ(kinds.back() == events::Kind::Created, file.exists() == p::ExistsResult::File);
}

// Whether anyone listens is decided once per change, without the subscriptions' lock: a
// subscription made or ended meanwhile races nothing, and one that stays hears what follows.
TEST(MemoryConcurrency, SubscriptionsComeAndGoWhileChangesAreMade) {
  std::shared_ptr<p::IProvider> provider = std::make_shared<MemoryProvider>();
  at(provider, u"d").createFolder();
  std::atomic<bool> writing{true};
  std::thread writer([&] {
    for (int i = 0; writing; ++i) {
      auto file = at(provider, u"d/f" + std::u16string(1, char16_t(u'a' + i % 26)));
      try {
        file.createFile();
        file.removeFile();
      } catch (p::Exception const&) {
        ADD_FAILURE() << "only this thread changes the tree";
      }
    }
  });
  std::atomic<int> heard{0};
  auto const count = [&](auto const&, auto const&, auto const&, auto const&, auto) { ++heard; };
  for (int round = 0; round < 2000; ++round) {
    at(provider, u"d").publishFolderEvents(count, {}, p::RecursiveWatching::No);
    at(provider, u"d/f").getParent().stopPublishingFolderEvents();
  }
  at(provider, u"d").publishFolderEvents(count, {}, p::RecursiveWatching::No);
  int const before = heard;
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (heard < before + 2 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  writing = false;
  writer.join();
  EXPECT_GE(heard, before + 2);
}

TEST(MemoryConcurrency, ACallbackMayWaitForAnotherThreadChangingTheTree) {
  std::shared_ptr<p::IProvider> provider = std::make_shared<MemoryProvider>();
  std::mutex mutex;
  std::vector<std::u16string> reported;
  std::future<void> other; // outlives the callback: its end must not wait for the other thread
  auto waited = std::future_status::deferred;
  at(provider, u"")
      .publishFolderEvents(
          [&](auto const&, auto const&, p::StorageIRI const& item, auto const&, auto) {
            {
              std::lock_guard lock(mutex);
              reported.push_back(item.getName());
            }
            if (item.getName() != u"first") return;
            // As a callback handing work to a pool and waiting for it would.
            other = std::async(std::launch::async, [&] { at(provider, u"second").createFile(); });
            waited = other.wait_for(std::chrono::seconds(20));
          },
          {}, p::RecursiveWatching::No);
  at(provider, u"first").createFile();
  EXPECT_EQ(waited, std::future_status::ready) << "the other thread's change waited for the callback waiting for it";
  other.get();
  std::lock_guard lock(mutex);
  EXPECT_EQ(reported, (std::vector<std::u16string>{u"first", u"second"}))
      << "the change made meanwhile is reported after the one under way, before the call that reports returns";
}

TEST(MemoryConcurrency, AWriterGetsInBetweenListingsThatNeverPause) {
  std::shared_ptr<p::IProvider> provider = std::make_shared<MemoryProvider>();
  for (int f = 0; f < 500; ++f)
    at(provider, u"tree/f" + std::u16string(1, char16_t(u'A' + f % 26)) + std::u16string(1, char16_t(u'a' + f / 26)))
        .createFolderRecursive();
  std::atomic<bool> done{false};
  std::atomic<int> listings{0};
  std::vector<std::thread> listers;
  for (int t = 0; t < 4; ++t)
    listers.emplace_back([&] {
      while (!done) {
        for (auto cursor = at(provider, u"tree").listAllRecursive(u""); cursor->hasNext();) cursor->next();
        ++listings;
      }
    });
  while (listings < 4) std::this_thread::yield();
  // Four listers overlap without pause, so a lock that lets new readers past a waiting
  // writer never lets it in. Counting listings per write is no measure on a loaded machine;
  // whether the writes end at all is, with a bound that only starvation reaches.
  auto writes = std::async(std::launch::async, [&] {
    auto file = at(provider, u"tree/written");
    file.createFile();
    for (int i = 1; i <= 20; ++i) file.truncateToSize(static_cast<std::uint64_t>(i));
  });
  bool const finished = writes.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
  done = true;
  for (auto& t : listers) t.join();
  EXPECT_TRUE(finished) << "20 writes did not get in between listings within a minute";
}

TEST(MemoryConcurrency, ReadersDuringCommitsSeeOldOrNewContentsNeverAMix) {
  std::shared_ptr<p::IProvider> provider = std::make_shared<MemoryProvider>();
  auto file = at(provider, u"data.bin");
  std::string const a(64 * 1024, 'A'), b(32 * 1024, 'B');
  {
    auto stream = file.openStream(replaceAll);
    stream->write(a.data(), static_cast<std::streamsize>(a.size()));
  }
  std::atomic<bool> done{false};
  std::atomic<int> mixed{0}, reads{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      while (!done) {
        std::string seen = readFile(file);
        ++reads;
        if (seen != a && seen != b) ++mixed;
      }
    });
  }
  for (int i = 0; i < 200; ++i) {
    auto transaction = file.openTransactionalStream(replaceAll);
    std::string const& next = i % 2 ? a : b;
    for (std::size_t at = 0; at < next.size(); at += 4096) transaction->write(next.data() + at, 4096);
    transaction->close(p::StreamClosePolicy::Commit);
  }
  done = true;
  for (auto& r : readers) r.join();
  EXPECT_EQ(mixed.load(), 0) << "of " << reads.load() << " reads";
}

TEST(MemoryConcurrency, PollingCanStopFromItsOwnCallbackAndWhileChangesHappen) {
  auto provider = std::make_shared<MemoryProvider>();
  std::shared_ptr<p::IProvider> shared = provider;
  at(shared, u"polled").createFolder();
  std::atomic<int> seen{0};
  at(shared, u"polled")
      .startChangePollingMechanism(
          [&](auto const&, auto const&, auto const&, auto const&, auto) {
            if (++seen == 3) at(shared, u"polled").stopChangePollingMechanism();
          },
          {events::Kind::Created}, std::chrono::milliseconds(1), p::RecursivePolling::Yes);
  std::thread writer([&] {
    for (int i = 0; i < 200; ++i)
      at(shared, u"polled/f" + std::u16string(1, char16_t(u'A' + i % 26)) + std::u16string(1, char16_t(u'a' + i / 26)))
          .createFile();
  });
  writer.join();
  for (int i = 0; i < 500 && seen < 3; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_GE(seen.load(), 3);
  int const atStop = seen.load();
  at(shared, u"polled/late").createFile();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(seen.load(), atStop);

  // Starting and stopping from many threads at once.
  std::vector<std::thread> starters;
  for (int t = 0; t < 4; ++t) {
    starters.emplace_back([&] {
      for (int i = 0; i < 20; ++i) {
        at(shared, u"polled")
            .startChangePollingMechanism([](auto const&, auto const&, auto const&, auto const&, auto) {}, {},
                                         std::chrono::milliseconds(1), p::RecursivePolling::No);
        at(shared, u"polled").stopChangePollingMechanism();
      }
    });
  }
  for (auto& s : starters) s.join();
}
