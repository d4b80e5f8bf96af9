// The parallel walk: every entry of a folder is a task of the folder's own task group; a
// sub-folder's task walks that sub-folder with a nested group. The folder's mutex guards
// only the appending of one task's result; no lock is held while the visitor runs.

#include <vfs/entries.hpp>
#include <vfs/walk.hpp>

#include <oneapi/tbb/task_group.h>

#include <mutex>
#include <optional>
#include <vector>

namespace foundation::storage::vfs {

namespace {

using Listing = FolderListing<FileOrFolderEntry>;

/// Stop if any task stopped, else Skip if any skipped, else Continue.
FolderVisitResult fold(std::vector<FolderVisitResult> const& results) {
  FolderVisitResult folded = FolderVisitResult::Continue;
  for (FolderVisitResult result : results) {
    if (result == FolderVisitResult::Stop) return FolderVisitResult::Stop;
    if (result == FolderVisitResult::Skip) folded = FolderVisitResult::Skip;
  }
  return folded;
}

} // namespace

/// One entry of a folder, visited on whichever thread the scheduler picks.
struct ParallelFolderWalker::EntryTask {
  ParallelFolderWalker const* walker;
  std::vector<FolderVisitResult>* results;
  std::mutex* mutex;
  FolderEntry const* parent;
  FileOrFolderEntry entry;

  void operator()() const {
    FolderVisitResult result;
    try {
      result = walker->isCancelled_() ? FolderVisitResult::Stop : boost::apply_visitor(*walker, entry);
    } catch (Exception const& failure) {
      // A failure below is the parent's: its after-callback when something vanished (it
      // runs once more when the parent's walk ends), its failure callback otherwise.
      result = failure.getErrorCode() == ErrorCode::ResourceNotFound
                   ? walker->visitor_.visitEntryAfter(*parent)
                   : walker->visitor_.visitFolderEntryFailed(*parent, failure);
    }
    std::lock_guard lock(*mutex);
    results->push_back(result);
  }
};

ParallelFolderWalker::ParallelFolderWalker(FolderVisitor& visitor, std::function<bool()> isCancelled) noexcept
    : visitor_(visitor), isCancelled_(std::move(isCancelled)) {}

FolderVisitResult ParallelFolderWalker::walk(Folder const& folder) const { return walk(FolderEntry(Folder(folder))); }

FolderVisitResult ParallelFolderWalker::walk(FolderEntry const& entry) const {
  if (isCancelled_()) return FolderVisitResult::Stop;
  FolderVisitResult const before = visitor_.visitEntryBefore(entry);
  if (before != FolderVisitResult::Continue) return before;

  std::optional<Listing::iterator> position, end;
  try {
    Listing const listing = entry.getFolder().listAllEntries(std::u16string());
    position = listing.begin();
    end = listing.end();
  } catch (Exception const& failure) {
    if (failure.getErrorCode() == ErrorCode::ResourceNotFound) return visitor_.visitEntryAfter(entry);
    return visitor_.visitFolderEntryFailed(entry, failure);
  }

  tbb::task_group group;
  std::mutex mutex;
  std::vector<FolderVisitResult> results;
  try {
    for (; *position != *end; ++*position)
      group.run(EntryTask{this, &results, &mutex, &entry, **position});
  } catch (...) {
    // Advancing the listing failed: the tasks already running still use this frame.
    try {
      group.wait();
    } catch (...) {
      // the listing's failure is the one reported
    }
    throw;
  }
  position.reset(); // the listing is no longer needed while the tasks run
  end.reset();
  group.wait();

  FolderVisitResult const folded = fold(results);
  if (isCancelled_() || folded == FolderVisitResult::Stop) return FolderVisitResult::Stop;
  return visitor_.visitEntryAfter(entry);
}

FolderVisitResult ParallelFolderWalker::operator()(FileEntry const& entry) const { return visitor_.visitEntry(entry); }

FolderVisitResult ParallelFolderWalker::operator()(FolderEntry const& entry) const { return walk(entry); }

FolderVisitResult walkFolderParallel(Folder const& folder, FolderVisitor& visitor) {
  return walkFolderParallel(folder, visitor, [] { return false; });
}

FolderVisitResult walkFolderParallel(Folder const& folder, FolderVisitor& visitor, std::function<bool()> const& isCancelled) {
  return ParallelFolderWalker(visitor, isCancelled).walk(folder);
}

} // namespace foundation::storage::vfs
