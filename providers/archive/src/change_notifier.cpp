#include "change_notifier.hpp"

#include <algorithm>

namespace foundation::storage::providers::archive::detail {

namespace {

bool wants(std::vector<events::Kind> const& kinds, events::Kind kind) {
  return kinds.empty() || std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}

} // namespace

void ChangeNotifier::watchFile(p::StorageIRI const& file, p::ChangeCallback callback, std::vector<events::Kind> kinds) {
  std::lock_guard lock(mutex_);
  files_[file] = {std::move(callback), std::move(kinds), false};
}

void ChangeNotifier::watchFolder(p::StorageIRI const& folder, p::ChangeCallback callback,
                                 std::vector<events::Kind> kinds, bool recursive) {
  std::lock_guard lock(mutex_);
  folders_[folder] = {std::move(callback), std::move(kinds), recursive};
}

void ChangeNotifier::stopFile(p::StorageIRI const& file) {
  std::lock_guard lock(mutex_);
  files_.erase(file);
}

void ChangeNotifier::stopFolder(p::StorageIRI const& folder) {
  std::lock_guard lock(mutex_);
  folders_.erase(folder);
}

void ChangeNotifier::stopAll() {
  std::lock_guard lock(mutex_);
  files_.clear();
  folders_.clear();
}

void ChangeNotifier::notify(std::vector<Change> const& changes) const {
  for (Change const& change : changes) {
    std::vector<std::pair<p::StorageIRI, p::ChangeCallback>> targets;
    {
      std::lock_guard lock(mutex_);
      if (auto file = files_.find(change.item); file != files_.end() && wants(file->second.kinds, change.kind))
        targets.emplace_back(file->first, file->second.callback);
      for (auto const& [folder, subscription] : folders_) {
        bool const covers = subscription.recursive ? folder.isAncestorOf(change.item)
                                                   : change.item.hasParent() && change.item.getParent() == folder;
        if (covers && wants(subscription.kinds, change.kind)) targets.emplace_back(folder, subscription.callback);
      }
    }
    boost::property_tree::ptree extra;
    if (change.kind == events::Kind::Renamed) extra.put("renamedFrom", change.renamedFrom.toIRI());
    for (auto const& [subscription, callback] : targets) {
      try {
        callback(change.kind, subscription, change.item, change.type, extra);
      } catch (...) {
        // A listener's failure is its own; the others are still told.
      }
    }
  }
}

} // namespace foundation::storage::providers::archive::detail
