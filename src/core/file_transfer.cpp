// Moving and copying files, within a provider or across: the provider does it where it
// can; otherwise the library copies and removes.

#include <vfs/file.hpp>

#include "errors/guard.hpp"

#include <utility>

namespace foundation::storage::vfs {

namespace {

using Policy = provider::ReplacementPolicy;

/// OverwriteDeferringPermissionErrors is the library's own; providers see Overwrite.
Policy effectiveFor(Policy policy) {
  return policy == Policy::OverwriteDeferringPermissionErrors ? Policy::Overwrite : policy;
}

/// Runs `call`, a step of recovering from `first`. A provider failure of the step gives way
/// to `first`, which tells what went wrong; anything else (out of memory, a programming
/// error) passes as it is.
template <class Call>
decltype(auto) recoveringFrom(provider::Exception const& first, Call&& call) {
  try {
    return std::forward<Call>(call)();
  } catch (provider::Exception const&) {
    throw provider::Exception(first);
  }
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
      } else if (failure.getErrorCode() == provider::ErrorCode::PermissionDenied &&
                 effective == Policy::ForceOverwrite) {
        try {
          destination.item_.setWritable(true);
        } catch (provider::Exception const& unlock) {
          if (unlock.getErrorCode() != provider::ErrorCode::ResourceNotFound) throw;
        }
        recoveringFrom(failure, [&] { item_.moveFile(destination.item_.getLocation(), effective); });
        return;
      } else {
        throw;
      }
    }
  }
  // A copy that kept the destination's file leaves this one where it is, as the providers'
  // own moves do.
  if (copyFile(destination, effective) == provider::CopyResult::Skipped) return;
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
    recoveringFrom(failure, [&] { destination.item_.setWritable(true); });
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
