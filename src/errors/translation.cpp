#include "errors/invalid_iri.hpp"

#include <fl/i18n/i18n.hpp>

#include <boost/exception/diagnostic_information.hpp>
#include <boost/exception/errinfo_nested_exception.hpp>

#include <sstream>

namespace foundation::storage::vfs {

namespace {

/// The full story of an internal or unknown provider failure. Composed, then deliberately
/// not shown anywhere: the hook where diagnostics would attach it.
void composeDiagnostic(AbsoluteIRI const& location, provider::Exception const& failure) {
  std::ostringstream text;
  text << "Internal or Unknown error while operating on " << location << "\n"
       << boost::diagnostic_information(failure, true);
}

} // namespace

void handleException() {
  try {
    throw;
  } catch (provider::Exception const& failure) {
    // Without a location there is no library Exception to build; the text and the nested
    // failure keep its code, location and contexts.
    if (!failure.getStorageIRI().hasPath())
      throw detail::InvalidIRI(fl::i18n::to_ustring(failure.what()))
          << boost::errinfo_nested_exception(failure.copyAsExceptionPtr());
    AbsoluteIRI const location(failure.getStorageIRI(), true);
    auto const code = failure.getErrorCode();
    if (code == provider::ErrorCode::InternalError || code == provider::ErrorCode::Unknown)
      composeDiagnostic(location, failure);
    throw Exception(getConvertedCode(code), location).withExceptionContexts(failure.getAllExceptionContexts());
  } catch (provider::ChangeEventsNotSupportedException const& failure) {
    throw ChangeEventsNotSupportedException(AbsoluteIRI(failure.getStorageIRI(), true))
        << boost::errinfo_nested_exception(failure.copyAsExceptionPtr());
  } catch (provider::ChangeEventsSubscriptionException const& failure) {
    throw ChangeEventsSubscriptionException(AbsoluteIRI(failure.getStorageIRI(), true))
        << boost::errinfo_nested_exception(failure.copyAsExceptionPtr());
  } catch (provider::ByteStreamFailure const&) {
    handleByteStreamException();
  }
}

void handleByteStreamException() {
  try {
    throw;
  } catch (provider::ByteStreamReadFailure const& failure) {
    throw IOReadException(failure.what(), getConvertedCode(failure.getErrorCode()));
  } catch (provider::ByteStreamWriteFailure const& failure) {
    throw IOWriteException(failure.what(), getConvertedCode(failure.getErrorCode()));
  } catch (provider::ByteStreamSeekFailure const& failure) {
    throw IOSeekException(failure.what(), getConvertedCode(failure.getErrorCode()));
  } catch (provider::ByteStreamCloseFailure const& failure) {
    throw IOCloseException(failure.what(), getConvertedCode(failure.getErrorCode()));
  }
}

} // namespace foundation::storage::vfs
