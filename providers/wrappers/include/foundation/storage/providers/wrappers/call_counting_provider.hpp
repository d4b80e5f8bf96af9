#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/forwarding_provider.hpp>

#include <array>
#include <atomic>

namespace foundation::storage::providers::wrappers {

using provider::Operation;

/// Counts every call per operation before passing it on (failed calls count too), so that
/// a test can prove that a path makes no extra round trip. Thread-safe.
class FOUNDATION_API CallCountingProvider final : public provider::ForwardingProvider {
public:
  using ForwardingProvider::ForwardingProvider;

  std::size_t count(Operation op) const noexcept;
  /// Calls of every operation together.
  std::size_t total() const noexcept;
  void reset() noexcept;

protected:
  void beforeCall(Operation op, provider::StorageIRI const& location) override;

private:
  std::array<std::atomic<std::size_t>, provider::operationCount> counts_{};
};

} // namespace foundation::storage::providers::wrappers
