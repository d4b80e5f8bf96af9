#include <vfs/exceptions.hpp>

#include <fl/i18n/i18n.hpp>

#include <boost/exception/get_error_info.hpp>

namespace foundation::storage::vfs {

namespace {

AbsoluteIRI locationOf(boost::exception const& e) noexcept { return *boost::get_error_info<LocationInfo>(e); }

std::u16string quoted(std::u16string const& text) { return u"\"" + text + u"\""; }

} // namespace

Exception::Exception(ErrorCode const& code, AbsoluteIRI const& location) {
  *this << ErrorCodeInfo(code) << LocationInfo(location);
}

Exception::~Exception() = default;

Exception& Exception::withExceptionContexts(std::deque<provider::ExceptionContext> contexts) {
  contexts_ = std::move(contexts);
  return *this;
}

ErrorCode Exception::getErrorCode() const noexcept { return *boost::get_error_info<ErrorCodeInfo>(*this); }

AbsoluteIRI Exception::getLocation() const noexcept { return locationOf(*this); }

boost::optional<provider::ExceptionContext> Exception::topExceptionContext() const noexcept {
  if (contexts_.empty()) return boost::none;
  return contexts_.front();
}

void Exception::popExceptionContext() const noexcept {
  if (!contexts_.empty()) contexts_.pop_front();
}

std::u16string Exception::getExceptionContextsString() const {
  std::u16string text;
  for (std::size_t i = 0; i < contexts_.size(); ++i) {
    if (i > 0) text += u':';
    text += contexts_[i].getExceptionContextKey();
  }
  return text;
}

std::unique_ptr<core::except::IException> Exception::cloneException() const {
  return std::make_unique<Exception>(*this);
}
void Exception::rethrowException() const { throw Exception(*this); }
char const* Exception::what() const noexcept { return "foundation::storage::vfs::Exception"; }

std::u16string Exception::ToUstringImpl() const {
  return u"foundation::storage::vfs::Exception{Location=" + quoted(getLocation().toString()) + u", ErrorCode=" +
         quoted(toUstring(getErrorCode())) + u"}";
}

ChangeEventsNotSupportedException::ChangeEventsNotSupportedException(AbsoluteIRI const& location) {
  *this << LocationInfo(location);
}
ChangeEventsNotSupportedException::~ChangeEventsNotSupportedException() = default;
AbsoluteIRI ChangeEventsNotSupportedException::getLocation() const noexcept { return locationOf(*this); }
std::unique_ptr<core::except::IException> ChangeEventsNotSupportedException::cloneException() const {
  return std::make_unique<ChangeEventsNotSupportedException>(*this);
}
void ChangeEventsNotSupportedException::rethrowException() const { throw ChangeEventsNotSupportedException(*this); }
char const* ChangeEventsNotSupportedException::what() const noexcept {
  return "foundation::storage::vfs::ChangeEventsNotSupportedException";
}
std::u16string ChangeEventsNotSupportedException::ToUstringImpl() const {
  return u"foundation::storage::vfs::ChangeEventsNotSupportedException{Location=" + quoted(getLocation().toString()) +
         u"}";
}

ChangeEventsSubscriptionException::ChangeEventsSubscriptionException(AbsoluteIRI const& location) {
  *this << LocationInfo(location);
}
ChangeEventsSubscriptionException::~ChangeEventsSubscriptionException() = default;
AbsoluteIRI ChangeEventsSubscriptionException::getLocation() const noexcept { return locationOf(*this); }
std::unique_ptr<core::except::IException> ChangeEventsSubscriptionException::cloneException() const {
  return std::make_unique<ChangeEventsSubscriptionException>(*this);
}
void ChangeEventsSubscriptionException::rethrowException() const { throw ChangeEventsSubscriptionException(*this); }
char const* ChangeEventsSubscriptionException::what() const noexcept {
  return "foundation::storage::vfs::ChangeEventsSubscriptionException";
}
std::u16string ChangeEventsSubscriptionException::ToUstringImpl() const {
  return u"foundation::storage::vfs::ChangeEventsSubscriptionException{Location=" + quoted(getLocation().toString()) +
         u"}";
}

InvalidIRIException::InvalidIRIException(std::u16string iri) : iri_(std::move(iri)) {}
InvalidIRIException::~InvalidIRIException() = default;
char const* InvalidIRIException::what() const noexcept { return "foundation::storage::vfs::InvalidIRIException"; }

UnsupportedIRISchemeException::UnsupportedIRISchemeException(std::u16string scheme) : scheme_(std::move(scheme)) {}
UnsupportedIRISchemeException::~UnsupportedIRISchemeException() = default;
char const* UnsupportedIRISchemeException::what() const noexcept {
  return "foundation::storage::vfs::UnsupportedIRISchemeException";
}

IOException::IOException(std::string const& message, ErrorCode code)
    : std::ios_base::failure(message, std::io_errc::stream), code_(code) {}
IOException::~IOException() = default;
char const* IOException::what() const noexcept { return std::ios_base::failure::what(); }
ErrorCode IOException::getErrorCode() const noexcept { return code_; }

#define FOUNDATION_VFS_IO_EXCEPTION_IMPL(Name)                                                                         \
  Name::Name(ErrorCode code) : IOException(#Name, code) {}                                                             \
  Name::Name(std::string const& message, ErrorCode code) : IOException(message, code) {}                               \
  Name::~Name() = default;                                                                                             \
  std::unique_ptr<core::except::IException> Name::cloneException() const { return std::make_unique<Name>(*this); }     \
  void Name::rethrowException() const { throw Name(*this); }
FOUNDATION_VFS_IO_EXCEPTION_IMPL(IOReadException)
FOUNDATION_VFS_IO_EXCEPTION_IMPL(IOWriteException)
FOUNDATION_VFS_IO_EXCEPTION_IMPL(IOSeekException)
FOUNDATION_VFS_IO_EXCEPTION_IMPL(IOCloseException)
#undef FOUNDATION_VFS_IO_EXCEPTION_IMPL

} // namespace foundation::storage::vfs
