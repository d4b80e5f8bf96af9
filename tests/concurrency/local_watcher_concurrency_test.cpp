#include "../support/temporary_folder.hpp"

#include <foundation/storage/providers/local/local_provider.hpp>

#include <gtest/gtest.h>

#include <atomic>
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
