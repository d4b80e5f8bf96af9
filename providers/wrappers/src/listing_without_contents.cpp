#include "listing_without_contents.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace foundation::storage::providers::wrappers::detail {

bool ListingWithoutContents::Filter::shows(p::FolderEntry const& entry) const {
  p::StorageIRI const location(root, entry.getName());
  return std::ranges::none_of(closed, [&](p::StorageIRI const& folder) { return folder.isAncestorOf(location); });
}

ListingWithoutContents::ListingWithoutContents(std::unique_ptr<p::IFolderEntryIterator> inner, p::StorageIRI root,
                                               std::vector<p::StorageIRI> closed)
    : filter_(std::make_shared<Filter const>(Filter{std::move(root), std::move(closed)})), inner_(std::move(inner)) {}

ListingWithoutContents::ListingWithoutContents(ListingWithoutContents const& other)
    : filter_(other.filter_), inner_(other.inner_->clone()),
      current_(other.current_ ? std::make_unique<p::FolderEntry>(*other.current_) : nullptr),
      aheadKnown_(other.aheadKnown_), ahead_(other.ahead_ ? std::make_unique<p::FolderEntry>(*other.ahead_) : nullptr),
      aheadFailure_(other.aheadFailure_) {}

void ListingWithoutContents::lookAhead() const {
  if (aheadKnown_) return;
  while (inner_->hasNext()) {
    inner_->next();
    auto entry = inner_->current();
    if (filter_->shows(entry)) {
      ahead_ = std::make_unique<p::FolderEntry>(std::move(entry));
      break;
    }
  }
  aheadKnown_ = true;
}

p::FolderEntry const& ListingWithoutContents::current() const {
  if (!current_) throw std::logic_error("listing cursor is before its first entry");
  return *current_;
}

bool ListingWithoutContents::hasNext() const {
  try {
    lookAhead();
  } catch (...) {
    // Kept for `next`, where the listing below would have reported it.
    aheadFailure_ = std::current_exception();
    aheadKnown_ = true;
  }
  return ahead_ || aheadFailure_;
}

void ListingWithoutContents::next() {
  lookAhead();
  aheadKnown_ = false;
  if (auto failure = std::exchange(aheadFailure_, nullptr)) std::rethrow_exception(failure);
  if (!ahead_) throw std::logic_error("listing cursor moved past its last entry");
  current_ = std::move(ahead_);
}

std::unique_ptr<p::IFolderEntryIterator> ListingWithoutContents::clone() const {
  return std::unique_ptr<p::IFolderEntryIterator>(new ListingWithoutContents(*this));
}

} // namespace foundation::storage::providers::wrappers::detail
