#include <foundation/log/diagnostic_logger.hpp>
#include <foundation/msg_svc/eventmgr/eventmgr.hpp>
#include <foundation/storage/events/event.hpp>

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <sstream>
#include <thread>

namespace em = foundation::msg_svc::eventmgr;
namespace events = foundation::storage::events;

namespace {

boost::shared_ptr<events::Event> storageEvent(events::Kind kind, std::u16string const& subscription,
                                              std::u16string const& item = u"file:///item") {
  return boost::make_shared<events::Event>(
      em::makeTypeInformation<events::Event>(events::createEventType(kind, subscription)),
      events::SimpleEventData(kind, item, events::EntryType::File));
}

/// An event whose delivery policy a test chooses.
class TestEvent final : public em::BaseEvent {
public:
  TestEvent(std::u16string type, int value, bool broadcast = true, bool sticky = false)
      : BaseEvent(em::makeTypeInformation<em::BaseEvent>(std::move(type), {u"test"})), value(value),
        broadcast_(broadcast), sticky_(sticky) {}
  TestEvent* clone() const override { return new TestEvent(*this); }
  bool isBroadcast() const override { return broadcast_; }
  bool isSticky() const override { return sticky_; }
  int value;

private:
  bool broadcast_, sticky_;
};

int valueOf(boost::shared_ptr<em::BaseEvent> const& e) { return dynamic_cast<TestEvent const&>(*e).value; }

} // namespace

TEST(StorageEvents, NameKindAndLocationInTheirTypeAndCarryTheHierarchysTags) {
  EXPECT_EQ(events::createEventType(events::Kind::Created, u"file:///home/me"),
            u"foundation::storage::events::Event/Created@file:///home/me");
  EXPECT_EQ(events::createEventType(events::Kind::AttributesChanged, u"mem:///"),
            u"foundation::storage::events::Event/AttributesChanged@mem:///");
  auto event = storageEvent(events::Kind::Removed, u"mem:///a", u"mem:///a/b");
  EXPECT_EQ(event->getTypeInformation().getTags(),
            (std::vector<std::u16string>{u"foundation::storage::events::Event",
                                         u"foundation::msg_svc::eventmgr::BaseEvent"}));
  EXPECT_EQ(event->getSimpleEventData(),
            events::SimpleEventData(events::Kind::Removed, u"mem:///a/b", events::EntryType::File));
  std::unique_ptr<em::BaseEvent> copy(event->clone());
  EXPECT_EQ(dynamic_cast<events::Event&>(*copy).getSimpleEventData(), event->getSimpleEventData());
  EXPECT_TRUE(event->isBroadcast());
  EXPECT_FALSE(event->isSticky());
  std::ostringstream text;
  text << *event;
  EXPECT_EQ(text.str(), "foundation::storage::events::Event/Removed@mem:///a");
}

TEST(StorageEvents, HierarchiesEndAtTheBaseAndRefuseForeignTags) {
  using Hierarchy = em::EventHierarchy<events::Event>;
  EXPECT_EQ(Hierarchy::getBaseTag(0), u"foundation::storage::events::Event");
  EXPECT_EQ(Hierarchy::getBaseTag(1), u"foundation::msg_svc::eventmgr::BaseEvent");
  try {
    Hierarchy::getBaseTag(2);
    FAIL() << "a tag beyond the base";
  } catch (std::out_of_range const& e) {
    EXPECT_STREQ(e.what(), "eventmgr::BaseEvent has no base types.");
  }
  try {
    em::makeTypeInformation<events::Event>(u"x", {u"my own tag"});
    FAIL() << "a closed hierarchy took a user tag";
  } catch (std::logic_error const& e) {
    EXPECT_STREQ(e.what(), "cannot add user tags.");
  }
  // The hierarchy's own tags are no user tags; an open hierarchy takes others.
  EXPECT_NO_THROW(em::makeTypeInformation<events::Event>(u"x", {u"foundation::storage::events::Event"}));
  EXPECT_EQ(em::makeTypeInformation<em::BaseEvent>(u"x", {u"mine"})->getTags().back(), u"mine");
}

TEST(EventMgr, DeliversByTypeNameOrTagSynchronouslyBeforePostReturns) {
  em::EventMgr manager;
  std::vector<std::string> seen;
  auto byKind = manager.subscribe(events::createEventType(events::Kind::Created, u"mem:///a"),
                                  [&](auto const&) { seen.push_back("created@a"); });
  auto byTag =
      manager.subscribe(std::string("foundation::storage::events::Event"), [&](auto const&) { seen.push_back("any"); });
  manager.post(storageEvent(events::Kind::Created, u"mem:///a"), em::DeliverMode::Synchronous);
  manager.post(storageEvent(events::Kind::Created, u"mem:///b"), em::DeliverMode::Synchronous);
  manager.post(storageEvent(events::Kind::Removed, u"mem:///a"), em::DeliverMode::Synchronous);
  EXPECT_EQ(seen, (std::vector<std::string>{"created@a", "any", "any", "any"}));
  byTag->disconnect();
  byTag->disconnect(); // twice is harmless
  EXPECT_FALSE(byTag->isConnected());
  manager.post(storageEvent(events::Kind::Removed, u"mem:///a"), em::DeliverMode::Synchronous);
  EXPECT_EQ(seen.size(), 4u);
}

TEST(EventMgr, DeliversAsynchronousEventsInPostingOrderOnItsOwnThread) {
  em::EventMgr manager;
  std::vector<int> values;
  std::thread::id listenerThread;
  auto connection = manager.subscribe(std::u16string(u"test"), [&](auto const& e) {
    values.push_back(valueOf(e));
    listenerThread = std::this_thread::get_id();
  });
  for (int i = 0; i < 1000; ++i) manager.post(boost::make_shared<TestEvent>(u"t", i), em::DeliverMode::Asynchronous);
  manager.waitUntilDelivered();
  ASSERT_EQ(values.size(), 1000u);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(values[i], i);
  EXPECT_NE(listenerThread, std::this_thread::get_id());
}

TEST(EventMgr, AThrowingListenerIsLoggedAndTheOthersStillReceive) {
  std::ostringstream log;
  foundation::log::ScopedStreamSink sink(log);
  em::EventMgr manager;
  int received = 0;
  auto thrower =
      manager.subscribe(std::u16string(u"test"), [](auto const&) { throw std::runtime_error("listener bug"); });
  auto other = manager.subscribe(std::u16string(u"test"), [&](auto const&) { ++received; });
  manager.post(boost::make_shared<TestEvent>(u"t", 1), em::DeliverMode::Synchronous);
  manager.post(boost::make_shared<TestEvent>(u"t", 2), em::DeliverMode::Asynchronous);
  manager.waitUntilDelivered();
  EXPECT_EQ(received, 2);
  EXPECT_NE(log.str().find("error foundation::msg_svc::eventmgr: listener for test failed on t: listener bug"),
            std::string::npos)
      << log.str();
}

TEST(EventMgr, ListenersMaySubscribeAndDisconnectDuringDelivery) {
  em::EventMgr manager;
  std::unique_ptr<em::Connection> late;
  std::unique_ptr<em::Connection> self;
  int lateCalls = 0, selfCalls = 0;
  self = manager.subscribe(std::u16string(u"test"), [&](auto const&) {
    ++selfCalls;
    self->disconnect(); // from inside its own call
    if (!late) late = manager.subscribe(std::u16string(u"test"), [&](auto const&) { ++lateCalls; });
  });
  for (auto mode : {em::DeliverMode::Synchronous, em::DeliverMode::Asynchronous}) {
    manager.post(boost::make_shared<TestEvent>(u"t", 1), mode);
    manager.waitUntilDelivered();
  }
  EXPECT_EQ(selfCalls, 1);
  EXPECT_EQ(lateCalls, 1); // subscribed during the first delivery, so it sees only the second event
}

TEST(EventMgr, HandsWorkItemsToOneListenerAndStickyStateToLateListeners) {
  em::EventMgr manager;
  int first = 0, second = 0;
  auto a = manager.subscribe(std::u16string(u"test"), [&](auto const&) { ++first; });
  auto b = manager.subscribe(std::u16string(u"test"), [&](auto const&) { ++second; });
  manager.post(boost::make_shared<TestEvent>(u"job", 1, false), em::DeliverMode::Synchronous);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 0);

  manager.post(boost::make_shared<TestEvent>(u"state", 1, true, true), em::DeliverMode::Synchronous);
  manager.post(boost::make_shared<TestEvent>(u"state", 2, true, true), em::DeliverMode::Synchronous);
  std::vector<int> late;
  auto c = manager.subscribe(std::u16string(u"state"), [&](auto const& e) { late.push_back(valueOf(e)); });
  EXPECT_EQ(late, std::vector<int>{2}); // only the latest state, at once
}

TEST(EventMgr, ShutdownDeliversOrDropsWhatIsQueued) {
  for (auto policy : {em::EventMgr::ShutdownPolicy::DeliverQueued, em::EventMgr::ShutdownPolicy::DropQueued}) {
    em::EventMgr manager;
    std::atomic<bool> release{false};
    std::atomic<int> delivered{0};
    auto connection = manager.subscribe(std::u16string(u"test"), [&](auto const&) {
      while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      ++delivered;
    });
    for (int i = 0; i < 10; ++i) manager.post(boost::make_shared<TestEvent>(u"t", i), em::DeliverMode::Asynchronous);
    std::thread releaser([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      release = true;
    });
    manager.shutdown(policy);
    releaser.join();
    if (policy == em::EventMgr::ShutdownPolicy::DeliverQueued) {
      EXPECT_EQ(delivered.load(), 10);
    } else {
      EXPECT_LE(delivered.load(), 1); // at most the one already being delivered
    }
    manager.post(boost::make_shared<TestEvent>(u"t", 99), em::DeliverMode::Asynchronous); // dropped, logged
    manager.waitUntilDelivered();
    EXPECT_LE(delivered.load(), 10);
  }
}

TEST(EventMgr, RefusesEmptyListenersAndEvents) {
  em::EventMgr manager;
  EXPECT_THROW(manager.subscribe(std::u16string(u"x"), em::EventMgr::Listener()), std::invalid_argument);
  EXPECT_THROW(manager.post(nullptr, em::DeliverMode::Synchronous), std::invalid_argument);
}
