#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/msg_svc/eventmgr/type_information.hpp>

#include <boost/shared_ptr.hpp>

#include <iosfwd>

namespace foundation::msg_svc::eventmgr {

/// The base of every event: its type information, a heap copy of itself, a text form, and
/// two answers that steer delivery.
class FOUNDATION_API BaseEvent {
public:
  virtual ~BaseEvent();
  /// A new heap copy of the dynamic type; the caller owns it.
  virtual BaseEvent* clone() const = 0;
  /// True: every matching listener receives the event. False: only the earliest matching
  /// subscriber does (a work item rather than news).
  virtual bool isBroadcast() const;
  /// Writes the event for logs: by default its type name.
  virtual void fillStream(std::ostream& os) const;
  /// True: the manager keeps the latest event of this type name and hands it to listeners
  /// that subscribe later (a state rather than a change).
  virtual bool isSticky() const;

  TypeInformation const& getTypeInformation() const noexcept { return *type_; }
  std::u16string const& getTypeName() const noexcept { return type_->getTypeName(); }

protected:
  explicit BaseEvent(boost::shared_ptr<TypeInformation const> type);
  BaseEvent(BaseEvent const&) = default;
  BaseEvent& operator=(BaseEvent const&) = default;

private:
  boost::shared_ptr<TypeInformation const> type_;
};

FOUNDATION_API std::ostream& operator<<(std::ostream& os, BaseEvent const& event);

} // namespace foundation::msg_svc::eventmgr
