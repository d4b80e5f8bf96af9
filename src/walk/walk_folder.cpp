// The serial walk. Depth first, iteratively: one level per folder on the current path, each
// holding its open listing, so a deep tree costs heap, not stack.
//
// Each open folder has a guarded region: its listing, the callbacks for its entries, and
// everything its sub-folders' steps let escape (their before- and after-callbacks and what
// their failure callbacks rethrow). A library Exception escaping that region ends the folder
// through its own after-callback (the folder vanished) or its failure callback; what those
// throw escapes into the parent's region in turn, and from the top folder to the caller.

#include <vfs/entries.hpp>
#include <vfs/walk.hpp>

#include <boost/optional.hpp>

#include <exception>
#include <optional>
#include <vector>

namespace foundation::storage::vfs {

namespace {

using Listing = FolderListing<FileOrFolderEntry>;

struct Level {
  explicit Level(FolderEntry folder) : entry(std::move(folder)) {}

  FolderEntry entry;
  std::optional<Listing::iterator> position; ///< the entry being visited; none before listing
  std::optional<Listing::iterator> end;
};

class SerialWalk {
public:
  explicit SerialWalk(FolderVisitor& visitor) : visitor_(visitor) {}

  FolderVisitResult run(FolderEntry const& top) {
    FolderVisitResult const before = visitor_.visitEntryBefore(top);
    if (before != FolderVisitResult::Continue) return before;
    path_.emplace_back(top);
    for (;;) {
      boost::optional<FolderVisitResult> ended;
      try {
        ended = proceed();
      } catch (Exception const&) {
        if (path_.empty()) throw; // the top folder's after-callback threw
        ended = recover(std::current_exception());
      }
      // A folder's step ended: Stop ends every step above it at once; otherwise its parent
      // goes on with the next sibling.
      if (ended && (*ended == FolderVisitResult::Stop || path_.empty())) return *ended;
    }
  }

private:
  /// Takes one step in the innermost open folder: lists it, or visits its next entry
  /// (entering a sub-folder), or ends it. Returns the folder's result when it ended (it is
  /// then closed) or when a callback said Stop.
  boost::optional<FolderVisitResult> proceed() {
    Level& level = path_.back();
    if (!level.position) {
      Listing const listing = level.entry.getFolder().listAllEntries(std::u16string());
      level.position = listing.begin();
      level.end = listing.end();
    } else {
      ++*level.position;
    }
    if (*level.position == *level.end) {
      FolderEntry const done = std::move(level.entry);
      path_.pop_back(); // the after-callback is outside the folder's own region
      return visitor_.visitEntryAfter(done);
    }
    FileOrFolderEntry const& element = **level.position;
    if (auto const* file = boost::get<FileEntry>(&element)) {
      if (visitor_.visitEntry(*file) == FolderVisitResult::Stop) return FolderVisitResult::Stop;
      return boost::none;
    }
    FolderEntry const folder = boost::get<FolderEntry>(element);
    FolderVisitResult const before = visitor_.visitEntryBefore(folder);
    if (before == FolderVisitResult::Stop) return FolderVisitResult::Stop;
    if (before == FolderVisitResult::Continue) path_.emplace_back(folder);
    return boost::none;
  }

  /// Ends the innermost open folder after `failure` escaped its region and returns its
  /// result; what its callbacks throw ends the next folder up in the same way.
  FolderVisitResult recover(std::exception_ptr failure) {
    for (;;) {
      FolderEntry const failed = std::move(path_.back().entry);
      path_.pop_back();
      try {
        try {
          std::rethrow_exception(failure);
        } catch (Exception const& escaped) {
          if (escaped.getErrorCode() == ErrorCode::ResourceNotFound) return visitor_.visitEntryAfter(failed);
          return visitor_.visitFolderEntryFailed(failed, escaped);
        }
      } catch (Exception const&) {
        if (path_.empty()) throw;
        failure = std::current_exception();
      }
    }
  }

  FolderVisitor& visitor_;
  std::vector<Level> path_;
};

} // namespace

FolderVisitResult walkFolder(Folder const& folder, FolderVisitor& visitor) {
  return SerialWalk(visitor).run(FolderEntry(Folder(folder)));
}

} // namespace foundation::storage::vfs
