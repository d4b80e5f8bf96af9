// The parallel walk: the entries of a folder are tasks of the folder's own task group, each
// sub-folder a task that walks it with a nested group, the files in batches of a few dozen
// per task. The folder's mutex guards only the appending of one task's results; no lock is
// held while the visitor runs.

#include <vfs/entries.hpp>
#include <vfs/walk.hpp>

#include <oneapi/tbb/task_group.h>

#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace foundation::storage::vfs {

namespace {

using Listing = FolderListing<FileOrFolderEntry>;

// oneTBB hands tasks over and joins them inside its own library, which ThreadSanitizer does
// not see: tell it about those two hand-overs, or it reports every task as racing with the
// thread that spawned it.
#if defined(__SANITIZE_THREAD__)
void handOver(void const* token) { __tsan_release(const_cast<void*>(token)); }
void takeOver(void const* token) { __tsan_acquire(const_cast<void*>(token)); }
#else
void handOver(void const*) {}
void takeOver(void const*) {}
#endif

/// Hands over from a task to the thread that waits for it, also when the task throws.
struct HandOverAtEnd {
  void const* token;
  ~HandOverAtEnd() { handOver(token); }
};

/// The first member of a task: orders the task's construction after the last use of its
/// memory (oneTBB reuses it from thread to thread) and its destruction before the next.
struct TaskMemory {
  TaskMemory() { takeOver(this); }
  TaskMemory(TaskMemory const&) : TaskMemory() {}
  ~TaskMemory() { handOver(this); }
};

/// Files visited by one task. Enough to make a task's own cost small beside the visits,
/// few enough that the files of one large folder still spread over the threads.
constexpr std::size_t filesPerTask = 32;

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

/// Entries of one folder, visited in listing order on whichever thread the scheduler picks:
/// a sub-folder alone, files in batches (a task per file would cost more than visiting it).
struct ParallelFolderWalker::EntriesTask {
  EntriesTask(ParallelFolderWalker const* w, std::vector<FolderVisitResult>* r, std::mutex* m, FolderEntry const* p,
              std::vector<FileOrFolderEntry> e)
      : walker(w), results(r), mutex(m), parent(p), entries(std::move(e)) {
    handOver(&memory);
  }
  EntriesTask(EntriesTask const& other)
      : EntriesTask(other.walker, other.results, other.mutex, other.parent, other.entries) {}
  EntriesTask(EntriesTask&& other) noexcept
      : walker(other.walker), results(other.results), mutex(other.mutex), parent(other.parent),
        entries(std::move(other.entries)) {
    handOver(&memory); // from the spawning thread to the one that runs the task
  }

  TaskMemory memory;
  ParallelFolderWalker const* walker;
  std::vector<FolderVisitResult>* results;
  std::mutex* mutex;
  FolderEntry const* parent;
  std::vector<FileOrFolderEntry> entries;

  void operator()() const {
    takeOver(&memory);
    HandOverAtEnd const done{results};
    std::vector<FolderVisitResult> mine;
    mine.reserve(entries.size());
    for (FileOrFolderEntry const& entry : entries) mine.push_back(visit(entry));
    std::lock_guard lock(*mutex);
    results->insert(results->end(), mine.begin(), mine.end());
  }

  FolderVisitResult visit(FileOrFolderEntry const& entry) const {
    try {
      return walker->isCancelled_() ? FolderVisitResult::Stop : boost::apply_visitor(*walker, entry);
    } catch (Exception const& failure) {
      // A failure below is the parent's: its after-callback when something vanished (it
      // runs once more when the parent's walk ends), its failure callback otherwise.
      return failure.getErrorCode() == ErrorCode::ResourceNotFound
                 ? walker->visitor_.visitEntryAfter(*parent)
                 : walker->visitor_.visitFolderEntryFailed(*parent, failure);
    }
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
  std::vector<FileOrFolderEntry> files; // listed, not yet handed to a task
  auto const spawn = [&](std::vector<FileOrFolderEntry> entries) {
    group.run(EntriesTask(this, &results, &mutex, &entry, std::move(entries)));
  };
  try {
    for (; *position != *end; ++*position) {
      FileOrFolderEntry const& child = **position;
      if (boost::get<FolderEntry>(&child)) {
        spawn({child});
        continue;
      }
      files.push_back(child);
      if (files.size() == filesPerTask) spawn(std::exchange(files, {}));
    }
    if (!files.empty()) spawn(std::exchange(files, {}));
  } catch (...) {
    // Advancing the listing failed: the files listed before it are visited all the same, and
    // the tasks already running still use this frame.
    try {
      if (!files.empty()) spawn(std::exchange(files, {}));
    } catch (...) {
      // out of memory: these files go unvisited; the listing's failure is the one reported
    }
    try {
      group.wait();
    } catch (...) {
      // the listing's failure is the one reported
    }
    takeOver(&results);
    throw;
  }
  position.reset(); // the listing is no longer needed while the tasks run
  end.reset();
  try {
    group.wait();
  } catch (...) {
    takeOver(&results);
    throw;
  }
  takeOver(&results);

  FolderVisitResult const folded = fold(results);
  if (isCancelled_() || folded == FolderVisitResult::Stop) return FolderVisitResult::Stop;
  return visitor_.visitEntryAfter(entry);
}

FolderVisitResult ParallelFolderWalker::operator()(FileEntry const& entry) const { return visitor_.visitEntry(entry); }

FolderVisitResult ParallelFolderWalker::operator()(FolderEntry const& entry) const { return walk(entry); }

FolderVisitResult walkFolderParallel(Folder const& folder, FolderVisitor& visitor) {
  return walkFolderParallel(folder, visitor, [] { return false; });
}

FolderVisitResult walkFolderParallel(Folder const& folder, FolderVisitor& visitor,
                                     std::function<bool()> const& isCancelled) {
  return ParallelFolderWalker(visitor, isCancelled).walk(folder);
}

} // namespace foundation::storage::vfs
