// Moving and copying files, within a provider or across: the provider does it where it
// can; otherwise the library copies and removes.

#include <vfs/file.hpp>

#include "errors/guard.hpp"

namespace foundation::storage::vfs {

namespace {

using Policy = provider::ReplacementPolicy;

/// OverwriteDeferringPermissionErrors is the library's own; providers see Overwrite.
Policy effectiveFor(Policy policy) {
  return policy == Policy::OverwriteDeferringPermissionErrors ? Policy::Overwrite : policy;
}

} // namespace

void File::doMoveFile(File const& destination, Policy const& policy) const {
  Policy const effective = effectiveFor(policy);
  bool fallBack = item_.getScheme() != destination.item_.getScheme();
  if (!fallBack) {
    try {
      item_.moveFile(destination.item_.getLocation(), effective);
      return;
    } catch (provider::Exception const& failure) {
      if (failure.getErrorCode() == provider::ErrorCode::UnsupportedOperation) {
        fallBack = true;
      } else if (failure.getErrorCode() == provider::ErrorCode::PermissionDenied && effective == Policy::ForceOverwrite) {
        try {
          destination.item_.setWritable(true);
        } catch (provider::Exception const& unlock) {
          if (unlock.getErrorCode() != provider::ErrorCode::ResourceNotFound) throw;
        }
        try {
          item_.moveFile(destination.item_.getLocation(), effective);
          return;
        } catch (...) {
          throw provider::Exception(failure); // the first failure tells what went wrong
        }
      } else {
        throw;
      }
    }
  }
  copyFile(destination, effective);
  detail::guarded([&] { item_.removeFile(); });
}

provider::CopyResult File::doCopyFile(File const& destination, provider::CopyFileOptions const& options) const {
  provider::CopyFileOptions effective = options;
  effective.policy = effectiveFor(options.policy);
  bool const sameScheme = item_.getScheme() == destination.item_.getScheme();
  auto keepModificationTime = [&] {
    if (sameScheme) destination.item_.setLastModified(item_.getFileAttributes().getLastModified());
  };
  try {
    provider::CopyResult const result = item_.copyFile(destination.item_, effective);
    if (result != provider::CopyResult::Skipped) keepModificationTime();
    return result;
  } catch (provider::Exception const& failure) {
    if (failure.getErrorCode() != provider::ErrorCode::PermissionDenied || effective.policy != Policy::ForceOverwrite)
      throw;
    try {
      destination.item_.setWritable(true);
    } catch (...) {
      throw provider::Exception(failure); // report the first provider failure
    }
    provider::CopyResult const result = item_.copyFile(destination.item_, effective);
    if (result != provider::CopyResult::Skipped) {
      keepModificationTime();
    } else {
      destination.item_.setWritable(false);
    }
    return result;
  }
}

} // namespace foundation::storage::vfs
