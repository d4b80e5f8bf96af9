#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/storage_iri.hpp>
#include <foundation/storage/provider/types.hpp>

#include <boost/exception/enable_current_exception.hpp>
#include <boost/exception/exception.hpp>
#include <boost/exception_ptr.hpp>

#include <deque>
#include <exception>
#include <memory>
#include <string>

namespace foundation::storage::provider {

/// One layer a failure crossed: a key naming the layer and the call ("local.openStream",
/// "memory.createFile") and a readable message (usually the system's own).
class FOUNDATION_API ExceptionContext {
public:
  explicit ExceptionContext(std::u16string key, std::string message = {});
  std::u16string const& getExceptionContextKey() const noexcept { return key_; }
  std::string const& getMessage() const noexcept { return message_; }

private:
  std::u16string key_;
  std::string message_;
};

/// A provider operation failed on a location. Contexts are kept in the order they were
/// added: the front is the innermost layer, where the failure happened.
class FOUNDATION_API Exception : public std::exception, public boost::exception {
public:
  Exception(ErrorCode code, StorageIRI location);
  Exception(ErrorCode code, StorageIRI location, ExceptionContext context);
  ~Exception() override;

  ErrorCode getErrorCode() const noexcept { return code_; }
  StorageIRI const& getStorageIRI() const noexcept { return location_; }
  std::deque<ExceptionContext> const& getAllExceptionContexts() const noexcept { return contexts_; }
  /// Appends the context of an outer layer; returns *this so it can be rethrown at once.
  Exception& addExceptionContext(ExceptionContext context);

  /// "<code> at <location>: <key>: <message>..." for logs and test failures.
  char const* what() const noexcept override { return what_.c_str(); }
  /// A heap copy of the dynamic type.
  virtual std::unique_ptr<Exception> copyException() const;
  /// A copy of the dynamic type, as Boost's exception pointer (for nesting).
  virtual boost::exception_ptr copyAsExceptionPtr() const;

private:
  void composeWhat();

  ErrorCode code_;
  StorageIRI location_;
  std::deque<ExceptionContext> contexts_;
  std::string what_;
};

/// The provider cannot report changes for this location (no watching mechanism for it).
class FOUNDATION_API ChangeEventsNotSupportedException : public std::exception, public boost::exception {
public:
  ChangeEventsNotSupportedException(StorageIRI location, std::string reason);
  ~ChangeEventsNotSupportedException() override;
  StorageIRI const& getStorageIRI() const noexcept { return location_; }
  char const* what() const noexcept override { return what_.c_str(); }
  virtual boost::exception_ptr copyAsExceptionPtr() const;

private:
  StorageIRI location_;
  std::string what_;
};

/// The provider could report changes for this location but setting up the watch failed
/// (missing item, watch limit reached, ...).
class FOUNDATION_API ChangeEventsSubscriptionException : public std::exception, public boost::exception {
public:
  ChangeEventsSubscriptionException(StorageIRI location, std::string reason);
  ~ChangeEventsSubscriptionException() override;
  StorageIRI const& getStorageIRI() const noexcept { return location_; }
  char const* what() const noexcept override { return what_.c_str(); }
  virtual boost::exception_ptr copyAsExceptionPtr() const;

private:
  StorageIRI location_;
  std::string what_;
};

/// A byte stream operation failed. `what()` is the descriptive text.
class FOUNDATION_API ByteStreamFailure : public std::exception, public boost::exception {
public:
  ByteStreamFailure(std::string message, ErrorCode code);
  ~ByteStreamFailure() override;
  ErrorCode getErrorCode() const noexcept { return code_; }
  char const* what() const noexcept override { return message_.c_str(); }

private:
  std::string message_;
  ErrorCode code_;
};

class FOUNDATION_API ByteStreamReadFailure : public ByteStreamFailure {
public:
  using ByteStreamFailure::ByteStreamFailure;
  ~ByteStreamReadFailure() override;
};
class FOUNDATION_API ByteStreamWriteFailure : public ByteStreamFailure {
public:
  using ByteStreamFailure::ByteStreamFailure;
  ~ByteStreamWriteFailure() override;
};
class FOUNDATION_API ByteStreamSeekFailure : public ByteStreamFailure {
public:
  using ByteStreamFailure::ByteStreamFailure;
  ~ByteStreamSeekFailure() override;
};
class FOUNDATION_API ByteStreamCloseFailure : public ByteStreamFailure {
public:
  using ByteStreamFailure::ByteStreamFailure;
  ~ByteStreamCloseFailure() override;
};

/// Throws `failure` so that boost::current_exception() can copy it with its own type: a
/// cause nested in another exception then rethrows as what the provider threw, not as
/// boost::unknown_exception. Every provider failure is thrown through here.
template <class Failure>
[[noreturn]] void raise(Failure const& failure) {
  throw boost::enable_current_exception(failure);
}

/// Throws `Exception(code, location)` with one context; the common way providers fail.
[[noreturn]] FOUNDATION_API void fail(ErrorCode code, StorageIRI const& location, std::u16string key,
                                      std::string message);

} // namespace foundation::storage::provider
