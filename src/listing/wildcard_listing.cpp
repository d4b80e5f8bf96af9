#include "listing/wildcard_listing.hpp"

#include <foundation/storage/provider/wildcard.hpp>

#include <stdexcept>
#include <typeinfo>

namespace foundation::storage::vfs::detail {

bool WildcardMatchingFilter::matches(std::u16string const& name) const {
  return provider::matchesWildcard(pattern_, name);
}

bool WildcardMatchingFilter::operator()(File const& element) const { return matches(element.getName()); }
bool WildcardMatchingFilter::operator()(Folder const& element) const { return matches(element.getName()); }
bool WildcardMatchingFilter::operator()(FileOrFolder const& element) const {
  return matches(getLocation(element).getName());
}
// Entries are tested by their handle's name, which builds the handle on purpose: the
// caller is about to use it.
bool WildcardMatchingFilter::operator()(FileEntry const& element) const { return matches(element.getFile().getName()); }
bool WildcardMatchingFilter::operator()(FolderEntry const& element) const {
  return matches(element.getFolder().getName());
}
bool WildcardMatchingFilter::operator()(FileOrFolderEntry const& element) const {
  return matches(getLocation(element).getName());
}
bool WildcardMatchingFilter::operator()(ListEntry const& element) const { return matches(element.getFilename()); }

template <class T>
FolderIteratorWildcardsImpl<T>::FilterImpl::FilterImpl(std::u16string const& pattern, FolderListingIterator<T> begin,
                                                       FolderListingIterator<T> end)
    : current_(std::move(begin)), predicate_(pattern), end_(std::move(end)) {
  skip();
}

template <class T>
FolderIteratorWildcardsImpl<T>::FilterImpl::FilterImpl(FolderListingIterator<T> current,
                                                       WildcardMatchingFilter predicate, FolderListingIterator<T> end)
    : current_(std::move(current)), predicate_(std::move(predicate)), end_(std::move(end)) {}

template <class T>
void FolderIteratorWildcardsImpl<T>::FilterImpl::skip() {
  // An exhausted position counts as the end too: a tree walked by the library never
  // compares equal to its end.
  while (!(current_ == end_) && !current_.exhausted() && !predicate_(*current_)) ++current_;
}

template <class T>
void FolderIteratorWildcardsImpl<T>::FilterImpl::increment() {
  ++current_;
  skip();
}

template <class T>
bool FolderIteratorWildcardsImpl<T>::FilterImpl::equal(FilterImpl const& other) const {
  return current_ == other.current_;
}

template <class T>
T const& FolderIteratorWildcardsImpl<T>::FilterImpl::retrieve() const {
  return *current_;
}

template <class T>
bool FolderIteratorWildcardsImpl<T>::FilterImpl::exhausted() const {
  return current_.exhausted();
}

template <class T>
auto FolderIteratorWildcardsImpl<T>::FilterImpl::clone() const -> std::shared_ptr<FilterImpl> {
  return std::shared_ptr<FilterImpl>(new FilterImpl(current_, predicate_, end_));
}

template <class T>
FolderIteratorWildcardsImpl<T>::FolderIteratorWildcardsImpl(std::shared_ptr<IFolderIteratorImpl<T>> inner,
                                                            std::u16string pattern)
    : inner_(std::move(inner)), pattern_(std::move(pattern)),
      filter_(std::make_shared<FilterImpl>(pattern_, FolderListingIterator<T>(inner_->cloneImpl(), false),
                                           FolderListingIterator<T>(inner_->buildEndIterator(), false))) {}

template <class T>
FolderIteratorWildcardsImpl<T>::FolderIteratorWildcardsImpl(std::shared_ptr<FilterImpl> filter)
    : filter_(std::move(filter)) {}

template <class T>
auto FolderIteratorWildcardsImpl<T>::filter() const -> FilterImpl& {
  if (!filter_) throw std::logic_error("Cannot use an empty filtered listing position.");
  return *filter_;
}

template <class T>
void FolderIteratorWildcardsImpl<T>::increment() {
  filter().increment();
}

template <class T>
bool FolderIteratorWildcardsImpl<T>::equal(IFolderIteratorImpl<T> const& other) const {
  return filter().equal(dynamic_cast<FolderIteratorWildcardsImpl const&>(other).filter());
}

template <class T>
T const& FolderIteratorWildcardsImpl<T>::dereference() const {
  return filter().retrieve();
}

template <class T>
std::shared_ptr<IFolderIteratorImpl<T>> FolderIteratorWildcardsImpl<T>::cloneImpl() const {
  auto copy = std::make_shared<FolderIteratorWildcardsImpl>(filter().clone());
  copy->inner_ = inner_; // so that a copy can tell its end, too
  copy->pattern_ = pattern_;
  return copy;
}

template <class T>
std::shared_ptr<IFolderIteratorImpl<T>> FolderIteratorWildcardsImpl<T>::buildEndIterator() const {
  if (!inner_) throw std::logic_error("An empty filtered listing position has no end.");
  return std::make_shared<FolderIteratorWildcardsImpl>(inner_->buildEndIterator(), pattern_);
}

template <class T>
bool FolderIteratorWildcardsImpl<T>::exhausted() const {
  return filter().exhausted();
}

#define VFS_DEFINE_WILDCARD_LISTING(T) template class FolderIteratorWildcardsImpl<T>;
VFS_FOR_EACH_ELEMENT_TYPE(VFS_DEFINE_WILDCARD_LISTING)
#undef VFS_DEFINE_WILDCARD_LISTING

} // namespace foundation::storage::vfs::detail
