#pragma once

// What every command shares: the storage system, and the locations named on the command line.

#include <foundation/storage/systems/standard_storage_system.hpp>
#include <vfs/folder.hpp>

#include <memory>
#include <string>
#include <vector>

namespace vfs_tool {

namespace vfs = foundation::storage::vfs;

/// A location as the user named it: an IRI of any registered scheme, or a local path
/// (made absolute from the current folder) standing for a `file` IRI.
struct Location {
  vfs::AbsoluteIRI iri;
  std::string given; ///< the text as typed, without trailing "/"
  bool localPath;    ///< given as a path: output names paths, not IRIs

  /// How output names `location` below this one: the typed path joined with the relative
  /// path for local paths, the IRI otherwise.
  std::string display(vfs::AbsoluteIRI const& location) const;
  /// The path of `location` relative to this one, "/"-separated; empty for this one.
  std::string relative(vfs::AbsoluteIRI const& location) const;
  std::string iriText() const;
};

/// The ready storage system, built on first use so that a command can set up its signal
/// handling before the system starts any thread.
class Session {
public:
  Location resolve(std::string const& text);
  vfs::StorageSystemReference system();
  std::shared_ptr<foundation::storage::systems::StandardStorageSystem> const& storage();
  /// A File where a file is, a Folder where anything else is; ResourceNotFound otherwise.
  vfs::FileOrFolder existing(Location const& location);
  /// Notes that a command changes something at `location`.
  void changes(vfs::AbsoluteIRI const& location);
  /// Commits what the providers of the changed locations hold back (an archive's change
  /// set waits for a commit), so that a failure still reaches the user. Throws the first
  /// failure.
  void commitChanges();

private:
  std::shared_ptr<foundation::storage::systems::StandardStorageSystem> storage_;
  std::vector<vfs::AbsoluteIRI> changed_;
};

} // namespace vfs_tool
