#include "folder_descent.hpp"

#include "posix_calls.hpp"

#include <cerrno>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>

namespace foundation::storage::providers::local::detail {

namespace {
int const folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
}

FolderDescent::FolderDescent(UniqueFd root, std::size_t keepOpen) : keepOpen_(keepOpen < 1 ? 1 : keepOpen) {
  levels_.push_back(Level{std::move(root)});
}

int FolderDescent::descend(char const* name) noexcept {
  int fd = openAt(current(), name, folderFlags);
  if (fd < 0) return -fd;
  try {
    levels_.push_back(Level{UniqueFd(fd)});
  } catch (std::bad_alloc const&) {
    ::close(fd);
    return ENOMEM;
  }
  if (levels_.size() - firstOpen_ > keepOpen_) closeShallowest();
  return 0;
}

void FolderDescent::closeShallowest() noexcept {
  Level& level = levels_[firstOpen_];
  struct stat st {};
  if (::fstat(level.fd.get(), &st) == 0) {
    level.device = st.st_dev;
    level.inode = st.st_ino;
  } // else: unknown identity, so a reopening can never match and the climb fails safely
  level.fd.reset();
  ++firstOpen_;
}

int FolderDescent::ascend(bool* reopened) noexcept {
  std::size_t const parent = levels_.size() - 2;
  bool const closed = parent >= 1 && parent < firstOpen_;
  if (reopened) *reopened = closed;
  if (closed) {
    int fd = openAt(current(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -fd;
    UniqueFd reopened(fd);
    struct stat st {};
    if (::fstat(fd, &st) != 0) return errno;
    Level& level = levels_[parent];
    if (st.st_dev != level.device || st.st_ino != level.inode) return ENOENT; // moved away meanwhile
    level.fd = std::move(reopened);
    firstOpen_ = parent;
  }
  levels_.pop_back();
  return 0;
}

} // namespace foundation::storage::providers::local::detail
