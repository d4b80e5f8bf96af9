#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/exceptions.hpp>

namespace foundation::storage::provider {

/// The provider code for a POSIX errno value, as the rows of error_code_table.hpp list them
/// (ENOENT ResourceNotFound, EACCES PermissionDenied, EXDEV UnsupportedOperation, ...);
/// anything else, and 0, is Unknown.
FOUNDATION_API ErrorCode errorCodeFromErrno(int error) noexcept;

/// Throws the provider Exception for `error` at `location` with the context `call` (for
/// example u"local.openStream") and the system's message for the error.
[[noreturn]] FOUNDATION_API void failWithErrno(int error, StorageIRI const& location, std::u16string call);

} // namespace foundation::storage::provider
