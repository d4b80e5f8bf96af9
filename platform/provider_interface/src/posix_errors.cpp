#include <foundation/storage/provider/posix_errors.hpp>

#include <foundation/storage/provider/error_code_table.hpp>

#include <system_error>

namespace foundation::storage::provider {

namespace {

struct ErrnoRow {
  ErrorCode code;
  error_code_table::Errnos errnos;
};

constexpr ErrnoRow errnoRows[] = {
#define FOUNDATION_STORAGE_ERRNO_ROW(name, providerValue, libraryValue, failureClass, ...)                             \
  {ErrorCode::name, {__VA_ARGS__}},
    FOUNDATION_STORAGE_ERROR_CODES(FOUNDATION_STORAGE_ERRNO_ROW)
#undef FOUNDATION_STORAGE_ERRNO_ROW
};

/// Whether no errno value is listed for two codes (on systems where two names are one
/// value, such as ENOTSUP and EOPNOTSUPP, they must share a row).
constexpr bool everyErrnoMeansOneCode() {
  for (ErrnoRow const& a : errnoRows)
    for (ErrnoRow const& b : errnoRows)
      if (a.code != b.code)
        for (int x : a.errnos)
          for (int y : b.errnos)
            if (x != 0 && x == y) return false;
  return true;
}
static_assert(everyErrnoMeansOneCode(), "an errno value is listed for two codes");

} // namespace

ErrorCode errorCodeFromErrno(int error) noexcept {
  if (error > 0)
    for (ErrnoRow const& row : errnoRows)
      for (int meaning : row.errnos)
        if (meaning == error) return row.code;
  return ErrorCode::Unknown;
}

void failWithErrno(int error, StorageIRI const& location, std::u16string call) {
  fail(errorCodeFromErrno(error), location, std::move(call), std::generic_category().message(error));
}

} // namespace foundation::storage::provider
