#pragma once

// Standard output for listings that may be piped anywhere, and the progress line.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace vfs_tool {

/// Buffered standard output, safe to call from several threads. A reader that went away
/// ends the process quietly with status 141, as SIGPIPE ends the standard tools.
class Output {
public:
  Output() = default;
  Output(Output const&) = delete;
  Output& operator=(Output const&) = delete;
  ~Output();

  /// Writes `text` and `terminator` as one record.
  void record(std::string_view text, char terminator = '\n');
  void write(std::string_view bytes);
  /// Hands everything buffered to the kernel.
  void flush();

private:
  void flushLocked();

  std::mutex mutex_;
  std::string buffer_;
};

/// A line on standard error that counts what a long walk or copy has done, shown only when
/// standard error is a terminal and only once the work has taken a moment; erased at the end.
/// Work that counts nothing shows the time it has taken.
class Progress {
public:
  explicit Progress(std::string what);
  Progress(Progress const&) = delete;
  Progress& operator=(Progress const&) = delete;
  ~Progress();

  void add(std::uint64_t entries = 1) { count_.fetch_add(entries, std::memory_order_relaxed); }

private:
  void run();

  std::string what_;
  std::atomic<std::uint64_t> count_{0};
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  bool shown_ = false;
  std::thread thread_;
};

} // namespace vfs_tool
