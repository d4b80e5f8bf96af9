#include "renaming.hpp"

#include <vfs/exceptions.hpp>
#include <vfs/file.hpp>

namespace vfs_tool::mount {

namespace provider = foundation::storage::provider;

void renameItem(vfs::AbsoluteIRI const& from, vfs::AbsoluteIRI const& to, vfs::StorageSystemReference const& system,
                bool noReplace) {
  auto const policy = noReplace ? provider::ReplacementPolicy::FailIfExists : provider::ReplacementPolicy::Overwrite;
  switch (vfs::exists(from, system)) {
  case provider::ExistsResult::NotFound: throw vfs::Exception(vfs::ErrorCode::ResourceNotFound, from);
  case provider::ExistsResult::File: vfs::File(from, system).moveFile(vfs::File(to, system), policy); return;
  case provider::ExistsResult::Folder:
    // The provider replaces an empty folder and refuses a full one in the move itself, so
    // the empty one goes only with a move that succeeds.
    vfs::Folder(from, system).moveFolder(vfs::Folder(to, system), policy);
    return;
  }
}

} // namespace vfs_tool::mount
