// Subscriptions: File and Folder hand publishers to their provider; the entry points pick
// the publisher for the item's storage system.

#include <vfs/events.hpp>
#include <vfs/exceptions.hpp>

#include "core/dispatch.hpp"
#include "errors/guard.hpp"

namespace foundation::storage::vfs {

namespace eventmgr = msg_svc::eventmgr;

void File::publishEvents(EventPublisher const& publisher, std::vector<events::Kind> const& kinds) const {
  detail::guarded([&] { item_.publishFileEvents(publisher, kinds); });
}

void File::publishEventsRecursively(RecursiveEventPublisher const&, std::vector<events::Kind> const&) const {
  throw Exception(ErrorCode::InvalidLocation, getLocation());
}

void File::stopPublishingEvents() const {
  detail::guarded([&] { item_.stopPublishingFileEvents(); });
}

void Folder::publishEvents(EventPublisher const& publisher, std::vector<events::Kind> const& kinds) const {
  detail::guarded([&] { item_.publishFolderEvents(publisher, kinds, provider::RecursiveWatching::No); });
}

void Folder::publishEventsRecursively(RecursiveEventPublisher const& publisher,
                                      std::vector<events::Kind> const& kinds) const {
  detail::guarded([&] {
    if (!item_.hasFeature(provider::ExtendedFeature::RecursiveChangeEvents))
      throw Exception(ErrorCode::UnsupportedOperation, getLocation());
    item_.publishFolderEvents(publisher, kinds, provider::RecursiveWatching::Yes);
  });
}

void Folder::stopPublishingEvents() const {
  detail::guarded([&] { item_.stopPublishingFolderEvents(); });
}

void Folder::startChangePolling(EventPublisher const& publisher, std::vector<events::Kind> const& kinds,
                                std::chrono::milliseconds interval) const {
  detail::guarded(
      [&] { item_.startChangePollingMechanism(publisher, kinds, interval, provider::RecursivePolling::No); });
}

void Folder::stopChangePolling() const {
  detail::guarded([&] { item_.stopChangePollingMechanism(); });
}

namespace {

/// The event manager of the item's storage system; a system without one cannot deliver
/// change events.
boost::shared_ptr<eventmgr::EventMgr> eventMgrFor(StorageSystemReference const& system, AbsoluteIRI const& location) {
  auto eventMgr = getEventMgr(system);
  if (!eventMgr) throw ChangeEventsNotSupportedException(location);
  return eventMgr;
}

void disconnect(std::unique_ptr<eventmgr::Connection> const& connection) {
  if (connection) connection->disconnect();
}

} // namespace

namespace detail {

void publishEventsFor(FileOrFolder const& item, std::vector<events::Kind> const& kinds,
                      WithRecursiveChangeEvents recursive) {
  StorageSystemReference const system = getStorageSystem(item);
  AbsoluteIRI const location = getLocation(item);
  auto const eventMgr = eventMgrFor(system, location);
  if (recursive == WithRecursiveChangeEvents::No) {
    EventPublisher const publisher(system, eventMgr, eventmgr::DeliverMode::Asynchronous);
    dispatch(
        item, [&](File const& file) { file.publishEvents(publisher, kinds); },
        [&](Folder const& folder) { folder.publishEvents(publisher, kinds); });
  } else {
    RecursiveEventPublisher const publisher(system, eventMgr, location, eventmgr::DeliverMode::Asynchronous);
    dispatch(
        item, [&](File const& file) { file.publishEventsRecursively(publisher, kinds); },
        [&](Folder const& folder) { folder.publishEventsRecursively(publisher, kinds); });
  }
}

void stopPublishingEventsFor(FileOrFolder const& item) {
  dispatch(
      item, [](File const& file) { file.stopPublishingEvents(); },
      [](Folder const& folder) { folder.stopPublishingEvents(); });
}

void startChangePolling(Folder const& folder, std::vector<events::Kind> const& kinds,
                        std::chrono::milliseconds interval) {
  StorageSystemReference const system = folder.getStorageSystem();
  EventPublisher const publisher(system, eventMgrFor(system, folder.getLocation()),
                                 eventmgr::DeliverMode::Asynchronous);
  folder.startChangePolling(publisher, kinds, interval);
}

void stopChangePollingFor(Folder const& folder) { folder.stopChangePolling(); }

} // namespace detail

void unsubscribe(FileOrFolder const& item, std::unique_ptr<eventmgr::Connection> const& connection) {
  detail::stopPublishingEventsFor(item);
  disconnect(connection);
}

void unsubscribeFromChangePolling(Folder const& folder, std::unique_ptr<eventmgr::Connection> const& connection) {
  detail::stopChangePollingFor(folder);
  disconnect(connection);
}

} // namespace foundation::storage::vfs
