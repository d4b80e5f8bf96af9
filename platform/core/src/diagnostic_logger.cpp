#include <foundation/log/diagnostic_logger.hpp>

#include <boost/core/null_deleter.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <boost/log/trivial.hpp>

#include <iostream>
#include <mutex>

namespace foundation::log {

char const* toString(Severity s) noexcept {
  switch (s) {
  case Severity::Trace: return "trace";
  case Severity::Debug: return "debug";
  case Severity::Info: return "info";
  case Severity::Warning: return "warning";
  case Severity::Error: return "error";
  case Severity::Fatal: return "fatal";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& os, Severity s) { return os << toString(s); }

namespace {
/// Boost.Log's own levels, in the same order, so that sinks print the right level.
boost::log::trivial::severity_level toBoost(Severity s) noexcept {
  return static_cast<boost::log::trivial::severity_level>(static_cast<int>(s));
}

BOOST_LOG_ATTRIBUTE_KEYWORD(severityKeyword, "Severity", boost::log::trivial::severity_level)
BOOST_LOG_ATTRIBUTE_KEYWORD(channelKeyword, "Channel", std::string)
using StreamSink = boost::log::sinks::synchronous_sink<boost::log::sinks::text_ostream_backend>;

/// A sink writing "<severity> <channel>: <message>" lines to `os`, flushed after each.
boost::shared_ptr<StreamSink> makeStreamSink(std::ostream& os) {
  auto backend = boost::make_shared<boost::log::sinks::text_ostream_backend>();
  backend->add_stream(boost::shared_ptr<std::ostream>(&os, boost::null_deleter()));
  backend->auto_flush(true);
  auto sink = boost::make_shared<StreamSink>(backend);
  namespace expr = boost::log::expressions;
  sink->set_formatter(expr::stream << severityKeyword << " " << channelKeyword << ": " << expr::smessage);
  return sink;
}

/// Boost.Log's built-in default sink prints to standard output, where diagnostics would
/// mix with a program's data. This sink takes its place on standard error: it is attached
/// while it is wanted and no ScopedStreamSink is alive.
class StandardErrorSink {
public:
  static StandardErrorSink& instance() {
    // Never destroyed: loggers may still log while static objects are torn down.
    static auto* const one = new StandardErrorSink();
    return *one;
  }
  void setWanted(bool wanted) {
    std::lock_guard lock(mutex_);
    wanted_ = wanted;
    update();
  }
  void suspend() {
    std::lock_guard lock(mutex_);
    ++suspended_;
    update();
  }
  void resume() {
    std::lock_guard lock(mutex_);
    --suspended_;
    update();
  }

private:
  StandardErrorSink() : sink_(makeStreamSink(std::cerr)) { update(); }
  void update() {
    bool const attach = wanted_ && suspended_ == 0;
    if (attach == attached_) return;
    if (attach)
      boost::log::core::get()->add_sink(sink_);
    else
      boost::log::core::get()->remove_sink(sink_);
    attached_ = attach;
  }

  std::mutex mutex_;
  boost::shared_ptr<StreamSink> const sink_;
  bool wanted_ = true;
  int suspended_ = 0;
  bool attached_ = false;
};
} // namespace

void useStandardErrorSink(bool enabled) { StandardErrorSink::instance().setWanted(enabled); }

struct basic_diagnostic_logger<char>::Impl {
  boost::log::sources::severity_channel_logger_mt<boost::log::trivial::severity_level, std::string> source;
  explicit Impl(std::string const& name) : source(boost::log::keywords::channel = name) {}
};

basic_diagnostic_logger<char>::basic_diagnostic_logger(std::string name, Severity level)
    : name_(std::move(name)), level_(level), impl_(std::make_unique<Impl>(name_)) {
  StandardErrorSink::instance(); // before the first record can reach Boost.Log's default sink
}

basic_diagnostic_logger<char>::~basic_diagnostic_logger() = default;

void basic_diagnostic_logger<char>::log(Severity s, std::string_view message) const noexcept {
  if (!isEnabled(s)) return;
  try {
    if (auto record = impl_->source.open_record(boost::log::keywords::severity = toBoost(s))) {
      boost::log::record_ostream stream(record);
      stream << message;
      stream.flush();
      impl_->source.push_record(std::move(record));
    }
  } catch (...) {
    // A logging failure must not turn into a failure of the operation that logged.
  }
}

struct ScopedStreamSink::Impl {
  boost::shared_ptr<StreamSink> sink;
};

ScopedStreamSink::ScopedStreamSink(std::ostream& os) : impl_(std::make_unique<Impl>()) {
  impl_->sink = makeStreamSink(os);
  boost::log::core::get()->add_sink(impl_->sink);
  StandardErrorSink::instance().suspend();
}

ScopedStreamSink::~ScopedStreamSink() {
  boost::log::core::get()->remove_sink(impl_->sink);
  impl_->sink->flush();
  StandardErrorSink::instance().resume();
}

} // namespace foundation::log
