#include <vfs/events.hpp>
#include <vfs/exceptions.hpp>

#include <ostream>

namespace foundation::storage::vfs {

namespace eventmgr = msg_svc::eventmgr;

EventPublisher::EventPublisher(StorageSystemReference const& system,
                               boost::shared_ptr<eventmgr::EventMgr> const& eventMgr, eventmgr::DeliverMode const& mode)
    : system_(system), eventMgr_(eventMgr), mode_(mode) {}

void EventPublisher::operator()(events::Kind const& kind, provider::StorageIRI const& subscription,
                                provider::StorageIRI const& item, events::EntryType const& type,
                                boost::property_tree::ptree extendedData) const {
  try {
    AbsoluteIRI const subscriptionLocation(subscription, true);
    AbsoluteIRI const itemLocation(item, true);
    FileOrFolder const changed = type == events::EntryType::File ? FileOrFolder(File(itemLocation, system_))
                                                                 : FileOrFolder(Folder(itemLocation, system_));
    Event const event(kind, subscriptionLocation, changed, extendedData);
    if (!eventMgr_) return;
    eventMgr_->post(boost::shared_ptr<eventmgr::BaseEvent>(event.clone()), mode_);
  } catch (UnsupportedIRISchemeException const&) {
    // A location no provider serves cannot become a File or Folder; nobody could use it.
  }
}

RecursiveEventPublisher::RecursiveEventPublisher(StorageSystemReference const& system,
                                                 boost::shared_ptr<eventmgr::EventMgr> const& eventMgr,
                                                 AbsoluteIRI const&, eventmgr::DeliverMode const& mode)
    : publisher_(system, eventMgr, mode) {}

void RecursiveEventPublisher::operator()(events::Kind const& kind, provider::StorageIRI const& subscription,
                                         provider::StorageIRI const& item, events::EntryType const& type,
                                         boost::property_tree::ptree extendedData) const {
  publisher_(kind, subscription, item, type, std::move(extendedData));
}

std::string toString(WithRecursiveChangeEvents const& recursive) {
  return recursive == WithRecursiveChangeEvents::Yes ? "WithRecursiveChangeEvents::Yes"
                                                     : "WithRecursiveChangeEvents::No";
}

std::ostream& operator<<(std::ostream& os, WithRecursiveChangeEvents const& recursive) {
  return os << toString(recursive);
}

} // namespace foundation::storage::vfs
