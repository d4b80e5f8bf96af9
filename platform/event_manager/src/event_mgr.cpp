#include <foundation/msg_svc/eventmgr/event_mgr.hpp>

#include <foundation/log/diagnostic_logger.hpp>

#include <fl/i18n/i18n.hpp>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace foundation::msg_svc::eventmgr {

namespace {

foundation::log::diagnostic_logger& logger() {
  static foundation::log::diagnostic_logger instance("foundation::msg_svc::eventmgr");
  return instance;
}

struct Subscriber {
  std::u16string key;
  EventMgr::Listener listener;
  std::atomic<bool> active{true};
};

} // namespace

struct EventMgr::Impl {
  std::mutex mutex;
  std::vector<std::shared_ptr<Subscriber>> subscribers; ///< in subscription order
  std::map<std::u16string, boost::shared_ptr<BaseEvent>> sticky;
  std::deque<boost::shared_ptr<BaseEvent>> queue;
  std::condition_variable wake;
  std::condition_variable progress;
  std::uint64_t queued = 0;   ///< asynchronous posts accepted so far
  std::uint64_t finished = 0; ///< of those, delivered or dropped
  std::thread dispatcher;
  std::atomic<std::thread::id> dispatcherId{};
  bool stopping = false;
  bool shutDown = false;

  std::vector<std::shared_ptr<Subscriber>> matching(BaseEvent const& event) {
    std::lock_guard lock(mutex);
    std::vector<std::shared_ptr<Subscriber>> found;
    for (auto const& s : subscribers)
      if (s->active && event.getTypeInformation().matches(s->key)) found.push_back(s);
    return found;
  }

  static void call(Subscriber& s, boost::shared_ptr<BaseEvent> const& event) {
    try {
      s.listener(event);
    } catch (std::exception const& e) {
      std::ostringstream text;
      text << "listener for " << fl::i18n::to_utf8(s.key) << " failed on " << *event << ": " << e.what();
      logger().log(foundation::log::Severity::Error, text.str());
    } catch (...) {
      std::ostringstream text;
      text << "listener for " << fl::i18n::to_utf8(s.key) << " failed on " << *event
           << " with a non-standard exception";
      logger().log(foundation::log::Severity::Error, text.str());
    }
  }

  void deliver(boost::shared_ptr<BaseEvent> const& event) {
    for (auto const& s : matching(*event)) {
      if (!s->active) continue; // disconnected meanwhile
      call(*s, event);
      if (!event->isBroadcast()) return;
    }
  }

  void run() {
    dispatcherId = std::this_thread::get_id();
    std::unique_lock lock(mutex);
    for (;;) {
      wake.wait(lock, [&] { return stopping || !queue.empty(); });
      if (queue.empty()) return; // stopping, and everything delivered
      auto event = std::move(queue.front());
      queue.pop_front();
      lock.unlock();
      deliver(event);
      lock.lock();
      ++finished;
      progress.notify_all();
    }
  }
};

EventMgr::EventMgr() : impl_(std::make_shared<Impl>()) {}

EventMgr::~EventMgr() { shutdown(ShutdownPolicy::DeliverQueued); }

std::unique_ptr<Connection> EventMgr::subscribe(std::u16string key, Listener listener) {
  if (!listener) throw std::invalid_argument("an empty listener");
  auto subscriber = std::make_shared<Subscriber>();
  subscriber->key = std::move(key);
  subscriber->listener = std::move(listener);
  std::vector<boost::shared_ptr<BaseEvent>> current;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->subscribers.push_back(subscriber);
    for (auto const& [type, event] : impl_->sticky)
      if (event->getTypeInformation().matches(subscriber->key)) current.push_back(event);
  }
  for (auto const& event : current) Impl::call(*subscriber, event); // the state so far
  std::weak_ptr<Impl> weak = impl_;
  std::weak_ptr<Subscriber> weakSubscriber = subscriber;
  return std::make_unique<Connection>([weak, weakSubscriber] {
    auto impl = weak.lock();
    auto subscriber = weakSubscriber.lock();
    if (!impl || !subscriber) return;
    subscriber->active = false;
    std::lock_guard lock(impl->mutex);
    std::erase(impl->subscribers, subscriber);
  });
}

std::unique_ptr<Connection> EventMgr::subscribe(std::string const& key, Listener listener) {
  return subscribe(fl::i18n::to_ustring(key), std::move(listener));
}

void EventMgr::post(boost::shared_ptr<BaseEvent> event, DeliverMode mode) {
  if (!event) throw std::invalid_argument("posting no event");
  if (event->isSticky()) {
    std::lock_guard lock(impl_->mutex);
    impl_->sticky[event->getTypeName()] = event;
  }
  if (mode != DeliverMode::Asynchronous) {
    impl_->deliver(event);
    return;
  }
  std::lock_guard lock(impl_->mutex);
  if (impl_->shutDown) {
    std::ostringstream text;
    text << "dropped " << *event << ": the event manager is shut down";
    logger().log(foundation::log::Severity::Warning, text.str());
    return;
  }
  impl_->queue.push_back(std::move(event));
  ++impl_->queued;
  // The thread shares the state, so that one detached by a shutdown from a listener outlives the manager safely.
  if (!impl_->dispatcher.joinable()) impl_->dispatcher = std::thread([impl = impl_] { impl->run(); });
  impl_->wake.notify_one();
}

void EventMgr::waitUntilDelivered() {
  if (impl_->dispatcherId.load() == std::this_thread::get_id()) return;
  std::unique_lock lock(impl_->mutex);
  std::uint64_t const target = impl_->queued;
  impl_->progress.wait(lock, [&] { return impl_->finished >= target; });
}

void EventMgr::shutdown(ShutdownPolicy policy) {
  std::thread dispatcher;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->shutDown = true;
    impl_->stopping = true;
    if (policy == ShutdownPolicy::DropQueued) {
      impl_->finished += impl_->queue.size();
      impl_->queue.clear();
      impl_->progress.notify_all();
    }
    impl_->wake.notify_all();
    dispatcher = std::move(impl_->dispatcher);
  }
  if (!dispatcher.joinable()) return;
  if (dispatcher.get_id() == std::this_thread::get_id()) {
    dispatcher.detach(); // shut down from a listener: the loop ends once it returns
  } else {
    dispatcher.join();
  }
}

} // namespace foundation::msg_svc::eventmgr
