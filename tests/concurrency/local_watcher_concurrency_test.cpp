#include "../support/temporary_folder.hpp"

#include <foundation/storage/providers/local/local_provider.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

namespace p = foundation::storage::provider;
namespace events = foundation::storage::events;
namespace fs = std::filesystem;
using foundation::storage::providers::local::LocalProvider;

namespace {

class LocalWatcherConcurrency : public ::testing::Test {
protected:
  p::StorageItem item(std::string const& relative) const {
    return p::StorageItem(provider_, p::toStorageIRI(u"file", fl::filesystem::path(root_ / relative)));
  }

  testsupport::TemporaryFolder folder_{"vfs-watch"};
  fs::path root_ = folder_.path();
  std::shared_ptr<p::IProvider> provider_ = std::make_shared<LocalProvider>();
};

} // namespace

TEST_F(LocalWatcherConcurrency, LosesNoCreationWhileWritersAndSubscribersRace) {
  std::mutex mutex;
  std::set<std::u16string> created;
  item("").publishFolderEvents(
      [&](events::Kind const& kind, auto const&, p::StorageIRI const& changed, events::EntryType const& type, auto) {
        if (kind != events::Kind::Created || type != events::EntryType::File) return;
        std::lock_guard lock(mutex);
        created.insert(changed.toString());
      },
      {}, p::RecursiveWatching::Yes);

  constexpr int writers = 4, filesEach = 50;
  std::atomic<bool> done{false};
  std::thread churn([&] { // other subscriptions come and go meanwhile
    for (int i = 0; !done; ++i) {
      fs::create_directories(root_ / "churn");
      item("churn").publishFolderEvents([](auto const&, auto const&, auto const&, auto const&, auto) {}, {},
                                        p::RecursiveWatching::No);
      item("churn").stopPublishingFolderEvents();
    }
  });
  std::vector<std::thread> threads;
  for (int w = 0; w < writers; ++w) {
    threads.emplace_back([&, w] {
      fs::path folder = root_ / ("writer" + std::to_string(w));
      fs::create_directories(folder);
      for (int i = 0; i < filesEach; ++i) std::ofstream(folder / ("f" + std::to_string(i))) << i;
    });
  }
  for (auto& t : threads) t.join();
  done = true;
  churn.join();

  for (int i = 0; i < 500; ++i) {
    {
      std::lock_guard lock(mutex);
      if (created.size() == writers * filesEach) break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  item("").stopPublishingFolderEvents();
  std::lock_guard lock(mutex);
  EXPECT_EQ(created.size(), static_cast<std::size_t>(writers * filesEach));
}

TEST_F(LocalWatcherConcurrency, SubscribersMayUnsubscribeFromTheirOwnCallback) {
  std::atomic<int> calls{0};
  item("").publishFolderEvents(
      [&](auto const&, auto const&, auto const&, auto const&, auto) {
        ++calls;
        item("").stopPublishingFolderEvents();
      },
      {}, p::RecursiveWatching::No);
  for (int i = 0; i < 20; ++i) std::ofstream(root_ / ("f" + std::to_string(i))) << i;
  for (int i = 0; i < 200 && calls == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(calls.load(), 1);
}

TEST_F(LocalWatcherConcurrency, DeliversABurstOfRemovalsAndLetsOthersSubscribeMeanwhile) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "its time bound separates linear from quadratic work only without instrumentation";
#endif
  // In memory where there is a tmpfs: what is tested is the watcher, not how fast a disk
  // creates 40,000 files.
  std::error_code noShm;
  testsupport::TemporaryFolder const folder(
      "vfs-burst", fs::is_directory("/dev/shm", noShm) ? fs::path("/dev/shm") : fs::temp_directory_path());
  auto at = [&](std::string const& relative) {
    return p::StorageItem(provider_, p::toStorageIRI(u"file", fl::filesystem::path(folder.path() / relative)));
  };
  constexpr int files = 40000;
  fs::create_directories(folder.path() / "burst");
  fs::create_directories(folder.path() / "unrelated");
  for (int i = 0; i < files; ++i) std::ofstream(folder.path() / "burst" / ("f" + std::to_string(i)));
  std::mutex mutex;
  std::condition_variable arrived;
  std::set<std::string> removed;
  at("burst").publishFolderEvents(
      [&](events::Kind const& kind, auto const&, p::StorageIRI const& changed, auto const&, auto) {
        if (kind != events::Kind::Removed) return;
        std::lock_guard lock(mutex);
        removed.insert(changed.toIRI());
        arrived.notify_all();
      },
      {}, p::RecursiveWatching::No);
  for (int i = 0; i < files; ++i) fs::remove(folder.path() / "burst" / ("f" + std::to_string(i)));
  // Taking in another folder waits for a turn of the watcher, not for the whole burst.
  at("unrelated")
      .publishFolderEvents([](auto const&, auto const&, auto const&, auto const&, auto) {}, {},
                           p::RecursiveWatching::No);
  std::unique_lock lock(mutex);
  // Generous: a watcher that goes through all it knows for every removal needs far longer.
  EXPECT_TRUE(arrived.wait_for(lock, std::chrono::seconds(15), [&] { return removed.size() == files; }))
      << removed.size() << " of " << files << " removals delivered";
  lock.unlock();
  at("burst").stopPublishingFolderEvents();
  at("unrelated").stopPublishingFolderEvents();
}
