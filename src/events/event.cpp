#include <vfs/events.hpp>

#include <fl/i18n/i18n.hpp>

#include <stdexcept>

namespace foundation::storage::vfs {

namespace eventmgr = msg_svc::eventmgr;

namespace {

events::EntryType entryTypeOf(FileOrFolder const& item) {
  return item.which() == 0 ? events::EntryType::File : events::EntryType::Folder;
}

} // namespace

EventData::EventData(events::Kind const& kind, FileOrFolder const& item) : kind_(kind), item_(item) {}

events::Kind EventData::getKind() const { return kind_; }

FileOrFolder EventData::getFileOrFolder() const { return item_; }

ExtendedEventData::ExtendedEventData() = default;

ExtendedEventData::ExtendedEventData(boost::property_tree::ptree data) : data_(std::move(data)) {}

bool ExtendedEventData::empty() const { return data_.empty(); }

boost::property_tree::ptree ExtendedEventData::getData() const { return data_; }

boost::property_tree::ptree ExtendedEventData::getData(std::u16string const& key) const {
  std::string const path = fl::i18n::codecvt_ustring_to_string(key, "UTF-8");
  auto child = data_.get_child_optional(boost::property_tree::ptree::path_type(path, '.'));
  if (!child) throw std::runtime_error("Unable to extract extended event data property " + path);
  return *child;
}

Event::Event(events::Kind const& kind, AbsoluteIRI const& subscriptionLocation, FileOrFolder const& item,
             boost::property_tree::ptree const& extendedData)
    : events::Event(
          eventmgr::makeTypeInformation<Event>(events::createEventType(kind, subscriptionLocation.toString())),
          events::SimpleEventData(kind, getLocation(item).toString(), entryTypeOf(item))),
      subscriptionLocation_(subscriptionLocation), data_(kind, item), extended_(extendedData) {}

Event::~Event() = default;

Event* Event::clone() const { return new Event(*this); }

bool Event::isBroadcast() const { return true; }

bool Event::isSticky() const { return false; }

AbsoluteIRI Event::getEventSubscriptionLocation() const { return subscriptionLocation_; }

EventData Event::getEventData() const { return data_; }

bool Event::hasExtendedEventData() const { return !extended_.empty(); }

ExtendedEventData Event::getExtendedEventData() const { return extended_; }

std::string Event::EventType() { return "foundation::storage::vfs::Event"; }

} // namespace foundation::storage::vfs
