#include "derived_listings.hpp"

#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/wildcard.hpp>

#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

namespace foundation::storage::provider::detail {

namespace {

std::u16string_view lastSegment(std::u16string const& name) {
  auto const slash = name.rfind(u'/');
  return slash == std::u16string::npos ? std::u16string_view(name) : std::u16string_view(name).substr(slash + 1);
}

/// Looks one entry ahead, so that `hasNext` can tell whether a wanted entry follows.
class FilteringCursor final : public IFolderEntryIterator {
public:
  FilteringCursor(std::unique_ptr<IFolderEntryIterator> inner, ListingRequest const& request, bool filterNames)
      : inner_(std::move(inner)), kinds_(request.kinds), pattern_(filterNames ? request.pattern : std::u16string()),
        filterNames_(filterNames && !request.pattern.empty()) {}

  FilteringCursor(FilteringCursor const& other)
      : inner_(other.inner_->clone()), kinds_(other.kinds_), pattern_(other.pattern_), filterNames_(other.filterNames_),
        current_(other.current_), started_(other.started_), ahead_(other.ahead_) {}

  FolderEntry const& current() const override {
    if (!started_) throw std::logic_error("listing cursor is before its first entry");
    return current_;
  }

  bool hasNext() const override {
    if (!ahead_) ahead_ = seekWanted();
    return *ahead_;
  }

  void next() override {
    if (!hasNext()) throw std::logic_error("listing cursor moved past its last entry");
    ahead_.reset();
    current_ = inner_->current();
    started_ = true;
  }

  std::unique_ptr<IFolderEntryIterator> clone() const override { return std::make_unique<FilteringCursor>(*this); }

private:
  bool wanted(FolderEntry const& entry) const {
    if (kinds_ != EntryKinds::All && (kinds_ == EntryKinds::Files) != entry.isFile()) return false;
    return !filterNames_ || matchesWildcard(pattern_, lastSegment(entry.getName()));
  }

  /// Moves the inner cursor onto the next wanted entry; false at the end.
  bool seekWanted() const {
    while (inner_->hasNext()) {
      inner_->next();
      if (wanted(inner_->current())) return true;
    }
    return false;
  }

  std::unique_ptr<IFolderEntryIterator> inner_;
  EntryKinds kinds_;
  std::u16string pattern_;
  bool filterNames_;
  FolderEntry current_{u"", true};
  bool started_ = false;
  mutable std::optional<bool> ahead_; ///< set once the inner cursor stands on the next wanted entry
};

/// One open folder of the walk: its relative path and its cursor.
struct Level {
  std::u16string path; ///< relative to the root; empty for the root
  std::unique_ptr<IFolderEntryIterator> cursor;
};

class RecursiveCursor final : public IFolderEntryIterator {
public:
  RecursiveCursor(StorageIRI root, FlatLister lister, bool withAttributes)
      : root_(std::move(root)), lister_(std::move(lister)), withAttributes_(withAttributes) {
    levels_.push_back({u"", lister_(root_)});
  }

  RecursiveCursor(RecursiveCursor const& other)
      : root_(other.root_), lister_(other.lister_), withAttributes_(other.withAttributes_), current_(other.current_),
        started_(other.started_), pendingFolder_(other.pendingFolder_) {
    levels_.reserve(other.levels_.size());
    for (auto const& level : other.levels_) levels_.push_back({level.path, level.cursor->clone()});
  }

  FolderEntry const& current() const override {
    if (!started_) throw std::logic_error("listing cursor is before its first entry");
    return current_;
  }

  bool hasNext() const override {
    enterPendingFolder();
    while (!levels_.empty()) {
      if (levels_.back().cursor->hasNext()) return true;
      levels_.pop_back();
    }
    return false;
  }

  void next() override {
    if (!hasNext()) throw std::logic_error("listing cursor moved past its last entry");
    auto& level = levels_.back();
    level.cursor->next();
    auto const& listed = level.cursor->current();
    // The folder is entered on the next move, so that its entry is served before its contents.
    pendingFolder_ = !listed.isFile() && !isLinkToFolder(listed);
    FolderEntry const& child = withAttributes_ ? listed : bare(listed);
    if (level.path.empty())
      current_ = child;
    else
      current_.assignBelow(level.path, child);
    started_ = true;
  }

  std::unique_ptr<IFolderEntryIterator> clone() const override { return std::make_unique<RecursiveCursor>(*this); }

private:
  /// `entry` without its attributes, in a buffer reused for every child.
  FolderEntry const& bare(FolderEntry const& entry) {
    bare_.assign(entry.getName(), entry.isFile());
    return bare_;
  }

  void enterPendingFolder() const {
    if (!pendingFolder_) return;
    std::u16string const& path = current_.getName();
    try {
      levels_.push_back({path, lister_(StorageIRI(root_, path))});
    } catch (Exception const& e) {
      // Another failure stays pending, so that asking again fails again instead of
      // silently leaving the folder's contents out.
      if (e.getErrorCode() != ErrorCode::ResourceNotFound) throw;
    }
    pendingFolder_ = false;
  }

  StorageIRI root_;
  FlatLister lister_;
  bool withAttributes_;
  mutable std::vector<Level> levels_; ///< the open folders, root first
  FolderEntry current_{u"", true};
  FolderEntry bare_{u"", true};
  bool started_ = false;
  mutable bool pendingFolder_ = false; ///< the current entry is a folder not entered yet
};

} // namespace

std::unique_ptr<IFolderEntryIterator> filterEntries(std::unique_ptr<IFolderEntryIterator> inner,
                                                    ListingRequest const& request, bool filterNames) {
  return std::make_unique<FilteringCursor>(std::move(inner), request, filterNames);
}

std::unique_ptr<IFolderEntryIterator> listBelow(StorageIRI const& root, FlatLister lister, bool withAttributes) {
  return std::make_unique<RecursiveCursor>(root, std::move(lister), withAttributes);
}

bool isLinkToFolder(FolderEntry const& entry) {
  auto const& attributes = entry.getFolderAttributes();
  return attributes && attributes->isSymlink();
}

} // namespace foundation::storage::provider::detail
