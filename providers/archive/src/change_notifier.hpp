#pragma once

// Native change reporting for the archive provider: subscriptions per file or folder,
// told about each change after the provider made it.

#include <foundation/storage/provider/provider.hpp>

#include <map>
#include <mutex>
#include <vector>

namespace foundation::storage::providers::archive::detail {

namespace p = foundation::storage::provider;

/// One change to report.
struct Change {
  events::Kind kind;
  p::StorageIRI item;
  events::EntryType type;
  p::StorageIRI renamedFrom; ///< for Renamed
};

class ChangeNotifier {
public:
  void watchFile(p::StorageIRI const& file, p::ChangeCallback callback, std::vector<events::Kind> kinds);
  void watchFolder(p::StorageIRI const& folder, p::ChangeCallback callback, std::vector<events::Kind> kinds,
                   bool recursive);
  void stopFile(p::StorageIRI const& file);
  void stopFolder(p::StorageIRI const& folder);
  void stopAll();
  /// Tells every matching subscription, on the calling thread, with no lock held.
  void notify(std::vector<Change> const& changes) const;

private:
  struct Subscription {
    p::ChangeCallback callback;
    std::vector<events::Kind> kinds;
    bool recursive = false;
  };

  mutable std::mutex mutex_;
  std::map<p::StorageIRI, Subscription> files_;
  std::map<p::StorageIRI, Subscription> folders_;
};

} // namespace foundation::storage::providers::archive::detail
