#include "errno_mapping.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <cerrno>
#include <new>

namespace vfs_tool::mount {

namespace vfs = foundation::storage::vfs;
namespace provider = foundation::storage::provider;

int errnoFor(vfs::ErrorCode code, bool renaming) noexcept {
  using enum vfs::ErrorCode;
  switch (code) {
  case FolderNotEmpty: return ENOTEMPTY;
  case InvalidLocation: return EINVAL;
  case PermissionDenied: return EACCES;
  case ResourceAlreadyExists: return EEXIST;
  case ResourceNotFound: return ENOENT;
  case ReadOnlyProvider: return EROFS;
  case FileTooLarge: return EFBIG;
  case ResourceInUse: return EBUSY;
  case NoSpaceLeft: return ENOSPC;
  case IOError: return EIO;
  case UnsupportedOperation: return renaming ? EXDEV : ENOTSUP;
  case InternalError:
  case Unknown: break;
  }
  return EIO;
}

int currentErrno(bool renaming) noexcept {
  try {
    throw;
  } catch (vfs::Exception const& e) {
    return errnoFor(e.getErrorCode(), renaming);
  } catch (vfs::IOException const& e) {
    return errnoFor(e.getErrorCode(), renaming);
  } catch (provider::ByteStreamFailure const& e) {
    // Byte streams hand the provider's failures through untranslated.
    return errnoFor(vfs::getConvertedCode(e.getErrorCode()), renaming);
  } catch (provider::Exception const& e) {
    return errnoFor(vfs::getConvertedCode(e.getErrorCode()), renaming);
  } catch (std::bad_alloc const&) {
    return ENOMEM;
  } catch (...) {
    return EIO;
  }
}

} // namespace vfs_tool::mount
