#include <foundation/msg_svc/eventmgr/eventmgr.hpp>

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>

namespace em = foundation::msg_svc::eventmgr;

namespace {

class Numbered final : public em::BaseEvent {
public:
  Numbered(int poster, int sequence)
      : BaseEvent(em::makeTypeInformation<em::BaseEvent>(u"numbered")), poster(poster), sequence(sequence) {}
  Numbered* clone() const override { return new Numbered(*this); }
  int poster, sequence;
};

} // namespace

TEST(EventMgrConcurrency, ManyPostersKeepEachPostersOrderAndLoseNothing) {
  em::EventMgr manager;
  std::mutex mutex;
  std::map<int, std::vector<int>> received;
  auto connection = manager.subscribe(std::u16string(u"numbered"), [&](boost::shared_ptr<em::BaseEvent> const& e) {
    auto const& n = dynamic_cast<Numbered const&>(*e);
    std::lock_guard lock(mutex);
    received[n.poster].push_back(n.sequence);
  });
  std::atomic<int> synchronous{0};
  auto counter = manager.subscribe(std::u16string(u"foundation::msg_svc::eventmgr::BaseEvent"),
                                   [&](auto const&) { ++synchronous; });
  constexpr int posters = 4, each = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < posters; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < each; ++i)
        manager.post(boost::make_shared<Numbered>(t, i),
                     i % 5 == 0 ? em::DeliverMode::Synchronous : em::DeliverMode::Asynchronous);
    });
  }
  // Subscriptions come and go while events flow.
  std::thread churn([&] {
    for (int i = 0; i < 200; ++i) manager.subscribe(std::u16string(u"numbered"), [](auto const&) {})->disconnect();
  });
  for (auto& t : threads) t.join();
  churn.join();
  manager.waitUntilDelivered();
  std::lock_guard lock(mutex);
  for (int t = 0; t < posters; ++t) {
    ASSERT_EQ(received[t].size(), static_cast<std::size_t>(each));
    std::vector<int> asynchronous;
    for (int s : received[t])
      if (s % 5 != 0) asynchronous.push_back(s);
    EXPECT_TRUE(std::is_sorted(asynchronous.begin(), asynchronous.end())) << "poster " << t;
  }
  EXPECT_EQ(synchronous.load(), posters * each);
}
