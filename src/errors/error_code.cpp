#include <vfs/exceptions.hpp>

#include <fl/i18n/i18n.hpp>

#include <array>
#include <ostream>

namespace foundation::storage::vfs {

std::string toString(ErrorCode const& code) {
  switch (code) {
  case ErrorCode::FolderNotEmpty: return "ErrorCode::FolderNotEmpty";
  case ErrorCode::InvalidLocation: return "ErrorCode::InvalidLocation";
  case ErrorCode::PermissionDenied: return "ErrorCode::PermissionDenied";
  case ErrorCode::ResourceAlreadyExists: return "ErrorCode::ResourceAlreadyExists";
  case ErrorCode::ResourceNotFound: return "ErrorCode::ResourceNotFound";
  case ErrorCode::ReadOnlyProvider: return "ErrorCode::ReadOnlyProvider";
  case ErrorCode::FileTooLarge: return "ErrorCode::FileTooLarge";
  case ErrorCode::ResourceInUse: return "ErrorCode::ResourceInUse";
  case ErrorCode::NoSpaceLeft: return "ErrorCode::NoSpaceLeft";
  case ErrorCode::IOError: return "ErrorCode::IOError";
  case ErrorCode::InternalError: return "ErrorCode::InternalError";
  case ErrorCode::UnsupportedOperation: return "ErrorCode::UnsupportedOperation";
  case ErrorCode::Unknown: return "ErrorCode::Unknown";
  }
  return "Unhandled ErrorCode";
}

std::u16string toUstring(ErrorCode const& code) { return fl::i18n::to_ustring(toString(code)); }

std::ostream& operator<<(std::ostream& os, ErrorCode const& code) { return os << toString(code); }

ErrorCode getConvertedCode(provider::ErrorCode code) noexcept {
  // Indexed by the provider's value: 5, 6 and 7 are ordered differently there.
  static constexpr std::array<ErrorCode, 12> table{
      ErrorCode::FolderNotEmpty,        ErrorCode::InvalidLocation,  ErrorCode::PermissionDenied,
      ErrorCode::ResourceAlreadyExists, ErrorCode::ResourceNotFound, ErrorCode::FileTooLarge,
      ErrorCode::ResourceInUse,         ErrorCode::ReadOnlyProvider, ErrorCode::NoSpaceLeft,
      ErrorCode::IOError,               ErrorCode::InternalError,    ErrorCode::UnsupportedOperation};
  auto const index = static_cast<std::uint32_t>(code);
  return index < table.size() ? table[index] : ErrorCode::Unknown;
}

} // namespace foundation::storage::vfs
