#pragma once

#include <foundation/core/visibility.hpp>

#include <string>
#include <string_view>

/// Conversions between the encodings the system uses: UTF-16 for names of locations, UTF-8
/// for diagnostic text, UTF-32 where code points are inspected one by one.
namespace fl::i18n {

/// UTF-8 to UTF-16; invalid sequences are skipped.
FOUNDATION_API std::u16string to_ustring(std::string_view utf8);
/// UTF-32 to UTF-16; invalid code points are skipped.
FOUNDATION_API std::u16string to_ustring(std::u32string_view utf32);
/// UTF-16 to UTF-32; unpaired surrogates are skipped.
FOUNDATION_API std::u32string to_u32string(std::u16string_view utf16);
/// UTF-16 to UTF-8; unpaired surrogates are skipped.
FOUNDATION_API std::string to_utf8(std::u16string_view utf16);

/// UTF-16 to the named narrow encoding ("UTF-8", "ISO-8859-1", ...). Throws
/// std::runtime_error for an unknown encoding.
FOUNDATION_API std::string codecvt_ustring_to_string(std::u16string_view text, std::string const& encoding = "UTF-8");
/// The named narrow encoding to UTF-16. Throws std::runtime_error for an unknown encoding.
FOUNDATION_API std::u16string codecvt_string_to_ustring(std::string_view text, std::string const& encoding = "UTF-8");

/// Strict conversions: throw std::invalid_argument on any invalid sequence instead of
/// skipping it. For parsers, where silently dropping input would change its meaning.
namespace strict {
FOUNDATION_API std::u16string utf8_to_utf16(std::string_view utf8);
FOUNDATION_API std::string utf16_to_utf8(std::u16string_view utf16);
} // namespace strict

/// Unicode simple case folding (locale independent), for case-insensitive name comparison.
FOUNDATION_API std::u16string fold_case(std::u16string_view text);

/// Character classes of the ASCII range only, independent of the global C locale.
namespace lcctype {
constexpr bool isalpha_ascii(char32_t c) noexcept { return (c >= U'a' && c <= U'z') || (c >= U'A' && c <= U'Z'); }
constexpr bool isdigit_ascii(char32_t c) noexcept { return c >= U'0' && c <= U'9'; }
constexpr bool isalnum_ascii(char32_t c) noexcept { return isalpha_ascii(c) || isdigit_ascii(c); }
constexpr char32_t tolower_ascii(char32_t c) noexcept { return (c >= U'A' && c <= U'Z') ? c + (U'a' - U'A') : c; }
} // namespace lcctype

} // namespace fl::i18n
