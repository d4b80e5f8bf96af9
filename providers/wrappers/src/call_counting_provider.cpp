#include <foundation/storage/providers/wrappers/call_counting_provider.hpp>

namespace foundation::storage::providers::wrappers {

std::size_t CallCountingProvider::count(Operation op) const noexcept {
  return counts_[static_cast<std::size_t>(op)].load(std::memory_order_relaxed);
}

std::size_t CallCountingProvider::total() const noexcept {
  std::size_t sum = 0;
  for (auto const& c : counts_) sum += c.load(std::memory_order_relaxed);
  return sum;
}

void CallCountingProvider::reset() noexcept {
  for (auto& c : counts_) c.store(0, std::memory_order_relaxed);
}

void CallCountingProvider::beforeCall(Operation op, provider::StorageIRI const&) {
  counts_[static_cast<std::size_t>(op)].fetch_add(1, std::memory_order_relaxed);
}

} // namespace foundation::storage::providers::wrappers
