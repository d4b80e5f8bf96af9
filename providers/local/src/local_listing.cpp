#include "local_listing.hpp"

#include "directory_reader.hpp"
#include "posix_calls.hpp"

#include <foundation/storage/provider/wildcard.hpp>

#include <cerrno>
#include <fcntl.h>
#include <string>

namespace foundation::storage::providers::local::detail {

namespace {

struct RawEntry {
  std::string name;
  EntryKind kind;
};

int const folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

void listLevel(int dirfd, std::u16string const& prefix, ListingRequest const& request, UserIdentity const& user,
               p::StorageIRI const& location, std::vector<p::FolderEntry>& out) {
  std::vector<RawEntry> entries;
  if (int error = readDirectory(dirfd, [&](std::string_view name, EntryKind kind) { entries.push_back({std::string(name), kind}); }))
    failErrno(error, location, "getdents");

  for (auto const& entry : entries) {
    // The entry's relative path is built in one string, the name converted into it.
    std::u16string relative;
    relative.reserve(prefix.size() + 1 + entry.name.size());
    if (!prefix.empty()) relative.append(prefix).push_back(u'/');
    std::size_t const nameStart = relative.size();
    if (!appendNameAsUtf16(relative, entry.name)) continue; // not expressible as a location
    struct stat st {};
    bool haveStat = false;
    bool symlink = false;
    EntryKind kind = entry.kind;
    if (kind == EntryKind::Unknown) { // file systems without d_type
      if (statAt(dirfd, entry.name.c_str(), st, false) != 0) continue; // vanished meanwhile
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
    bool const descend = request.recursive && isFolder && !symlink;
    std::u16string_view const name = std::u16string_view(relative).substr(nameStart);

    if (wanted && (request.pattern.empty() || p::matchesWildcard(request.pattern, name))) {
      // Only a folder still to be entered needs its path afterwards.
      std::u16string listed = std::move(relative);
      if (descend) relative = listed;
      if (!request.attributes) {
        out.push_back(p::FolderEntry(std::move(listed), !isFolder));
      } else {
        // Not stated yet: a plain entry, or a broken link described by itself.
        if (!haveStat && statAt(dirfd, entry.name.c_str(), st, false) != 0) continue; // vanished meanwhile
        if (isFolder) {
          out.emplace_back(std::move(listed), folderAttributes(st, entry.name, symlink, user));
        } else {
          out.emplace_back(std::move(listed), fileAttributes(st, entry.name, symlink, user));
        }
      }
    }
    if (descend) {
      int sub = openAt(dirfd, entry.name.c_str(), folderFlags);
      if (sub < 0) continue; // unreadable or vanished: its contents are left out
      UniqueFd subfolder(sub);
      try {
        listLevel(subfolder.get(), relative, request, user, location, out);
      } catch (p::Exception const& e) {
        if (e.getErrorCode() != p::ErrorCode::PermissionDenied && e.getErrorCode() != p::ErrorCode::ResourceNotFound) throw;
      }
    }
  }
}

int removeContents(int dirfd) noexcept {
  std::vector<RawEntry> entries;
  try {
    if (int error = readDirectory(dirfd, [&](std::string_view name, EntryKind kind) {
          entries.push_back({std::string(name), kind});
        }))
      return error;
  } catch (std::bad_alloc const&) {
    return ENOMEM;
  }
  for (auto const& entry : entries) {
    EntryKind kind = entry.kind;
    if (kind == EntryKind::Unknown) {
      struct stat st {};
      if (statAt(dirfd, entry.name.c_str(), st, false) != 0) continue;
      kind = kindFromMode(st.st_mode);
    }
    if (kind == EntryKind::Folder) {
      int sub = openAt(dirfd, entry.name.c_str(), folderFlags);
      if (sub == -ENOENT) continue;
      if (sub == -ENOTDIR || sub == -ELOOP) { // replaced by a file or link meanwhile: remove that, follow nothing
        kind = EntryKind::File;
      } else if (sub < 0) {
        return -sub;
      } else {
        UniqueFd subfolder(sub);
        if (int error = removeContents(subfolder.get())) return error;
        if (::unlinkat(dirfd, entry.name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) return errno;
        continue;
      }
    }
    if (::unlinkat(dirfd, entry.name.c_str(), 0) != 0 && errno != ENOENT) return errno;
  }
  return 0;
}

} // namespace

void listFolder(int dirfd, ListingRequest const& request, UserIdentity const& user, p::StorageIRI const& location,
                std::vector<p::FolderEntry>& out) {
  listLevel(dirfd, u"", request, user, location, out);
}

int removeTree(char const* path) noexcept {
  int fd = openAt(AT_FDCWD, path, folderFlags);
  if (fd < 0) return -fd;
  UniqueFd folder(fd);
  if (int error = removeContents(folder.get())) return error;
  folder.reset();
  if (::rmdir(path) != 0) return errno;
  return 0;
}

} // namespace foundation::storage::providers::local::detail
