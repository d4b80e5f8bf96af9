#include <foundation/storage/providers/common/change_subscriptions.hpp>

#include <algorithm>
#include <utility>

namespace foundation::storage::providers::common {

namespace {

bool wants(std::vector<events::Kind> const& kinds, events::Kind kind) {
  return kinds.empty() || std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}

/// Whether a folder subscription under `folderKey` hears of the item under `itemKey`.
bool covers(std::u16string const& folderKey, bool recursive, std::u16string const& itemKey) {
  if (itemKey == folderKey) return true;
  std::size_t const prefix = folderKey.ends_with(u'/') ? folderKey.size() : folderKey.size() + 1;
  if (itemKey.size() <= prefix || !itemKey.starts_with(folderKey) || itemKey[prefix - 1] != u'/') return false;
  return recursive || itemKey.find(u'/', prefix) == std::u16string::npos;
}

} // namespace

ChangeSubscriptions::ChangeSubscriptions(KeyOf keyOf) : keyOf_(std::move(keyOf)) {}

void ChangeSubscriptions::subscribeFile(p::StorageIRI const& file, p::ChangeCallback callback,
                                        std::vector<events::Kind> kinds) {
  std::u16string key = keyOf_(file);
  std::lock_guard lock(subscriptionsMutex_);
  files_[std::move(key)] = Subscription{file, std::move(kinds), false, std::move(callback)};
  recount();
}

void ChangeSubscriptions::subscribeFolder(p::StorageIRI const& folder, p::ChangeCallback callback,
                                          std::vector<events::Kind> kinds, bool recursive) {
  std::u16string key = keyOf_(folder);
  std::lock_guard lock(subscriptionsMutex_);
  folders_[std::move(key)] = Subscription{folder, std::move(kinds), recursive, std::move(callback)};
  recount();
}

void ChangeSubscriptions::unsubscribeFile(p::StorageIRI const& file) {
  std::u16string const key = keyOf_(file);
  std::lock_guard lock(subscriptionsMutex_);
  files_.erase(key);
  recount();
}

void ChangeSubscriptions::unsubscribeFolder(p::StorageIRI const& folder) {
  std::u16string const key = keyOf_(folder);
  std::lock_guard lock(subscriptionsMutex_);
  folders_.erase(key);
  recount();
}

void ChangeSubscriptions::clear() {
  std::lock_guard lock(subscriptionsMutex_);
  files_.clear();
  folders_.clear();
  recount();
}

void ChangeSubscriptions::recount() { count_.store(files_.size() + folders_.size(), std::memory_order_release); }

void ChangeSubscriptions::enqueue(std::vector<Change>&& changes) {
  std::lock_guard lock(queueMutex_);
  for (auto& change : changes) pending_.push_back(std::move(change));
}

void ChangeSubscriptions::deliverPending() {
  std::unique_lock lock(queueMutex_);
  if (delivering_) return;
  delivering_ = true;
  while (!pending_.empty()) {
    Change change = std::move(pending_.front());
    pending_.pop_front();
    lock.unlock();
    try {
      deliver(change);
    } catch (...) {
      // A change is delivered at most once; failing to deliver one must not stop the others.
    }
    lock.lock();
  }
  delivering_ = false;
}

void ChangeSubscriptions::deliver(Change const& change) const {
  bool const renamed = change.kind == events::Kind::Renamed;
  std::vector<std::pair<p::ChangeCallback, p::StorageIRI>> targets;
  {
    std::lock_guard lock(subscriptionsMutex_);
    if (files_.empty() && folders_.empty()) return;
    std::u16string const itemKey = keyOf_(change.item);
    std::u16string const fromKey = renamed ? keyOf_(change.renamedFrom) : std::u16string();
    for (auto const& [key, subscription] : files_)
      if ((key == itemKey || (renamed && key == fromKey)) && wants(subscription.kinds, change.kind))
        targets.emplace_back(subscription.callback, subscription.location);
    for (auto const& [key, subscription] : folders_)
      if ((covers(key, subscription.recursive, itemKey) || (renamed && covers(key, subscription.recursive, fromKey))) &&
          wants(subscription.kinds, change.kind))
        targets.emplace_back(subscription.callback, subscription.location);
  }
  boost::property_tree::ptree extra;
  if (renamed) extra.put("renamedFrom", change.renamedFrom.toIRI());
  for (auto const& [callback, location] : targets) {
    try {
      callback(change.kind, location, change.item, change.type, extra);
    } catch (...) {
      // A subscriber's failure is its own: the change stands and the others still hear of it.
    }
  }
}

} // namespace foundation::storage::providers::common
