#pragma once

#include <foundation/core/visibility.hpp>

#include <atomic>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

namespace foundation::log {

/// Severity of a diagnostic record, lowest first.
enum class Severity { Trace, Debug, Info, Warning, Error, Fatal };

FOUNDATION_API char const* toString(Severity s) noexcept;
FOUNDATION_API std::ostream& operator<<(std::ostream& os, Severity s);

template <class Char>
class basic_diagnostic_logger;

/// A named diagnostic logger. Records below its level are dropped before they reach
/// Boost.Log; the rest go to Boost.Log's core with the logger's name as channel. The level
/// starts at Warning and the application may change it at any time. Thread-safe.
///
/// Records never reach standard output: unless the application turns it off
/// (useStandardErrorSink) or a ScopedStreamSink is alive, a sink prints them to standard
/// error as "<severity> <channel>: <message>" lines.
template <>
class FOUNDATION_API basic_diagnostic_logger<char> {
public:
  explicit basic_diagnostic_logger(std::string name, Severity level = Severity::Warning);
  ~basic_diagnostic_logger();
  basic_diagnostic_logger(basic_diagnostic_logger const&) = delete;
  basic_diagnostic_logger& operator=(basic_diagnostic_logger const&) = delete;

  std::string const& getName() const noexcept { return name_; }
  Severity getLevel() const noexcept { return level_.load(std::memory_order_relaxed); }
  void setLevel(Severity level) noexcept { level_.store(level, std::memory_order_relaxed); }
  bool isEnabled(Severity s) const noexcept { return s >= getLevel(); }

  /// Writes one record if `s` passes the level. Never throws: a failing back end loses the
  /// record, not the caller's operation.
  void log(Severity s, std::string_view message) const noexcept;

private:
  struct Impl;
  std::string name_;
  std::atomic<Severity> level_;
  std::unique_ptr<Impl> impl_;
};

using diagnostic_logger = basic_diagnostic_logger<char>;

/// Whether records go to standard error while no ScopedStreamSink is alive (the default).
/// An application with Boost.Log sinks of its own turns it off.
FOUNDATION_API void useStandardErrorSink(bool enabled);

/// While alive, copies every record that reaches Boost.Log to `os` as
/// "<severity> <channel>: <message>" lines. For applications without their own sinks, and
/// for tests that check what was logged. `os` must outlive the sink.
class FOUNDATION_API ScopedStreamSink {
public:
  explicit ScopedStreamSink(std::ostream& os);
  ~ScopedStreamSink();
  ScopedStreamSink(ScopedStreamSink const&) = delete;
  ScopedStreamSink& operator=(ScopedStreamSink const&) = delete;

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

} // namespace foundation::log
