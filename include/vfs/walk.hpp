#pragma once

// Walks over folder trees: a FolderVisitor is called before and after each folder and once
// for each file, serially on the calling thread or in parallel on oneTBB.

#include <foundation/core/visibility.hpp>

#include <vfs/exceptions.hpp>
#include <vfs/file.hpp>
#include <vfs/folder.hpp>

#include <oneapi/tbb/task_arena.h>

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

namespace foundation::storage::vfs {

class FileEntry;
class FolderEntry;

/// How a visitor steers a walk.
enum class FolderVisitResult : std::uint32_t {
  Continue = 0, ///< go on
  Skip = 1,     ///< from a before-callback: leave this folder's contents and after-callback out
  Stop = 2,     ///< end the walk; no further after-callbacks of the folders still open
};

/// "FolderVisitResult::<name>", or "Unhandled FolderVisitResult" for any other value.
FOUNDATION_API std::string toString(FolderVisitResult const& result);
FOUNDATION_API std::u16string toUstring(FolderVisitResult const& result);
FOUNDATION_API std::ostream& operator<<(std::ostream& os, FolderVisitResult const& result);

/// What a walk calls. Every operation has a default. A walk calls only the entry forms
/// (`visitEntryBefore`, `visitEntry`, `visitEntryAfter`, `visitFolderEntryFailed`), whose
/// defaults call the plain forms: override the plain forms to work with handles, the entry
/// forms to use the attributes a listing delivered with each entry.
class FOUNDATION_API FolderVisitor {
public:
  /// Before a folder's contents; default Continue.
  virtual FolderVisitResult visitBefore(Folder const& folder);
  /// Default: `visitBefore(entry.getFolder())`.
  virtual FolderVisitResult visitEntryBefore(FolderEntry const& entry);
  /// Once per file; default Continue. Skip means the same as Continue here.
  virtual FolderVisitResult visit(File const& file);
  /// Default: `visit(entry.getFile())`.
  virtual FolderVisitResult visitEntry(FileEntry const& entry);
  /// After a folder's contents, also after a folder vanished while it was walked; default
  /// Continue.
  virtual FolderVisitResult visitAfter(Folder const& folder);
  /// Default: `visitAfter(entry.getFolder())`.
  virtual FolderVisitResult visitEntryAfter(FolderEntry const& entry);
  /// A folder could not be walked (its listing failed, or a callback below it threw);
  /// default: throws a copy of `failure`. Continue or Skip go on with the next sibling.
  virtual FolderVisitResult visitFolderFailed(Folder const& folder, Exception const& failure);
  /// Default: `visitFolderFailed(entry.getFolder(), failure)`.
  virtual FolderVisitResult visitFolderEntryFailed(FolderEntry const& entry, Exception const& failure);
  virtual ~FolderVisitor();
};

/// Walks the tree under `folder` depth first on the calling thread, the folder itself
/// included, and returns the folder's result. What the failure callbacks throw propagates.
FOUNDATION_API FolderVisitResult walkFolder(Folder const& folder, FolderVisitor& visitor);

/// Walks a tree with the visitor's callbacks running concurrently on oneTBB worker threads
/// and the calling thread: a task per sub-folder and per batch of files, whose files are
/// visited in listing order. Callbacks for one folder keep their causal
/// order (before-callback, the entries, after-callback); siblings run in no defined order, so
/// the visitor and the predicate must be thread-safe. `Stop` from a callback suppresses the
/// after-callbacks of its folder and of the folders above it but does not stop siblings;
/// to end a walk early, make the predicate answer true: it is asked before each folder and
/// each entry, and again before each after-callback.
class FOUNDATION_API ParallelFolderWalker {
public:
  /// `visitor` must outlive the walker.
  ParallelFolderWalker(FolderVisitor& visitor, std::function<bool()> isCancelled) noexcept;

  FolderVisitResult walk(Folder const& folder) const;
  /// Blocks until every task of the walk has ended. std::bad_function_call for an empty
  /// predicate.
  FolderVisitResult walk(FolderEntry const& entry) const;
  /// `visitor.visitEntry(entry)`.
  FolderVisitResult operator()(FileEntry const& entry) const;
  /// `walk(entry)`.
  FolderVisitResult operator()(FolderEntry const& entry) const;

private:
  struct EntriesTask; ///< entries of a folder, as a task

  FolderVisitor& visitor_;
  std::function<bool()> isCancelled_;
  /// Not entered: tasks run in the arena of the thread that calls `walk`.
  tbb::task_arena arena_;
};

/// Walks `folder` in parallel to the end (never cancelled); returns the folder's result.
FOUNDATION_API FolderVisitResult walkFolderParallel(Folder const& folder, FolderVisitor& visitor);
/// The same, ending early once `isCancelled` answers true.
FOUNDATION_API FolderVisitResult walkFolderParallel(Folder const& folder, FolderVisitor& visitor,
                                                    std::function<bool()> const& isCancelled);

} // namespace foundation::storage::vfs
