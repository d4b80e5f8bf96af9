#include "durability_ledger.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <vector>

namespace foundation::storage::providers::wrappers::detail {

namespace {

/// Providers act on the resolved path: `a/./b` and `a/b` are one file.
p::StorageIRI key(p::StorageIRI const& location) { return location.withPath(location.getResolvedPath()); }

bool atOrBelow(p::StorageIRI const& folder, p::StorageIRI const& location) {
  return folder == location || folder.isAncestorOf(location);
}

boost::optional<std::string> contentsOf(p::IProvider& storage, p::StorageIRI const& file) {
  if (!storage.fileExists(file)) return boost::none;
  auto stream = storage.openReadOnlyStream(file);
  std::string bytes;
  char buffer[65536];
  for (std::streamsize n; (n = stream->read(buffer, sizeof buffer)) > 0;)
    bytes.append(buffer, static_cast<std::size_t>(n));
  stream->close();
  return bytes;
}

void restore(p::IProvider& storage, p::StorageIRI const& file, boost::optional<std::string> const& contents) {
  if (!contents) {
    if (storage.fileExists(file)) storage.removeFile(file);
    return;
  }
  auto stream =
      storage.openTransactionalStream(file, {p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::CreateIfMissing,
                                             p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition});
  stream->write(contents->data(), static_cast<std::streamsize>(contents->size()));
  stream->close(p::StreamClosePolicy::Commit);
}

} // namespace

void DurabilityLedger::changingInPlace(p::StorageIRI const& file) {
  if (!tracking_) return;
  p::StorageIRI const where = key(file);
  {
    std::lock_guard lock(mutex_);
    if (auto known = pending_.find(where); known != pending_.end()) {
      known->second.changedInPlace = true;
      return;
    }
  }
  // Not pending: what the storage holds now is durable. Read without the lock, which the
  // storage's own calls must never wait for.
  auto contents = contentsOf(*storage_, where);
  std::lock_guard lock(mutex_);
  auto [entry, made] = pending_.try_emplace(where);
  if (made) entry->second.durableContents = std::move(contents);
  entry->second.changedInPlace = true;
}

void DurabilityLedger::landed(p::StorageIRI const& file, bool replacedAFile) {
  if (!tracking_) return;
  auto const thread = std::this_thread::get_id();
  std::lock_guard lock(mutex_);
  auto depth = batchDepths_.find(thread);
  bool const inBatch = depth != batchDepths_.end() && depth->second > 0;
  // Outside a batch a landing is durable when it returns; inside one, a file that replaces
  // another is flushed first all the same.
  if (!inBatch || replacedAFile) {
    pending_.erase(key(file));
    return;
  }
  // Nothing was there: unless already pending, its absence was durable.
  pending_.try_emplace(key(file)).first->second.batch = thread;
}

void DurabilityLedger::forget(p::StorageIRI const& location) {
  if (!tracking_) return;
  p::StorageIRI const where = key(location);
  std::lock_guard lock(mutex_);
  std::erase_if(pending_, [&](auto const& entry) { return atOrBelow(where, entry.first); });
}

void DurabilityLedger::flushed() {
  std::lock_guard lock(mutex_);
  pending_.clear();
}

void DurabilityLedger::beginBatch() {
  std::lock_guard lock(mutex_);
  ++batchDepths_[std::this_thread::get_id()];
}

void DurabilityLedger::endBatch(bool durable) noexcept {
  auto const thread = std::this_thread::get_id();
  std::lock_guard lock(mutex_);
  auto depth = batchDepths_.find(thread);
  if (depth == batchDepths_.end() || --depth->second > 0) return; // none open (a crash ended it), or nested
  batchDepths_.erase(depth);
  for (auto it = pending_.begin(); it != pending_.end();) {
    Pending& entry = it->second;
    if (entry.batch == thread) {
      entry.batch.reset(); // abandoned: pending until a flush
      if (durable && !entry.changedInPlace) {
        it = pending_.erase(it);
        continue;
      }
    }
    ++it;
  }
}

void DurabilityLedger::crash() {
  std::map<p::StorageIRI, Pending> lost;
  {
    std::lock_guard lock(mutex_);
    ++crashes_;
    lost.swap(pending_);
    batchDepths_.clear();
  }
  for (auto const& [file, entry] : lost) restore(*storage_, file, entry.durableContents);
}

} // namespace foundation::storage::providers::wrappers::detail
