#pragma once

#include "unique_fd.hpp"

#include <sys/types.h>

#include <cstddef>
#include <vector>

namespace foundation::storage::providers::local::detail {

/// The chain of folders from a walk's root down to the folder being read, so that deep
/// trees are walked in a loop with a bounded number of open descriptors.
///
/// Every level is opened relative to its parent with O_NOFOLLOW, so a folder swapped for a
/// symbolic link is never entered. Only the root and the deepest `keepOpen` levels stay
/// open; when the walk climbs back to a closed level it reopens it as ".." of the level
/// below, which must still be the same folder (device and inode), else the climb fails with
/// ENOENT: a folder moved away meanwhile is never mistaken for another.
class FolderDescent {
public:
  FolderDescent(UniqueFd root, std::size_t keepOpen);

  /// The root's descriptor (always open).
  int root() const noexcept { return levels_.front().fd.get(); }
  /// The deepest level's descriptor (always open).
  int current() const noexcept { return levels_.back().fd.get(); }
  /// 0 for the root.
  std::size_t depth() const noexcept { return levels_.size() - 1; }
  /// Opens the folder `name` of the current level and makes it current; 0 or an errno value
  /// (ENOTDIR or ELOOP: not a folder, or a link).
  int descend(char const* name) noexcept;
  /// Closes the current level and makes its parent current; 0 or an errno value. Not at the
  /// root. `reopened`, when given, tells whether the parent had to be opened again (its new
  /// descriptor then reads the folder from its start).
  int ascend(bool* reopened = nullptr) noexcept;

private:
  struct Level {
    UniqueFd fd;
    dev_t device = 0;
    ino_t inode = 0;
  };

  void closeShallowest() noexcept;

  std::vector<Level> levels_;
  std::size_t keepOpen_;
  std::size_t firstOpen_ = 1; ///< levels in [1, firstOpen_) are closed
};

} // namespace foundation::storage::providers::local::detail
