#include <foundation/storage/provider/exceptions.hpp>

#include <fl/i18n/i18n.hpp>

#include <boost/exception/enable_current_exception.hpp>
#include <boost/exception_ptr.hpp>

namespace foundation::storage::provider {

ExceptionContext::ExceptionContext(std::u16string key, std::string message)
    : key_(std::move(key)), message_(std::move(message)) {}

Exception::Exception(ErrorCode code, StorageIRI location) : code_(code), location_(std::move(location)) {
  composeWhat();
}

Exception::Exception(ErrorCode code, StorageIRI location, ExceptionContext context)
    : code_(code), location_(std::move(location)) {
  contexts_.push_back(std::move(context));
  composeWhat();
}

Exception::~Exception() = default;

Exception& Exception::addExceptionContext(ExceptionContext context) {
  contexts_.push_back(std::move(context));
  composeWhat();
  return *this;
}

void Exception::composeWhat() {
  what_ = std::string(toString(code_)) + " at " + location_.toIRI();
  for (auto const& c : contexts_) {
    what_ += "; " + fl::i18n::to_utf8(c.getExceptionContextKey());
    if (!c.getMessage().empty()) what_ += ": " + c.getMessage();
  }
}

std::unique_ptr<Exception> Exception::copyException() const { return std::make_unique<Exception>(*this); }

boost::exception_ptr Exception::copyAsExceptionPtr() const { return boost::copy_exception(*this); }

ChangeEventsNotSupportedException::ChangeEventsNotSupportedException(StorageIRI location, std::string reason)
    : location_(std::move(location)), what_("change events not supported at " + location_.toIRI() + ": " + reason) {}
ChangeEventsNotSupportedException::~ChangeEventsNotSupportedException() = default;
boost::exception_ptr ChangeEventsNotSupportedException::copyAsExceptionPtr() const {
  return boost::copy_exception(*this);
}

ChangeEventsSubscriptionException::ChangeEventsSubscriptionException(StorageIRI location, std::string reason)
    : location_(std::move(location)), what_("cannot watch " + location_.toIRI() + ": " + reason) {}
ChangeEventsSubscriptionException::~ChangeEventsSubscriptionException() = default;
boost::exception_ptr ChangeEventsSubscriptionException::copyAsExceptionPtr() const {
  return boost::copy_exception(*this);
}

ByteStreamFailure::ByteStreamFailure(std::string message, ErrorCode code) : message_(std::move(message)), code_(code) {}
ByteStreamFailure::~ByteStreamFailure() = default;
ByteStreamReadFailure::~ByteStreamReadFailure() = default;
ByteStreamWriteFailure::~ByteStreamWriteFailure() = default;
ByteStreamSeekFailure::~ByteStreamSeekFailure() = default;
ByteStreamCloseFailure::~ByteStreamCloseFailure() = default;

void fail(ErrorCode code, StorageIRI const& location, std::u16string key, std::string message) {
  raise(Exception(code, location, ExceptionContext(std::move(key), std::move(message))));
}

} // namespace foundation::storage::provider
