// Events per second through asynchronous delivery (post on one thread, deliver on the
// manager's), to 1 and to 10 listeners; synchronous delivery alongside for scale.

#include <foundation/msg_svc/eventmgr/eventmgr.hpp>
#include <foundation/storage/events/event.hpp>

#include <benchmark/benchmark.h>

#include <boost/make_shared.hpp>

#include <atomic>

namespace em = foundation::msg_svc::eventmgr;
namespace events = foundation::storage::events;

static void DeliverStorageEvents(benchmark::State& state) {
  auto const mode = state.range(0) ? em::DeliverMode::Asynchronous : em::DeliverMode::Synchronous;
  em::EventMgr manager;
  std::atomic<std::int64_t> received{0};
  std::vector<std::unique_ptr<em::Connection>> connections;
  for (int i = 0; i < state.range(1); ++i)
    connections.push_back(manager.subscribe(std::u16string(events::storageEventTag),
                                            [&](auto const&) { received.fetch_add(1, std::memory_order_relaxed); }));
  auto type =
      em::makeTypeInformation<events::Event>(events::createEventType(events::Kind::Modified, u"file:///watched"));
  events::SimpleEventData data(events::Kind::Modified, u"file:///watched/file.txt", events::EntryType::File);
  for (auto _ : state) {
    for (int i = 0; i < 1000; ++i) manager.post(boost::make_shared<events::Event>(type, data), mode);
    manager.waitUntilDelivered();
  }
  state.SetItemsProcessed(state.iterations() * 1000);
  state.counters["deliveries"] = static_cast<double>(received.load());
}
BENCHMARK(DeliverStorageEvents)
    ->ArgNames({"async", "listeners"})
    ->Args({1, 1})
    ->Args({1, 10})
    ->Args({0, 1})
    ->Args({0, 10})
    ->UseRealTime();
