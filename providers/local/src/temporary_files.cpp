#include "temporary_files.hpp"

#include "deferred_syncs.hpp"
#include "posix_calls.hpp"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <random>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace foundation::storage::providers::local::detail {

namespace {

/// How long an unlocked temporary file must have been left alone before it counts as
/// stale: covers the instant between a writer creating its file and locking it.
constexpr std::chrono::seconds staleAfter{5};

/// ".vfs-<random>.tmp": hidden, and unlikely to meet another writer's name.
std::string temporaryName() {
  static std::atomic<unsigned> counter{0};
  thread_local std::mt19937_64 random(std::random_device{}());
  char name[64];
  std::snprintf(name, sizeof name, ".vfs-%016llx-%u.tmp", static_cast<unsigned long long>(random()),
                counter.fetch_add(1));
  return name;
}

int lockExclusively(int fd, bool wait) noexcept {
  for (;;) {
    if (::flock(fd, LOCK_EX | (wait ? 0 : LOCK_NB)) == 0) return 0;
    if (errno != EINTR) return errno;
  }
}

/// Links the file open as `fd` as `name` in `dirfd`; EEXIST when the name is taken.
int linkOpenFile(int fd, int dirfd, char const* name) noexcept {
  char procPath[64];
  std::snprintf(procPath, sizeof procPath, "/proc/self/fd/%d", fd);
  for (;;) {
    if (::linkat(AT_FDCWD, procPath, dirfd, name, AT_SYMLINK_FOLLOW) == 0) return 0;
    if (errno != EINTR) return errno;
  }
}

/// Gives an unnamed temporary file a temporary name, so that it can be renamed over a target.
int nameTemporaryFile(int fd, int dirfd, std::string& name) noexcept {
  if (!name.empty()) return 0;
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string candidate = temporaryName();
    int error = linkOpenFile(fd, dirfd, candidate.c_str());
    if (error == 0) {
      name = std::move(candidate);
      return 0;
    }
    if (error != EEXIST) return error;
  }
  return EEXIST;
}

/// Links or renames the temporary file to `target`, atomically refused (EEXIST) when
/// something is there.
int landWhereNothingIs(int fd, int dirfd, std::string const& name, char const* target) noexcept {
  return name.empty() ? linkOpenFile(fd, dirfd, target) : renameAt(dirfd, name.c_str(), dirfd, target, true);
}

/// Lands the file where nothing is, without syncing it: the open durability batch will.
/// `landed` tells whether the file is in place, even when a sync failed afterwards.
int landWithoutReplacing(int fd, int dirfd, std::string& name, char const* target, SyncCall const& sync,
                         bool& landed) noexcept {
  int error = landWhereNothingIs(fd, dirfd, name, target);
  landed = error == 0;
  if (!landed) return error;
  name.clear();
  if (deferDurability(dirfd) == 0) return 0;
  if ((error = sync(fd)) != 0) return error; // cannot defer: sync now
  return sync(dirfd);
}

bool leftAloneLongEnough(struct stat const& st) {
  auto const modified = std::chrono::system_clock::time_point(std::chrono::seconds(modificationTime(st).tv_sec));
  return std::chrono::system_clock::now() - modified >= staleAfter;
}

} // namespace

bool isTemporaryFileName(std::string_view name) noexcept { return name.starts_with(".vfs-") && name.ends_with(".tmp"); }

int openTemporaryFile(int dirfd, mode_t mode, UniqueFd& fd, std::string& name) noexcept {
#if defined(O_TMPFILE)
  int unnamed = openAt(dirfd, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, mode);
  if (unnamed >= 0) {
    fd.reset(unnamed);
    name.clear();
    return lockExclusively(fd.get(), true); // it gets a name for a moment when it lands
  }
  if (-unnamed != EOPNOTSUPP && -unnamed != EISDIR && -unnamed != EINVAL) return -unnamed;
#endif
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string candidate = temporaryName();
    int named = openAt(dirfd, candidate.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, mode);
    if (named >= 0) {
      fd.reset(named);
      name = std::move(candidate);
      return lockExclusively(fd.get(), true);
    }
    if (-named != EEXIST) return -named;
  }
  return EEXIST;
}

int commitTemporaryFile(int fd, int dirfd, std::string& name, char const* target, bool replace,
                        SyncCall const& sync) noexcept {
  if (durabilityBatchOpen()) {
    bool landed = false;
    int const error = landWithoutReplacing(fd, dirfd, name, target, sync, landed);
    // Not in place (something is in the way, or no link could be made): a replacing landing
    // goes the usual way, with the data on disk before it replaces anything.
    if (landed || !replace) return error;
  }
  if (int error = sync(fd)) return error;
  if (!replace) {
    if (int error = landWhereNothingIs(fd, dirfd, name, target)) return error;
  } else {
    if (int error = nameTemporaryFile(fd, dirfd, name)) return error;
    if (int error = renameAt(dirfd, name.c_str(), dirfd, target, false)) return error;
  }
  name.clear();
  return sync(dirfd);
}

bool removeIfStale(int dirfd, char const* name) noexcept {
  int fd = openAt(dirfd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return false;
  UniqueFd file(fd);
  struct stat opened {
  }, named{};
  if (::fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode) || !leftAloneLongEnough(opened)) return false;
  if (lockExclusively(fd, false) != 0) return false; // a live writer holds it
  // Still the file that was judged, not one that took its name meanwhile.
  if (statAt(dirfd, name, named, false) != 0 || named.st_dev != opened.st_dev || named.st_ino != opened.st_ino)
    return false;
  return ::unlinkat(dirfd, name, 0) == 0;
}

} // namespace foundation::storage::providers::local::detail
