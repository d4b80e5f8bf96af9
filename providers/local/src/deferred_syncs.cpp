#include "deferred_syncs.hpp"

#include "posix_calls.hpp"
#include "unique_fd.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <vector>

namespace foundation::storage::providers::local::detail {

namespace {

struct FileSystem {
  dev_t device;
  UniqueFd anyFolder; // for syncfs
};

struct Batch {
  int depth = 0;
  std::vector<FileSystem> fileSystems;
};

thread_local Batch batch;

} // namespace

void beginDurabilityBatch() noexcept { ++batch.depth; }

bool durabilityBatchOpen() noexcept { return batch.depth > 0; }

int deferDurability(int dirfd) noexcept {
  struct stat st {};
  if (::fstat(dirfd, &st) != 0) return errno;
  auto known = std::find_if(batch.fileSystems.begin(), batch.fileSystems.end(),
                            [&](FileSystem const& f) { return f.device == st.st_dev; });
  if (known != batch.fileSystems.end()) return 0;
  int copy = ::fcntl(dirfd, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) return errno;
  try {
    batch.fileSystems.push_back({st.st_dev, UniqueFd(copy)});
  } catch (...) {
    ::close(copy);
    return ENOMEM;
  }
  return 0;
}

int endDurabilityBatch(bool makeDurable) noexcept {
  if (batch.depth == 0 || --batch.depth > 0) return 0;
  int firstError = 0;
  if (makeDurable)
    for (auto const& f : batch.fileSystems)
      if (int error = syncFilesystem(f.anyFolder.get()); error != 0 && firstError == 0) firstError = error;
  batch.fileSystems.clear();
  return firstError;
}

} // namespace foundation::storage::providers::local::detail
