#pragma once

#include <cstdint>
#include <ostream>

namespace foundation::msg_svc::eventmgr {

enum class DeliverMode : std::uint32_t {
  /// Listeners run on the posting thread before `post` returns.
  Synchronous = 0,
  /// Queued; the manager's one dispatch thread delivers in posting order.
  Asynchronous = 1,
};

inline std::ostream& operator<<(std::ostream& os, DeliverMode mode) {
  return os << (mode == DeliverMode::Synchronous ? "DeliverMode::Synchronous" : "DeliverMode::Asynchronous");
}

} // namespace foundation::msg_svc::eventmgr
