#include <foundation/msg_svc/eventmgr/base_event.hpp>
#include <foundation/msg_svc/eventmgr/connection.hpp>
#include <foundation/msg_svc/eventmgr/type_information.hpp>

#include <fl/i18n/i18n.hpp>

#include <algorithm>
#include <ostream>

namespace foundation::msg_svc::eventmgr {

TypeInformation::TypeInformation(std::u16string typeName, std::vector<std::u16string> tags)
    : typeName_(std::move(typeName)), tags_(std::move(tags)) {}

bool TypeInformation::matches(std::u16string const& key) const noexcept {
  return key == typeName_ || std::find(tags_.begin(), tags_.end(), key) != tags_.end();
}

BaseEvent::BaseEvent(boost::shared_ptr<TypeInformation const> type) : type_(std::move(type)) {}
BaseEvent::~BaseEvent() = default;
bool BaseEvent::isBroadcast() const { return true; }
bool BaseEvent::isSticky() const { return false; }
void BaseEvent::fillStream(std::ostream& os) const { os << fl::i18n::to_utf8(getTypeName()); }

std::ostream& operator<<(std::ostream& os, BaseEvent const& event) {
  event.fillStream(os);
  return os;
}

Connection::Connection(std::function<void()> disconnect) : disconnect_(std::move(disconnect)) {}
Connection::~Connection() = default;

void Connection::disconnect() {
  if (!connected_) return;
  connected_ = false;
  if (disconnect_) disconnect_();
}

bool Connection::isConnected() const noexcept { return connected_; }

} // namespace foundation::msg_svc::eventmgr
