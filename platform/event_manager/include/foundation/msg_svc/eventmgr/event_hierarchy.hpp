#pragma once

#include <foundation/msg_svc/eventmgr/type_information.hpp>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace foundation::msg_svc::eventmgr {

class BaseEvent;

/// The tags of an event class and its bases, by index: 0 names the class itself, 1 its
/// base, and so on up to BaseEvent; beyond the last, std::out_of_range. Each event class
/// specialises it, delegating n-1 to its base class's hierarchy, and says whether a type
/// may carry tags of its own beyond these (`admitsUserTags`).
template <class T>
struct EventHierarchy;

template <>
struct EventHierarchy<BaseEvent> {
  static constexpr bool admitsUserTags = true;
  static std::u16string getBaseTag(std::size_t n) {
    if (n == 0) return u"foundation::msg_svc::eventmgr::BaseEvent";
    throw std::out_of_range("eventmgr::BaseEvent has no base types.");
  }
};

/// Every tag of `T`'s hierarchy, most specific first.
template <class T>
std::vector<std::u16string> hierarchyTags() {
  std::vector<std::u16string> tags;
  for (std::size_t n = 0;; ++n) {
    try {
      tags.push_back(EventHierarchy<T>::getBaseTag(n));
    } catch (std::out_of_range const&) {
      return tags;
    }
  }
}

/// The type information of an event of class `T` named `typeName`, with `userTags` after
/// the hierarchy's own. A tag that is not the hierarchy's, on a hierarchy that admits no
/// user tags, is std::logic_error "cannot add user tags.".
template <class T>
boost::shared_ptr<TypeInformation const> makeTypeInformation(std::u16string typeName,
                                                             std::vector<std::u16string> const& userTags = {}) {
  std::vector<std::u16string> tags = hierarchyTags<T>();
  for (auto const& tag : userTags) {
    if (std::find(tags.begin(), tags.end(), tag) != tags.end()) continue;
    if (!EventHierarchy<T>::admitsUserTags) throw std::logic_error("cannot add user tags.");
    tags.push_back(tag);
  }
  return boost::make_shared<TypeInformation const>(std::move(typeName), std::move(tags));
}

} // namespace foundation::msg_svc::eventmgr
