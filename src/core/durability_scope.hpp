#pragma once

// A tree copy's files made durable together: where the destination's provider batches
// durability, its files land without a flush each and one flush at the end covers them all.

#include <foundation/storage/provider/storage_item.hpp>

#include <utility>

namespace foundation::storage::vfs::detail {

class DurabilityScope {
public:
  explicit DurabilityScope(provider::StorageItem const& destination)
      : batching_(dynamic_cast<provider::extensions::IDurabilityBatching*>(destination.getProvider().get())),
        location_(destination.getLocation()) {
    if (batching_) batching_->beginDurabilityBatch();
  }
  DurabilityScope(DurabilityScope const&) = delete;
  DurabilityScope& operator=(DurabilityScope const&) = delete;
  /// Work that did not complete needs no flush: nothing relies on it.
  ~DurabilityScope() {
    if (batching_) batching_->abandonDurabilityBatch();
  }

  /// Everything landed in the batch is durable once this returns.
  void complete() {
    if (auto* batching = std::exchange(batching_, nullptr)) batching->endDurabilityBatch(location_);
  }

private:
  provider::extensions::IDurabilityBatching* batching_;
  provider::StorageIRI location_;
};

} // namespace foundation::storage::vfs::detail
