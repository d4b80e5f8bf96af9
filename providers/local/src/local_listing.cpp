#include "local_listing.hpp"

#include "directory_reader.hpp"
#include "folder_descent.hpp"
#include "posix_calls.hpp"

#include <foundation/storage/provider/wildcard.hpp>

#include <cerrno>
#include <fcntl.h>
#include <new>
#include <string>

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

/// The folder's entries; for listings without the provider's temporary files (those nobody
/// holds any more are removed on the way).
int readEntries(int dirfd, std::vector<RawEntry>& entries, bool forListing) noexcept {
  try {
    std::vector<std::string> temporaries;
    int error = readDirectory(dirfd, [&](std::string_view name, EntryKind kind) {
      if (forListing && isTemporaryFileName(name)) temporaries.emplace_back(name);
      else entries.push_back({std::string(name), kind});
    });
    for (auto const& name : temporaries) removeIfStale(dirfd, name.c_str());
    return error;
  } catch (std::bad_alloc const&) {
    return ENOMEM;
  }
}

/// A folder being listed: its entries and the next one to visit.
struct Frame {
  std::vector<RawEntry> entries;
  std::size_t next = 0;
  std::size_t pathLength = 0; ///< of the folder's path relative to the listed one
};

/// Adds `entry` of the folder `dirfd` to `out` when the request wants it; tells whether it is
/// a folder to walk into (not a link).
bool visit(int dirfd, RawEntry const& entry, std::u16string const& relative, std::u16string const& name,
           ListingRequest const& request, UserIdentity const& user, std::vector<p::FolderEntry>& out) {
  struct stat st {};
  bool haveStat = false;
  bool symlink = false;
  EntryKind kind = entry.kind;
  if (kind == EntryKind::Unknown) { // file systems without d_type
    if (statAt(dirfd, entry.name.c_str(), st, false) != 0) return false; // vanished meanwhile
    kind = kindFromMode(st.st_mode);
    haveStat = kind != EntryKind::Symlink;
  }
  if (kind == EntryKind::Symlink) {
    symlink = true;
    haveStat = statAt(dirfd, entry.name.c_str(), st, true) == 0;
    kind = haveStat ? kindFromMode(st.st_mode) : EntryKind::File;
  }
  bool const isFolder = kind == EntryKind::Folder;
  bool const wanted = request.kinds == Kinds::All || (request.kinds == Kinds::Folders) == isFolder;
  if (wanted && (request.pattern.empty() || p::matchesWildcard(request.pattern, name))) {
    if (!request.attributes) {
      out.emplace_back(relative, !isFolder);
    } else if (haveStat || statAt(dirfd, entry.name.c_str(), st, false) == 0) { // else: vanished meanwhile
      // Not stated yet: a plain entry, or a broken link described by itself.
      if (isFolder) {
        out.emplace_back(relative, folderAttributes(st, entry.name, symlink, user));
      } else {
        out.emplace_back(relative, fileAttributes(st, entry.name, symlink, user));
      }
    }
  }
  return isFolder && !symlink;
}

} // namespace

void listFolder(UniqueFd folder, ListingRequest const& request, UserIdentity const& user, p::StorageIRI const& location,
                std::vector<p::FolderEntry>& out) {
  FolderDescent descent(std::move(folder), keepOpen);
  std::vector<Frame> frames(1);
  if (int error = readEntries(descent.current(), frames.back().entries, true)) failErrno(error, location, "getdents");
  std::u16string path; // of the current folder, relative to the listed one
  while (!frames.empty()) {
    Frame& frame = frames.back();
    if (frame.next == frame.entries.size()) {
      frames.pop_back();
      if (frames.empty()) break;
      path.resize(frames.back().pathLength);
      if (int error = descent.ascend()) failErrno(error, location, "reopen");
      continue;
    }
    RawEntry const& entry = frame.entries[frame.next++];
    auto name = nameToUtf16(entry.name);
    if (!name) continue; // not expressible as a location
    std::u16string relative = path.empty() ? *name : path + u'/' + *name;
    if (!visit(descent.current(), entry, relative, *name, request, user, out) || !request.recursive) continue;
    if (int error = descent.descend(entry.name.c_str())) {
      if (isSkippable(error)) continue;
      failErrno(error, location, "open");
    }
    Frame child;
    if (int error = readEntries(descent.current(), child.entries, true)) {
      if (!isSkippable(error)) failErrno(error, location, "getdents");
      if (int climb = descent.ascend()) failErrno(climb, location, "reopen");
      continue;
    }
    path = std::move(relative);
    child.pathLength = path.size();
    frames.push_back(std::move(child));
  }
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
    if (int error = readEntries(descent.current(), levels.back().entries, false)) return error;
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
          if (int readError = readEntries(descent.current(), child.entries, false)) return readError;
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
