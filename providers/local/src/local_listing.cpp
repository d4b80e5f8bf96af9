#include "local_listing.hpp"

#include "directory_reader.hpp"
#include "folder_descent.hpp"
#include "posix_calls.hpp"
#include "temporary_files.hpp"

#include <foundation/storage/provider/wildcard.hpp>

#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

namespace foundation::storage::providers::local::detail {

namespace {

struct RawEntry {
  std::string name;
  EntryKind kind;
};

/// Descriptors a walk keeps open besides its root, however deep the tree.
constexpr std::size_t keepOpen = 32;

/// Where a walk meets an entry it cannot enter: folders that cannot be read or vanished
/// meanwhile are skipped; anything else (out of descriptors, I/O) is a failure.
bool isSkippable(int error) noexcept {
  return error == EACCES || error == EPERM || error == ENOENT || error == ENOTDIR || error == ELOOP;
}

/// The folder's entries.
int readEntries(int dirfd, std::vector<RawEntry>& entries) noexcept {
  try {
    return readDirectory(dirfd, [&](std::string_view name, EntryKind kind) {
      entries.push_back({std::string(name), kind});
    });
  } catch (std::bad_alloc const&) {
    return ENOMEM;
  }
}

/// Leaves the elements it makes uninitialised: a batch buffer is grown before every read and
/// filled by the kernel, so zeroing it first would be wasted work.
template <class T>
struct UninitialisedAllocator : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = UninitialisedAllocator<U>;
  };
  UninitialisedAllocator() = default;
  template <class U>
  UninitialisedAllocator(UninitialisedAllocator<U> const&) noexcept {}
  template <class U>
  void construct(U* at) noexcept {
    ::new (static_cast<void*>(at)) U;
  }
  template <class U, class... Args>
  void construct(U* at, Args&&... args) {
    ::new (static_cast<void*>(at)) U(std::forward<Args>(args)...);
  }
};

/// A cursor that walks the folder while it is read: one batch of records is decoded at a
/// time, so memory grows with the depth of the tree, never with the number of entries.
///
/// The records of every folder on the way down stay in one byte stack, each level owning
/// the batch it read last; a level's batch is replaced by its next one once decoded. A
/// folder is handed out before its contents. `hasNext` reads ahead by one entry; a failure
/// met while reading ahead is thrown by the `next` that would have moved past it.
class StreamingCursor final : public p::IFolderEntryIterator {
public:
  StreamingCursor(UniqueFd folder, p::ListingRequest request, UserIdentity user, p::StorageIRI location)
      : request_(std::move(request)), user_(std::move(user)), location_(std::move(location)),
        descent_(std::move(folder), keepOpen) {
    levels_.push_back(Level{});
    if (int error = readBatch()) fail(error);
  }

  p::FolderEntry const& current() const override {
    if (yielded_ == 0) throw std::logic_error("a listing cursor has no entry before its first next()");
    return current_;
  }

  bool hasNext() const override {
    if (!lookedAhead_) {
      lookedAhead_ = true;
      try {
        havePending_ = advance();
      } catch (...) {
        failure_ = std::current_exception();
        havePending_ = true;
      }
    }
    return havePending_;
  }

  void next() override {
    if (!hasNext()) throw std::logic_error("a listing cursor moved past its last entry");
    if (failure_) std::rethrow_exception(failure_); // the walk cannot go on past it
    std::swap(current_, pending_);
    lookedAhead_ = false;
    ++yielded_;
  }

  /// A clone has its own descriptors, so the two never disturb each other's reading. While
  /// the cursor reads the listed folder itself (always, for a flat listing), the clone takes
  /// over its batch and reads on from where the batch ends; deeper in a tree it walks the
  /// folder again from its start and skips what this cursor has handed out.
  std::unique_ptr<p::IFolderEntryIterator> clone() const override {
    int fd = openAt(descent_.root(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) fail(-fd);
    UniqueFd folder(fd);
    if (levels_.size() == 1) {
      Level const& level = levels_.front();
      if (level.end != level.begin && ::lseek(fd, static_cast<off_t>(batchEndOffset()), SEEK_SET) < 0) fail(errno);
      return std::make_unique<StreamingCursor>(std::move(folder), *this);
    }
    auto copy = std::make_unique<StreamingCursor>(std::move(folder), request_, user_, location_);
    for (std::size_t i = 0; i < yielded_ && copy->hasNext(); ++i) copy->next();
    return copy;
  }

  /// A copy of `from`, which reads only its listed folder, that reads on from `folder`.
  StreamingCursor(UniqueFd folder, StreamingCursor const& from)
      : request_(from.request_), user_(from.user_), location_(from.location_), descent_(std::move(folder), keepOpen),
        bytes_(from.bytes_), levels_(from.levels_), path_(from.path_), current_(from.current_), pending_(from.pending_),
        pendingWalkInto_(from.pendingWalkInto_), failure_(from.failure_), lookedAhead_(from.lookedAhead_),
        havePending_(from.havePending_), yielded_(from.yielded_) {}

private:
  [[noreturn]] void fail(int error) const { failErrno(error, location_, request_.operation); }

  /// A folder being read: where its batch lies in the byte stack, and the next record.
  struct Level {
    std::size_t begin = 0;
    std::size_t end = 0;
    std::size_t next = 0;
    std::size_t pathLength = 0; ///< of the folder's path relative to the listed one
    long long offset = 0;       ///< in the folder, just past the record before `next`
  };

  /// The offset in the listed folder just past the batch it read last.
  long long batchEndOffset() const {
    Level const& level = levels_.front();
    long long offset = level.offset;
    for (std::size_t at = level.next; at < level.end;) {
      DirectoryRecord const record = decodeDirectoryRecord(bytes_.data() + at);
      at += record.length;
      offset = record.nextOffset;
    }
    return offset;
  }

  /// Replaces the deepest level's batch by the next one; 0, or an errno value.
  int readBatch() const {
    Level& level = levels_.back();
    bytes_.resize(level.begin + directoryBatchSize);
    long got = readDirectoryBatch(descent_.current(), bytes_.data() + level.begin, directoryBatchSize);
    bytes_.resize(level.begin + static_cast<std::size_t>(got > 0 ? got : 0));
    level.end = bytes_.size();
    level.next = level.begin;
    return got < 0 ? static_cast<int>(-got) : 0;
  }

  /// Leaves the deepest level for its parent. A parent whose descriptor was closed on the
  /// way down is read on from where it was left, not from its start.
  void climb() const {
    bytes_.resize(levels_.back().begin);
    levels_.pop_back();
    Level& parent = levels_.back();
    path_.resize(parent.pathLength);
    bool reopened = false;
    if (int error = descent_.ascend(&reopened)) fail(error);
    if (!reopened) return;
    if (::lseek(descent_.current(), static_cast<off_t>(parent.offset), SEEK_SET) < 0) fail(errno);
    parent.end = parent.next; // the rest of its batch is read again
  }

  /// Enters the folder `name` of the deepest level, whose relative path is `path_`.
  void enter(char const* name) const {
    if (int error = descent_.descend(name)) {
      path_.resize(levels_.back().pathLength);
      if (isSkippable(error)) return;
      fail(error);
    }
    levels_.push_back(Level{bytes_.size(), bytes_.size(), bytes_.size(), path_.size()});
    if (int error = readBatch()) {
      if (!isSkippable(error)) fail(error);
      climb();
    }
  }

  /// Finds the next wanted entry into `pending_`; false at the end of the walk.
  bool advance() const {
    for (;;) {
      Level& level = levels_.back();
      if (level.next == level.end) {
        if (level.end == level.begin) { // the folder is read to its end
          if (levels_.size() == 1) return false;
          climb();
        } else if (int error = readBatch()) {
          fail(error);
        }
        continue;
      }
      DirectoryRecord const record = decodeDirectoryRecord(bytes_.data() + level.next);
      level.next += record.length;
      level.offset = record.nextOffset;
      if (record.dotOrDotDot) continue;
      if (isTemporaryFileName(record.name)) {
        removeIfStale(descent_.current(), record.name);
        continue;
      }
      std::size_t const base = path_.size();
      if (base != 0) path_ += u'/';
      if (!appendNameAsUtf16(path_, record.name)) { // not expressible as a location
        path_.resize(base);
        continue;
      }
      bool const wanted = describe(record, base == 0 ? 0 : base + 1);
      if (!pendingWalkInto_ || !request_.recursive) {
        path_.resize(base);
        if (wanted) return true;
        continue;
      }
      enter(record.name); // a folder is handed out before its contents
      if (wanted) return true;
    }
  }

  /// Describes the entry `record` of the deepest level, whose relative path is `path_` (its
  /// name from `nameStart`), into `pending_`, reusing its storage; tells whether the request
  /// wants it.
  bool describe(DirectoryRecord const& record, std::size_t nameStart) const {
    int const dirfd = descent_.current();
    struct stat st {};
    bool haveStat = false;
    bool symlink = false;
    EntryKind kind = record.kind;
    pendingWalkInto_ = false;
    if (kind == EntryKind::Unknown) {                               // file systems without d_type
      if (statAt(dirfd, record.name, st, false) != 0) return false; // vanished meanwhile
      kind = kindFromMode(st.st_mode);
      haveStat = kind != EntryKind::Symlink;
    }
    if (kind == EntryKind::Symlink) {
      symlink = true;
      haveStat = statAt(dirfd, record.name, st, true) == 0;
      kind = haveStat ? kindFromMode(st.st_mode) : EntryKind::File;
    }
    bool const isFolder = kind == EntryKind::Folder;
    pendingWalkInto_ = isFolder && !symlink;
    bool const wanted = request_.kinds == p::EntryKinds::All || (request_.kinds == p::EntryKinds::Folders) == isFolder;
    if (!wanted) return false;
    if (!request_.pattern.empty() &&
        !p::matchesWildcard(request_.pattern, std::u16string_view(path_).substr(nameStart)))
      return false;
    if (!request_.withAttributes) {
      pending_.assign(path_, !isFolder);
      return true;
    }
    // Not stated yet: a plain entry, or a broken link described by itself.
    if (!haveStat && statAt(dirfd, record.name, st, false) != 0) return false; // vanished meanwhile
    if (isFolder)
      pending_.assign(path_, folderAttributes(st, record.name, symlink, user_));
    else
      pending_.assign(path_, fileAttributes(st, record.name, symlink, user_));
    return true;
  }

  p::ListingRequest const request_;
  UserIdentity const user_;
  p::StorageIRI const location_;
  mutable FolderDescent descent_;
  mutable std::vector<char, UninitialisedAllocator<char>> bytes_;
  mutable std::vector<Level> levels_;
  mutable std::u16string path_;               ///< of the entry being looked at
  p::FolderEntry current_{u"", true};         ///< lent by current()
  mutable p::FolderEntry pending_{u"", true}; ///< read ahead by hasNext; swapped with current_ by next
  mutable bool pendingWalkInto_ = false;      ///< pending_ is a folder, not a link to one
  mutable std::exception_ptr failure_;
  mutable bool lookedAhead_ = false;
  mutable bool havePending_ = false;
  std::size_t yielded_ = 0;
};

} // namespace

std::unique_ptr<p::IFolderEntryIterator> listFolder(UniqueFd folder, p::ListingRequest const& request,
                                                    UserIdentity const& user, p::StorageIRI const& location) {
  return std::make_unique<StreamingCursor>(std::move(folder), request, user, location);
}

int removeTree(int parent, char const* name) noexcept {
  int fd = openAt(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -fd;
  try {
    FolderDescent descent{UniqueFd(fd), keepOpen};
    struct Level {
      std::vector<RawEntry> entries;
      std::size_t next = 0;
    };
    std::vector<Level> levels(1);
    std::vector<std::string> names; // of the levels below the root, in their parents
    if (int error = readEntries(descent.current(), levels.back().entries)) return error;
    while (true) {
      Level& level = levels.back();
      if (level.next == level.entries.size()) {
        levels.pop_back();
        if (levels.empty()) break;
        if (int error = descent.ascend()) return error;
        if (::unlinkat(descent.current(), names.back().c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) return errno;
        names.pop_back();
        continue;
      }
      RawEntry const& entry = level.entries[level.next++];
      EntryKind kind = entry.kind;
      if (kind == EntryKind::Unknown) {
        struct stat st {};
        if (statAt(descent.current(), entry.name.c_str(), st, false) != 0) continue;
        kind = kindFromMode(st.st_mode);
      }
      if (kind == EntryKind::Folder) {
        int const error = descent.descend(entry.name.c_str());
        if (error == 0) {
          Level child;
          if (int readError = readEntries(descent.current(), child.entries)) return readError;
          names.push_back(entry.name);
          levels.push_back(std::move(child));
          continue;
        }
        if (error == ENOENT) continue;
        if (error != ENOTDIR && error != ELOOP) return error;
        // replaced by a file or link meanwhile: remove that, follow nothing
      }
      if (::unlinkat(descent.current(), entry.name.c_str(), 0) != 0 && errno != ENOENT) return errno;
    }
  } catch (std::bad_alloc const&) {
    return ENOMEM;
  }
  if (::unlinkat(parent, name, AT_REMOVEDIR) != 0) return errno;
  return 0;
}

} // namespace foundation::storage::providers::local::detail
