#pragma once

#include <boost/variant.hpp>

#include <atomic>
#include <functional>
#include <mutex>

namespace foundation::storage::vfs::detail {

/// A value computed on first use by a producer and kept from then on. Readers from several
/// threads see one value; the producer runs once per successful computation, and a producer
/// that throws is tried again on the next read. Readers that find the value take no lock.
template <class T>
class LazyValue {
public:
  using Producer = std::function<T()>;

  explicit LazyValue(Producer producer) : state_(std::move(producer)) {}
  explicit LazyValue(T value) : state_(std::move(value)), value_(&boost::get<T>(state_)) {}
  LazyValue(LazyValue const&) = delete;
  LazyValue& operator=(LazyValue const&) = delete;

  T const& get() const {
    if (T const* value = value_.load(std::memory_order_acquire)) return *value;
    std::lock_guard<std::mutex> lock(mutex_);
    if (T const* value = boost::get<T>(&state_)) return *value;
    auto const& producer = boost::get<Producer>(state_);
    if (!producer) throw std::bad_function_call();
#if defined(__GNUC__) && !defined(__clang__)
// GCC 12 takes Boost.Variant's backup copy of the producer for uninitialised.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
    state_ = producer(); // drops the producer and what it captured
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
    T const* value = &boost::get<T>(state_);
    value_.store(value, std::memory_order_release);
    return *value;
  }

private:
  mutable boost::variant<Producer, T> state_;
  mutable std::atomic<T const*> value_{nullptr};
  mutable std::mutex mutex_;
};

} // namespace foundation::storage::vfs::detail
