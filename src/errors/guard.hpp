#pragma once

// The one guard around every call into a provider.

#include <vfs/exceptions.hpp>

#include <utility>

namespace foundation::storage::vfs::detail {

/// Runs `call`; whatever escapes it leaves translated by handleException().
template <class Call>
decltype(auto) guarded(Call&& call) {
  try {
    return std::forward<Call>(call)();
  } catch (...) {
    handleException();
  }
}

/// Runs `call`; a provider failure that escapes it leaves translated, anything else as it
/// was thrown.
template <class Call>
decltype(auto) guardedProviderFailures(Call&& call) {
  try {
    return std::forward<Call>(call)();
  } catch (provider::Exception const&) {
    handleException();
  }
}

} // namespace foundation::storage::vfs::detail
