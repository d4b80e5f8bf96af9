#pragma once

#include <foundation/core/visibility.hpp>

#include <string>
#include <vector>

namespace foundation::msg_svc::eventmgr {

/// What an event is: its type name and its ordered tags (most specific first). Listeners
/// subscribe to a type name or to any tag. Immutable.
class FOUNDATION_API TypeInformation {
public:
  TypeInformation(std::u16string typeName, std::vector<std::u16string> tags);

  std::u16string const& getTypeName() const noexcept { return typeName_; }
  std::vector<std::u16string> const& getTags() const noexcept { return tags_; }
  /// The type name is the key, or one of the tags is.
  bool matches(std::u16string const& key) const noexcept;

private:
  std::u16string typeName_;
  std::vector<std::u16string> tags_;
};

} // namespace foundation::msg_svc::eventmgr
