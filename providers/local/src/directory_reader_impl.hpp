#pragma once

#include <cerrno>
#include <cstddef>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#if defined(__linux__)
#include <sys/syscall.h>
#endif

namespace foundation::storage::providers::local::detail {

inline EntryKind kindFromMode(unsigned mode) noexcept {
  switch (mode & S_IFMT) {
  case S_IFREG: return EntryKind::File;
  case S_IFDIR: return EntryKind::Folder;
  case S_IFLNK: return EntryKind::Symlink;
  default: return EntryKind::Other;
  }
}

inline EntryKind kindFromDirentType(unsigned char type) noexcept {
  switch (type) {
  case DT_REG: return EntryKind::File;
  case DT_DIR: return EntryKind::Folder;
  case DT_LNK: return EntryKind::Symlink;
  case DT_UNKNOWN: return EntryKind::Unknown;
  default: return EntryKind::Other;
  }
}

inline bool isDotOrDotDot(char const* name) noexcept {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

#if defined(__linux__)

/// The fixed part of a getdents64 record; the NUL-terminated name follows `d_type`.
struct LinuxDirent64 {
  ino64_t d_ino;
  off64_t d_off;
  unsigned short d_reclen;
  unsigned char d_type;
};

inline char const* direntName(LinuxDirent64 const* entry) noexcept {
  return reinterpret_cast<char const*>(entry) + offsetof(LinuxDirent64, d_type) + 1;
}

inline long readDirectoryBatch(int dirfd, char* buffer, std::size_t size) noexcept {
  for (;;) {
    long got = ::syscall(SYS_getdents64, dirfd, buffer, size);
    if (got >= 0) return got;
    if (errno != EINTR) return -errno;
  }
}

inline DirectoryRecord decodeDirectoryRecord(char const* record) noexcept {
  auto const* entry = reinterpret_cast<LinuxDirent64 const*>(record);
  char const* name = direntName(entry);
  return {name, kindFromDirentType(entry->d_type), entry->d_reclen, isDotOrDotDot(name), entry->d_off};
}

template <class Visit>
int readDirectory(int dirfd, Visit&& visit) {
  alignas(LinuxDirent64) char buffer[directoryBatchSize];
  if (::lseek(dirfd, 0, SEEK_SET) < 0) return errno;
  for (;;) {
    long got = readDirectoryBatch(dirfd, buffer, sizeof buffer);
    if (got < 0) return static_cast<int>(-got);
    if (got == 0) return 0;
    for (long offset = 0; offset < got;) {
      DirectoryRecord const record = decodeDirectoryRecord(buffer + offset);
      offset += static_cast<long>(record.length);
      if (!record.dotOrDotDot) visit(std::string_view(record.name), record.kind);
    }
  }
}

#else

template <class Visit>
int readDirectory(int dirfd, Visit&& visit) {
  int copy = ::dup(dirfd); // closedir closes the descriptor it was given
  if (copy < 0) return errno;
  DIR* dir = ::fdopendir(copy);
  if (!dir) {
    int error = errno;
    ::close(copy);
    return error;
  }
  ::rewinddir(dir);
  int error = 0;
  for (;;) {
    errno = 0; // tells the end of the folder apart from a failure
    dirent* entry = ::readdir(dir);
    if (!entry) {
      error = errno;
      break;
    }
    if (!isDotOrDotDot(entry->d_name)) visit(std::string_view(entry->d_name), kindFromDirentType(entry->d_type));
  }
  if (::closedir(dir) != 0 && error == 0) error = errno;
  return error;
}

#endif

} // namespace foundation::storage::providers::local::detail
