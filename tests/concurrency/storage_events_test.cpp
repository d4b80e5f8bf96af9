// Change events end to end: providers notify on their own threads (inotify, the memory
// provider's writers, the polling thread), the library posts to the storage system's event
// manager, and listeners receive them on its dispatch thread.

#include "../library/harness.hpp"

#include <foundation/storage/events/event.hpp>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

using namespace harness;
namespace eventmgr = foundation::msg_svc::eventmgr;
namespace events = foundation::storage::events;
using events::Kind;

namespace {

constexpr auto patience = std::chrono::seconds(30); // a loaded CI machine, not an expected delay
constexpr std::chrono::milliseconds pollInterval(20);

/// Keeps what a manager delivers under `key` and waits for particular events.
class Listener {
  // Declared first: deliveries may start as soon as `connection` subscribes.
  boost::shared_ptr<eventmgr::EventMgr> manager_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<boost::shared_ptr<vfs::Event>> events_;

public:
  explicit Listener(boost::shared_ptr<eventmgr::EventMgr> manager,
                    std::u16string key = u"foundation::storage::vfs::Event")
      : manager_(std::move(manager)),
        connection(manager_->subscribe(std::move(key), [this](boost::shared_ptr<eventmgr::BaseEvent> const& event) {
          std::lock_guard lock(mutex_);
          events_.push_back(boost::dynamic_pointer_cast<vfs::Event>(event));
          arrived_.notify_all();
        })) {}
  /// No delivery may reach a listener that is gone.
  ~Listener() {
    connection->disconnect();
    manager_->waitUntilDelivered();
  }

  /// The first event of `kind` about `item` (through the subscription of `subscription`, when
  /// given); null when none came in time.
  boost::shared_ptr<vfs::Event> waitFor(Kind kind, vfs::AbsoluteIRI const& item,
                                        std::optional<vfs::AbsoluteIRI> const& subscription = std::nullopt) {
    std::unique_lock lock(mutex_);
    boost::shared_ptr<vfs::Event> found;
    arrived_.wait_for(lock, patience, [&] { return (found = find(kind, item, subscription)) != nullptr; });
    return found;
  }

  bool received(Kind kind, vfs::AbsoluteIRI const& item) {
    std::lock_guard lock(mutex_);
    return find(kind, item) != nullptr;
  }

  std::vector<boost::shared_ptr<vfs::Event>> all() {
    std::lock_guard lock(mutex_);
    return events_;
  }

  std::unique_ptr<eventmgr::Connection> connection;

private:
  boost::shared_ptr<vfs::Event> find(Kind kind, vfs::AbsoluteIRI const& item,
                                     std::optional<vfs::AbsoluteIRI> const& subscription = std::nullopt) const {
    for (auto const& event : events_) {
      auto const data = event->getSimpleEventData();
      if (data.getKind() == kind && data.getLocation() == item.toString() &&
          (!subscription || event->getEventSubscriptionLocation() == *subscription))
        return event;
    }
    return nullptr;
  }
};

void runInThread(std::function<void()> const& work) { std::thread(work).join(); }

class StorageEvents : public OnEveryProvider {
protected:
  void SetUp() override { watched.createFolder(); } // the harness was made with the folder
  void TearDown() override {
    if (h.system) h.system->shutdown(); // ends every watch and poll before the folders go
    OnEveryProvider::TearDown();
  }

  boost::shared_ptr<eventmgr::EventMgr> manager() const { return h.system->getEventMgr(); }

  /// Another thread writes a file and makes a folder in `watched`; both must arrive as
  /// Created events of the right entry type under the watched folder's subscription.
  void expectCreationsFromAnotherThread(Listener& listener) {
    vfs::File const file(watched, u"a b%.txt");
    vfs::Folder const sub(watched, u"sub");
    runInThread([&] {
      write(file, "one");
      sub.createFolder();
    });
    auto created = listener.waitFor(Kind::Created, file.getLocation());
    ASSERT_TRUE(created);
    EXPECT_EQ(created->getEventSubscriptionLocation(), watched.getLocation());
    EXPECT_EQ(created->getTypeName(), events::createEventType(Kind::Created, watched.getLocation().toString()));
    EXPECT_EQ(created->getSimpleEventData().getEntryType(), events::EntryType::File);
    EXPECT_EQ(boost::get<vfs::File>(created->getEventData().getFileOrFolder()), file);
    auto folder = listener.waitFor(Kind::Created, sub.getLocation());
    ASSERT_TRUE(folder);
    EXPECT_EQ(folder->getSimpleEventData().getEntryType(), events::EntryType::Folder);
    EXPECT_EQ(boost::get<vfs::Folder>(folder->getEventData().getFileOrFolder()), sub);
  }

  vfs::Folder watched = (h = make(GetParam()), h.folder(u"watched"));
};

} // namespace

TEST_P(StorageEvents, ChangesFromAnotherThreadArriveWithKindItemAndSubscription) {
  Listener all(manager());
  Listener createdOnly(manager(), events::createEventType(Kind::Created, watched.getLocation().toString()));
  vfs::detail::publishEventsFor(watched, {}, vfs::WithRecursiveChangeEvents::No);
  expectCreationsFromAnotherThread(all);
  vfs::File const file(watched, u"a b%.txt");

  // A file of its own: the subscription is the file, and only the kinds asked for come.
  vfs::detail::publishEventsFor(file, {Kind::Removed}, vfs::WithRecursiveChangeEvents::No);
  runInThread([&] { file.removeFile(); });
  // The folder's and the file's subscriptions report the removal independently.
  EXPECT_TRUE(all.waitFor(Kind::Removed, file.getLocation(), file.getLocation()));
  manager()->waitUntilDelivered();
  for (auto const& event : createdOnly.all()) EXPECT_EQ(event->getSimpleEventData().getKind(), Kind::Created);
}

TEST_P(StorageEvents, RecursiveSubscriptionSeesFoldersCreatedAfterItStarted) {
  Listener listener(manager());
  vfs::detail::publishEventsFor(watched, {Kind::Created}, vfs::WithRecursiveChangeEvents::Yes);
  vfs::Folder const deeper(vfs::Folder(watched, u"new"), u"deeper");
  vfs::File const file(deeper, u"x.txt");
  runInThread([&] {
    deeper.createFolderRecursive();
    write(file, "x");
  });
  auto created = listener.waitFor(Kind::Created, file.getLocation());
  ASSERT_TRUE(created);
  EXPECT_EQ(created->getEventSubscriptionLocation(), watched.getLocation())
      << "the watched root, not the changed folder";
  EXPECT_TRUE(listener.waitFor(Kind::Created, deeper.getLocation()));
}

TEST_P(StorageEvents, UnsubscribingEndsTheProviderSideAndTheConnection) {
  vfs::Folder const sentinel = h.folder(u"sentinel");
  sentinel.createFolder();
  Listener listener(manager());
  Listener leaving(manager());
  vfs::detail::publishEventsFor(watched, {}, vfs::WithRecursiveChangeEvents::No);
  vfs::detail::publishEventsFor(sentinel, {}, vfs::WithRecursiveChangeEvents::No);
  runInThread([&] { vfs::File(watched, u"before").createFile(); });
  ASSERT_TRUE(leaving.waitFor(Kind::Created, vfs::File(watched, u"before").getLocation()));

  vfs::unsubscribe(watched, leaving.connection);
  EXPECT_FALSE(leaving.connection->isConnected());
  runInThread([&] {
    vfs::File(watched, u"after").createFile();
    vfs::File(sentinel, u"s").createFile();
  });
  // Notifications arrive in the order of the changes: once the later one is here, the
  // earlier would have been too.
  ASSERT_TRUE(listener.waitFor(Kind::Created, vfs::File(sentinel, u"s").getLocation()));
  EXPECT_FALSE(listener.received(Kind::Created, vfs::File(watched, u"after").getLocation()));
  EXPECT_FALSE(leaving.received(Kind::Created, vfs::File(sentinel, u"s").getLocation()));
}

TEST_P(StorageEvents, PollingFindsChangesWhereTheProviderCannotNotify) {
  h.faults->failOn(p::Operation::PublishFolderEvents, {}, p::ErrorCode::UnsupportedOperation);
  EXPECT_VFS_ERROR(vfs::ErrorCode::UnsupportedOperation,
                   vfs::detail::publishEventsFor(watched, {}, vfs::WithRecursiveChangeEvents::No));
  vfs::Folder const sentinel = h.folder(u"sentinel");
  sentinel.createFolder();
  Listener listener(manager());
  vfs::detail::startChangePolling(watched, {}, pollInterval);
  vfs::detail::startChangePolling(sentinel, {Kind::Created}, pollInterval);

  expectCreationsFromAnotherThread(listener);
  vfs::File const file(watched, u"a b%.txt");
  runInThread([&] { write(file, "longer than one"); });
  ASSERT_TRUE(listener.waitFor(Kind::Modified, file.getLocation()));
  runInThread([&] { file.removeFile(); });
  ASSERT_TRUE(listener.waitFor(Kind::Removed, file.getLocation()));

  vfs::unsubscribeFromChangePolling(watched, nullptr);
  vfs::File const late(watched, u"late");
  late.createFile();
  // Two sentinel rounds: the second starts after a poll that came after the change.
  for (auto const* name : {u"s1", u"s2"}) {
    vfs::File(sentinel, name).createFile();
    ASSERT_TRUE(listener.waitFor(Kind::Created, vfs::File(sentinel, name).getLocation()));
  }
  EXPECT_FALSE(listener.received(Kind::Created, late.getLocation()));
}

TEST_P(StorageEvents, TheStorageSystemMayGoWhileChangesAreReported) {
  Listener listener(manager());
  vfs::detail::publishEventsFor(watched, {}, vfs::WithRecursiveChangeEvents::No);
  std::thread writer([&] {
    for (int i = 0; i < 200; ++i) vfs::File(watched, u"f" + fl::i18n::to_ustring(std::to_string(i))).createFile();
  });
  EXPECT_TRUE(listener.waitFor(Kind::Created, vfs::File(watched, u"f0").getLocation()));
  h.system.reset(); // the watch still holds the manager; notifications now find no system
  writer.join();
}

INSTANTIATE_TEST_SUITE_P(Providers, StorageEvents, ::testing::Values("mem", "file"));

TEST(LocalStorageEvents, ChangesFromAnotherProcessArrive) {
  Harness h = make("file");
  vfs::Folder const watched = h.folder(u"watched");
  watched.createFolder();
  Listener listener(h.system->getEventMgr());
  vfs::detail::publishEventsFor(watched, {}, vfs::WithRecursiveChangeEvents::No);

  std::string const path = vfs::fromAbsoluteIRI(watched.getLocation()).string();
  char const* argv[] = {"sh", "-c", "echo hi > \"$1/p.txt\" && mkdir \"$1/d\"", "sh", path.c_str(), nullptr};
  pid_t child = 0;
  ASSERT_EQ(::posix_spawnp(&child, "sh", nullptr, nullptr, const_cast<char**>(argv), environ), 0);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  auto file = listener.waitFor(Kind::Created, vfs::File(watched, u"p.txt").getLocation());
  ASSERT_TRUE(file);
  EXPECT_EQ(file->getSimpleEventData().getEntryType(), events::EntryType::File);
  auto folder = listener.waitFor(Kind::Created, vfs::Folder(watched, u"d").getLocation());
  ASSERT_TRUE(folder);
  EXPECT_EQ(folder->getSimpleEventData().getEntryType(), events::EntryType::Folder);
  vfs::unsubscribe(watched, listener.connection);
  h.system->shutdown();
}
