#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/msg_svc/eventmgr/base_event.hpp>
#include <foundation/msg_svc/eventmgr/event_hierarchy.hpp>
#include <foundation/storage/events/kinds.hpp>

#include <string>

namespace foundation::storage::events {

/// What changed, in plain values: the kind, the changed item's location as text, and
/// whether it is a file or a folder.
class SimpleEventData {
public:
  SimpleEventData(Kind kind, std::u16string location, EntryType type)
      : kind_(kind), location_(std::move(location)), type_(type) {}

  Kind getKind() const noexcept { return kind_; }
  std::u16string const& getLocation() const noexcept { return location_; }
  EntryType getEntryType() const noexcept { return type_; }

  friend bool operator==(SimpleEventData const&, SimpleEventData const&) = default;

private:
  Kind kind_;
  std::u16string location_;
  EntryType type_;
};

/// A change of a stored file or folder, for the event manager. Broadcast, not sticky.
class FOUNDATION_API Event : public msg_svc::eventmgr::BaseEvent {
public:
  Event(boost::shared_ptr<msg_svc::eventmgr::TypeInformation const> type, SimpleEventData data);
  ~Event() override;

  Event* clone() const override;
  bool isBroadcast() const override;
  bool isSticky() const override;
  virtual SimpleEventData getSimpleEventData() const;

private:
  SimpleEventData data_;
};

/// The tag every storage event carries.
inline constexpr char16_t storageEventTag[] = u"foundation::storage::events::Event";

/// The type name of the events of one kind under one subscription location:
/// "foundation::storage::events::Event/<kind>@<location>", for example
/// "foundation::storage::events::Event/Created@file:///home/me". Subscribing to it gets
/// just those events; subscribing to a tag gets every kind everywhere.
FOUNDATION_API std::u16string createEventType(Kind const& kind, std::u16string const& subscriptionLocation);

} // namespace foundation::storage::events

namespace foundation::msg_svc::eventmgr {

/// Storage events are told apart by their type names; their hierarchy takes no user tags.
template <>
struct EventHierarchy<storage::events::Event> {
  static constexpr bool admitsUserTags = false;
  static std::u16string getBaseTag(std::size_t n) {
    return n == 0 ? std::u16string(storage::events::storageEventTag) : EventHierarchy<BaseEvent>::getBaseTag(n - 1);
  }
};

} // namespace foundation::msg_svc::eventmgr
