#pragma once

// What reached a provider without being durable yet, file by file, and the last durable
// contents of each, so that a simulated crash can put the provider back to what storage
// would hold after a power loss. Thread-safe.

#include <foundation/storage/provider/provider.hpp>

#include <boost/optional.hpp>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace foundation::storage::providers::wrappers::detail {

namespace p = foundation::storage::provider;

class DurabilityLedger {
public:
  explicit DurabilityLedger(std::shared_ptr<p::IProvider> storage) : storage_(std::move(storage)) {}

  /// Records from now on; before, everything counts as durable at once.
  void start() noexcept { tracking_ = true; }
  bool tracking() const noexcept { return tracking_; }
  /// Counts the crashes; streams opened before one die with it.
  std::uint64_t crashes() const noexcept { return crashes_; }

  /// `file` is about to change in place (plain stream, creation, truncation): durable at
  /// the next flush only.
  void changingInPlace(p::StorageIRI const& file);
  /// A commit or copy landed `file`; `replacedAFile` tells whether a file was there before.
  void landed(p::StorageIRI const& file, bool replacedAFile);
  /// `location` and everything below it was removed or moved away, durably.
  void forget(p::StorageIRI const& location);
  /// Everything written so far is durable.
  void flushed();

  void beginBatch();
  /// Closes the calling thread's batch; the outermost close makes what landed in it durable
  /// when `durable`, and leaves it pending otherwise.
  void endBatch(bool durable) noexcept;

  /// Drops what is not durable from the storage: files that never were durable go, the
  /// others get their last durable contents back. Open batches are forgotten.
  void crash();

private:
  struct Pending {
    boost::optional<std::string> durableContents; ///< none: no file was there, durably
    bool changedInPlace = false;                  ///< durable only at a flush
    boost::optional<std::thread::id> batch;       ///< landed in this thread's open batch
  };

  std::shared_ptr<p::IProvider> storage_;
  std::atomic<bool> tracking_ = false;
  std::atomic<std::uint64_t> crashes_ = 0;
  std::mutex mutex_;
  std::map<p::StorageIRI, Pending> pending_;   ///< by resolved location
  std::map<std::thread::id, int> batchDepths_; ///< open batches per thread
};

} // namespace foundation::storage::providers::wrappers::detail
