#include <foundation/storage/provider/posix_errors.hpp>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace foundation::storage::provider {

ErrorCode errorCodeFromErrno(int error) noexcept {
  switch (error) {
  case ENOENT: case ENOTDIR: return ErrorCode::ResourceNotFound;
  case EACCES: case EPERM: return ErrorCode::PermissionDenied;
  case EEXIST: return ErrorCode::ResourceAlreadyExists;
  case ENOTEMPTY: return ErrorCode::FolderNotEmpty;
  case EROFS: return ErrorCode::ReadOnlyProvider;
  case EFBIG: return ErrorCode::FileTooLarge;
  case EBUSY: case ETXTBSY: return ErrorCode::ResourceInUse;
  case ENOSPC: case EDQUOT: return ErrorCode::NoSpaceLeft;
  case EIO: return ErrorCode::IOError;
  case EINVAL: case ENAMETOOLONG: case ELOOP: return ErrorCode::InvalidLocation;
  case ENOTSUP: case EXDEV: return ErrorCode::UnsupportedOperation;
#if defined(EOPNOTSUPP) && EOPNOTSUPP != ENOTSUP
  case EOPNOTSUPP: return ErrorCode::UnsupportedOperation;
#endif
  default: return ErrorCode::Unknown;
  }
}

void failWithErrno(int error, StorageIRI const& location, std::u16string call) {
  fail(errorCodeFromErrno(error), location, std::move(call), std::generic_category().message(error));
}

} // namespace foundation::storage::provider
