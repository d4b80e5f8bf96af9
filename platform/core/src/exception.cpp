#include <foundation/core/except/exception.hpp>

#include <fl/i18n/i18n.hpp>

namespace foundation::core::except {

IException::~IException() = default;

void IException::convert_str(std::u16string& out) const { out = ToUstringImpl(); }

void IException::convert_str(std::string& out) const { out = fl::i18n::to_utf8(ToUstringImpl()); }

std::u16string IException::ToUstringImpl() const { return fl::i18n::to_ustring(what()); }

std::u16string toUstring(IException const& e) {
  std::u16string text;
  e.convert_str(text);
  return text;
}

std::string toString(IException const& e) {
  std::string text;
  e.convert_str(text);
  return text;
}

} // namespace foundation::core::except
