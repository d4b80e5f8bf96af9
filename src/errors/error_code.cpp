#include <vfs/exceptions.hpp>

#include <foundation/storage/provider/error_code_table.hpp>

#include <fl/i18n/i18n.hpp>

#include <cstdint>
#include <ostream>

namespace foundation::storage::vfs {

namespace table = provider::error_code_table;

// The library's numbers are fixed: check each against its row.
static_assert(table::rows == static_cast<std::uint32_t>(ErrorCode::Unknown) + 1, "every library code needs a row");
#define VFS_CHECK_LIBRARY_VALUE(name, providerValue, libraryValue, ...)                                                \
  static_assert(static_cast<std::uint32_t>(ErrorCode::name) == (libraryValue), "vfs::ErrorCode::" #name);
FOUNDATION_STORAGE_ERROR_CODES(VFS_CHECK_LIBRARY_VALUE)
#undef VFS_CHECK_LIBRARY_VALUE

std::string toString(ErrorCode const& code) {
  switch (code) {
#define VFS_ERROR_CODE_NAME(name, ...)                                                                                 \
  case ErrorCode::name: return "ErrorCode::" #name;
    FOUNDATION_STORAGE_ERROR_CODES(VFS_ERROR_CODE_NAME)
#undef VFS_ERROR_CODE_NAME
  }
  return "Unhandled ErrorCode";
}

std::u16string toUstring(ErrorCode const& code) { return fl::i18n::to_ustring(toString(code)); }

std::ostream& operator<<(std::ostream& os, ErrorCode const& code) { return os << toString(code); }

ErrorCode getConvertedCode(provider::ErrorCode code) noexcept {
  // By name: the two enumerations number FileTooLarge, ResourceInUse and ReadOnlyProvider
  // differently. Values beyond the known codes are Unknown.
  switch (code) {
#define VFS_CONVERTED_CODE(name, ...)                                                                                  \
  case provider::ErrorCode::name: return ErrorCode::name;
    FOUNDATION_STORAGE_ERROR_CODES(VFS_CONVERTED_CODE)
#undef VFS_CONVERTED_CODE
  }
  return ErrorCode::Unknown;
}

} // namespace foundation::storage::vfs
