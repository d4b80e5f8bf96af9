#pragma once

// A tree copy's files made durable together: where the destination's provider batches
// durability, its files land without a flush each and one flush at the end covers them all.

#include <foundation/storage/provider/storage_item.hpp>

#include <utility>

namespace foundation::storage::vfs::detail {

class DurabilityBatch {
public:
  explicit DurabilityBatch(provider::StorageItem const& destination)
      : batching_(dynamic_cast<provider::extensions::IDurabilityBatching*>(destination.getProvider().get())),
        location_(destination.getLocation()) {
    if (batching_) batching_->beginDurabilityBatch();
  }
  DurabilityBatch(DurabilityBatch const&) = delete;
  DurabilityBatch& operator=(DurabilityBatch const&) = delete;
  /// Work that did not complete needs no flush: nothing relies on it.
  ~DurabilityBatch() {
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
