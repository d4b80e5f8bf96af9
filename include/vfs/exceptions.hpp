#pragma once

#include <foundation/core/except/exception.hpp>
#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/exceptions.hpp>

#include <vfs/absolute_iri.hpp>

#include <boost/exception/error_info.hpp>
#include <boost/exception/exception.hpp>
#include <boost/optional.hpp>

#include <cstdint>
#include <deque>
#include <exception>
#include <ios>
#include <iosfwd>
#include <string>

namespace foundation::storage::vfs {

/// What went wrong. The numbers are fixed: provider codes map onto them by a table.
enum class ErrorCode : std::uint32_t {
  FolderNotEmpty = 0,
  InvalidLocation = 1,
  PermissionDenied = 2,
  ResourceAlreadyExists = 3,
  ResourceNotFound = 4,
  ReadOnlyProvider = 5,
  FileTooLarge = 6,
  ResourceInUse = 7,
  NoSpaceLeft = 8,
  IOError = 9,
  InternalError = 10,
  UnsupportedOperation = 11,
  Unknown = 12,
};

/// "ErrorCode::<name>", or "Unhandled ErrorCode" for a value outside the enumeration.
FOUNDATION_API std::string toString(ErrorCode const& code);
FOUNDATION_API std::u16string toUstring(ErrorCode const& code);
FOUNDATION_API std::ostream& operator<<(std::ostream& os, ErrorCode const& code);

/// The library's code for a provider code. Not the identity: the provider orders
/// FileTooLarge, ResourceInUse and ReadOnlyProvider differently; unknown values are Unknown.
FOUNDATION_API ErrorCode getConvertedCode(provider::ErrorCode code) noexcept;

/// Boost error information tags of the library's exceptions.
struct TagErrorCode {};
struct TagAbsoluteIRI {};
using ErrorCodeInfo = boost::error_info<TagErrorCode, ErrorCode>;
using LocationInfo = boost::error_info<TagAbsoluteIRI, AbsoluteIRI>;

using ExceptionBase = core::except::Exception<core::except::IInternalException, std::exception, void>;

/// A failure on a location: its code, the location, and the chain of contexts the provider
/// attached on the way up (front first). `what()` is the class name; the readable text is
/// `ToUstringImpl()`.
class FOUNDATION_API Exception : public ExceptionBase, public boost::exception {
public:
  Exception(ErrorCode const& code, AbsoluteIRI const& location);
  ~Exception() override;

  /// Replaces the contexts; returns this exception, to be thrown at once.
  Exception& withExceptionContexts(std::deque<provider::ExceptionContext> contexts);
  ErrorCode getErrorCode() const noexcept;
  AbsoluteIRI getLocation() const noexcept;
  /// The front context, if any.
  boost::optional<provider::ExceptionContext> topExceptionContext() const noexcept;
  /// Consumes the front context (nothing when there is none), so that a handler can walk
  /// the chain on the object it caught by const reference.
  void popExceptionContext() const noexcept;
  /// The context keys joined with ":", front first.
  std::u16string getExceptionContextsString() const;

  std::unique_ptr<core::except::IException> cloneException() const override;
  [[noreturn]] void rethrowException() const override;
  char const* what() const noexcept override;
  /// foundation::storage::vfs::Exception{Location="<iri>", ErrorCode="ErrorCode::<name>"}
  std::u16string ToUstringImpl() const override;

private:
  mutable std::deque<provider::ExceptionContext> contexts_;
};

/// The provider cannot report changes for a location. Not an `Exception`.
class FOUNDATION_API ChangeEventsNotSupportedException : public ExceptionBase, public boost::exception {
public:
  explicit ChangeEventsNotSupportedException(AbsoluteIRI const& location);
  ~ChangeEventsNotSupportedException() override;
  AbsoluteIRI getLocation() const noexcept;
  std::unique_ptr<core::except::IException> cloneException() const override;
  [[noreturn]] void rethrowException() const override;
  char const* what() const noexcept override;
  std::u16string ToUstringImpl() const override;
};

/// The provider could not set up a watch for a location. Not an `Exception`.
class FOUNDATION_API ChangeEventsSubscriptionException : public ExceptionBase, public boost::exception {
public:
  explicit ChangeEventsSubscriptionException(AbsoluteIRI const& location);
  ~ChangeEventsSubscriptionException() override;
  AbsoluteIRI getLocation() const noexcept;
  std::unique_ptr<core::except::IException> cloneException() const override;
  [[noreturn]] void rethrowException() const override;
  char const* what() const noexcept override;
  std::u16string ToUstringImpl() const override;
};

/// A text that is not an absolute IRI with a path.
class FOUNDATION_API InvalidIRIException : public std::exception {
public:
  explicit InvalidIRIException(std::u16string iri);
  ~InvalidIRIException() override;
  std::u16string getInvalidIRIString() const { return iri_; }
  char const* what() const noexcept override;

private:
  std::u16string iri_;
};

/// No provider serves a scheme; storage systems throw it from `buildProvider`.
class FOUNDATION_API UnsupportedIRISchemeException : public std::exception {
public:
  explicit UnsupportedIRISchemeException(std::u16string scheme);
  ~UnsupportedIRISchemeException() override;
  std::u16string getScheme() const { return scheme_; }
  char const* what() const noexcept override;

private:
  std::u16string scheme_;
};

/// A byte-stream failure: the provider's message and the converted code.
class FOUNDATION_API IOException : public core::except::IInternalException, public std::ios_base::failure {
public:
  ~IOException() override;
  char const* what() const noexcept override;
  virtual ErrorCode getErrorCode() const noexcept;

protected:
  IOException(std::string const& message, ErrorCode code);

private:
  ErrorCode code_;
};

#define FOUNDATION_VFS_IO_EXCEPTION(Name)                                                                              \
  class FOUNDATION_API Name final : public IOException {                                                               \
  public:                                                                                                              \
    explicit Name(ErrorCode code);                                                                                     \
    Name(std::string const& message, ErrorCode code);                                                                  \
    ~Name() override;                                                                                                  \
    std::unique_ptr<core::except::IException> cloneException() const override;                                         \
    [[noreturn]] void rethrowException() const override;                                                               \
  };
FOUNDATION_VFS_IO_EXCEPTION(IOReadException)
FOUNDATION_VFS_IO_EXCEPTION(IOWriteException)
FOUNDATION_VFS_IO_EXCEPTION(IOSeekException)
FOUNDATION_VFS_IO_EXCEPTION(IOCloseException)
#undef FOUNDATION_VFS_IO_EXCEPTION

/// Rethrows the exception in flight as the library's: provider failures become Exception,
/// the change-event exceptions (with the provider's nested) or IO exceptions; anything else
/// is rethrown unchanged. Call only from a catch handler.
[[noreturn]] FOUNDATION_API void handleException();
/// The byte-stream part of `handleException`: the four provider stream failures become the
/// IO exceptions; anything else is rethrown unchanged.
[[noreturn]] FOUNDATION_API void handleByteStreamException();

} // namespace foundation::storage::vfs
