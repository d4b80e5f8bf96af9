#include <foundation/storage/events/event.hpp>

namespace foundation::storage::events {

Event::Event(boost::shared_ptr<msg_svc::eventmgr::TypeInformation const> type, SimpleEventData data)
    : BaseEvent(std::move(type)), data_(std::move(data)) {}

Event::~Event() = default;

Event* Event::clone() const { return new Event(*this); }

bool Event::isBroadcast() const { return true; }

bool Event::isSticky() const { return false; }

SimpleEventData Event::getSimpleEventData() const { return data_; }

std::u16string createEventType(Kind const& kind, std::u16string const& subscriptionLocation) {
  std::string_view name = toString(kind);
  if (name.starts_with("Kind::")) name.remove_prefix(std::string_view("Kind::").size());
  std::u16string type(storageEventTag);
  type += u'/';
  type.append(name.begin(), name.end());
  type += u'@';
  type += subscriptionLocation;
  return type;
}

} // namespace foundation::storage::events
