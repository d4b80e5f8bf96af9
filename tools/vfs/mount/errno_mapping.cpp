#include "errno_mapping.hpp"

#include <foundation/storage/provider/error_code_table.hpp>
#include <foundation/storage/provider/exceptions.hpp>

#include <cerrno>
#include <new>

namespace vfs_tool::mount {

namespace vfs = foundation::storage::vfs;
namespace provider = foundation::storage::provider;

int errnoFor(vfs::ErrorCode code, bool renaming) noexcept {
  if (renaming && code == vfs::ErrorCode::UnsupportedOperation) return EXDEV;
  switch (code) {
#define VFS_MOUNT_ERRNO(name, providerValue, libraryValue, failureClass, ...)                                          \
  case vfs::ErrorCode::name: return provider::error_code_table::shownErrno({__VA_ARGS__});
    FOUNDATION_STORAGE_ERROR_CODES(VFS_MOUNT_ERRNO)
#undef VFS_MOUNT_ERRNO
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
