#pragma once

// Folder listings: lazily advancing, re-iterable sequences of a folder's children, as the
// listing members of Folder return them. The element type is one of File, Folder,
// FileOrFolder, FileEntry, FolderEntry, FileOrFolderEntry and ListEntry.

#include <foundation/core/visibility.hpp>

#include <cstddef>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <utility>

namespace foundation::storage::vfs {

namespace detail {

/// A position in a listing. Implementations compare only with their own kind
/// (std::bad_cast otherwise). Used by one thread at a time.
template <class T>
class FOUNDATION_API IFolderIteratorImpl {
public:
  /// Moves to the next element; provider failures arrive as the library's Exception.
  virtual void increment() = 0;
  virtual bool equal(IFolderIteratorImpl const& other) const = 0;
  virtual T const& dereference() const = 0;
  /// An independent copy at the same position.
  virtual std::shared_ptr<IFolderIteratorImpl> cloneImpl() const = 0;
  /// A fresh position standing for the end of this sequence.
  virtual std::shared_ptr<IFolderIteratorImpl> buildEndIterator() const = 0;
  virtual ~IFolderIteratorImpl() = default;
  /// Whether no element is left at this position (true for an end position).
  virtual bool exhausted() const = 0;
};

/// A position of no folder, at its end: the beginning and the end of an empty listing made
/// by default.
template <class T>
FOUNDATION_API std::shared_ptr<IFolderIteratorImpl<T>> emptyListingPosition();

} // namespace detail

/// An input iterator over a FolderListing. A copy is an independent position (the
/// implementation is cloned); a moved-from iterator may only be assigned or destroyed.
/// Iterators compare equal when they stand on the same element object (identity, not
/// value) of the same listing, or both at its end. Advancing an iterator at the end leaves
/// it there (except in a tree listing the library walks, see FolderListing); dereferencing
/// it throws std::logic_error.
template <class T>
class FolderListingIterator {
public:
  using iterator_category = std::input_iterator_tag;
  using value_type = T;
  using difference_type = std::ptrdiff_t;
  using pointer = T const*;
  using reference = T const&;

  /// A singular iterator: equal only to other singular iterators.
  FolderListingIterator() = default;
  FolderListingIterator(std::shared_ptr<detail::IFolderIteratorImpl<T>> impl, bool singular)
      : impl_(std::move(impl)), singular_(singular) {}
  FolderListingIterator(FolderListingIterator const& other)
      : impl_(other.impl_ ? other.impl_->cloneImpl() : nullptr), singular_(other.singular_) {}
  FolderListingIterator(FolderListingIterator&&) noexcept = default;
  FolderListingIterator& operator=(FolderListingIterator const& other) {
    if (this != &other) *this = FolderListingIterator(other);
    return *this;
  }
  FolderListingIterator& operator=(FolderListingIterator&&) noexcept = default;
  ~FolderListingIterator() = default;

  reference operator*() const { return checked().dereference(); }
  pointer operator->() const { return &checked().dereference(); }
  FolderListingIterator& operator++() {
    checked().increment();
    return *this;
  }
  FolderListingIterator operator++(int) {
    FolderListingIterator before(*this);
    ++*this;
    return before;
  }

  /// Whether no element is left. The only reliable test for the end of a tree listing
  /// walked by the library (see Folder::listAllRecursive); for every other listing it
  /// agrees with comparing to `end()`.
  bool exhausted() const { return singular_ || !impl_ || impl_->exhausted(); }

  friend bool operator==(FolderListingIterator const& a, FolderListingIterator const& b) {
    if (a.singular_ || b.singular_) return a.singular_ == b.singular_;
    return a.checked().equal(b.checked());
  }

private:
  detail::IFolderIteratorImpl<T>& checked() const {
    if (!impl_) throw std::logic_error("Cannot use a singular or moved-from FolderListingIterator.");
    return *impl_;
  }

  std::shared_ptr<detail::IFolderIteratorImpl<T>> impl_;
  bool singular_ = true;
};

/// The children of a folder, listed lazily: elements are built one at a time as an
/// iteration advances. Every `begin()` starts again at the first element, and iterations
/// do not disturb each other. Copies share the listing.
///
/// Tree listings (Folder::listAllRecursive, Folder::listAllEntriesRecursive) on a provider
/// that cannot list trees itself are walked by the library, and then an iterator never
/// compares equal to `end()`, not even once every element has been yielded; dereferencing
/// or advancing it then throws std::logic_error. Iterate such listings with
/// `for (auto it = listing.begin(); !it.exhausted(); ++it)`, which works for every listing.
template <class T>
class FolderListing {
public:
  using value_type = T;
  using iterator = FolderListingIterator<T>;
  using const_iterator = iterator;

  /// An empty listing; its iterators, like every listing's, are not singular.
  FolderListing() = default;
  /// Starts at `impl` (which must already stand on the first element).
  explicit FolderListing(std::shared_ptr<detail::IFolderIteratorImpl<T>> const& impl)
      : begin_(impl), end_(impl->buildEndIterator()) {}

  bool empty() const { return !begin_ || begin_->equal(*end_); }
  iterator begin() const { return iterator(begin_ ? begin_->cloneImpl() : detail::emptyListingPosition<T>(), false); }
  iterator end() const { return iterator(end_ ? end_->cloneImpl() : detail::emptyListingPosition<T>(), false); }

private:
  std::shared_ptr<detail::IFolderIteratorImpl<T>> begin_; ///< never advanced
  std::shared_ptr<detail::IFolderIteratorImpl<T>> end_;
};

} // namespace foundation::storage::vfs
