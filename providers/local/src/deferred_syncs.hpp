#pragma once

// Durability batches of the calling thread: while one is open, files that land without
// replacing anything skip their own fsyncs, and the batch remembers their file systems so
// that closing it makes them durable with one syncfs each. A tree copy then costs one flush
// instead of two per file (on a disk without a write cache that is the whole difference to
// `cp -r`).

namespace foundation::storage::providers::local::detail {

void beginDurabilityBatch() noexcept;

/// Whether a batch is open on this thread.
bool durabilityBatchOpen() noexcept;

/// Remembers the file system of the folder `dirfd`, where a file landed without its own
/// sync; 0 or an errno value (then the caller syncs at once).
int deferDurability(int dirfd) noexcept;

/// Closes a batch; the outermost close syncs every remembered file system when
/// `makeDurable`, else forgets them. 0 or the first errno value.
int endDurabilityBatch(bool makeDurable) noexcept;

} // namespace foundation::storage::providers::local::detail
