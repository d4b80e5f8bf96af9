#pragma once

#include <algorithm>
#include <cerrno>
#include <vector>

namespace foundation::storage::providers::local::detail {

template <class Progress>
int copyContents(int in, int out, std::uint64_t size, Progress&& progress) noexcept {
  if (size == 0) return 0;
  if (fallback::reflink(in, out) == 0) {
    progress(size);
    return 0;
  }
  std::uint64_t done = 0;
  // copy_file_range in steps, so that progress is reported for large files.
  while (done < size) {
    std::uint64_t step = std::min<std::uint64_t>(size - done, std::uint64_t{64} << 20);
    std::uint64_t before = done;
    int error = fallback::copyRange(in, out, before + step, done);
    if (error == ENOSYS || error == EXDEV || error == EINVAL || error == EOPNOTSUPP) break; // not here: copy by hand
    if (error != 0) return error;
    if (done == before) return 0; // the source shrank meanwhile
    progress(done);
  }
  if (done >= size) return 0;
  std::vector<char> buffer(128 * 1024);
  for (;;) {
    ssize_t got = ::pread(in, buffer.data(), buffer.size(), static_cast<off_t>(done));
    if (got < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (got == 0) return 0;
    std::size_t written = 0;
    while (written < static_cast<std::size_t>(got)) {
      ssize_t put = ::pwrite(out, buffer.data() + written, static_cast<std::size_t>(got) - written,
                             static_cast<off_t>(done + written));
      if (put < 0) {
        if (errno == EINTR) continue;
        return errno;
      }
      written += static_cast<std::size_t>(put);
    }
    done += static_cast<std::uint64_t>(got);
    progress(done);
  }
}

} // namespace foundation::storage::providers::local::detail
