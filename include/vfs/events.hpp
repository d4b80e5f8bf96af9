#pragma once

// Change events: what a watched file or folder reports, and how reports reach the event
// manager of the storage system.

#include <foundation/core/visibility.hpp>
#include <foundation/msg_svc/eventmgr/connection.hpp>
#include <foundation/msg_svc/eventmgr/deliver_mode.hpp>
#include <foundation/msg_svc/eventmgr/event_hierarchy.hpp>
#include <foundation/msg_svc/eventmgr/event_mgr.hpp>
#include <foundation/storage/events/event.hpp>
#include <foundation/storage/events/kinds.hpp>
#include <foundation/storage/provider/storage_iri.hpp>

#include <vfs/absolute_iri.hpp>
#include <vfs/file.hpp>
#include <vfs/folder.hpp>
#include <vfs/storage_system.hpp>

#include <boost/property_tree/ptree.hpp>
#include <boost/shared_ptr.hpp>

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace foundation::storage::vfs {

/// What changed, as library values: the kind and the changed file or folder.
class FOUNDATION_API EventData {
public:
  EventData(events::Kind const& kind, FileOrFolder const& item);

  events::Kind getKind() const;
  FileOrFolder getFileOrFolder() const;

private:
  events::Kind kind_;
  FileOrFolder item_;
};

/// Extra data a provider attaches to a change (for a rename, the old location under
/// "renamedFrom"), as a property tree of UTF-8 strings.
class FOUNDATION_API ExtendedEventData {
public:
  ExtendedEventData();
  explicit ExtendedEventData(boost::property_tree::ptree data);

  /// True without any child.
  bool empty() const;
  boost::property_tree::ptree getData() const;
  /// The subtree at `key`, a "."-separated path ("a.b" is child b of child a). A missing
  /// path is std::runtime_error "Unable to extract extended event data property <key>".
  boost::property_tree::ptree getData(std::u16string const& key) const;

private:
  boost::property_tree::ptree data_;
};

/// A change of a watched file or folder. Its type name names the kind and the subscription
/// location (see events::createEventType), so a listener can subscribe to one kind under
/// one location, or to "foundation::storage::vfs::Event" for every storage change.
class FOUNDATION_API Event : public events::Event {
public:
  /// `subscriptionLocation` is where the subscription was made (for a recursive one, the
  /// watched root), `item` what changed.
  Event(events::Kind const& kind, AbsoluteIRI const& subscriptionLocation, FileOrFolder const& item,
        boost::property_tree::ptree const& extendedData);
  ~Event() override;

  /// A heap copy; the caller owns it.
  Event* clone() const override;
  /// Every listener hears of a change.
  bool isBroadcast() const override;
  /// A change is news, not a state to hand to later subscribers.
  bool isSticky() const override;

  AbsoluteIRI getEventSubscriptionLocation() const;
  EventData getEventData() const;
  /// True when the provider attached data (the tree has a child).
  bool hasExtendedEventData() const;
  ExtendedEventData getExtendedEventData() const;

  /// "foundation::storage::vfs::Event", the tag every storage change carries.
  static std::string EventType();

private:
  AbsoluteIRI subscriptionLocation_;
  EventData data_;
  ExtendedEventData extended_;
};

/// The provider callback that turns each notification into an Event and posts it to an
/// event manager. Copied into the provider, it holds the manager for as long as the provider
/// keeps it. Notifications about a location whose scheme no provider serves are dropped;
/// without a manager every notification is dropped.
class FOUNDATION_API EventPublisher {
public:
  EventPublisher(StorageSystemReference const& system, boost::shared_ptr<msg_svc::eventmgr::EventMgr> const& eventMgr,
                 msg_svc::eventmgr::DeliverMode const& mode);

  /// Posts the change of `item` (a folder for any non-file entry type), found under the
  /// subscription `subscription`. Runs on the provider's notifying thread.
  void operator()(events::Kind const& kind, provider::StorageIRI const& subscription, provider::StorageIRI const& item,
                  events::EntryType const& type, boost::property_tree::ptree extendedData) const;

private:
  StorageSystemReference system_;
  boost::shared_ptr<msg_svc::eventmgr::EventMgr> eventMgr_;
  msg_svc::eventmgr::DeliverMode mode_;
};

/// The callback for a recursive subscription. It behaves as EventPublisher: the provider
/// names the watched root as the subscription of every notification, so the root given
/// here is not needed.
class FOUNDATION_API RecursiveEventPublisher {
public:
  RecursiveEventPublisher(StorageSystemReference const& system,
                          boost::shared_ptr<msg_svc::eventmgr::EventMgr> const& eventMgr, AbsoluteIRI const& root,
                          msg_svc::eventmgr::DeliverMode const& mode);

  void operator()(events::Kind const& kind, provider::StorageIRI const& subscription, provider::StorageIRI const& item,
                  events::EntryType const& type, boost::property_tree::ptree extendedData) const;

private:
  EventPublisher publisher_;
};

/// Whether a subscription covers everything below a folder.
enum class WithRecursiveChangeEvents : std::uint32_t { Yes = 0, No = 1 };

/// "WithRecursiveChangeEvents::Yes" for Yes, "WithRecursiveChangeEvents::No" for anything else.
FOUNDATION_API std::string toString(WithRecursiveChangeEvents const& recursive);
FOUNDATION_API std::ostream& operator<<(std::ostream& os, WithRecursiveChangeEvents const& recursive);

/// Ends the provider's publication for `item`, then `connection` when there is one.
FOUNDATION_API void unsubscribe(FileOrFolder const& item,
                                std::unique_ptr<msg_svc::eventmgr::Connection> const& connection);
/// Ends change polling of `folder`, then `connection` when there is one.
FOUNDATION_API void unsubscribeFromChangePolling(Folder const& folder,
                                                 std::unique_ptr<msg_svc::eventmgr::Connection> const& connection);

namespace detail {

/// Asks the provider of `item` to post its changes, asynchronously, to the event manager of
/// the item's storage system. No manager: ChangeEventsNotSupportedException. Recursive on
/// a file: Exception InvalidLocation; on a provider that cannot: UnsupportedOperation.
FOUNDATION_API void publishEventsFor(FileOrFolder const& item, std::vector<events::Kind> const& kinds,
                                     WithRecursiveChangeEvents recursive);
FOUNDATION_API void stopPublishingEventsFor(FileOrFolder const& item);
/// Polls `folder` (not the folders below it) at `interval`, posting what changed as
/// publishEventsFor does. No manager: ChangeEventsNotSupportedException.
FOUNDATION_API void startChangePolling(Folder const& folder, std::vector<events::Kind> const& kinds,
                                       std::chrono::milliseconds interval);
FOUNDATION_API void stopChangePollingFor(Folder const& folder);

} // namespace detail

} // namespace foundation::storage::vfs

namespace foundation::msg_svc::eventmgr {

/// The library's change events sit below the storage events; like them they take no tags
/// of their own.
template <>
struct EventHierarchy<storage::vfs::Event> {
  static constexpr bool admitsUserTags = false;
  static std::u16string getBaseTag(std::size_t n) {
    return n == 0 ? std::u16string(u"foundation::storage::vfs::Event")
                  : EventHierarchy<storage::events::Event>::getBaseTag(n - 1);
  }
};

} // namespace foundation::msg_svc::eventmgr
