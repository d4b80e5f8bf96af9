#pragma once

// The exit status of each class of failure, and the one-line report of a failure.

#include <string>

namespace vfs_tool {

enum ExitStatus : int {
  Success = 0,
  OtherFailure = 1,   ///< internal or unknown failures
  UsageError = 2,     ///< bad arguments
  NotFound = 3,       ///< ResourceNotFound
  Exists = 4,         ///< ResourceAlreadyExists, FolderNotEmpty
  NotPermitted = 5,   ///< PermissionDenied, ReadOnlyProvider, ResourceInUse
  BadLocation = 6,    ///< InvalidLocation, UnsupportedOperation, invalid IRI, unknown scheme
  NoSpace = 7,        ///< NoSpaceLeft, FileTooLarge
  IOFailure = 8,      ///< IOError and failed reads or writes
  OutputClosed = 141, ///< the reader of standard output went away (as if killed by SIGPIPE)
};

/// The table of exit statuses, as --help shows it.
std::string exitStatusHelp();

/// Reports the exception in flight as "vfs: <code>: <location>" on standard error and
/// returns its exit status. `location` names the place when the exception does not.
/// Call only from a catch handler.
int reportCurrentFailure(std::string const& location = {});

/// A failure the tool itself finds (a folder given to cp without -r), reported like the
/// library's.
struct ToolFailure {
  std::string code;
  std::string location;
  ExitStatus status;
};

} // namespace vfs_tool
