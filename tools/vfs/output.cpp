#include "output.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace vfs_tool {

namespace {

constexpr std::size_t FlushThreshold = 64 * 1024;

void writeAll(int fd, char const* data, std::size_t size) {
  while (size > 0) {
    auto const n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EPIPE) std::_Exit(141);
      std::fprintf(stderr, "vfs: IOError: standard output\n");
      std::_Exit(8);
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
}

} // namespace

Output::~Output() { flush(); }

void Output::record(std::string_view text, char terminator) {
  std::lock_guard lock(mutex_);
  buffer_.append(text);
  buffer_.push_back(terminator);
  if (buffer_.size() >= FlushThreshold) flushLocked();
}

void Output::write(std::string_view bytes) {
  std::lock_guard lock(mutex_);
  if (buffer_.empty() && bytes.size() >= FlushThreshold) {
    writeAll(STDOUT_FILENO, bytes.data(), bytes.size());
    return;
  }
  buffer_.append(bytes);
  if (buffer_.size() >= FlushThreshold) flushLocked();
}

void Output::flush() {
  std::lock_guard lock(mutex_);
  flushLocked();
}

void Output::flushLocked() {
  writeAll(STDOUT_FILENO, buffer_.data(), buffer_.size());
  buffer_.clear();
}

Progress::Progress(std::string what) : what_(std::move(what)) {
  if (::isatty(STDERR_FILENO)) thread_ = std::thread([this] { run(); });
}

Progress::~Progress() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard lock(mutex_);
    finished_ = true;
  }
  done_.notify_all();
  thread_.join();
}

void Progress::run() {
  using namespace std::chrono_literals;
  auto const start = std::chrono::steady_clock::now();
  std::unique_lock lock(mutex_);
  // Quick work shows nothing; after that the line is refreshed a few times a second.
  if (done_.wait_for(lock, 500ms, [this] { return finished_; })) return;
  while (!finished_) {
    auto const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    auto const count = count_.load(std::memory_order_relaxed);
    if (count > 0) {
      std::fprintf(stderr, "\r\033[K%s: %llu entries, %.1f s", what_.c_str(), static_cast<unsigned long long>(count),
                   seconds);
    } else {
      std::fprintf(stderr, "\r\033[K%s: %.1f s", what_.c_str(), seconds);
    }
    std::fflush(stderr);
    shown_ = true;
    done_.wait_for(lock, 200ms, [this] { return finished_; });
  }
  if (shown_) {
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
  }
}

} // namespace vfs_tool
