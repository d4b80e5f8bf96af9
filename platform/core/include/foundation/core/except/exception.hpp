#pragma once

#include <foundation/core/visibility.hpp>

#include <boost/exception/exception.hpp>

#include <exception>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace foundation::core::except {

/// Interface of every exception of the foundation libraries: a readable UTF-16 text
/// (`ToUstringImpl`), conversion of that text to UTF-16 or UTF-8 (`convert_str`), a heap
/// copy of the dynamic type (`cloneException`) and a throw of such a copy
/// (`rethrowException`). The names differ from Boost.Exception's `clone`/`rethrow` so that
/// Boost can still wrap these types (boost::copy_exception).
class FOUNDATION_API IException {
public:
  virtual std::unique_ptr<IException> cloneException() const = 0;
  [[noreturn]] virtual void rethrowException() const = 0;
  virtual ~IException();
  virtual char const* what() const noexcept = 0;
  /// The readable text as UTF-16.
  virtual void convert_str(std::u16string& out) const;
  /// The readable text as UTF-8.
  virtual void convert_str(std::string& out) const;
  /// The readable text; by default `what()` decoded as UTF-8.
  virtual std::u16string ToUstringImpl() const;

protected:
  IException() = default;
  IException(IException const&) = default;
  IException& operator=(IException const&) = default;
};

/// An exception that reports a failure inside the system (as opposed to bad input from a
/// caller). Carries where it was thrown; anonymous ones have empty fields and line -1.
class FOUNDATION_API IInternalException : public IException {
public:
  char const* throwFile() const noexcept { return file_; }
  char const* throwFunction() const noexcept { return function_; }
  int throwLine() const noexcept { return line_; }
  void setThrowLocation(char const* file, char const* function, int line) noexcept {
    file_ = file;
    function_ = function;
    line_ = line;
  }

protected:
  IInternalException() = default;

private:
  char const* file_ = "";
  char const* function_ = "";
  int line_ = -1;
};

/// Joins an interface of this framework with a standard exception type. `what()` is the
/// standard part's text unless a derived class says otherwise. `Tag` distinguishes
/// otherwise identical instantiations; `void` is the common one.
template <class Interface, class Std, class Tag = void>
class FOUNDATION_API Exception : public Interface, public Std {
public:
  template <class... Args>
  explicit Exception(Args&&... args) : Std(std::forward<Args>(args)...) {}

  char const* what() const noexcept override { return Std::what(); }
};

namespace detail {

struct NoBoostException {};

/// Boost error information (a nested cause, say) can be attached to every anonymous
/// internal exception; `T` may already provide the container.
template <class T>
using BoostExceptionBase =
    std::conditional_t<std::is_base_of_v<boost::exception, T>, NoBoostException, boost::exception>;

/// Wraps any exception type `T` as an internal exception without a throw location, so that
/// handlers for `T` (for example `std::runtime_error`) still catch it.
template <class T>
class FOUNDATION_API AnonymousInternalException final : public T,
                                                        public IInternalException,
                                                        public BoostExceptionBase<T> {
public:
  template <class... Args>
  explicit AnonymousInternalException(Args&&... args) : T(std::forward<Args>(args)...) {}

  char const* what() const noexcept override { return T::what(); }
  std::unique_ptr<IException> cloneException() const override {
    return std::make_unique<AnonymousInternalException>(*this);
  }
  [[noreturn]] void rethrowException() const override { throw AnonymousInternalException(*this); }
};

} // namespace detail

/// The readable UTF-16 text of any foundation exception.
FOUNDATION_API std::u16string toUstring(IException const& e);
/// The readable text of any foundation exception, as UTF-8.
FOUNDATION_API std::string toString(IException const& e);

} // namespace foundation::core::except
