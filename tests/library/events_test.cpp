// Change events as values, publishers posting them, and the subscription entry points'
// refusals. Delivery from providers' threads is in tests/concurrency/storage_events_test.cpp.

#include "harness.hpp"

#include <foundation/storage/providers/memory/memory_provider.hpp>
#include <foundation/storage/providers/wrappers/feature_switching_provider.hpp>

#include <boost/make_shared.hpp>

#include <sstream>

using namespace harness;
namespace eventmgr = foundation::msg_svc::eventmgr;
namespace events = foundation::storage::events;

namespace {

boost::property_tree::ptree treeWith(std::string const& path, std::string const& value) {
  boost::property_tree::ptree tree;
  tree.put(path, value);
  return tree;
}

/// Every vfs::Event a manager delivers, synchronously posted ones on the posting thread.
struct Received {
  explicit Received(eventmgr::EventMgr& manager)
      : connection(manager.subscribe(vfs::Event::EventType(), [this](boost::shared_ptr<eventmgr::BaseEvent> const& e) {
          events.push_back(boost::dynamic_pointer_cast<vfs::Event>(e));
        })) {}
  std::vector<boost::shared_ptr<vfs::Event>> events;
  std::unique_ptr<eventmgr::Connection> connection;
};

class Events : public OnEveryProvider {};

} // namespace

TEST_P(Events, AnEventCarriesKindItemEntryTypeAndSubscription) {
  vfs::Folder const folder = h.folder(u"watched");
  vfs::File const file(folder, u"a b%.txt");
  vfs::Folder const sub(folder, u"sub");

  vfs::Event const onFile(events::Kind::Modified, folder.getLocation(), file, {});
  EXPECT_EQ(onFile.getEventSubscriptionLocation(), folder.getLocation());
  EXPECT_EQ(onFile.getSimpleEventData(),
            events::SimpleEventData(events::Kind::Modified, file.getLocation().toString(), events::EntryType::File));
  EXPECT_EQ(onFile.getEventData().getKind(), events::Kind::Modified);
  EXPECT_EQ(boost::get<vfs::File>(onFile.getEventData().getFileOrFolder()), file);
  EXPECT_FALSE(onFile.hasExtendedEventData());
  EXPECT_EQ(onFile.getTypeName(), events::createEventType(events::Kind::Modified, folder.getLocation().toString()));
  EXPECT_TRUE(onFile.isBroadcast());
  EXPECT_FALSE(onFile.isSticky());

  vfs::Event const onFolder(events::Kind::Renamed, folder.getLocation(), sub, treeWith("renamedFrom", "x"));
  EXPECT_EQ(onFolder.getSimpleEventData().getEntryType(), events::EntryType::Folder);
  EXPECT_EQ(boost::get<vfs::Folder>(onFolder.getEventData().getFileOrFolder()), sub);
  ASSERT_TRUE(onFolder.hasExtendedEventData());
  EXPECT_EQ(onFolder.getExtendedEventData().getData().get<std::string>("renamedFrom"), "x");

  std::unique_ptr<eventmgr::BaseEvent> copy(onFolder.clone());
  auto const* asEvent = dynamic_cast<vfs::Event const*>(copy.get());
  ASSERT_NE(asEvent, nullptr);
  EXPECT_EQ(asEvent->getTypeName(), onFolder.getTypeName());
  EXPECT_EQ(asEvent->getSimpleEventData(), onFolder.getSimpleEventData());
  EXPECT_TRUE(asEvent->hasExtendedEventData());
}

TEST(Event, TypeCarriesTheThreeTagsAndNoOthers) {
  using Hierarchy = eventmgr::EventHierarchy<vfs::Event>;
  EXPECT_EQ(Hierarchy::getBaseTag(0), u"foundation::storage::vfs::Event");
  EXPECT_EQ(Hierarchy::getBaseTag(1), u"foundation::storage::events::Event");
  EXPECT_EQ(Hierarchy::getBaseTag(2), u"foundation::msg_svc::eventmgr::BaseEvent");
  try {
    Hierarchy::getBaseTag(3);
    ADD_FAILURE() << "a fourth tag";
  } catch (std::out_of_range const& e) {
    EXPECT_STREQ(e.what(), "eventmgr::BaseEvent has no base types.");
  }
  EXPECT_EQ(vfs::Event::EventType(), "foundation::storage::vfs::Event");
  try {
    eventmgr::makeTypeInformation<vfs::Event>(u"x", {u"my.tag"});
    ADD_FAILURE() << "a user tag was admitted";
  } catch (std::logic_error const& e) {
    EXPECT_STREQ(e.what(), "cannot add user tags.");
  }
}

TEST(ExtendedEventData, PathsReachSubtreesAndMissingOnesNameTheKey) {
  boost::property_tree::ptree tree;
  tree.put("a.b", "1");
  tree.put("a.b.c", "2");
  tree.put("größe", "3");
  vfs::ExtendedEventData const data(tree);
  EXPECT_FALSE(data.empty());
  EXPECT_TRUE(vfs::ExtendedEventData().empty());
  EXPECT_TRUE(vfs::ExtendedEventData(treeWith("", "value only")).empty()) << "data without a child is empty";

  auto const b = data.getData(u"a.b");
  EXPECT_EQ(b.data(), "1");
  EXPECT_EQ(b.get<std::string>("c"), "2");
  EXPECT_EQ(data.getData(u"größe").data(), "3");
  EXPECT_EQ(data.getData(), tree);
  try {
    data.getData(u"a.c");
    ADD_FAILURE() << "a.c found";
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "Unable to extract extended event data property a.c");
  }
}

TEST(WithRecursiveChangeEvents, Prints) {
  EXPECT_EQ(vfs::toString(vfs::WithRecursiveChangeEvents::Yes), "WithRecursiveChangeEvents::Yes");
  std::ostringstream os;
  os << vfs::WithRecursiveChangeEvents::No << " " << static_cast<vfs::WithRecursiveChangeEvents>(7);
  EXPECT_EQ(os.str(), "WithRecursiveChangeEvents::No WithRecursiveChangeEvents::No");
}

TEST_P(Events, PublisherPostsFilesFoldersAndDropsWhatNoProviderServes) {
  auto manager = h.system->getEventMgr();
  Received received(*manager);
  vfs::EventPublisher const publish(h.reference(), manager, eventmgr::DeliverMode::Synchronous);
  auto const root = h.root.toStorageIRI();
  auto const item = h.at(u"x").toStorageIRI();

  publish(events::Kind::Created, root, item, events::EntryType::File, {});
  publish(events::Kind::Created, root, item, static_cast<events::EntryType>(5), treeWith("k", "v"));
  publish(events::Kind::Created, root, p::StorageIRI(u"nobody:///x"), events::EntryType::File, {});
  vfs::RecursiveEventPublisher(h.reference(), manager, h.at(u"ignored"), eventmgr::DeliverMode::Synchronous)(
      events::Kind::Removed, root, item, events::EntryType::Folder, {});
  vfs::EventPublisher(h.reference(), nullptr, eventmgr::DeliverMode::Synchronous)(events::Kind::Created, root, item,
                                                                                  events::EntryType::File, {});

  ASSERT_EQ(received.events.size(), 3u);
  EXPECT_EQ(received.events[0]->getEventData().getFileOrFolder().which(), 0);
  EXPECT_EQ(received.events[1]->getEventData().getFileOrFolder().which(), 1) << "any entry type but File is a folder";
  EXPECT_EQ(received.events[1]->getExtendedEventData().getData(u"k").data(), "v");
  EXPECT_EQ(received.events[2]->getSimpleEventData().getKind(), events::Kind::Removed);
  EXPECT_EQ(received.events[2]->getEventSubscriptionLocation(), h.root)
      << "the provider's subscription, not the root given";
  for (auto const& event : received.events) EXPECT_EQ(event->getEventSubscriptionLocation(), h.root);
}

TEST_P(Events, SubscriptionsAreRefusedWithTheReason) {
  SKIP_WITHOUT(NativeChangeEvents);
  vfs::Folder const folder = h.folder(u"watched");
  folder.createFolder();
  vfs::File const file(folder, u"f");
  file.createFile();
  auto const yes = vfs::WithRecursiveChangeEvents::Yes;

  EXPECT_VFS_ERROR(vfs::ErrorCode::InvalidLocation, vfs::detail::publishEventsFor(file, {}, yes));
  EXPECT_THROW(vfs::detail::publishEventsFor(vfs::Folder(folder, u"missing"), {}, vfs::WithRecursiveChangeEvents::No),
               vfs::ChangeEventsSubscriptionException);
  h.faults->failChangeEvents(folder.getLocation().toStorageIRI(), wrappers::ChangeEventsFailure::NotSupported);
  EXPECT_THROW(vfs::detail::publishEventsFor(folder, {}, yes), vfs::ChangeEventsNotSupportedException);
  EXPECT_THROW(vfs::detail::startChangePolling(folder, {}, std::chrono::milliseconds(10)),
               vfs::ChangeEventsNotSupportedException);

  // A decorated system reports no event manager: nothing could deliver the events.
  auto decorated = std::make_shared<vfs::StorageSystemDecorator>(h.system);
  vfs::StorageSystemReference const withoutManager{std::weak_ptr<vfs::StorageSystem>(decorated)};
  vfs::Folder const undelivered(folder.getLocation(), withoutManager);
  h.counts->reset();
  for (auto recursive : {vfs::WithRecursiveChangeEvents::No, yes}) {
    try {
      vfs::detail::publishEventsFor(undelivered, {}, recursive);
      ADD_FAILURE() << "subscribed without an event manager";
    } catch (vfs::ChangeEventsNotSupportedException const& e) {
      EXPECT_EQ(e.getLocation(), folder.getLocation());
    }
  }
  EXPECT_THROW(vfs::detail::startChangePolling(undelivered, {}, std::chrono::milliseconds(10)),
               vfs::ChangeEventsNotSupportedException);
  EXPECT_EQ(h.counts->total(), 0u) << "the provider was asked although nobody could deliver";
}

INSTANTIATE_ON_EVERY_SCHEME(Events);

TEST(Subscriptions, RecursiveEventsNeedTheProvidersFeature) {
  auto system = std::make_shared<StandardStorageSystem>();
  auto features = std::make_shared<wrappers::FeatureSwitchingProvider>(
      std::make_shared<foundation::storage::providers::memory::MemoryProvider>());
  auto counts = std::make_shared<wrappers::CallCountingProvider>(features);
  system->registerProvider(u"mem", [counts](p::StorageIRI const&) { return counts; });
  vfs::Folder const folder(vfs::AbsoluteIRI(u"mem:///w"),
                           vfs::StorageSystemReference(std::weak_ptr<vfs::StorageSystem>(system)));
  folder.createFolder();

  features->disable(p::ExtendedFeature::RecursiveChangeEvents);
  EXPECT_VFS_ERROR(vfs::ErrorCode::UnsupportedOperation,
                   vfs::detail::publishEventsFor(folder, {}, vfs::WithRecursiveChangeEvents::Yes));
  EXPECT_EQ(counts->count(p::Operation::PublishFolderEvents), 0u);
  vfs::detail::publishEventsFor(folder, {}, vfs::WithRecursiveChangeEvents::No);
  features->enable(p::ExtendedFeature::RecursiveChangeEvents);
  vfs::detail::publishEventsFor(folder, {}, vfs::WithRecursiveChangeEvents::Yes);
  EXPECT_EQ(counts->count(p::Operation::PublishFolderEvents), 2u);
  vfs::unsubscribe(folder, nullptr);
  EXPECT_EQ(counts->count(p::Operation::StopPublishingFolderEvents), 1u)
      << "a null connection still stops the provider";
  vfs::unsubscribeFromChangePolling(folder, nullptr);
  EXPECT_EQ(counts->count(p::Operation::StopChangePollingMechanism), 1u);
}
