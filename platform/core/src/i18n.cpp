#include <fl/i18n/i18n.hpp>

#include <boost/locale/conversion.hpp>
#include <boost/locale/encoding.hpp>
#include <boost/locale/encoding_utf.hpp>
#include <boost/locale/generator.hpp>

#include <stdexcept>

namespace fl::i18n {

namespace conv = boost::locale::conv;

std::u16string to_ustring(std::string_view utf8) {
  return conv::utf_to_utf<char16_t>(utf8.data(), utf8.data() + utf8.size(), conv::skip);
}

std::u16string to_ustring(std::u32string_view utf32) {
  return conv::utf_to_utf<char16_t>(utf32.data(), utf32.data() + utf32.size(), conv::skip);
}

std::u32string to_u32string(std::u16string_view utf16) {
  return conv::utf_to_utf<char32_t>(utf16.data(), utf16.data() + utf16.size(), conv::skip);
}

std::string to_utf8(std::u16string_view utf16) {
  return conv::utf_to_utf<char>(utf16.data(), utf16.data() + utf16.size(), conv::skip);
}

namespace {
bool isUtf8(std::string const& encoding) {
  return encoding == "UTF-8" || encoding == "utf-8" || encoding == "UTF8" || encoding == "utf8";
}
} // namespace

std::string codecvt_ustring_to_string(std::u16string_view text, std::string const& encoding) {
  if (isUtf8(encoding)) return to_utf8(text);
  try {
    // Distribution builds of Boost.Locale convert charsets from UTF-8 only, not UTF-16.
    return conv::from_utf(to_utf8(text), encoding, conv::skip);
  } catch (conv::invalid_charset_error const&) {
    throw std::runtime_error("unknown encoding: " + encoding);
  }
}

std::u16string codecvt_string_to_ustring(std::string_view text, std::string const& encoding) {
  if (isUtf8(encoding)) return to_ustring(text);
  try {
    return to_ustring(conv::to_utf<char>(text.data(), text.data() + text.size(), encoding, conv::skip));
  } catch (conv::invalid_charset_error const&) {
    throw std::runtime_error("unknown encoding: " + encoding);
  }
}

namespace strict {
std::u16string utf8_to_utf16(std::string_view utf8) {
  try {
    return conv::utf_to_utf<char16_t>(utf8.data(), utf8.data() + utf8.size(), conv::stop);
  } catch (conv::conversion_error const&) {
    throw std::invalid_argument("invalid UTF-8");
  }
}

std::string utf16_to_utf8(std::u16string_view utf16) {
  try {
    return conv::utf_to_utf<char>(utf16.data(), utf16.data() + utf16.size(), conv::stop);
  } catch (conv::conversion_error const&) {
    throw std::invalid_argument("invalid UTF-16");
  }
}
} // namespace strict

std::u16string fold_case(std::u16string_view text) {
  // Folding does not depend on the language, so one generated locale serves every call.
  static std::locale const locale = boost::locale::generator{}("en_US.UTF-8");
  bool ascii = true;
  for (char16_t c : text) ascii = ascii && c < 0x80;
  if (ascii) {
    std::u16string folded(text);
    for (auto& c : folded) c = static_cast<char16_t>(lcctype::tolower_ascii(c));
    return folded;
  }
  // Boost.Locale's char16_t facets are optional in distribution builds; fold as UTF-8.
  return to_ustring(boost::locale::fold_case(to_utf8(text), locale));
}

} // namespace fl::i18n
