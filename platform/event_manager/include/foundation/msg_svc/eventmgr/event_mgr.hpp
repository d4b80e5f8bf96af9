#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/msg_svc/eventmgr/base_event.hpp>
#include <foundation/msg_svc/eventmgr/connection.hpp>
#include <foundation/msg_svc/eventmgr/deliver_mode.hpp>

#include <boost/shared_ptr.hpp>

#include <functional>
#include <memory>
#include <string>

namespace foundation::msg_svc::eventmgr {

/// Publish/subscribe within a process. Listeners subscribe to an event type name or to any
/// tag of a type's hierarchy; `post` is safe from any thread.
///
/// - Synchronous posts run the matching listeners on the posting thread before `post`
///   returns; asynchronous posts are queued and one dispatch thread of the manager (started
///   on first need) delivers them in posting order.
/// - Listeners run with no lock held: they may post, subscribe and disconnect. A listener
///   that throws is logged (logger "foundation::msg_svc::eventmgr") and the others still
///   receive the event.
/// - Non-broadcast events go to the earliest matching subscriber only; the latest sticky
///   event of each type name is handed to listeners as they subscribe.
/// - `shutdown` delivers or drops what is still queued (the caller chooses) and joins the
///   dispatch thread; later asynchronous posts are dropped and logged. The destructor shuts
///   down delivering what is queued; it must not run on the dispatch thread.
class FOUNDATION_API EventMgr {
public:
  using Listener = std::function<void(boost::shared_ptr<BaseEvent> const&)>;
  enum class ShutdownPolicy { DeliverQueued, DropQueued };

  EventMgr();
  ~EventMgr();
  EventMgr(EventMgr const&) = delete;
  EventMgr& operator=(EventMgr const&) = delete;

  /// Subscribes `listener` to events whose type name or one of whose tags is `key`.
  std::unique_ptr<Connection> subscribe(std::u16string key, Listener listener);
  /// `key` as UTF-8.
  std::unique_ptr<Connection> subscribe(std::string const& key, Listener listener);
  /// Delivers `event` (not null: std::invalid_argument) as `mode` says.
  void post(boost::shared_ptr<BaseEvent> event, DeliverMode mode);
  /// Blocks until every event queued before the call was delivered (or dropped). Called by
  /// a listener on the dispatch thread it returns at once, since it could never be done.
  void waitUntilDelivered();
  void shutdown(ShutdownPolicy policy = ShutdownPolicy::DeliverQueued);

  struct Impl;

private:
  std::shared_ptr<Impl> impl_;
};

} // namespace foundation::msg_svc::eventmgr
