#include "posix_calls.hpp"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#if defined(__linux__)
#include <linux/fs.h>
#include <sys/ioctl.h>
#endif

namespace foundation::storage::providers::local::detail {

namespace {

template <class Call>
int retry(Call&& call) noexcept {
  for (;;) {
    if (call() >= 0) return 0;
    if (errno != EINTR) return errno;
  }
}

} // namespace

int renameAt(int fromDir, char const* from, int toDir, char const* to, bool noReplace) noexcept {
#if defined(__linux__) && defined(RENAME_NOREPLACE)
  if (noReplace) {
    int error = retry([&] { return ::renameat2(fromDir, from, toDir, to, RENAME_NOREPLACE); });
    if (error != EINVAL && error != ENOSYS) return error; // else: the file system cannot, fall back
  }
#endif
  if (noReplace) {
    // Portable fallback: a link fails when the target exists; then the old name goes.
    struct stat st {};
    if (::fstatat(fromDir, from, &st, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(st.st_mode)) {
      if (int error = retry([&] { return ::linkat(fromDir, from, toDir, to, 0); })) return error;
      return retry([&] { return ::unlinkat(fromDir, from, 0); });
    }
    if (::fstatat(toDir, to, &st, AT_SYMLINK_NOFOLLOW) == 0) return EEXIST;
  }
  return retry([&] { return ::renameat(fromDir, from, toDir, to); });
}

int syncFile(int fd) noexcept {
  return retry([&] { return ::fsync(fd); });
}

int syncFilesystem(int fd) noexcept {
#if defined(__linux__)
  return retry([&] { return ::syncfs(fd); });
#else
  (void)fd;
  ::sync();
  return 0;
#endif
}

int statAt(int dirfd, char const* name, struct stat& st, bool follow) noexcept {
  return retry([&] { return ::fstatat(dirfd, name, &st, follow ? 0 : AT_SYMLINK_NOFOLLOW); });
}

int openAt(int dirfd, char const* name, int flags, mode_t mode) noexcept {
  for (;;) {
    int fd = ::openat(dirfd, name, flags, mode);
    if (fd >= 0) return fd;
    if (errno != EINTR) return -errno;
  }
}

int writeAll(int fd, char const* data, std::size_t n) noexcept {
  while (n > 0) {
    ssize_t put = ::write(fd, data, n);
    if (put < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    data += put;
    n -= static_cast<std::size_t>(put);
  }
  return 0;
}

#if defined(__APPLE__)
timespec modificationTime(struct stat const& st) noexcept { return st.st_mtimespec; }
timespec accessTime(struct stat const& st) noexcept { return st.st_atimespec; }
timespec changeTime(struct stat const& st) noexcept { return st.st_ctimespec; }
#else
timespec modificationTime(struct stat const& st) noexcept { return st.st_mtim; }
timespec accessTime(struct stat const& st) noexcept { return st.st_atim; }
timespec changeTime(struct stat const& st) noexcept { return st.st_ctim; }
#endif

namespace fallback {

int reflink(int in, int out) noexcept {
#if defined(__linux__) && defined(FICLONE)
  return retry([&] { return ::ioctl(out, FICLONE, in); });
#else
  (void)in;
  (void)out;
  return ENOTSUP;
#endif
}

int copyRange(int in, int out, std::uint64_t until, std::uint64_t& done) noexcept {
#if defined(__linux__)
  while (done < until) {
    loff_t inOffset = static_cast<loff_t>(done), outOffset = static_cast<loff_t>(done);
    ssize_t copied = ::copy_file_range(in, &inOffset, out, &outOffset, until - done, 0);
    if (copied < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (copied == 0) return 0;
    done += static_cast<std::uint64_t>(copied);
  }
  return 0;
#else
  (void)in;
  (void)out;
  (void)until;
  (void)done;
  return ENOSYS;
#endif
}

} // namespace fallback

} // namespace foundation::storage::providers::local::detail
